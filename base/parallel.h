#ifndef TOLM_BASE_PARALLEL_H_
#define TOLM_BASE_PARALLEL_H_

#include <cstddef>
#include <functional>

namespace tolm::base {

/// More than this nobody may ask for.
inline constexpr int kMostJobs = 1000;

/// As many as this process may use processors, at least 1.
int DefaultJobs();

/// Calls @p work with each number below @p count, in their order, up to @p jobs at a time, and
/// returns when all have ended. With one job everything runs in the caller's thread; otherwise in
/// threads of its own, so that @p work must be safe to run beside itself. Signals stay the
/// caller's.
///
/// After a call has thrown, none begins any more, and the exception of the lowest number that threw
/// is thrown on once the rest have ended: as all below it have run, it is the one that one job
/// would have met first.
void ForEach(std::size_t count, int jobs, const std::function<void(std::size_t)>& work);

}  // namespace tolm::base

#endif  // TOLM_BASE_PARALLEL_H_
