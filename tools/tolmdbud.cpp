// The operator's tool.

#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "operator/environment.h"
#include "operator/interrupt.h"
#include "operator/service.h"

namespace {

using tolm::dataupdate::DatabaseConfig;
using tolm::dataupdate::DatabaseStatus;
using tolm::dataupdate::RemoteInfo;
using tolm::operation::Interrupt;
using tolm::operation::Service;

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2, kSignal = 128 };

constexpr int kNeverInstalled = -1;

void PrintFailure(const std::string& what) {
  std::cerr << "tolmdbud: " << what << std::endl;
}

// Runs the action and says on one line why it failed, when it did.
bool Succeeds(const std::string& context, const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const std::exception& error) {
    PrintFailure((context.empty() ? "" : context + ": ") + error.what());
    return false;
  }
}

std::string VersionText(int version) {
  return version == kNeverInstalled ? "none" : std::to_string(version);
}

int List(const Service& service) {
  const bool listed = Succeeds("", [&service] {
    for (const std::string& name : service.config->GetDatabaseIDs()) {
      std::cout << name << '\n';
    }
  });
  return listed ? kSuccess : kFailure;
}

std::string StateText(int installed, int offered) {
  if (installed == kNeverInstalled) {
    return "not installed";
  }
  return installed < offered ? "update offered" : "up to date";
}

void PrintStatus(const Service& service, const std::string& name) {
  const std::shared_ptr<DatabaseConfig> config = service.config->GetDatabaseConfig(name);
  const DatabaseStatus installed = service.info->GetDatabaseStatus(name);
  const RemoteInfo remote = service.info->GetRemoteInfo(name);
  std::cout << name << '\n'
            << "  installed  " << VersionText(installed.data_version) << '\n'
            << "  offered    " << remote.data_version << (remote.deprecated ? " (deprecated)" : "")
            << '\n'
            << "  state      " << StateText(installed.data_version, remote.data_version) << '\n'
            << "  directory  " << config->GetInstallPrefix() << '\n'
            << "  schedule   " << (config->GetScheduled() ? "on" : "off") << '\n';
}

int Status(const Service& service) {
  bool good = true;
  const bool listed = Succeeds("", [&service, &good] {
    const std::string volume = service.config->GetCurVolume();
    std::cout << "volume       " << (volume.empty() ? "none" : volume) << '\n';
    for (const std::string& name : service.config->GetDatabaseIDs()) {
      good = Succeeds(name, [&service, &name] { PrintStatus(service, name); }) && good;
    }
  });
  return listed && good ? kSuccess : kFailure;
}

void PrintStored(const Service& service, const std::string& verb) {
  for (const auto& [name, version] : service.info->stored_versions()) {
    std::cout << name << ": " << verb << ' ' << version << std::endl;
  }
}

bool AnyScheduled(const Service& service) {
  for (const std::string& name : service.config->GetDatabaseIDs()) {
    if (service.config->GetDatabaseConfig(name)->GetScheduled()) {
      return true;
    }
  }
  return false;
}

struct Operation {
  std::string verb;       // "updated to"
  std::string unchanged;  // "up to date"
  std::function<void(const std::string&)> one;
  std::function<void()> all;
};

// Without a volume the library ends normally after a warning in the system log; a person who asked
// for an update must hear of it.
void RequireVolume(const Service& service) {
  if (service.config->GetCurVolume().empty()) {
    throw std::runtime_error("no volume is chosen, nothing was done");
  }
}

bool OperateOnOne(const Service& service, const Operation& operation, const std::string& name) {
  return Succeeds(name, [&] {
    if (isatty(STDERR_FILENO) != 0) {
      std::cerr << name << ": working..." << std::endl;
    }
    operation.one(name);
    const auto stored = service.info->stored_versions().find(name);
    if (stored != service.info->stored_versions().end()) {
      std::cout << name << ": " << operation.verb << ' ' << stored->second << std::endl;
      return;
    }
    RequireVolume(service);
    std::cout << name << ": " << operation.unchanged << std::endl;
  });
}

bool OperateOnAll(const Service& service, const Operation& operation) {
  const bool good = Succeeds("", [&] {
    operation.all();
    if (AnyScheduled(service)) {
      RequireVolume(service);
    }
  });
  PrintStored(service, operation.verb);
  return good;
}

int Operate(const Service& service, const Operation& operation,
            const std::vector<std::string>& names) {
  const Interrupt interrupt;
  bool good = true;
  if (names.empty()) {
    good = OperateOnAll(service, operation);
  }
  for (const std::string& name : names) {
    if (interrupt.signal() != 0) {
      break;
    }
    good = OperateOnOne(service, operation, name) && good;
  }
  if (interrupt.signal() != 0) {
    PrintFailure("interrupted");
    return kSignal + interrupt.signal();
  }
  return good ? kSuccess : kFailure;
}

// Adds a command that works on named databases or on all.
CLI::App* AddOperation(CLI::App& app, const std::string& name, const std::string& help,
                       std::vector<std::string>& names, bool& all) {
  CLI::App* command = app.add_subcommand(name, help);
  CLI::Option* chosen = command->add_option(
      "NAME", names, "Databases; a failure of one is reported and the next is tried");
  command
      ->add_flag("--all", all, "Every scheduled database, in order; the first failure ends the run")
      ->excludes(chosen);
  command->callback([&names, &all] {
    if (names.empty() && !all) {
      throw CLI::ValidationError("name a database or give --all");
    }
  });
  return command;
}

int Main(int argc, char** argv) {
  CLI::App app("Keeps databases up to date from their download server.", "tolmdbud");
  app.require_subcommand(1);
  app.footer("Exit status: 0 success, 1 failure, 2 wrong usage, 128 + N ended by signal N.");
  std::vector<std::string> names;
  bool all = false;
  const CLI::App* list = app.add_subcommand("list", "Name the configured databases");
  const CLI::App* status =
      app.add_subcommand("status", "Show what is installed and what is offered");
  const CLI::App* update =
      AddOperation(app, "update", "Bring databases to the newest version", names, all);
  AddOperation(app, "fix", "Check installed files and reinstall damaged databases", names, all);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSuccess : kUsage;
  }

  tolm::operation::PrepareProcess();
  openlog("tolmdbud", LOG_PID, LOG_DAEMON);
  const Service service = tolm::operation::BuildService();
  if (list->parsed()) {
    return List(service);
  }
  if (status->parsed()) {
    return Status(service);
  }
  const auto& front = *service.update;
  if (update->parsed()) {
    return Operate(service,
                   {"updated to", "up to date",
                    [&front](const std::string& name) { front.UpdateProject(name); },
                    [&front] { front.UpdateAllProjects(); }},
                   names);
  }
  return Operate(
      service,
      {"repaired with", "intact", [&front](const std::string& name) { front.FixProject(name); },
       [&front] { front.FixAllProjects(); }},
      names);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& error) {
    PrintFailure(error.what());
    return kFailure;
  }
}
