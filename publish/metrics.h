#ifndef TOLM_PUBLISH_METRICS_H_
#define TOLM_PUBLISH_METRICS_H_

#include <cstdint>
#include <string>

#include "publish/check.h"

namespace tolm::publish {

/// What a repository offers, for a monitoring system: OpenMetrics 1.0 and, with the same meaning,
/// the text format of Prometheus. With what came of a check, where there is one (null: none). Takes
/// no lock: while another command works, it is the state before or after it. Throws Error,
/// package::Error.
std::string RepositoryMetrics(const std::string& repository, const CheckReport* check,
                              std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_METRICS_H_
