#include "platform/error.h"

#include "tolm/err.h"

namespace {

thread_local int last_error = 0;

}  // namespace

namespace tolm::platform {

void SetLastError(int errno_value) {
  last_error = errno_value;
}

}  // namespace tolm::platform

int TLIBCErrGet(void) {
  return last_error;
}
