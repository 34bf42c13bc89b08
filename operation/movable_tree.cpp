#include "operation/movable_tree.h"

#include <sys/stat.h>

#include <boost/format.hpp>
#include <cerrno>
#include <filesystem>

#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/operator_settings.h"
#include "operation/own_ground.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

// Whether the link, which is so many directories below its database's, may lead out of that: ".."
// behind a name goes up from wherever that name leads.
bool LeadsOut(const fs::path& link, int depth) {
  const fs::path target = fs::read_symlink(link);
  bool has_name = depth < 0 || target.is_absolute();
  bool leads_out = has_name;
  for (const fs::path& step : target) {
    if (step == "..") {
      leads_out = leads_out || has_name || --depth < 0;
    } else {
      has_name = true;
    }
  }
  return leads_out;
}

std::string ObjectionToRights(const struct stat& status, const fs::path& path) {
  if (status.st_uid != 0) {
    return path.string() + " belongs to user " + std::to_string(status.st_uid);
  }
  if (!S_ISLNK(status.st_mode) && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return path.string() + " can be written by others";
  }
  if (S_ISREG(status.st_mode) && (status.st_mode & (S_ISUID | S_ISGID)) != 0) {
    return path.string() + " runs with its owner's rights";
  }
  return "";
}

std::string ObjectionTo(const fs::path& path, int depth, bool owners_count) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    throw base::FileError(errno, "look at", path);
  }
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) {
    return path.string() + " is neither file, directory nor link";
  }
  if (S_ISLNK(status.st_mode) && LeadsOut(path, depth - 1)) {
    return path.string() + " leads out of its database's directory";
  }
  return owners_count ? ObjectionToRights(status, path) : "";
}

}  // namespace

// By path: as long as nothing is objected to, no other account can change what was seen.
std::string WhyNotMovable(const std::string& volume) {
  try {
    RequireOwnVolume(volume);
  } catch (const ForeignGround& error) {
    return error.reason();
  }
  const fs::path main = (dataupdate::NoexceptFormat(paths::kVolumeDatabases) % volume).str();
  if (!fs::exists(main)) {
    return "";
  }
  const bool owners_count = ReadOperatorSettings().ownerless_volumes.count(volume) == 0;
  std::error_code error;
  fs::recursive_directory_iterator entry(main, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    const std::string objection = ObjectionTo(entry->path(), entry.depth(), owners_count);
    if (!objection.empty()) {
      return objection;
    }
  }
  if (error) {
    throw base::FileError(error.value(), "list what is below", main);
  }
  return "";
}

}  // namespace tolm::operation
