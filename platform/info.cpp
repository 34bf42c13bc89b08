#include "tolm/info.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstdio>

#include "platform/error.h"

namespace {

int Failure(int error, char* buffer, size_t size) {
  if (buffer != nullptr && size > 0)
    buffer[0] = '\0';
  tolm::platform::SetLastError(error);
  return -1;
}

}  // namespace

int TLIBTminfoUserAgentGet(const char* product, char* buffer, size_t size) {
  if (product == nullptr || buffer == nullptr)
    return Failure(EINVAL, buffer, size);
  utsname system;
  if (uname(&system) != 0)
    return Failure(errno, buffer, size);
  const int length = std::snprintf(buffer, size, "%s/%s (%s; %s)", product, TOLM_PROJECT_VERSION,
                                   system.sysname, system.machine);
  if (length < 0)
    return Failure(errno, buffer, size);
  if (static_cast<size_t>(length) >= size)
    return Failure(ERANGE, buffer, size);
  return length;
}
