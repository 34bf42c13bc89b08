// list --metrics, check --metrics: what a monitoring system collects.

#include "tools/tolmdbpub_metrics.h"

#include <ctime>
#include <iostream>

#include "publish/metrics.h"
#include "report/metrics_file.h"

namespace tolm::tool {

void AddMetricsOptions(CommandSyntax command, MetricsRequest& request) {
  command.AddFlag("--metrics", request.is_wanted,
                  "Print numbers for a monitoring system instead, as OpenMetrics text");
  command
      .AddOption("--metrics-file", request.file,
                 "The same into this file, which is replaced at once and is for everybody to read")
      .Check([](const std::string& file) { return file.empty() ? "no file" : ""; });
}

void PrintMetrics(const MetricsRequest& request, const std::string& repository,
                  const publish::CheckReport* check) {
  if (!request.is_wanted && request.file.empty()) {
    return;
  }
  const std::string text = publish::RepositoryMetrics(repository, check, std::time(nullptr));
  if (request.is_wanted) {
    std::cout << text;
  }
  if (!request.file.empty()) {
    report::WriteMetricsFile(request.file, text);
  }
}

}  // namespace tolm::tool
