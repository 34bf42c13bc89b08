// The commands that change databases.

#include <unistd.h>

#include <iostream>
#include <stdexcept>

#include "operator/interrupt.h"
#include "tools/tolmdbud_commands.h"

namespace tolm::tool {
namespace {

using operation::Interrupt;
using operation::Service;

struct Operation {
  std::string verb;       // "updated to"
  std::string unchanged;  // "up to date"
  std::function<void(const std::string&)> one;
  std::function<void()> all;
};

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
    PrintNote("interrupted");
    return kSignal + interrupt.signal();
  }
  return good ? kSuccess : kFailure;
}

}  // namespace

int UpdateDatabases(const Service& service, const std::vector<std::string>& names) {
  const dataupdate::Update& front = *service.update;
  return Operate(
      service,
      {"updated to", "up to date", [&front](const std::string& name) { front.UpdateProject(name); },
       [&front] { front.UpdateAllProjects(); }},
      names);
}

int FixDatabases(const Service& service, const std::vector<std::string>& names) {
  const dataupdate::Update& front = *service.update;
  return Operate(
      service,
      {"repaired with", "intact", [&front](const std::string& name) { front.FixProject(name); },
       [&front] { front.FixAllProjects(); }},
      names);
}

int ForceInstall(const Service& service, const std::string& name, int version) {
  const Operation operation{"force-installed", "",
                            [&service, version](const std::string& database) {
                              RequireVolume(service);  // the library would unpack below "/"
                              service.update->ForceInstall(database, version);
                            },
                            nullptr};
  return Operate(service, operation, {name});
}

}  // namespace tolm::tool
