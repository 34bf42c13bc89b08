// A library to be preloaded into the installed tool: below the directory in the variable
// TOLM_TEST_UNTYPED, listings of directories do not tell what an entry is, as on file systems that
// do not know it without looking at the entry itself.

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

bool IsUntyped(DIR* directory) {
  const char* below = std::getenv("TOLM_TEST_UNTYPED");
  if (below == nullptr) {
    return false;
  }
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(dirfd(directory));
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  const std::string prefix = below;
  const std::string shown(path, length < 0 ? 0 : static_cast<std::size_t>(length));
  return shown == prefix || shown.rfind(prefix + '/', 0) == 0;
}

template <typename Entry>
Entry* Read(const char* name, DIR* directory) {
  const auto next = reinterpret_cast<Entry* (*)(DIR*)>(dlsym(RTLD_NEXT, name));
  Entry* const entry = next(directory);
  if (entry != nullptr && IsUntyped(directory)) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

}  // namespace

// Under names of our own, since with large files the header gives both the same one.
#define TOLM_READ(name, entry)                                                                  \
  extern "C" __attribute__((visibility("default"))) entry* Untyped_##name(DIR*) __asm__(#name); \
  entry* Untyped_##name(DIR* directory) {                                                       \
    return Read<entry>(#name, directory);                                                       \
  }
TOLM_READ(readdir, dirent)
TOLM_READ(readdir64, dirent)
