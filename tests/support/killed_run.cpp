#include "tests/support/killed_run.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/kill_at_call.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

CommandOptions Preloading(const std::string& variable) {
  CommandOptions options;
  options.environment = {std::string("LD_PRELOAD=") + TOLM_KILL_AT_CALL_LIBRARY, variable};
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer wants to be the first library, but is content with being before the C library.
  options.environment.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
#endif
  return options;
}

}  // namespace

std::vector<std::string> TraceFileChanges(const std::vector<std::string>& command) {
  const TemporaryDirectory directory;
  const std::string trace = directory.Path() / "trace";
  WriteFile(trace, "");
  const CommandResult result =
      RunCommand(command, Preloading(std::string(kTraceVariable) + '=' + trace));
  if (result.exit_status != 0) {
    throw std::runtime_error("the traced command failed: " + result.err);
  }
  std::vector<std::string> calls;
  std::istringstream lines(ReadFile(trace));
  for (std::string line; std::getline(lines, line);) {
    calls.push_back(line);
  }
  return calls;
}

CommandResult RunUntilFileChange(const std::vector<std::string>& command, std::size_t number) {
  return RunCommand(command,
                    Preloading(std::string(kKillAtVariable) + '=' + std::to_string(number)));
}

void AdoptOrphans() {
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot adopt orphans");
  }
}

void WaitForOrphans() {
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
}

}  // namespace tolm::testing
