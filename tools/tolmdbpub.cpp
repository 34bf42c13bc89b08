// The publisher's tool: parses, calls one function of the publish library, maps its result to an
// exit code.

#include <sys/stat.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "publish/test_command.h"
#include "tools/command_line.h"
#include "tools/tolmdbpub_commands.h"

namespace {

using tolm::tool::CommandLine;
using tolm::tool::kFailure;
using tolm::tool::kSuccess;
using tolm::tool::kUsage;
using tolm::tool::PrintError;

constexpr char kExitCodes[] =
    "Exit codes: 0 success, 1 failure, 2 wrong usage. check also: 3 in order, but a certificate "
    "ends soon.";

// The exit status when all that was said has been written.
int Flushed(int status) {
  if (!std::cout.flush()) {
    PrintError("cannot write to standard output");
    return kFailure;
  }
  return status;
}

int FailOnUsage(const std::string& what) {
  PrintError(what + " (--help shows the usage)");
  return kUsage;
}

int Run(int argc, char** argv) {
  CommandLine line("Makes releases of databases and the static tree that devices get them from.",
                   "", "tolmdbpub " TOLM_VERSION);
  const tolm::tool::CommandSyntax app = line.Syntax();
  app.SetFooter(kExitCodes);
  int status = kSuccess;
  tolm::tool::AddPackageCommands(app);
  tolm::tool::AddReleaseCommand(app, status);
  tolm::tool::AddWithdrawCommand(app);
  tolm::tool::AddRolloutCommands(app);
  tolm::tool::AddRepositoryCommands(app, status);
  tolm::tool::AddDescriptionCommands(app);
  tolm::tool::AddPushCommand(app);
  tolm::tool::AddServingCommands(app);
  try {
    if (line.Parse(argc, argv) == CommandLine::Result::kNoCommand) {
      return FailOnUsage("a subcommand is required");
    }
  } catch (const tolm::tool::WrongUsage& error) {
    return FailOnUsage(error.what());
  }
  return Flushed(status);
}

}  // namespace

int main(int argc, char** argv) {
  umask(022);  // Whatever the caller's.
  try {
    return Run(argc, argv);
  } catch (const tolm::publish::Interrupted& interrupted) {
    // Everything is cleaned up; whoever waits for this process learns how it ended.
    std::signal(interrupted.signal, SIG_DFL);
    std::raise(interrupted.signal);
    return kFailure;
  } catch (const std::exception& error) {
    PrintError(error.what());
    return kFailure;
  }
}
