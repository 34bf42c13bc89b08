#include "report/chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <optional>

#include "base/human_text.h"

namespace tolm::report {
namespace {

// In pixels.
constexpr double kPlotHeight = 110;
constexpr double kHeight = 134;
constexpr double kTop = 8;  // Half of a letter stands above the topmost line.
constexpr double kBaseline = kTop + kPlotHeight;

// The plot's own units: stretched to the width that there is.
constexpr int kSlot = 10;
constexpr int kUnits = 1000;
constexpr std::size_t kFewestSlots = 12;  // Bars do not become planks.
constexpr std::size_t kMostWithGaps = 80;
constexpr int kLeastVisible = 9;  // About a pixel.

std::string Number(double value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.1f", value);
  std::string number = text.data();
  if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0) {
    number.resize(number.size() - 2);
  }
  return number;
}

std::string Percent(double share) {
  return Number(share * 100) + '%';
}

double SumOf(const Bar& bar) {
  return std::accumulate(bar.values.begin(), bar.values.end(), 0.0);
}

double StepFor(Quantity quantity, double most) {
  constexpr double kMostSteps = 4;
  if (quantity == Quantity::kSeconds) {
    for (const double step : {1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1200, 1800}) {
      if (step * kMostSteps >= most) {
        return step;
      }
    }
    constexpr double kHour = 3600;
    return StepFor(Quantity::kCount, most / kHour) * kHour;
  }
  for (double power = 1;; power *= 10) {
    for (const double step : {power, 2 * power, 5 * power}) {
      if (step * kMostSteps >= most) {
        return step;
      }
    }
  }
}

// A figure with its picture open: title and description first.
class Picture {
 public:
  Picture(Html& html, const std::string& id, const std::string& title,
          const std::string& description)
      : figure_(html, "figure") {
    html.Put("figcaption", title);
    svg_.emplace(html, "svg",
                 Html::Attributes{{"class", "chart"},
                                  {"role", "img"},
                                  {"height", Number(kHeight)},
                                  {"aria-labelledby", id + "-t " + id + "-d"}});
    html.Put("title", {{"id", id + "-t"}}, title);
    html.Put("desc", {{"id", id + "-d"}}, description);
  }
  void CloseSvg() { svg_.reset(); }

