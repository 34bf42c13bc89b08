#ifndef TOLM_PLATFORM_PROCESS_H_
#define TOLM_PLATFORM_PROCESS_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tolm::platform {

struct ProcessRequest {
  std::string program;                 // a path; PATH is not searched; also argv[0]
  std::vector<std::string> arguments;  // argv[1] and on
  // The child's whole environment as "KEY=value"; this process's own without it.
  std::optional<std::vector<std::string>> environment;
  std::string working_directory;  // empty: this process's own
  // How long the program may run before it is ended; no limit without it.
  std::optional<std::chrono::milliseconds> time_limit;
  // Between SIGTERM and SIGKILL.
  std::chrono::milliseconds grace{3000};
  // Whether CancelProcesses ends it.
  bool cancellable = false;
};

struct ProcessResult {
  enum class End {
    kNotStarted,     // `error` is the reason, ECANCELED when it was cancelled before it started
    kFinished,       // by itself; `status` says how
    kCancelled,      // while it ran; `status` says how it ended
    kTimedOut,       // likewise
    kStatusUnknown,  // somebody else in this process collected the child; `error` is the reason
  };

  End end = End::kNotStarted;
  int error = 0;                        // an errno value
  int status = 0;                       // the exit status (0 to 255), or 128 + the signal's number
  std::vector<std::string> last_lines;  // of its standard error, see OutputTail

  bool Succeeded() const { return end == End::kFinished && status == 0; }
};

// Runs one program and waits until it has ended. The child reads /dev/null, its standard output is
// discarded and the end of its standard error is kept; it inherits no descriptor above 2, leads a
// process group of its own and starts with every signal at its default and none blocked.
//
// The wait is for the program alone: what it left running in the background is not waited for, and
// its later output is not read (it gets SIGPIPE). When the program must be ended, its process group
// gets SIGTERM, SIGKILL after the grace, and whatever of the group outlives the program itself gets
// SIGKILL.
//
// The disposition of SIGCHLD is not touched. A process that ignores it, or collects children that
// it did not start, gets kStatusUnknown: the kernel has thrown the exit status away.
//
// May be called from several threads at once. Throws std::bad_alloc before the program is started
// or after it has ended, never between.
ProcessResult RunProcess(const ProcessRequest& request);

// While set, cancellable processes are ended and no other is started. When the call that sets it
// returns, no cancellable program is started any more, and each one that is running will be ended
// even if the next call allows programs again. Waits for nothing but a start that is under way.
void CancelProcesses(bool cancelled);

// Writes how a process that did not succeed has ended, and its last lines, to the system log:
// "<name> <what happened>", then "<name>: <line>" for each line.
void LogFailure(int priority, const std::string& name, const ProcessResult& result);

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_PROCESS_H_
