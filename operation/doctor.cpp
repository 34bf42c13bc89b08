#include "operation/doctor.h"

#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <cerrno>
#include <ctime>
#include <exception>
#include <filesystem>
#include <system_error>

#include "base/file.h"
#include "base/paths.h"
#include "base/trusted_directory.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "operation/doctor_looks.h"
#include "operation/failure.h"
#include "operation/history.h"
#include "operation/installed_record.h"
#include "operation/interrupt.h"
#include "operation/lock_holder.h"
#include "operation/recovery.h"
#include "operation/schedule.h"
#include "operation/settings_check.h"
#include "operation/settings_file.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "operation/trust_state.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::NoexceptFormat;
using Effect = SettingsProblem::Effect;

constexpr char kConfiguration[] = "configuration";
constexpr char kHidden[] = "hidden";
constexpr char kTimers[] = "timers";
constexpr char kCoolDown[] = "cool-down";
constexpr char kRecords[] = "records";
constexpr char kLastRun[] = "last-run";
constexpr char kLeftOvers[] = "left-overs";
constexpr char kLocks[] = "locks";

constexpr char kConfigure[] =
    "bring the configuration of the publisher there (tolmdbpub install-config)";

// "<what> (<remedy>)", as ForeignGround has it.
struct Reason {
  std::string what;
  std::string remedy;
};
Reason Split(const std::string& reason) {
  const std::size_t at = reason.rfind(" (");
  if (at == std::string::npos || reason.back() != ')') {
    return {reason, ""};
  }
  return {reason.substr(0, at), reason.substr(at + 2, reason.size() - at - 3)};
}

void LookAtFiles(Findings& findings) {
  for (const SettingsProblem& problem : CheckSettingsFiles()) {
    if (problem.effect == Effect::kSetAside) {
      findings.Note(kConfiguration, problem.file, problem.problem);
    } else {
      findings.Problem(kConfiguration, problem.file, problem.problem, "correct it");
    }
  }
}

void LookAtHidden(Findings& findings) {
  for (const std::string& name : HiddenDatabases()) {
    findings.Problem(
        kHidden, name,
        std::string("no command sees it, ") + paths::kDatabaseOverrides + " does not list it",
        "tolmdbud schedule " + name + " on");
  }
}

void LookAtTimer(const Timer& timer, Findings& findings) {
  if (timer.is_waiting) {
    findings.Ok(kTimers, timer.unit,
                timer.next ? "next run " + TimeText(*timer.next) : "it is started");
  } else if (!timer.is_installed) {
    findings.Note(kTimers, timer.unit, "it is not installed");
  } else {
    findings.Note(kTimers, timer.unit,
                  timer.is_enabled ? "it is enabled and not started" : "it is not enabled",
                  "systemctl enable --now " + timer.unit);
  }
}

void LookAtTimers(Findings& findings) {
  Timers timers;
  if (!findings.Try(kTimers, "", "", [&] { timers = ExamineTimers(); })) {
    return;
  }
  if (!timers.cron.empty()) {
    findings.Ok(kTimers, timers.cron, "cron begins the runs");
  } else if (timers.is_silent) {
    findings.Note(kTimers, "",
                  "systemd runs this machine and did not answer: nothing is known of the timers",
                  "systemctl list-timers, which says more");
  } else if (!timers.is_known) {
    findings.Note(kTimers, "",
                  "systemd does not run this machine, and there is no " +
                      std::string(paths::kCronTable) + ": nothing is known to begin runs");
  } else {
    LookAtTimer(timers.update, findings);
    LookAtTimer(timers.verify, findings);
  }
}

void LookAtCoolDowns(Findings& findings) {
  for (const ServerCoolDown& cool_down : PresentCoolDowns()) {
    findings.Note(kCoolDown, cool_down.server,
                  "scheduled runs leave it alone until " + TimeText(cool_down.until) + " after " +
                      std::to_string(cool_down.failures) +
                      (cool_down.failures == 1 ? " failure" : " failures in a row"),
                  "tolmdbud update --all, which does not wait");
  }
}

bool OperationRuns() {
  return !HoldersOf(paths::kOperatorLock).empty() || !HoldersOf(paths::kUpdateAnyLock).empty();
}

// Whether another account's file may not be read; nothing is said of what is in it then.
bool IsHidden(const std::string& file) {
  return access(file.c_str(), R_OK) != 0 && errno == EACCES;
}

