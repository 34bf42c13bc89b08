#ifndef TOLM_PUBLISH_PROGRAM_H_
#define TOLM_PUBLISH_PROGRAM_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolm::publish {

struct Program {
  std::string name;            ///< a path, or what is looked for in PATH
  std::string debian_package;  ///< what to install when it is not there
};

struct ProgramRun {
  std::vector<std::string> arguments = {};
  int output = -1;  ///< its standard output; only this and the next are inherited
  int input = -1;   ///< its standard input; /dev/null when negative
  std::vector<std::string> unset = {};  ///< environment variables that are kept from it
  std::vector<std::string> set = {};    ///< "NAME=value", in place of what it would inherit
  std::string directory = {};           ///< that it works in; empty: this process's
  bool own_group = false;               ///< whether it leads a process group of its own
};

struct ProgramEnd {
  int exit_status = 0;
  int signal = 0;     ///< that ended it; 0 when none did
  std::string words;  ///< the end of what it wrote to its standard error, as one line
};

/// That it is not there: package::Error(kInternal), with what to install.
[[noreturn]] void ThrowNotInstalled(const Program& program);

/// Starts the program, with @p errors as its standard error, and returns the process, for which the
/// caller waits. Throws package::Error(kInternal) when it is not there or cannot be run.
pid_t StartProgram(const Program& program, const ProgramRun& run, int errors);

/// Runs the program and waits for its end, whatever that is. Throws package::Error(kInternal) when
/// it is not there or cannot be run.
ProgramEnd RunToItsEnd(const Program& program, const ProgramRun& run);

/// Throws package::Error(kInternal), with the program's words, unless it ended with 0.
void RequireSuccess(const Program& program, const ProgramEnd& end);

/// Both.
void RunProgram(const Program& program, const ProgramRun& run);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PROGRAM_H_