 private:
  Html::Element figure_;
  std::optional<Html::Element> svg_;
};

void PutTick(Html& html, double share, const std::string& text) {
  const double y = kBaseline - share * kPlotHeight;
  html.PutVoid("line", {{"class", share == 0 ? "axis" : "grid"},
                        {"x2", "100%"},
                        {"y1", Number(y)},
                        {"y2", Number(y)}});
  html.Put("text", {{"class", "tick"}, {"x", "-8"}, {"y", Number(y + 4)}}, text);
}

// What is inside is stretched to the whole plot.
Html::Attributes PlotAttributes(const std::string& view_box) {
  return {{"y", Number(kTop)},
          {"width", "100%"},
          {"height", Number(kPlotHeight)},
          {"viewBox", view_box},
          {"preserveAspectRatio", "none"}};
}

void PutLabel(Html& html, double share, const std::string& text) {
  constexpr double kNearAnEnd = 0.12;
  const char* const anchor = share < kNearAnEnd       ? "start"
                             : share > 1 - kNearAnEnd ? "end"
                                                      : "middle";
  html.Put("text",
           {{"class", "label"},
            {"x", Percent(share)},
            {"y", Number(kHeight - 2)},
            {"text-anchor", anchor}},
           text);
}

// The last bar's, then the first one's and the middle one's, where there is room.
void PutLabels(Html& html, const std::vector<Bar>& bars, double slots) {
  constexpr double kRoom = 0.36;
  std::vector<double> taken;
  for (const std::size_t at : {bars.size() - 1, std::size_t{0}, (bars.size() - 1) / 2}) {
    const double begin = static_cast<double>(at) / slots;
    const double middle = begin + 0.5 / slots;
    const double place = at == 0 ? 0 : middle > 0.9 ? 1 : middle;
    if (std::all_of(taken.begin(), taken.end(),
                    [&](double other) { return std::abs(other - place) >= kRoom; })) {
      PutLabel(html, place, bars[at].label);
      taken.push_back(place);
    }
  }
}

int UnitsOf(double value, double top) {
  const int units = static_cast<int>(std::lround(value / top * kUnits));
  return value > 0 ? std::max(units, kLeastVisible) : 0;
}

std::string BarOutline(std::size_t at, int base, int height) {
  return 'M' + std::to_string(at * kSlot + 1) + ' ' + std::to_string(base) + 'v' +
         std::to_string(-height) + 'h' + std::to_string(kSlot * 4 / 5) + 'v' +
         std::to_string(height) + 'z';
}

// What stands below the series in a bar.
int BaseOf(const Bar& bar, std::size_t series, double top) {
  int base = kUnits;
  for (std::size_t below = 0; below < series; ++below) {
    base -= UnitsOf(bar.values[below], top);
  }
  return base;
}

// Bars without gaps between them, along their tops and back along their feet: a repository may have
// tens of thousands.
std::string AreaOutline(const BarChart& chart, std::size_t series, double top, std::size_t begin,
                        std::size_t end) {
  std::string outline = 'M' + std::to_string(begin * kSlot) + ' ' +
                        std::to_string(BaseOf(chart.bars[begin], series, top));
  for (std::size_t at = begin; at < end; ++at) {
    const int base = BaseOf(chart.bars[at], series, top);
    outline += 'V' + std::to_string(base - UnitsOf(chart.bars[at].values[series], top)) + 'h' +
               std::to_string(kSlot);
  }
  int before = -1;
  for (std::size_t at = end; at > begin; --at) {
    const int base = BaseOf(chart.bars[at - 1], series, top);
    if (base != before) {
      outline += 'H' + std::to_string(at * kSlot) + 'V' + std::to_string(base);
    }
    before = base;
  }
  return outline + 'z';
}

// All bars of one series.
std::string OutlineOf(const BarChart& chart, std::size_t series, double top) {
  const bool has_gaps = chart.bars.size() <= kMostWithGaps;
  std::string outline;
  for (std::size_t at = 0; at < chart.bars.size(); ++at) {
    const int height = UnitsOf(chart.bars[at].values[series], top);
    if (height == 0) {
      continue;
    }
    if (has_gaps) {
      outline += BarOutline(at, BaseOf(chart.bars[at], series, top), height);
      continue;
    }
    std::size_t end = at + 1;
    while (end < chart.bars.size() && chart.bars[end].values[series] > 0) {
      ++end;
    }
    outline += AreaOutline(chart, series, top, at, end);
    at = end - 1;
  }
  return outline;
}

std::string RangeText(const BarChart& chart) {
  const auto [least, most] = std::minmax_element(
      chart.bars.begin(), chart.bars.end(),
      [](const Bar& one, const Bar& other) { return SumOf(one) < SumOf(other); });
  const auto text = [&](const Bar& bar) {
    return QuantityText(chart.quantity, SumOf(bar)) + " (" + bar.label + ')';
  };
  if (chart.bars.size() == 1) {
    return text(chart.bars.front()) + '.';
  }
  return std::to_string(chart.bars.size()) + " bars: least " + text(*least) + ", most " +
         text(*most) + ", last " + text(chart.bars.back()) + '.';
}

void PutLegend(Html& html, const BarChart& chart, const std::vector<std::size_t>& shown) {
  // The first one alone is what the title says.
  if (shown.empty() || (shown.size() == 1 && shown.front() == 0)) {
    return;
  }
  const Html::Element list(html, "ul", {{"class", "legend"}});
  for (const std::size_t series : shown) {
    const Html::Element item(html, "li");
    html.Put("span", {{"class", std::string("swatch ") + chart.series[series].style}}, "");
    html.Text(chart.series[series].name);
  }
}

}  // namespace

