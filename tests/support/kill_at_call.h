#ifndef TOLM_SUPPORT_KILL_AT_CALL_H_
#define TOLM_SUPPORT_KILL_AT_CALL_H_

/// What the preloaded library is told by; killed_run.h is the way to use it.
namespace tolm::testing {

/// The number, from 1, of the call that the process does not live to make.
inline constexpr char kKillAtVariable[] = "TOLM_TEST_KILL_AT";
/// An existing file that gets a line for each call: the monotonic clock's seconds, the call's name
/// and the file it is about. The last line of a process that ends by itself is that of kPeakMark.
inline constexpr char kTraceVariable[] = "TOLM_TEST_TRACE";
/// Follows the seconds and precedes the bytes of the most memory that was resident at any time.
inline constexpr char kPeakMark[] = "peak ";
/// A directory: only those calls count that take space below it.
inline constexpr char kFullBelowVariable[] = "TOLM_TEST_FULL_BELOW";
/// The numbers of the first call that finds no space, and of the first one that finds some again.
inline constexpr char kFullFromVariable[] = "TOLM_TEST_FULL_FROM";
inline constexpr char kFullUntilVariable[] = "TOLM_TEST_FULL_UNTIL";
/// Directories with colons between them: every call counts that reads or changes something below.
inline constexpr char kBrokenBelowVariable[] = "TOLM_TEST_BROKEN_BELOW";
/// The name of the only call that counts there.
inline constexpr char kBrokenCallVariable[] = "TOLM_TEST_BROKEN_CALL";
/// The number of the call that fails with EIO.
inline constexpr char kBrokenAtVariable[] = "TOLM_TEST_BROKEN_AT";

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_KILL_AT_CALL_H_
