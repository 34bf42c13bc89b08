#ifndef TOLM_SUPPORT_KILL_AT_CALL_H_
#define TOLM_SUPPORT_KILL_AT_CALL_H_

/// What the preloaded library is told by; killed_run.h is the way to use it.
namespace tolm::testing {

/// The number, from 1, of the call that the process does not live to make.
inline constexpr char kKillAtVariable[] = "TOLM_TEST_KILL_AT";
/// An existing file that gets a line for each call: its name and the file it is about.
inline constexpr char kTraceVariable[] = "TOLM_TEST_TRACE";

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_KILL_AT_CALL_H_