std::string QuantityText(Quantity quantity, double value) {
  constexpr double kMinute = 60;
  constexpr double kMost = 1e15;  // What is beyond it was never counted.
  value = std::clamp(value, 0.0, kMost);
  const auto whole = static_cast<std::uint64_t>(std::llround(value));
  switch (quantity) {
    case Quantity::kBytes: {
      const base::SizeUnit unit = base::UnitFor(whole);
      return Number(std::atof(base::InUnit(whole, unit).c_str())) + ' ' + unit.name;
    }
    case Quantity::kCount:
      return base::Grouped(whole);
    case Quantity::kSeconds:
      return value < kMinute ? Number(value) + " s"
                             : base::HumanDuration(static_cast<std::int64_t>(value));
  }
  return "";
}

std::vector<double> TicksTo(Quantity quantity, double most) {
  const double step = StepFor(quantity, most);
  std::vector<double> ticks = {0};
  while (ticks.back() < most || ticks.size() < 2) {
    ticks.push_back(static_cast<double>(ticks.size()) * step);
  }
  return ticks;
}

void Draw(Html& html, const BarChart& chart) {
  if (chart.bars.empty()) {
    return;
  }
  double most = 0;
  for (const Bar& bar : chart.bars) {
    most = std::max(most, SumOf(bar));
  }
  std::vector<std::size_t> shown;
  for (std::size_t series = 0; series < chart.series.size(); ++series) {
    if (std::any_of(chart.bars.begin(), chart.bars.end(),
                    [series](const Bar& bar) { return bar.values[series] > 0; })) {
      shown.push_back(series);
    }
  }
  const std::vector<double> ticks = TicksTo(chart.quantity, most);
  const std::size_t slots = std::max(chart.bars.size(), kFewestSlots);
  Picture picture(html, chart.id, chart.title, chart.description + ' ' + RangeText(chart));
  for (const double tick : ticks) {
    PutTick(html, tick / ticks.back(), QuantityText(chart.quantity, tick));
  }
  {
    const Html::Element plot(
        html, "svg",
        PlotAttributes("0 0 " + std::to_string(slots * kSlot) + ' ' + std::to_string(kUnits)));
    for (const std::size_t series : shown) {
      html.PutVoid("path", {{"class", chart.series[series].style},
                            {"d", OutlineOf(chart, series, ticks.back())}});
    }
  }
  PutLabels(html, chart.bars, static_cast<double>(slots));
  picture.CloseSvg();
  PutLegend(html, chart, shown);
}

void Draw(Html& html, const StepChart& chart) {
  const std::int64_t begin = chart.steps.front().time;
  const auto length = static_cast<double>(std::max<std::int64_t>(chart.end - begin, 1));
  const auto place = [&](std::int64_t time) {
    return std::clamp(static_cast<double>(time - begin) / length, 0.0, 1.0);
  };
  Picture picture(html, chart.id, chart.title, chart.description);
  for (const double share : {0.0, 0.5, 1.0}) {
    PutTick(html, share, Number(share * 100) + " %");
  }
  {
    std::string outline = "M0 " + std::to_string(kUnits);
    for (const StepChart::Step& step : chart.steps) {
      outline += 'H' + Number(place(step.time) * kUnits) + 'V' + Number((1 - step.share) * kUnits);
    }
    outline += 'H' + std::to_string(kUnits) + 'V' + std::to_string(kUnits) + 'z';
    const Html::Element plot(html, "svg", PlotAttributes("0 0 1000 1000"));
    html.PutVoid("path", {{"class", "delta"}, {"d", outline}});
  }
  if (chart.now > begin && chart.now < chart.end) {
    const std::string x = Percent(place(chart.now));
    html.PutVoid(
        "line",
        {{"class", "now"}, {"x1", x}, {"x2", x}, {"y1", Number(kTop)}, {"y2", Number(kBaseline)}});
  }
  constexpr std::size_t kDay = 10;  // "2026-01-31"
  PutLabel(html, 0, base::UtcMinutes(begin).substr(0, kDay));
  PutLabel(html, 1, base::UtcMinutes(chart.end).substr(0, kDay));
}

}  // namespace tolm::report
