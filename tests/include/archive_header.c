#include <tolm/archive.h>

const char* UseArchiveHeader(void);

const char* UseArchiveHeader(void) {
  tolmarchive* (*const init)(const char*) = tolmarchive_init;
  int (*const open_package)(tolmarchive*, const char*, int) = tolmarchive_open_with_keytype;
  int (*const extract)(tolmarchive*, const char* const*, int) = tolmarchive_extract_multiple;
  void (*const release)(tolmarchive*) = tolmarchive_free;
  tolmarchive* handle;
  const char* wrong = 0;
  if (init("/no/directory")) {
    return "a handle for no directory";
  }
  handle = init("/tmp");
  if (!handle) {
    return "no handle";
  }
  if (open_package(handle, "/no/package", 6)) {
    wrong = "a package that is not there was opened";
  } else if (((const unsigned int*)(const void*)handle)[2] != TOLMARCHIVE_E_OPEN) {
    wrong = "the third word is not the error";
  } else if (extract(handle, 0, 4)) {
    wrong = "extracted without a package";
  }
  release(handle);
  return wrong;
}
