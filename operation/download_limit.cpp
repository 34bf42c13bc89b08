#include "operation/download_limit.h"

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "base/paths.h"
#include "base/rules.h"
#include "operation/description_reader.h"
#include "operation/room.h"

namespace tolm::operation {
namespace {

DownloadLimit SpaceLimit(std::uint64_t bytes, const std::string& directory) {
  return {bytes,
          "more than the " + std::to_string(bytes) + " bytes that there are for it in " +
              directory + " while " + rules::kFreeShareText + " stay free",
          true};
}

}  // namespace

std::optional<DownloadLimit> LimitFor(const std::string& file,
                                      std::optional<std::uint64_t> exact_bytes,
                                      std::uint64_t kept_bytes) {
  const std::string directory = std::filesystem::path(file).parent_path();
  const std::optional<std::uint64_t> room = RoomIn(directory);
  if (!room) {
    return std::nullopt;
  }
  DownloadLimit limit = SpaceLimit(*room + kept_bytes, directory);
  const auto bound = [&limit](std::uint64_t bytes, const std::string& why) {
    if (bytes <= limit.bytes) {
      limit = {bytes, "more than the " + std::to_string(bytes) + why, false};
    }
  };
  if (IsPlaceOfDescription(file)) {
    bound(rules::kDescriptionBytes, " bytes that a description may have");
  }
  if (exact_bytes) {
    bound(*exact_bytes, " bytes that the signed description says");
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
