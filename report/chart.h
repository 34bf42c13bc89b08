#ifndef TOLM_REPORT_CHART_H_
#define TOLM_REPORT_CHART_H_

#include <cstdint>
#include <string>
#include <vector>

#include "report/html.h"

namespace tolm::report {

enum class Quantity { kBytes, kCount, kSeconds };

/// "4.2 MB", "1,204", "1.5 s", "3 min".
std::string QuantityText(Quantity quantity, double value);

/// Where the lines of a scale are: from 0 to at least @p most, a few of them at round numbers.
std::vector<double> TicksTo(Quantity quantity, double most);

/// Parts of bars that mean the same. The style is a class of the page's, see report/page.cpp.
struct BarSeries {
  const char* style;
  std::string name;
};

struct Bar {
  std::string label;
  std::vector<double> values;  ///< one for each series; they are stacked; finite, none negative
};

/// Pictures stand in a figure of their own, have a title and a description in words, and no width:
/// they are as wide as they may be, and their letters stay as large as they are.
struct BarChart {
  std::string id;  ///< of letters, digits and "-"; no other element of the page has it
  std::string title;
  std::string description;  ///< what is shown, a sentence; the range of the values is added
  Quantity quantity = Quantity::kCount;
  std::vector<BarSeries> series;
  std::vector<Bar> bars;  ///< from left to right; none of them: nothing is drawn
};
void Draw(Html& html, const BarChart& chart);

/// How a share grows in steps, and stays from the last one on.
struct StepChart {
  struct Step {
    std::int64_t time = 0;  ///< seconds since 1970
    double share = 0;       ///< 0 to 1, from then on
  };
  std::string id;
  std::string title;
  std::string description;  ///< all of it
  std::vector<Step> steps;  ///< by time, one at least
  std::int64_t end = 0;     ///< of the picture; after the last step
  std::int64_t now = 0;     ///< is marked where it is within the picture
};
void Draw(Html& html, const StepChart& chart);

}  // namespace tolm::report

#endif  // TOLM_REPORT_CHART_H_
