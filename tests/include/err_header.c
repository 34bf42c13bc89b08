#include <tolm/err.h>

const char* UseErrHeader(void);

const char* UseErrHeader(void) {
  int (*const last_error)(void) = TLIBCErrGet;
  return last_error() == 0 ? 0 : "an error before any call";
}
