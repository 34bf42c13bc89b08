#include "operation/tree_fingerprint.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <system_error>

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

std::uint64_t EntryFingerprint(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  std::string text = path;
  for (const auto number : std::initializer_list<std::int64_t>{
           static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
           static_cast<std::int64_t>(status.st_mode), static_cast<std::int64_t>(status.st_size),
           static_cast<std::int64_t>(status.st_ctim.tv_sec),
           static_cast<std::int64_t>(status.st_ctim.tv_nsec)}) {
    text += '|' + std::to_string(number);
  }
  return std::hash<std::string>()(text);
}

}  // namespace

std::uint64_t TreeFingerprint(const std::string& directory) {
  std::uint64_t sum = 0;  // A sum, because the order of a listing means nothing.
  if (!fs::exists(fs::symlink_status(directory))) {
    return sum;
  }
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    sum += EntryFingerprint(entry.path().string());
  }
  return sum;
}

}  // namespace tolm::operation
