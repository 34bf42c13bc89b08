#ifndef TOLM_PLATFORM_GUARD_H_
#define TOLM_PLATFORM_GUARD_H_

#include <cerrno>
#include <new>

#include "platform/error.h"

namespace tolm::platform {

// Runs the body of a C function and keeps every exception inside: the C caller gets on_failure,
// with ENOMEM as the last error when memory is exhausted and EIO for anything else.
template <typename Result, typename Body>
Result Guarded(Result on_failure, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    SetLastError(ENOMEM);
  } catch (...) {
    SetLastError(EIO);
  }
  return on_failure;
}

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_GUARD_H_
