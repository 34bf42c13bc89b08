#ifndef TOLM_PACKAGE_CANCELLATION_H_
#define TOLM_PACKAGE_CANCELLATION_H_

namespace tolm::package {

/// While it is cancelled, reading payloads fails with ECANCELED at the next block, in every thread
/// of the process. Any thread may call these.
void CancelReading(bool cancelled) noexcept;
bool IsReadingCancelled() noexcept;

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_CANCELLATION_H_
