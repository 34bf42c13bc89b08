#ifndef TOLM_OPERATION_RUN_H_
#define TOLM_OPERATION_RUN_H_

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "operation/export.h"
#include "operation/history.h"
#include "operation/service.h"

namespace tolm::operation {

/// Thrown when no volume is chosen, where the library would end normally or work below "/", and
/// when the chosen one is not mounted, where it would fill the disk below.
class TOLM_OPERATION_API NoVolume : public std::runtime_error {
 public:
  NoVolume() : runtime_error("no volume is chosen, nothing was done") {}
  explicit NoVolume(const std::string& not_mounted)
      : runtime_error(not_mounted + " is chosen but not mounted; nothing was done") {}
};

/// Throws NoVolume unless this mount path, ServiceConfig's present volume, is chosen and mounted.
/// Waits for nothing; any thread may call it.
TOLM_OPERATION_API void RequireVolume(const std::string& chosen);

/// One run of a program over one or more databases, made a good citizen:
///
/// - every operation is written to the history;
/// - downloads are bounded by the space that there is: a package leaves five per cent of its volume
///   free, whatever the server sends;
/// - a run that asks the server for something and fails makes scheduled runs leave the server alone
///   for a while; one that succeeds ends that. A run that a person has interrupted says nothing
///   about the server;
/// - what an operation that was cut short has left is found and repaired (see BuildService);
/// - progress is shown;
/// - a signal that Interrupt has received ends it between any two steps before the installation of
///   files.
///
/// One at a time in a process. It works in the thread that calls it, which must be the same for all
/// calls. The service must outlive it. A daemon that stays makes one for each round.
class TOLM_OPERATION_API Run {
 public:
  /// A scheduled run is one that a timer has started and nobody waits for. Progress is one line on
  /// the terminal that standard error is, drawn by a thread; nothing without a terminal. From now
  /// on SIGXFSZ is ignored by the process.
  Run(const Service& service, bool scheduled, bool with_progress);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// Why a scheduled run must not go on now, in words; nothing when it may. Puts the first refusal
  /// after a failure into the history. Throws std::exception when that cannot be found out.
  std::optional<std::string> HeldBack();

  /// The operations of dataupdate::Update on one database: each waits up to 600 s for others and
  /// returns what came of it, which is valid until the next one. Before it begins they throw
  /// DamagedSettings, UpdateError when the database is not configured or its settings cannot be
  /// read, NoVolume, and Interrupted when Interrupt has received a signal already; the history has
  /// nothing of that. What ends it later is in the history: they throw what the library throws
  /// (UpdateError with the reason of a failed download added, std::exception), and Interrupted in
  /// place of any failure after a signal.
  const HistoryEntry& Update(const std::string& database);
  const HistoryEntry& Fix(const std::string& database);
  /// Fix after a comparison of all installed files with the full package of the installed version
  /// (VerifyAgainstPackage), which is downloaded for it: where one differs or is missing, what is
  /// offered is installed in full.
  const HistoryEntry& FixByPackage(const std::string& database);
  /// Version 0 is the newest, -1 the one before it, and so on.
  const HistoryEntry& ForceInstall(const std::string& database, int version);

  /// To be called at the end, with whether all that was asked for was done: this is what the
  /// server's cool-down goes by. A run that is not finished counts as a failure of the server.
  void Finish(bool good) noexcept;

  /// Of all operations so far, in their order.
  const std::vector<HistoryEntry>& Results() const;

 private:
  class TOLM_OPERATION_PRIVATE Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RUN_H_
