#include "report/open_metrics.h"

#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string_view>

#include "base/utf8.h"

namespace tolm::report {
namespace {

constexpr std::array<std::string_view, 3> kUnits = {"seconds", "bytes", "ratio"};

bool IsName(std::string_view name) {
  return !name.empty() && (name.front() < '0' || name.front() > '9') &&
         name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") == std::string_view::npos;
}

void RequireName(std::string_view name) {
  if (!IsName(name)) {
    throw std::invalid_argument("no name of a metric or a label: " + std::string(name));
  }
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Nothing for what has none.
std::string_view UnitOf(std::string_view name) {
  for (const std::string_view unit : kUnits) {
    if (EndsWith(name, '_' + std::string(unit))) {
      return unit;
    }
  }
  return {};
}

std::string Escaped(const std::string& value) {
  std::string escaped;
  for (const char byte : base::PrintableLines(value)) {
    if (byte == '\n') {
      escaped += "\\n";
    } else if (byte == '\\' || byte == '"') {
      escaped += {'\\', byte};
    } else {
      escaped += byte;
    }
  }
  return escaped;
}

std::string LabelsText(const MetricLabels& labels) {
  std::string text;
  for (const auto& [name, value] : labels) {
    RequireName(name);
    text += (text.empty() ? "{" : ",") + std::string(name) + "=\"" + Escaped(value) + '"';
  }
  return text.empty() ? text : text + '}';
}

// The shortest digits that mean it; whole numbers without an exponent as far as they are exact.
std::string ValueText(double value) {
  constexpr double kExact = 9007199254740992;  // 2^53
  if (std::isnan(value)) {
    return "NaN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  std::array<char, 64> text{};
  const bool is_whole = std::fabs(value) < kExact && std::nearbyint(value) == value;
  const std::to_chars_result end =
      is_whole ? std::to_chars(text.begin(), text.end(), static_cast<long long>(value))
               : std::to_chars(text.begin(), text.end(), value);
  return std::string(text.data(), end.ptr);
}

std::string HeadOf(const MetricFamily& family) {
  RequireName(family.name);
  const std::string name = family.name;
  const std::string_view unit = UnitOf(name);
  return "# TYPE " + name + " gauge\n" +
         (unit.empty() ? "" : "# UNIT " + name + ' ' + std::string(unit) + '\n') + "# HELP " +
         name + ' ' + family.help + '\n';
}

}  // namespace

void OpenMetrics::Add(const MetricFamily& family, const MetricLabels& labels, double value) {
  const std::string head = HeadOf(family);
  MetricLabels all = labels;
  all.insert(all.end(), common_.begin(), common_.end());
  const std::string series = family.name + LabelsText(all);
  const auto [place, is_new] = places_.emplace(family.name, families_.size());
  if (is_new) {
    families_.push_back({head, "", {}});
  }
  Family& of_name = families_[place->second];
  if (of_name.series.insert(series).second) {
    of_name.samples += series + ' ' + ValueText(value) + '\n';
  }
}

std::string OpenMetrics::Text() const {
  std::string text;
  for (const Family& family : families_) {
    text += family.head + family.samples;
  }
  return text + "# EOF\n";
}

}  // namespace tolm::report
