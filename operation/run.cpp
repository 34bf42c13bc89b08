#include "operation/run.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>

#include "base/log.h"
#include "base/messages.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/description_reader.h"
#include "operation/download_bounds.h"
#include "operation/events.h"
#include "operation/interrupt.h"
#include "operation/lock_holder.h"
#include "operation/offered_size.h"
#include "operation/operation_info.h"
#include "operation/operator_settings.h"
#include "operation/package_reason.h"
#include "operation/platform_calls.h"
#include "operation/progress.h"
#include "operation/room.h"
#include "operation/settings_check.h"
#include "operation/source_cool_downs.h"
#include "operation/sources.h"
#include "operation/tell_road.h"
#include "operation/verification.h"
#include "operation/volume_move.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "run";

using dataupdate::UpdateError;

// What an operation is called in the history, and what came of it.
struct Words {
  const char* operation;
  const char* changed;    // It has stored a version,
  const char* renewed;    // and it is the one that was there.
  const char* unchanged;  // Nothing had to be done.
};
constexpr Words kUpdate{"update", kUpdated, kRepaired, kUpToDate};
constexpr Words kFix{"fix", kRepaired, kRepaired, kIntact};
constexpr Words kForceInstall{"force-install", kInstalled, kInstalled, kInstalled};

// Without settings there is no server, and the operation says what is amiss with them.
std::vector<Source> SoundSources() {
  try {
    RequireSoundSettings();
    return PresentSources();
  } catch (const std::exception&) {
    return {};
  }
}

// As programs are told of it.
std::string NameOf(const Source& source) {
  return source.name.empty() ? source.address : source.name;
}

std::int64_t Now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

std::string MoreText(std::size_t count) {
  return count == 1 ? "" : " and " + std::to_string(count - 1) + " more";
}

// What is not in the package does not outlive a full installation.
std::string ForeignText(const std::vector<std::string>& foreign) {
  if (foreign.empty()) {
    return "";
  }
  const bool is_one = foreign.size() == 1;
  return "; " + std::to_string(foreign.size()) +
         (is_one ? " file that is not in the package goes ("
                 : " files that are not in the package go (") +
         foreign.front() + MoreText(foreign.size()) + ')';
}

std::string DamageText(const Verification& found) {
  const DamagedFile& first = found.damaged.front();
  const std::string more = MoreText(found.damaged.size());
  return first.file + ": " + first.problem + (more.empty() ? "" : " (" + more.substr(1) + ')') +
         ForeignText(found.foreign);
}

// Demanded where files are damaged, and of this repair only: it may end before it takes the demand.
class FullInstallation {
 public:
  FullInstallation(OperationInfo& info, const std::string& database, const Verification& found)
      : info_(info), database_(database) {
    info_.NoteCompared(database);
    if (!found.damaged.empty()) {
      info_.DemandFullInstallation(database, DamageText(found));
    }
  }
  ~FullInstallation() { info_.WithdrawDemand(database_); }
  FullInstallation(const FullInstallation&) = delete;
  FullInstallation& operator=(const FullInstallation&) = delete;

 private:
  OperationInfo& info_;
  const std::string& database_;
};

void WarnOfCoolDown(const std::exception& error) {
  syslog(LOG_WARNING, "%s:%d The cool-down is not written: %s", TOLM_LOG_HERE, error.what());
}

}  // namespace

void RequireVolume(const std::string& chosen) {
  if (chosen.empty()) {
    throw NoVolume();
  }
  TOLMMountVolInfo record;
  if (TOLMMountVolInfoGet(chosen.c_str(), &record) == -1) {
    throw NoVolume(chosen);
  }
}

