// Stands before everybody's TOLMFSMkdirP and tolmarchive_open_with_keytype, and passes calls on.

#include <dlfcn.h>

#include "tolm/archive.h"
#include "tolm/fs.h"

int TOLMFSMkdirP(const char* path, int reserved1, int reserved2, int uid, int gid, int mode) {
  static auto* const next =
      reinterpret_cast<decltype(TOLMFSMkdirP)*>(dlsym(RTLD_NEXT, "TOLMFSMkdirP"));
  return next(path, reserved1, reserved2, uid, gid, mode);
}

int tolmarchive_open_with_keytype(tolmarchive* handle, const char* package, int key_type) {
  static auto* const next = reinterpret_cast<decltype(tolmarchive_open_with_keytype)*>(
      dlsym(RTLD_NEXT, "tolmarchive_open_with_keytype"));
  return next(handle, package, key_type);
}
