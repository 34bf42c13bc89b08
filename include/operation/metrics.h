#ifndef TOLM_OPERATION_METRICS_H_
#define TOLM_OPERATION_METRICS_H_

#include <map>
#include <string>

#include "operation/export.h"
#include "operation/failure.h"
#include "operation/service.h"

namespace tolm::operation {

/// What is known of a device, for a monitoring system.
struct Metrics {
  /// OpenMetrics 1.0 and, with the same meaning, the text format of Prometheus.
  std::string text;
  /// Why a database, by its name, could not be looked at; an empty name: why none could.
  std::map<std::string, Failure> problems;
};

/// Looks at what is installed, at the offers that were last seen, the history, the cool-downs, the
/// keyring and the timers. Asks no server, takes no lock, changes nothing; systemd is asked for up
/// to six seconds, under the conditions of ExamineTimers(). With the caller's rights: what cannot
/// be read is left out. Throws std::system_error as ExamineTimers() does.
TOLM_OPERATION_API Metrics CollectMetrics(const Service& service);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_METRICS_H_
