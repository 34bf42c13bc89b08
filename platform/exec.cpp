#include "tolm/exec.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <string>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/guard.h"
#include "platform/process.h"

namespace tolm::platform {
namespace {

int Failure(int error) {
  SetLastError(error);
  return -1;
}

int ToReturnValue(const ProcessResult& result) {
  switch (result.end) {
    case ProcessResult::End::kFinished:
    case ProcessResult::End::kTimedOut:  // does not happen: no limit is set here
      return result.status;
    case ProcessResult::End::kCancelled:
      // A program that answered SIGTERM with an exit status of its own did not finish its work
      // either, not even with status 0.
      return result.status > 128 ? result.status : Failure(ECANCELED);
    case ProcessResult::End::kNotStarted:
    case ProcessResult::End::kStatusUnknown:
      break;
  }
  return Failure(result.error);
}

int Execute(const char* program, std::vector<std::string> arguments) {
  if (program == nullptr)
    return Failure(EINVAL);
  ProcessRequest request;
  request.program = program;
  request.arguments = std::move(arguments);
  request.cancellable = true;
  const ProcessResult result = RunProcess(request);
  if (!result.Succeeded())
    LogFailure(LOG_NOTICE, request.program, result);
  return ToReturnValue(result);
}

}  // namespace
}  // namespace tolm::platform

using tolm::platform::Guarded;

int TLIBCExecl(const char* path, [[maybe_unused]] int options, ...) {
  va_list list;
  va_start(list, options);
  const int result = Guarded(-1, [&] {
    std::vector<std::string> arguments;
    while (const char* argument = va_arg(list, const char*))
      arguments.emplace_back(argument);
    return tolm::platform::Execute(path, std::move(arguments));
  });
  va_end(list);
  return result;
}

int TLIBCExec(const char* program, const char* a1, const char* a2, const char* a3, const char* a4) {
  return Guarded(-1, [&] {
    std::vector<std::string> arguments;
    for (const char* argument : {a1, a2, a3, a4}) {
      if (argument == nullptr)
        break;
      arguments.emplace_back(argument);
    }
    return tolm::platform::Execute(program, std::move(arguments));
  });
}

void TLIBCExecCancel(int cancelled) {
  tolm::platform::CancelProcesses(cancelled != 0);
}
