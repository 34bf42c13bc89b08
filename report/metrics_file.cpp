#include "report/metrics_file.h"

#include <fcntl.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "base/file.h"

namespace tolm::report {

void WriteMetricsFile(const std::string& path, const std::string& text) {
  constexpr mode_t kForEverybody = 0644;
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  std::error_code ignored;
  if (!directory.empty() && !std::filesystem::is_directory(directory, ignored)) {
    throw std::runtime_error("there is no directory " + directory.string() + " for " + path);
  }
  base::Replacement replacement(path);
  // The directory may be a collector's, and root writes into it: what lies there is not followed.
  std::filesystem::remove(replacement.staging(), ignored);
  base::File file(replacement.staging(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  file.Write(text);
  file.SetMode(kForEverybody);
  file.Close();
  replacement.PutInPlace();
}

}  // namespace tolm::report
