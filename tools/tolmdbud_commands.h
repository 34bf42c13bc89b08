#ifndef TOLM_TOOLS_TOLMDBUD_COMMANDS_H_
#define TOLM_TOOLS_TOLMDBUD_COMMANDS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "operator/service.h"

/// The commands of tolmdbud. Each prints its result on standard output, one clear line for each
/// failure on standard error, and returns the exit status.
namespace tolm::tool {

enum ExitStatus {
  kSuccess = 0,
  kFailure = 1,
  kUsage = 2,
  kBusy = 13,
  kCannotExecute = 126,
  kCommandNotFound = 127,
  kSignal = 128
};

/// "tolmdbud: <what>" on standard error.
void PrintNote(const std::string& what);

/// Runs the action and says on one line why it failed, when it did.
bool Succeeds(const std::string& context, const std::function<void()>& action);

int List(const operation::Service& service);
int Status(const operation::Service& service);
/// Of one database, or of any when the name is empty.
int Busy(const operation::Service& service, const std::string& name);

/// Without names: all that are scheduled.
int UpdateDatabases(const operation::Service& service, const std::vector<std::string>& names);
int FixDatabases(const operation::Service& service, const std::vector<std::string>& names);
int ForceInstall(const operation::Service& service, const std::string& name, int version);

int Init(const operation::Service& service);
int VolumeShow(const operation::Service& service);
int VolumeMounted(const operation::Service& service, const std::string& volume);
int VolumeUnmounting(const operation::Service& service, const std::string& volume);

/// Runs the command while the database's shared lock is held. Returns its exit status, or 128 + the
/// signal that ended it. Waits up to `wait_seconds` for the lock.
int Lock(const std::string& name, std::uint32_t wait_seconds,
         const std::vector<std::string>& command);

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBUD_COMMANDS_H_
