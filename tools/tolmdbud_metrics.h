#ifndef TOLM_TOOLS_TOLMDBUD_METRICS_H_
#define TOLM_TOOLS_TOLMDBUD_METRICS_H_

#include <string>

#include "tools/tolmdbud_cli.h"

namespace tolm::tool {

/// What `status --metrics` was asked for.
struct MetricsRequest {
  bool is_wanted = false;  ///< On standard output.
  std::string file;        ///< Into this one; empty for none.
};

/// Adds --metrics and --metrics-file to a command.
void AddMetricsOptions(CommandSyntax command, MetricsRequest& request);

/// Does it, for all databases, and returns the exit status.
int PrintMetrics(Console& console, const operation::Service& service,
                 const MetricsRequest& request);

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBUD_METRICS_H_
