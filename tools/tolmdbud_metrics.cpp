// status --metrics: what a monitoring system collects.

#include "tools/tolmdbud_metrics.h"

#include <iostream>

#include "operation/metrics.h"
#include "report/metrics_file.h"

namespace tolm::tool {

void AddMetricsOptions(CommandSyntax command, MetricsRequest& request) {
  const CommandOption names = command.GetOption("NAME");
  const CommandOption json = command.GetOption("--json");
  const CommandOption page = command.GetOption("--html");
  command
      .AddFlag("--metrics", request.is_wanted,
               "Print numbers for a monitoring system, as OpenMetrics text; asks no server")
      .Excludes(names)
      .Excludes(json)
      .Excludes(page);
  command
      .AddOption("--metrics-file", request.file,
                 "The same into this file, which is replaced at once and is for everybody to read")
      .Check([](const std::string& file) { return file.empty() ? "no file" : ""; })
      .Excludes(names)
      .Excludes(json)
      .Excludes(page);
}

int PrintMetrics(Console& console, const operation::Service& service,
                 const MetricsRequest& request) {
  const operation::Metrics metrics = operation::CollectMetrics(service);
  for (const auto& [database, failure] : metrics.problems) {
    console.Fail(database, failure);
  }
  bool is_written = true;
  if (!request.file.empty()) {
    is_written =
        console.Succeeds("", [&] { report::WriteMetricsFile(request.file, metrics.text); });
  }
  if (request.is_wanted) {
    std::cout << metrics.text;
  }
  return metrics.problems.empty() && is_written ? kSuccess : kFailure;
}

}  // namespace tolm::tool