std::string ProblemOfVersion(const std::string& file) {
  const std::string problem = ProblemOfSettings(file);
  const std::optional<Json::Value> document = ReadSettings(file);
  if (!problem.empty() || !document) {
    return problem.empty() ? "" : "version.json: " + problem;
  }
  try {
    dataupdate::DatabaseStatus::FromJson(*document);
  } catch (const dataupdate::UpdateError&) {
    return "version.json: it holds no version";
  } catch (const std::exception&) {
    return "the version recorded in version.json is no number";
  }
  return "";
}

// The library takes damage for "never installed", and says nothing.
void LookAtVersion(const std::string& name, Findings& findings) {
  const std::string file = (NoexceptFormat(paths::kVersionFile) % name).str();
  if (IsHidden(file)) {
    findings.Skipped(kRecords, name, "it needs root's rights to look at version.json");
    return;
  }
  const std::string problem = ProblemOfVersion(file);
  if (!problem.empty()) {
    findings.Problem(kRecords, name, problem,
                     "tolmdbud update " + name + ", which installs in full");
  }
}

void LookAtFloors(Findings& findings) {
  const std::string file = paths::kTrustState;
  if (IsHidden(file)) {
    return;  // It is for root's eyes only.
  }
  const SettingsFile state = LoadSettings(file);
  if (state.is_unreadable) {
    findings.Problem(kRecords, file, state.problem + ": operations end with that",
                     "look after the disk; without the file every floor is forgotten");
  } else if (!state.problem.empty() || !LookForFloor("")) {
    findings.Problem(kRecords, file,
                     (state.problem.empty() ? "it has another form" : state.problem) +
                         ": the next operation puts it aside and forgets every floor",
                     "bring a copy of it back, if there is one");
  }
}

// What operations have put aside and gone on without.
void LookAtAside(const Patient& patient, Findings& findings) {
  std::vector<std::string> files = {paths::kTrustState, paths::kCoolDowns};
  for (const std::string& name : patient.names) {
    files.push_back((NoexceptFormat(paths::kVersionFile) % name).str());
  }
  for (const std::string& file : files) {
    for (const std::string& aside : SetAsideOf(file)) {
      findings.Note(kRecords, aside, "an operation has put it aside and gone on without it",
                    "look at it, then remove it");
    }
  }
}

// What the operations remember of a database.
void LookAtRecord(const std::string& name, Findings& findings) {
  std::error_code ignored;
  if (fs::exists(RecoveryMarkPath(name), ignored) && !OperationRuns()) {
    findings.Problem(kRecords, name, "an operation was cut short, files may be half replaced",
                     "tolmdbud update " + name);
  }
  LookAtVersion(name, findings);
  switch (ReadRecordHead(name).state) {
    case RecordState::kDamaged:
      findings.Problem(kRecords, name, "installed.json is damaged", "tolmdbud fix " + name);
      break;
    case RecordState::kUnreadable:
      findings.Problem(kRecords, name, "installed.json or version.json cannot be read",
                       "look after the disk, then tolmdbud fix " + name);
      break;
    case RecordState::kOutdated:
      findings.Note(kRecords, name, "another program has installed since installed.json was made",
                    "tolmdbud fix " + name);
      break;
    case RecordState::kMissing:
    case RecordState::kCurrent:
      break;
  }
}

void LookAtRecords(const Patient& patient, Findings& findings) {
  for (const std::string& name : patient.names) {
    LookAtRecord(name, findings);
  }
  LookAtFloors(findings);
  LookAtAside(patient, findings);
  if (findings.IsWell(kRecords)) {
    findings.Ok(kRecords, "", "no operation was cut short");
  }
}

// What the looks here do not find may still keep every update out: a keyring of somebody else.
void LookAtLastRuns(const Patient& patient, Findings& findings) {
  for (const std::string& name : patient.names) {
    const std::optional<HistoryEntry> last = LastOf(name);
    if (last && last->outcome == kFailed) {
      const std::string& why = last->failure.text.empty() ? last->message : last->failure.text;
      findings.Problem(kLastRun, name, last->operation + " failed on " + last->time + ": " + why,
                       "");
    }
  }
}

void LookAtLeftOvers(const Patient& patient, Findings& findings) {
  const std::string directory = (NoexceptFormat(paths::kTemporaryRoot) % patient.volume).str();
  std::error_code ignored;
  if (patient.volume.empty() || OperationRuns()) {
    return;
  }
  if (fs::exists(fs::symlink_status(directory, ignored))) {
    findings.Note(kLeftOvers, directory, "an operation that was ended has left temporary files",
                  "nothing, the next operation removes them");
  } else {
    findings.Ok(kLeftOvers, "", "there are no temporary files");
  }
}

