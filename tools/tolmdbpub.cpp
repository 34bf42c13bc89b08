// The publisher's tool: parses, calls one function of the publish library, maps its result to an
// exit code.

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "publish/test_command.h"
#include "tools/tolmdbpub_commands.h"

namespace {

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

int Run(int argc, char** argv) {
  CLI::App app("Makes releases of databases and the static tree that devices get them from.");
  app.footer(kExitCodes);
  app.set_version_flag("--version", "tolmdbpub " TOLM_VERSION, "Print the version and exit");
  // Demanding one here would hide the name of an unknown one behind "a subcommand is required".
  app.require_subcommand(0, 1);
  int status = kSuccess;
  tolm::tool::AddPackageCommands(app);
  tolm::tool::AddReleaseCommand(app, status);
  tolm::tool::AddWithdrawCommand(app);
  tolm::tool::AddRepositoryCommands(app, status);
  tolm::tool::AddServingCommands(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      app.exit(error);  // --help, --version
      return Flushed(kSuccess);
    }
    PrintError(std::string(error.what()) + " (--help shows the usage)");
    return kUsage;
  }
  if (app.get_subcommands().empty()) {
    PrintError("a subcommand is required (--help shows the usage)");
    return kUsage;
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
