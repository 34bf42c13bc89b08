// The commands that only look.

#include <iostream>

#include "tools/tolmdbud_commands.h"

namespace tolm::tool {
namespace {

using dataupdate::DatabaseConfig;
using dataupdate::DatabaseStatus;
using dataupdate::RemoteInfo;
using operation::Service;

constexpr int kNeverInstalled = -1;

std::string VersionText(int version) {
  return version == kNeverInstalled ? "none" : std::to_string(version);
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

}  // namespace

int List(const Service& service) {
  const bool listed = Succeeds("", [&service] {
    for (const std::string& name : service.config->GetDatabaseIDs()) {
      std::cout << name << '\n';
    }
  });
  return listed ? kSuccess : kFailure;
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

int Busy(const Service& service, const std::string& name) {
  bool busy = false;
  const bool answered = Succeeds(name, [&] {
    busy = name.empty() ? service.checker->IsAnyUpdating() : service.checker->IsUpdating(name);
    std::cout << (busy ? "busy" : "idle") << '\n';
  });
  if (!answered) {
    return kFailure;
  }
  return busy ? kBusy : kSuccess;
}

}  // namespace tolm::tool
