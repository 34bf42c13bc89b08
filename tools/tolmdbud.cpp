// The operator's tool.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "operation/environment.h"
#include "operation/road.h"
#include "operation/service.h"
#include "operation/wait_watch.h"
#include "tools/command_line.h"
#include "tools/log_mirror.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

constexpr uid_t kRootUser = 0;

constexpr char kExitStatuses[] =
    "Exit status:\n"
    "  0    success; check: all up to date; verify: intact; busy: idle; doctor: well\n"
    "  1    failure, told on standard error; doctor: something has to be done\n"
    "  2    wrong usage\n"
    "  10   check: an update is offered\n"
    "  11   verify: files are damaged\n"
    "  12   no volume is chosen, or it is not mounted\n"
    "  13   busy: an operation is running\n"
    "  126  lock: the command cannot be run\n"
    "  127  lock: the command is not found\n"
    "  128+N  ended by signal N (130: Ctrl-C)\n"
    "\n"
    "tolmdbud COMMAND --help tells more of each command.";

void AddCommands(CommandSyntax app, Choice& choice) {
  AddStart(app, choice);
  AddLooking(app, choice);
  AddCheck(app, choice);
  AddDoctor(app, choice);
  AddVerify(app, choice);
  AddOperations(app, choice);
  AddSchedule(app, choice);
  AddReaderLock(app, choice);
  AddDirectory(app, choice);
  AddTrust(app, choice);
  AddVolume(app, choice);
}

int FailOnOutput() {
  std::cerr << "tolmdbud: standard output cannot be written" << std::endl;
  return kFailure;
}

int FailOnUsage(const std::string& what) {
  std::cerr << "tolmdbud: " << what << " (--help shows the usage)" << std::endl;
  return kUsage;
}

// Who only wants failures does not want to know of waits.
std::unique_ptr<operation::WaitWatch> WatchWaits(const Console& console) {
  return console.GetOptions().quiet
             ? nullptr
             : std::make_unique<operation::WaitWatch>(
                   [&console](const std::string& line) { console.Inform(line); });
}

int Run(const Choice& choice) {
  Console console(choice.options);
  const LogMirror mirror(
      [&console](int priority, const std::string& line) { console.Log(priority, line); });
  const operation::Road road([&console](const std::string& line) { console.Tell(line); });
  const auto waits = WatchWaits(console);
  int status = kFailure;
  console.Succeeds("", [&] {
    status = choice.command(console, operation::BuildService([&console](const std::string& what) {
                              console.Warn(what);
                            }));
  });
  if (console.HasFailed() && geteuid() != kRootUser) {
    console.Warn("this was not run as root; \"tolmdbud " + choice.name +
                 " --help\" says what needs root's rights");
  }
  console.Finish(choice.name, status);
  return std::cout.flush() ? status : FailOnOutput();
}

int Main(int argc, char** argv) {
  CommandLine line("Keeps databases up to date from their download server.", "tolmdbud",
                   "tolmdbud " TOLM_VERSION);
  line.Syntax().SetFooter(kExitStatuses);
  Choice choice;
  choice.options.callers_umask = umask(022);
  AddCommands(line.Syntax(), choice);
  try {
    switch (line.Parse(argc, argv)) {
      case CommandLine::Result::kNoCommand:
        return FailOnUsage("a command is required");
      case CommandLine::Result::kAnswered:
        return kSuccess;
      case CommandLine::Result::kCommand:
        break;
    }
  } catch (const WrongUsage& error) {
    return FailOnUsage(error.what());
  }
  operation::PrepareProcess();
  openlog("tolmdbud", LOG_PID, LOG_DAEMON);
  return Run(choice);
}

}  // namespace
}  // namespace tolm::tool

int main(int argc, char** argv) {
  try {
    return tolm::tool::Main(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "tolmdbud: " << error.what() << std::endl;
    return tolm::tool::kFailure;
  }
}
