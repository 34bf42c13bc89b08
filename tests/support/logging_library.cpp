#include "tests/support/logging_library.h"

#include <syslog.h>

namespace tolm::testing {

void LogFromLibrary(int priority, const char* file, int line, const char* text) {
  syslog(priority, "%s:%d %s", file, line, text);
}

}  // namespace tolm::testing