std::optional<DownloadHours> HoursOfOperator() {
  try {
    return ReadOperatorSettings().download_hours;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

class Run::Implementation : private StepObserver {
 public:
  Implementation(const Service& service, bool scheduled, bool with_progress)
      : service_(service),
        scheduled_(scheduled),
        cool_downs_(SoundSources()),
        progress_(with_progress),
        watched_(*this) {
    IgnoreFileSizeSignal();
  }

  std::optional<std::string> HeldBack();
  std::optional<std::string> HeldBackByHours() const;
  const HistoryEntry& Perform(const Words& words, const std::string& database,
                              const std::function<void()>& operation);
  void Finish(bool good) noexcept;

  const Service& GetService() const { return service_; }
  const std::vector<HistoryEntry>& Results() const { return results_; }

 private:
  bool MayGoOn() override;
  bool MayDownload(const Step& step) override;
  std::optional<std::uint64_t> MostBytes() override { return downloads_.MostBytes(); }
  std::string ProblemOfAsking(const Source& source) override;
  void Answered(const Source& source, const DownloadResult& result) override;
  void Downloaded(const Step& step, const DownloadResult& result) override;
  ExplainedError Explain(const UpdateError& error) override;
  void Refused(const PackageRefusal& refusal) override;
  void Began(const Step& step) override;

  void RequireReadiness(const std::string& database) const;
  std::string OutcomeOf(const Words& words, const std::string& database) const;
  std::string ServerName() const;
  void RecordSkipped(const std::string& why) const;
  void Record(HistoryEntry& entry, std::chrono::steady_clock::time_point begin);
  Failure ExplainOf(const std::exception& error, const std::string& database) const;
  void NoteRoad(const Step& step);
  void NoteFailureOf(const Step& step);
  [[noreturn]] static void ThrowAgain(const std::exception& error, const HistoryEntry& entry);

  const Service& service_;
  const bool scheduled_;
  SourceCoolDowns cool_downs_;
  std::string database_;
  std::uint64_t bytes_ = 0;
  std::string server_;       // What has given the newest of them.
  std::string server_name_;  // The same as its cool-down is kept under.
  std::string delta_;        // The one that was begun last; empty for none.
  Failure delta_failure_;
  std::optional<HistoryEntry::FellBack> fell_back_;
  std::vector<HistoryEntry> results_;
  DownloadBounds downloads_;
  Progress progress_;
  WatchedSteps watched_;
};

std::optional<std::string> Run::Implementation::HeldBack() {
  if (std::optional<std::string> why = HeldBackByHours()) {
    return why;
  }
  const std::optional<SourceCoolDowns::HeldBack> held =
      scheduled_ ? cool_downs_.Ask() : std::nullopt;
  if (!held) {
    return std::nullopt;
  }
  if (held->first_asked) {
    RecordSkipped(held->why);
  }
  return held->why;
}

void Run::Implementation::RecordSkipped(const std::string& why) const {
  HistoryEntry entry;
  entry.time = TimeText(Now());
  entry.operation = kUpdate.operation;
  entry.scheduled = true;
  entry.outcome = kSkipped;
  entry.message = why;
  AppendToHistory(entry);
  TellEnded(entry, ServerName());
}

// Who has answered, and before that who is asked first. Where the settings are damaged nobody is.
std::string Run::Implementation::ServerName() const {
  if (!server_name_.empty()) {
    return server_name_;
  }
  const std::vector<Source> sources = SoundSources();
  return sources.empty() ? ConfiguredServerName(service_) : NameOf(sources.front());
}

// Settings that are damaged end the operation, in its own words.
std::optional<std::string> Run::Implementation::HeldBackByHours() const {
  const std::optional<DownloadHours> hours = HoursOfOperator();
  if (!hours || hours->Hold(Now())) {
    return std::nullopt;
  }
  const std::string when = hours->text() + " (download_hours)";
  if (!scheduled_) {
    TellRoad("scheduled runs download at " + when + " only, this one goes on");
    return std::nullopt;
  }
  std::string why = "scheduled runs download at " + when + " only";
  RecordSkipped(why);
  return why;
}

void Run::Implementation::RequireReadiness(const std::string& database) const {
  RequireSoundSettings();
  service_.config->CheckSupported(database);
  SettleMove(service_);
  RequireVolume(service_.config->GetCurVolume());
  if (Interrupt::Received() != 0) {
    throw Interrupted();
  }
}

std::string Run::Implementation::OutcomeOf(const Words& words, const std::string& database) const {
  const auto stored = service_.info->stored_versions().find(database);
  if (stored == service_.info->stored_versions().end()) {
    return words.unchanged;
  }
  return stored->second == service_.info->VersionBefore(database) ? words.renewed : words.changed;
}

const HistoryEntry& Run::Implementation::Perform(const Words& words, const std::string& database,
                                                 const std::function<void()>& operation) {
  RequireReadiness(database);
  database_ = database;
  bytes_ = 0;
  server_.clear();
  server_name_.clear();
  delta_.clear();
  delta_failure_ = {};
  fell_back_.reset();
  HistoryEntry entry;
  entry.operation = words.operation;
  entry.database = database;
  entry.scheduled = scheduled_;
  const auto begin = std::chrono::steady_clock::now();
  try {
    service_.info->BeginOperation(database);
    const int before = service_.info->VersionBefore(database);
    entry.from = before;
    TellBegun(entry, ServerName());
    TellRoad(database + ": " + words.operation + " is asked for, " +
             (before == kNeverInstalled ? "nothing" : std::to_string(before)) + " is installed");
    operation();
    entry.outcome = OutcomeOf(words, database);
    Record(entry, begin);
  } catch (const std::exception& error) {
    entry.outcome = Interrupt::Received() != 0 ? kInterrupted : kFailed;
    entry.message = downloads_.WithReason(WithLockHolder(error.what()));
    entry.failure = ExplainOf(error, database);
    Record(entry, begin);
    ThrowAgain(error, entry);
  }
  return results_.back();
}

void Run::Implementation::Finish(bool good) noexcept {
  try {
    const bool was_interrupted = Interrupt::Received() != 0;
    if (good && !was_interrupted) {
      cool_downs_.Succeed();
    } else if (!scheduled_ && was_interrupted) {
      cool_downs_.Withdraw();
    }
  } catch (const std::exception& error) {
    WarnOfCoolDown(error);
  }
}

void Run::Implementation::Record(HistoryEntry& entry, std::chrono::steady_clock::time_point begin) {
  progress_.Hide();
  entry.time = TimeText(Now());
  entry.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  entry.from = service_.info->VersionBefore(entry.database);
  const auto stored = service_.info->stored_versions().find(entry.database);
  entry.to = stored == service_.info->stored_versions().end() ? entry.from : stored->second;
  entry.bytes = bytes_;
  entry.server = server_;
  entry.fell_back = fell_back_;
  results_.push_back(entry);
  AppendToHistory(entry);
  TellEnded(entry, ServerName());
}

// The library says that there is too little room, but not where.
Failure Run::Implementation::ExplainOf(const std::exception& error,
                                       const std::string& database) const {
  if (Interrupt::Received() != 0) {
    return FailureOf(Interrupted());
  }
  if (error.what() != std::string(messages::kDiskSpaceTooLow)) {
    return downloads_.Explain(error);
  }
  const std::string root = service_.config->GetDatabaseConfig(database)->GetRootDirectory();
  return NoRoom(root, RoomIn(root).value_or(0));
}

void Run::Implementation::ThrowAgain(const std::exception& error, const HistoryEntry& entry) {
  if (entry.outcome == kInterrupted) {
    throw Interrupted();
  }
  if (const auto* of_library = dynamic_cast<const UpdateError*>(&error)) {
    throw ExplainedError(entry.message, of_library->code(), entry.failure);
  }
  throw;
}

// ---- What the operation tells ----

bool Run::Implementation::MayGoOn() {
  return Interrupt::Received() == 0;
}

bool Run::Implementation::MayDownload(const Step& step) {
  NoteRoad(step);
  if (!downloads_.Fits(step) || !MayGoOn()) {
    NoteFailureOf(step);
    return false;
  }
  return true;
}

// A run that cannot be written down would come again and again, and its result could not be written
// down either.
std::string Run::Implementation::ProblemOfAsking(const Source& source) {
  try {
    cool_downs_.BeginAttempt(source);
    return "";
  } catch (const std::exception& error) {
    return std::string("not begun: ") + error.what();
  }
}

void Run::Implementation::Answered(const Source& source, const DownloadResult& result) {
  bytes_ += result.received_bytes;
  cool_downs_.Answered(source, result.exit_status == 0);
  if (result.exit_status == 0) {
    server_ = source.address;
    server_name_ = NameOf(source);
  }
}

ExplainedError Run::Implementation::Explain(const UpdateError& error) {
  return ExplainedError(downloads_.WithReason(error.what()), error.code(),
                        downloads_.Explain(error));
}

void Run::Implementation::Downloaded(const Step& step, const DownloadResult& result) {
  downloads_.Ended(step, result);
  if (fell_back_) {
    fell_back_->bytes = result.received_bytes;
  } else if (result.exit_status != 0) {
    NoteFailureOf(step);
  }
}

void Run::Implementation::Refused(const PackageRefusal& refusal) {
  downloads_.PackageRefused(refusal);
  if (!fell_back_ && refusal.opened == delta_) {
    delta_failure_ = downloads_.package_failure();
  }
}

// The library tries deltas, and the full package when they fail for whatever reason.
void Run::Implementation::NoteRoad(const Step& step) {
  if (!IsPlaceOfDescription(step.file)) {
    TellRoad(database_ + ": next " + (IsDelta(step) ? "" : "the full package ") +
             ItemOf(step.file));
  }
  if (IsDelta(step)) {
    delta_ = step.file;
  } else if (!delta_.empty() && !IsPlaceOfDescription(step.file) && !fell_back_) {
    if (delta_failure_.reason.empty()) {
      delta_failure_ = {reasons::kDeltaUnfit,
                        "the installed files cannot be patched by it, the system log says why", "",
                        ItemOf(delta_)};
    }
    fell_back_ = HistoryEntry::FellBack{delta_failure_, 0};
  }
}

void Run::Implementation::NoteFailureOf(const Step& step) {
  if (IsDelta(step)) {
    delta_failure_ = downloads_.failure();
    delta_failure_.item = ItemOf(step.file);
  }
}

void Run::Implementation::Began(const Step& step) {
  const bool is_package = step.kind == StepKind::kDownload;
  progress_.Show(database_, step, is_package ? OfferedBytes(step.url) : std::nullopt);
}

// ---- What programs call ----

Run::Run(const Service& service, bool scheduled, bool with_progress)
    : implementation_(std::make_unique<Implementation>(service, scheduled, with_progress)) {}

Run::~Run() = default;

std::optional<std::string> Run::HeldBack() {
  return implementation_->HeldBack();
}

const HistoryEntry& Run::Update(const std::string& database) {
  const Service& service = implementation_->GetService();
  return implementation_->Perform(kUpdate, database,
                                  [&] { service.update->UpdateProject(database); });
}

const HistoryEntry& Run::Fix(const std::string& database) {
  const Service& service = implementation_->GetService();
  return implementation_->Perform(kFix, database, [&] { service.update->FixProject(database); });
}

const HistoryEntry& Run::FixByPackage(const std::string& database) {
  const Service& service = implementation_->GetService();
  return implementation_->Perform(kFix, database, [&] {
    const FullInstallation demand(dynamic_cast<OperationInfo&>(*service.info), database,
                                  VerifyAgainstPackage(service, database));
    service.update->FixProject(database);
  });
}

const HistoryEntry& Run::ForceInstall(const std::string& database, int version) {
  const Service& service = implementation_->GetService();
  return implementation_->Perform(kForceInstall, database,
                                  [&] { service.update->ForceInstall(database, version); });
}

void Run::Finish(bool good) noexcept {
  implementation_->Finish(good);
}

const std::vector<HistoryEntry>& Run::Results() const {
  return implementation_->Results();
}

}  // namespace tolm::operation
