#include "walk.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "dataupdate/error.h"

namespace tolm::dataupdate {
namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

// The next entry, or null at the end of the listing.
const dirent* NextEntry(DIR* directory) {
  errno = 0;
  const dirent* entry = readdir(directory);
  if (entry == nullptr && errno != 0) {
    throw UpdateError(strerror(errno));
  }
  return entry;
}

}  // namespace

void Walk(const std::string& directory, const std::function<void(const WalkEntry&)>& visit) {
  struct stat info;
  if (stat(directory.c_str(), &info) != 0) {
    throw UpdateError("failed to read file stat: " + directory);
  }
  if (!S_ISDIR(info.st_mode)) {
    throw UpdateError("not a directory: " + directory);
  }
  const std::string prefix = directory.back() == '/' ? directory : directory + "/";
  const Directory listing(opendir(directory.c_str()), closedir);
  if (!listing) {
    throw UpdateError(strerror(errno));
  }
  while (const dirent* entry = NextEntry(listing.get())) {
    const bool is_this_or_above =
        strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0;
    if (entry->d_type != DT_DIR || !is_this_or_above) {
      visit({prefix, entry->d_name, dirfd(listing.get()), entry->d_type});
    }
  }
}

void WalkTree(const std::string& directory, const std::function<void(const WalkEntry&)>& visit) {
  Walk(directory, [&visit](const WalkEntry& entry) {
    if (entry.type == DT_DIR) {
      WalkTree(entry.Path(), visit);
    }
    visit(entry);
  });
}

}  // namespace tolm::dataupdate
