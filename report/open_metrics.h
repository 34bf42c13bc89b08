#ifndef TOLM_REPORT_OPEN_METRICS_H_
#define TOLM_REPORT_OPEN_METRICS_H_

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tolm::report {

/// What is the same for all samples of one name.
struct MetricFamily {
  /// Lower-case letters, digits and "_". What has a unit ends with "_" and its name in base units:
  /// "_seconds", "_bytes". Not "_total" and the like, which OpenMetrics has for types that are not
  /// written here.
  const char* name;
  const char* help;  ///< One line.
};

using MetricLabels = std::vector<std::pair<const char*, std::string>>;

/// A text of metrics that OpenMetrics 1.0 and the older text format of Prometheus both define, with
/// the same meaning. So everything is a gauge: the two name counters differently, and the older one
/// knows no type for facts such as a version.
class OpenMetrics {
 public:
  /// @p common: labels that every sample has besides its own, behind them.
  explicit OpenMetrics(MetricLabels common = {}) : common_(std::move(common)) {}

  /// Adds a sample. Families stand in the order of their first samples, and samples in the order in
  /// which they came. One with the labels of an earlier sample is left out: what is written may
  /// come from elsewhere, and a collector refuses a text that says something twice. Label values
  /// may be any bytes: what is no printable UTF-8 is written as \xNN. Throws std::invalid_argument
  /// for a name that is none.
  void Add(const MetricFamily& family, const MetricLabels& labels, double value);

  /// All of it, with the line that ends an OpenMetrics text.
  std::string Text() const;

 private:
  struct Family {
    std::string head;
    std::string samples;
    std::set<std::string> series;
  };

  MetricLabels common_;
  std::vector<Family> families_;
  std::map<std::string, std::size_t> places_;  // By name, in families_.
};

}  // namespace tolm::report

#endif  // TOLM_REPORT_OPEN_METRICS_H_
