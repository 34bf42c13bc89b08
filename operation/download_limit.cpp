#include "operation/download_limit.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "base/paths.h"
#include "base/rules.h"

namespace tolm::operation {
namespace {

DownloadLimit SpaceLimit(const struct statvfs& space, const std::string& directory) {
  const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
  const std::uint64_t kept = std::uint64_t{space.f_blocks} * space.f_frsize / rules::kFreePart;
  const std::uint64_t bytes = available > kept ? available - kept : 0;
  return {bytes, "more than the " + std::to_string(bytes) + " bytes that there are for it in " +
                     directory + " while " + rules::kFreeShareText + " stay free"};
}

}  // namespace

std::optional<DownloadLimit> LimitFor(const std::string& file,
                                      std::optional<std::uint64_t> exact_bytes) {
  const std::string directory = std::filesystem::path(file).parent_path();
  struct statvfs space;
  if (statvfs(directory.c_str(), &space) != 0) {
    return std::nullopt;
  }
  DownloadLimit limit = SpaceLimit(space, directory);
  const auto bound = [&limit](std::uint64_t bytes, const std::string& why) {
    if (bytes <= limit.bytes) {
      limit = {bytes, "more than the " + std::to_string(bytes) + why};
    }
  };
  if (file == paths::kDatabaseInfo || file == paths::kDatabaseInfoAnswer) {
    bound(rules::kDescriptionBytes, " bytes that a description may have");
  }
  if (exact_bytes) {
    bound(*exact_bytes, " bytes that it has");
  }
  return limit;
}

FileSizeLimit::FileSizeLimit(std::uint64_t bytes) {
  getrlimit(RLIMIT_FSIZE, &file_size_);
  getrlimit(RLIMIT_CORE, &core_);
  rlimit limit = file_size_;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, bytes);
  setrlimit(RLIMIT_FSIZE, &limit);
  const rlimit none{0, core_.rlim_max};
  setrlimit(RLIMIT_CORE, &none);
}

FileSizeLimit::~FileSizeLimit() {
  setrlimit(RLIMIT_FSIZE, &file_size_);
  setrlimit(RLIMIT_CORE, &core_);
}

void IgnoreFileSizeSignal() {
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace tolm::operation
