#ifndef TOLM_PLATFORM_ERROR_H_
#define TOLM_PLATFORM_ERROR_H_

namespace tolm::platform {

// Records why the platform call this thread is making failed: an errno value,
// or 0 for "nothing failed". TLIBCErrGet hands it out. Every thread has a
// value of its own; setting one never blocks and never fails.
void SetLastError(int errno_value);

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_ERROR_H_