void LookAtLock(const std::string& lock, Findings& findings) {
  for (const LockHolder& holder : HoldersOf(lock)) {
    const std::string who = "process " + std::to_string(holder.pid) +
                            (holder.program.empty() ? "" : ", " + holder.program) + ", holds it";
    if (holder.is_roots) {
      findings.Note(kLocks, lock, who + ": an operation runs");
    } else {
      findings.Problem(kLocks, lock, who + " and is not root's: no operation can begin",
                       "kill " + std::to_string(holder.pid) + ", or let it end");
    }
  }
}

void LookAtLocks(const Patient& patient, Findings& findings) {
  std::vector<std::string> locks = {paths::kOperatorLock, paths::kUpdateAnyLock,
                                    paths::kFreshInfoLock, paths::kConfigLock, paths::kNotesLock};
  for (const std::string& name : patient.names) {
    locks.push_back((NoexceptFormat(paths::kUpdateLock) % name).str());
  }
  for (const std::string& lock : locks) {
    LookAtLock(lock, findings);
  }
  if (findings.IsWell(kLocks)) {
    findings.Ok(kLocks, "", "nobody holds one");
  }
}

}  // namespace

bool Findings::Try(const std::string& check, const std::string& subject, const std::string& remedy,
                   const std::function<void()>& look) {
  try {
    look();
    return true;
  } catch (const Interrupted&) {
    throw;
  } catch (const base::ForeignGround& error) {
    const Reason reason = Split(error.reason());
    const bool is_known = std::any_of(all_.begin(), all_.end(), [&](const Finding& finding) {
      return finding.check == check && finding.message == reason.what;
    });
    if (!is_known) {  // By way of another directory.
      Problem(check, "", reason.what, reason.remedy);
    }
  } catch (const std::system_error& error) {
    if (error.code() == std::errc::permission_denied ||
        error.code() == std::errc::operation_not_permitted) {
      Skipped(check, subject, std::string("it needs root's rights to look at: ") + error.what());
    } else {
      Problem(check, subject, error.what(), remedy);
    }
  } catch (const std::exception& error) {
    const Failure failure = FailureOf(error);
    Problem(check, subject, failure.text, failure.remedy.empty() ? remedy : failure.remedy);
  }
  return false;
}

bool Findings::IsWell(const std::string& check) const {
  return std::none_of(all_.begin(), all_.end(), [&](const Finding& finding) {
    return finding.check == check && finding.state != State::kOk;
  });
}

void LookAtSettings(Patient& patient, Findings& findings) {
  LookAtFiles(findings);
  const dataupdate::ServiceConfig& config = *patient.service.config;
  std::string server;
  patient.has_settings = findings.Try(kConfiguration, "", kConfigure, [&] {
    server = config.GetDownloadScheme() + "://" + config.GetDBInfoDomainName();
    config.GetDBInfoVersion();
    patient.volume = config.GetCurVolume();
  });
  findings.Try(kConfiguration, "", kConfigure, [&] { patient.names = config.GetDatabaseIDs(); });
  for (const std::string& name : server.empty() ? std::vector<std::string>() : patient.names) {
    findings.Try(kConfiguration, name, std::string("correct it in ") + paths::kDatabaseDefaults,
                 [&] {
                   const auto settings = config.GetDatabaseConfig(name);
                   settings->GetInstallPrefix();
                   settings->GetFormatVersion();
                 });
  }
  if (findings.IsWell(kConfiguration)) {
    findings.Ok(kConfiguration, "",
                std::to_string(patient.names.size()) +
                    (patient.names.size() == 1 ? " database from " : " databases from ") + server);
  }
  LookAtHidden(findings);
}

std::vector<Finding> Diagnose(const Service& service, bool asks_server) {
  Findings findings;
  Patient patient{service, static_cast<std::int64_t>(std::time(nullptr))};
  LookAtSettings(patient, findings);
  LookAtKeyring(patient, findings);
  LookAtClock(patient, findings);
  LookAtVolume(patient, findings);
  LookAtServer(patient, asks_server, findings);
  LookAtRoom(patient, findings);
  LookAtRights(patient, findings);
  LookAtPlugins(patient, findings);
  LookAtTimers(findings);
  LookAtCoolDowns(findings);
  LookAtRecords(patient, findings);
  LookAtLastRuns(patient, findings);
  LookAtLeftOvers(patient, findings);
  LookAtLocks(patient, findings);
  return findings.all();
}

}  // namespace tolm::operation
