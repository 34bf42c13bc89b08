#include <tolm/fs.h>

const char* UseFsHeader(void);

const char* UseFsHeader(void) {
  int (*const exists)(const char*) = TLIBCFileExist;
  int (*const make_directory)(const char*, int, int, int, int, int) = TOLMFSMkdirP;
  if (exists("/tmp/fs/header")) {
    return "there before it was made";
  }
  if (make_directory("/tmp/fs/header", 0, 0, -1, -1, -1) != 0) {
    return "not made";
  }
  return exists("/tmp/fs/header") ? 0 : "not there after it was made";
}
