// The operator's tool.

#include <syslog.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "operator/environment.h"
#include "operator/service.h"
#include "tools/tolmdbud_commands.h"

namespace tolm::tool {

// A note is one line and does nothing to a terminal, whatever a server put into it.
std::string WithoutControls(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  return text;
}

void PrintNote(const std::string& what) {
  std::cerr << "tolmdbud: " << WithoutControls(what) << std::endl;
}

bool Succeeds(const std::string& context, const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const std::exception& error) {
    PrintNote((context.empty() ? "" : context + ": ") + error.what());
    return false;
  }
}

namespace {

constexpr std::uint32_t kReaderWaitSeconds = 60;

// What was given on the command line.
struct Arguments {
  std::vector<std::string> names;
  bool all = false;
  std::string name;
  int version = 0;
  std::uint32_t wait_seconds = kReaderWaitSeconds;
  std::vector<std::string> command;
  std::string path;
};

using Command = std::function<int(const operation::Service&)>;

CLI::App* AddCommand(CLI::App& parent, Command& chosen, const std::string& name,
                     const std::string& help, const Command& command) {
  CLI::App* added = parent.add_subcommand(name, help);
  added->final_callback([&chosen, command] { chosen = command; });
  return added;
}

// Adds a command that works on named databases or on all.
void AddOperation(CLI::App& app, Command& chosen, Arguments& given, const std::string& name,
                  const std::string& help,
                  int (*operate)(const operation::Service&, const std::vector<std::string>&)) {
  CLI::App* command =
      AddCommand(app, chosen, name, help, [&given, operate](const operation::Service& service) {
        return operate(service, given.names);
      });
  CLI::Option* named = command->add_option(
      "NAME", given.names, "Databases; a failure of one is reported and the next is tried");
  command
      ->add_flag("--all", given.all,
                 "Every scheduled database, in order; the first failure ends the run")
      ->excludes(named);
  command->parse_complete_callback([&given] {
    if (given.names.empty() && !given.all) {
      throw CLI::ValidationError("name a database or give --all");
    }
  });
}

void AddForceInstall(CLI::App& app, Command& chosen, Arguments& given) {
  CLI::App* command =
      AddCommand(app, chosen, "force-install", "Install a version whatever is installed",
                 [&given](const operation::Service& service) {
                   return ForceInstall(service, given.name, given.version);
                 });
  command->add_option("NAME", given.name, "The database")->required();
  command
      ->add_option("--version", given.version,
                   "A version; 0 for the newest, -1 for the one before it, and so on")
      ->capture_default_str();
}

void AddLock(CLI::App& app, Command& chosen, Arguments& given) {
  CLI::App* command =
      AddCommand(app, chosen, "lock", "Run a command while no update replaces the files",
                 [&given](const operation::Service&) {
                   return Lock(given.name, given.wait_seconds, given.command);
                 });
  command->add_option("NAME", given.name, "The database")->required();
  command
      ->add_option("--wait", given.wait_seconds, "Seconds to wait for an update that replaces them")
      ->capture_default_str();
  command->add_option("COMMAND", given.command, "Given after --, with its arguments")->required();
  command->footer("Exit status: the command's own; 1 when the lock is not had.");
}

std::string MustBeAbsolute(const std::string& path) {
  return path.compare(0, 1, "/") == 0 ? "" : "must be an absolute path: " + path;
}

void AddVolume(CLI::App& app, Command& chosen, Arguments& given) {
  CLI::App* volume = app.add_subcommand("volume", "Follow the storage volumes");
  volume->require_subcommand(1);
  AddCommand(*volume, chosen, "show", "Show the chosen volume and the others", VolumeShow);
  AddCommand(
      *volume, chosen, "mounted", "A volume was mounted: choose it when there is none",
      [&given](const operation::Service& service) { return VolumeMounted(service, given.path); })
      ->add_option("PATH", given.path, "Where it is mounted")
      ->required()
      ->check(MustBeAbsolute);
  AddCommand(
      *volume, chosen, "unmounting", "A volume goes away: move its databases to another one",
      [&given](const operation::Service& service) { return VolumeUnmounting(service, given.path); })
      ->add_option("PATH", given.path, "Where it is mounted")
      ->required()
      ->check(MustBeAbsolute);
}

void AddCommands(CLI::App& app, Command& chosen, Arguments& given) {
  AddCommand(app, chosen, "init", "At the start of the service: choose a volume, let readers lock",
             Init);
  AddCommand(app, chosen, "list", "Name the configured databases", List);
  AddCommand(app, chosen, "status", "Show what is installed and what is offered", Status);
  AddOperation(app, chosen, given, "update", "Bring databases to the newest version",
               UpdateDatabases);
  AddOperation(app, chosen, given, "fix", "Check installed files and reinstall damaged databases",
               FixDatabases);
  AddForceInstall(app, chosen, given);
  AddLock(app, chosen, given);
  AddCommand(app, chosen, "busy", "Say whether an operation is running, of one database or of any",
             [&given](const operation::Service& service) { return Busy(service, given.name); })
      ->add_option("NAME", given.name, "The database");
  AddVolume(app, chosen, given);
}

int Main(int argc, char** argv) {
  CLI::App app("Keeps databases up to date from their download server.", "tolmdbud");
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 success, 1 failure, 2 wrong usage, 13 an operation is running (busy),\n"
      "128 + N ended by signal N.");
  Arguments given;
  Command chosen;
  AddCommands(app, chosen, given);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSuccess : kUsage;
  }
  operation::PrepareProcess();
  openlog("tolmdbud", LOG_PID, LOG_DAEMON);
  return chosen(operation::BuildService(PrintNote));
}

}  // namespace
}  // namespace tolm::tool

int main(int argc, char** argv) {
  try {
    return tolm::tool::Main(argc, argv);
  } catch (const std::exception& error) {
    tolm::tool::PrintNote(error.what());
    return tolm::tool::kFailure;
  }
}
