#include "report/metrics_file.h"

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "report/output_file.h"

namespace tolm::report {

void WriteMetricsFile(const std::string& path, const std::string& text) {
  constexpr mode_t kForEverybody = 0644;
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  std::error_code ignored;
  if (!directory.empty() && !std::filesystem::is_directory(directory, ignored)) {
    throw std::runtime_error("there is no directory " + directory.string() + " for " + path);
  }
  ReplaceOutput(path, text, kForEverybody);
}

}  // namespace tolm::report
