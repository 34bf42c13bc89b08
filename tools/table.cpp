#include "tools/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace tolm::tool {
namespace {

constexpr std::size_t kGap = 2;
constexpr char kOmission[] = "...";
constexpr std::size_t kOmissionColumns = 3;
constexpr std::size_t kWithoutTerminal = 100;
constexpr std::size_t kNarrowest = 20;
// Where nothing else is left to be shortened.
constexpr std::size_t kShortestName = 3;

bool BeginsCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

std::size_t ColumnsOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), BeginsCharacter));
}

// So many characters from the beginning.
std::string Head(const std::string& text, std::size_t count) {
  std::size_t at = 0;
  for (; at < text.size(); ++at) {
    if (BeginsCharacter(text[at]) && count-- == 0) {
      break;
    }
  }
  return text.substr(0, at);
}

std::string Tail(const std::string& text, std::size_t count) {
  return text.substr(Head(text, ColumnsOf(text) - count).size());
}

// What is left out stands in the middle: names begin alike, and end alike.
std::string Shortened(const std::string& text, std::size_t width) {
  if (ColumnsOf(text) <= width) {
    return text;
  }
  if (width <= kOmissionColumns) {
    return Head(text, width);
  }
  const std::size_t tail = (width - kOmissionColumns) / 2;
  return Head(text, width - kOmissionColumns - tail) + kOmission + Tail(text, tail);
}

std::size_t Sum(const std::vector<std::size_t>& widths) {
  return std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
}

}  // namespace

std::size_t Table::WidthOf(std::size_t column) const {
  std::size_t width = ColumnsOf(columns_[column].heading);
  for (const std::vector<std::string>& row : rows_) {
    width = std::max(width, ColumnsOf(row[column]));
  }
  return width;
}

std::string Table::Line(const std::vector<std::string>& row, const std::vector<std::size_t>& shown,
                        const std::vector<std::size_t>& widths) const {
  std::string line;
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const std::string text = Shortened(row[shown[i]], widths[i]);
    const std::string blanks(widths[i] - ColumnsOf(text), ' ');
    line += (i == 0 ? "" : std::string(kGap, ' ')) +
            (columns_[shown[i]].is_number ? blanks + text : text + blanks);
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

std::vector<std::string> Table::Lines(std::size_t width) const {
  std::vector<std::size_t> shown(columns_.size());
  std::iota(shown.begin(), shown.end(), 0);
  std::vector<std::size_t> widths;
  while (true) {
    widths.clear();
    std::transform(shown.begin(), shown.end(), std::back_inserter(widths),
                   [this](std::size_t column) { return WidthOf(column); });
    const std::size_t excess = Sum(widths) - std::min(Sum(widths), width);
    const std::size_t spare = widths[0] - std::min(widths[0], kLeastOfAName);
    const std::size_t before = widths[0];
    widths[0] -= std::min(excess, spare);
    const auto next = std::max_element(shown.begin(), shown.end(), [this](auto one, auto other) {
      return columns_[one].dispensable < columns_[other].dispensable;
    });
    if (excess <= spare) {
      break;
    }
    if (columns_[*next].dispensable == 0) {
      widths[0] = std::max(std::min(before, kShortestName), before - std::min(before, excess));
      break;
    }
    shown.erase(next);
  }
  std::vector<std::string> headings;
  std::transform(columns_.begin(), columns_.end(), std::back_inserter(headings),
                 [](const Column& column) { return column.heading; });
  std::vector<std::string> lines = {Head(Line(headings, shown, widths), width)};
  for (const std::vector<std::string>& row : rows_) {
    lines.push_back(Head(Line(row, shown, widths), width));
  }
  return lines;
}

std::size_t OutputColumns() {
  winsize size{};
  if (isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
      size.ws_col != 0) {
    return size.ws_col;
  }
  const char* stated = std::getenv("COLUMNS");
  const int columns = stated == nullptr ? 0 : std::atoi(stated);
  return columns > 0 ? std::max<std::size_t>(static_cast<std::size_t>(columns), kNarrowest)
                     : kWithoutTerminal;
}

}  // namespace tolm::tool
