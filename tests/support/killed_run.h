#ifndef TOLM_SUPPORT_KILLED_RUN_H_
#define TOLM_SUPPORT_KILLED_RUN_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"

namespace tolm::testing {

/// Runs tolmdbud or tolmdbpub, which must succeed, and returns the calls that it makes in order to
/// change files (or to lock them, to sync them, to start a program), each as its name and what it
/// is about: "rename /a". Starting a program gives two lines, one for when it runs. Throws
/// std::runtime_error when the command fails.
std::vector<std::string> TraceFileChanges(const std::vector<std::string>& command);

/// Runs tolmdbud or tolmdbpub and ends it by SIGKILL right before the call of this number, counted
/// from 1. What it has started lives on. One that makes fewer calls is not ended.
CommandResult RunUntilFileChange(const std::vector<std::string>& command, std::size_t number);

/// The same for those calls only that take space below @p directory: for new names, for contents,
/// or when something is synced.
std::vector<std::string> TraceSpaceUse(const std::vector<std::string>& command,
                                       const std::string& directory);

/// From which of the calls that TraceSpaceUse() gives, counted from 1, there is no space for so
/// many.
struct Shortage {
  std::string directory;
  std::size_t first;
  std::size_t count;
};
inline constexpr std::size_t kForEver = SIZE_MAX / 2;

/// Runs tolmdbud, to which the file system below the directory seems full: the calls fail with
/// ENOSPC. The programs that it starts see the true one.
CommandResult RunInShortage(const std::vector<std::string>& command, const Shortage& shortage);

/// What is below these directories, and of the calls there only those of this name, if it has one.
struct BadDisk {
  BadDisk(std::vector<std::string> below, std::string name = "")
      : directories(std::move(below)), call(std::move(name)) {}

  std::vector<std::string> directories;
  std::string call;
};

/// The calls of tolmdbud or tolmdbpub that a bad disk would let fail: what reads or changes files
/// and directories, looks at them or closes them, by whatever name. The command must end with this
/// exit status. Throws std::runtime_error.
std::vector<std::string> TraceDiskUse(const std::vector<std::string>& command, const BadDisk& disk,
                                      int exit_status = 0);

struct BrokenRun {
  CommandResult result;
  std::string failed;  ///< The call; empty when there were not so many.
};

/// Runs it with the call of this number, counted from 1 among those of TraceDiskUse(), failing with
/// EIO. The programs that it starts find a good disk. Where several threads are at work the same
/// number may be another call each time, but with a name never one of another kind.
BrokenRun RunOnBadDisk(const std::vector<std::string>& command, const BadDisk& disk,
                       std::size_t number);

struct TimedCall {
  double seconds;    ///< Since the tool's start.
  std::string call;  ///< As TraceFileChanges() gives it.
};

struct MeasuredRun {
  CommandResult result;
  std::vector<TimedCall> calls;
  double seconds;            ///< In all.
  std::uint64_t peak_bytes;  ///< Resident at most, without the programs that it starts.
};

/// Runs tolmdbud or tolmdbpub, which must end with this exit status, and measures it. Throws
/// std::runtime_error.
MeasuredRun Measure(const std::vector<std::string>& command, int exit_status = 0);

/// From now on, processes that are left without a parent become this one's children, for
/// WaitForOrphans(). Throws std::system_error.
void AdoptOrphans();

/// Waits for the end of every child that this process has. None may be waited for elsewhere.
void WaitForOrphans();

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_KILLED_RUN_H_
