#include "tests/support/killed_run.h"

#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/kill_at_call.h"
#include "tests/support/preload.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

CommandOptions Preloading(const std::vector<std::string>& variables) {
  CommandOptions options;
  options.environment = Preload(TOLM_KILL_AT_CALL_LIBRARY);
  options.environment.insert(options.environment.end(), variables.begin(), variables.end());
  return options;
}

std::string Setting(const char* variable, const std::string& value) {
  return std::string(variable) + '=' + value;
}

double MonotonicSeconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

MeasuredRun Parse(const std::string& trace, double started) {
  MeasuredRun run{};
  std::ifstream lines(trace);
  std::string call;
  for (double seconds = 0; lines >> seconds && std::getline(lines >> std::ws, call);) {
    if (call.rfind(kPeakMark, 0) == 0) {
      run.peak_bytes = std::stoull(call.substr(sizeof kPeakMark - 1));
    } else {
      run.calls.push_back({seconds - started, call});
    }
  }
  return run;
}

// Whatever it ends with.
MeasuredRun TraceAny(const std::vector<std::string>& command, std::vector<std::string> variables) {
  const TemporaryDirectory directory;
  const std::string trace = directory.Path() / "trace";
  WriteFile(trace, "");
  variables.push_back(Setting(kTraceVariable, trace));
  const double started = MonotonicSeconds();
  CommandResult result = RunCommand(command, Preloading(variables));
  const double ended = MonotonicSeconds();
  MeasuredRun run = Parse(trace, started);
  run.result = std::move(result);
  run.seconds = ended - started;
  return run;
}

MeasuredRun Trace(const std::vector<std::string>& command, std::vector<std::string> variables,
                  int exit_status = 0) {
  MeasuredRun run = TraceAny(command, std::move(variables));
  if (run.result.exit_status != exit_status) {
    throw std::runtime_error("the traced command ended with " +
                             std::to_string(run.result.exit_status) + ": " + run.result.err);
  }
  return run;
}

std::vector<std::string> Variables(const BadDisk& disk) {
  std::string joined;
  for (const std::string& directory : disk.directories) {
    joined += (joined.empty() ? "" : ":") + directory;
  }
  std::vector<std::string> variables = {Setting(kBrokenBelowVariable, joined)};
  if (!disk.call.empty()) {
    variables.push_back(Setting(kBrokenCallVariable, disk.call));
  }
  return variables;
}

std::vector<std::string> CallsOf(const MeasuredRun& run) {
  std::vector<std::string> calls;
  for (const TimedCall& timed : run.calls) {
    calls.push_back(timed.call);
  }
  return calls;
}

}  // namespace

std::vector<std::string> TraceFileChanges(const std::vector<std::string>& command) {
  return CallsOf(Trace(command, {}));
}

std::vector<std::string> TraceSpaceUse(const std::vector<std::string>& command,
                                       const std::string& directory) {
  return CallsOf(Trace(command, {Setting(kFullBelowVariable, directory)}));
}

MeasuredRun Measure(const std::vector<std::string>& command, int exit_status) {
  MeasuredRun run = Trace(command, {}, exit_status);
  if (run.peak_bytes == 0) {
    throw std::runtime_error("the memory of the traced command was not measured");
  }
  return run;
}

CommandResult RunUntilFileChange(const std::vector<std::string>& command, std::size_t number) {
  return RunCommand(command, Preloading({Setting(kKillAtVariable, std::to_string(number))}));
}

CommandResult RunInShortage(const std::vector<std::string>& command, const Shortage& shortage) {
  return RunCommand(
      command,
      Preloading({Setting(kFullBelowVariable, shortage.directory),
                  Setting(kFullFromVariable, std::to_string(shortage.first)),
                  Setting(kFullUntilVariable, std::to_string(shortage.first + shortage.count))}));
}

std::vector<std::string> TraceDiskUse(const std::vector<std::string>& command, const BadDisk& disk,
                                      int exit_status) {
  return CallsOf(Trace(command, Variables(disk), exit_status));
}

BrokenRun RunOnBadDisk(const std::vector<std::string>& command, const BadDisk& disk,
                       std::size_t number) {
  std::vector<std::string> variables = Variables(disk);
  variables.push_back(Setting(kBrokenAtVariable, std::to_string(number)));
  MeasuredRun run = TraceAny(command, std::move(variables));
  return {std::move(run.result), number <= run.calls.size() ? run.calls[number - 1].call : ""};
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
