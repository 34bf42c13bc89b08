#ifndef TOLM_TOOLS_TOLMDBPUB_METRICS_H_
#define TOLM_TOOLS_TOLMDBPUB_METRICS_H_

#include <string>

#include "publish/check.h"
#include "tools/command_line.h"

namespace tolm::tool {

/// What `list --metrics` and `check --metrics` were asked for.
struct MetricsRequest {
  bool is_wanted = false;  ///< On standard output, in place of what the command prints.
  std::string file;        ///< Into this one; empty for none.
};

/// Adds --metrics and --metrics-file to a command.
void AddMetricsOptions(CommandSyntax command, MetricsRequest& request);

/// Does what was asked for, of a repository and, where there was one (null: none), its check.
/// Throws what went wrong.
void PrintMetrics(const MetricsRequest& request, const std::string& repository,
                  const publish::CheckReport* check);

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBPUB_METRICS_H_
