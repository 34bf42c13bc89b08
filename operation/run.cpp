#include "operation/run.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>

#include "base/log.h"
#include "dataupdate/error.h"
#include "operation/interrupt.h"
#include "operation/offered_size.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "run";

using dataupdate::UpdateError;

// Without settings there is no server, and the operation says what is amiss with them.
std::optional<CoolDown> CoolDownOf(const Service& service) {
  try {
    return std::make_optional<CoolDown>(
        ServerOf(service.config->GetDownloadScheme(), service.config->GetDBInfoDomainName()));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::int64_t Now() {
  return static_cast<std::int64_t>(std::time(nullptr));
}

std::uint64_t SizeOf(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void WarnOfCoolDown(const std::exception& error) {
  syslog(LOG_WARNING, "%s:%d The cool-down is not written: %s", TOLM_LOG_HERE, error.what());
}

}  // namespace

Run::Run(const Service& service, bool scheduled, bool with_progress)
    : service_(service),
      scheduled_(scheduled),
      cool_down_(CoolDownOf(service)),
      progress_(with_progress),
      watched_(*this) {
  IgnoreFileSizeSignal();
}

Run::~Run() = default;

std::optional<std::string> Run::HeldBack() {
  if (!scheduled_ || !cool_down_) {
    return std::nullopt;
  }
  const std::optional<CoolDown::HeldBack> held = cool_down_->Ask();
  if (!held) {
    return std::nullopt;
  }
  const std::string why = "the server " + cool_down_->server() + " is left alone until " +
                          TimeText(held->until) + " after " + std::to_string(held->failures) +
                          (held->failures == 1 ? " failure" : " failures in a row");
  if (held->first_asked) {
    HistoryEntry entry;
    entry.time = TimeText(Now());
    entry.operation = "update";
    entry.scheduled = true;
    entry.outcome = kSkipped;
    entry.message = why;
    AppendToHistory(entry);
  }
  return why;
}

const HistoryEntry& Run::Perform(const Operation& operation, const std::string& database) {
  if (Interrupt::Received() != 0) {
    throw Interrupted();
  }
  database_ = database;
  bytes_ = 0;
  HistoryEntry entry;
  entry.operation = operation.name;
  entry.database = database;
  entry.scheduled = scheduled_;
  const auto begin = std::chrono::steady_clock::now();
  try {
    service_.info->BeginOperation(database);
    operation.perform(database);
    const bool stored = service_.info->stored_versions().count(database) != 0;
    entry.outcome = stored ? operation.changed : operation.unchanged;
    Record(entry, begin);
  } catch (const std::exception& error) {
    entry.outcome = Interrupt::Received() != 0 ? kInterrupted : kFailed;
    entry.message = downloads_.WithReason(error.what());
    Record(entry, begin);
    ThrowAgain(error, entry);
  }
  return results_.back();
}

void Run::Finish(bool good) noexcept {
  try {
    if (!cool_down_) {
      return;
    }
    if (good) {
      cool_down_->Succeed();
    } else if (has_asked_server_ && !scheduled_ && Interrupt::Received() != 0) {
      cool_down_->Withdraw();
    }
  } catch (const std::exception& error) {
    WarnOfCoolDown(error);
  }
}

void Run::Record(HistoryEntry& entry, std::chrono::steady_clock::time_point begin) {
  progress_.Hide();
  entry.time = TimeText(Now());
  entry.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  entry.from = service_.info->VersionBefore(entry.database);
  const auto stored = service_.info->stored_versions().find(entry.database);
  entry.to = stored == service_.info->stored_versions().end() ? entry.from : stored->second;
  entry.bytes = bytes_;
  results_.push_back(entry);
  AppendToHistory(entry);
}

void Run::ThrowAgain(const std::exception& error, const HistoryEntry& entry) {
  if (entry.outcome == kInterrupted) {
    throw Interrupted();
  }
  if (const auto* of_library = dynamic_cast<const UpdateError*>(&error)) {
    throw UpdateError(entry.message, of_library->code());
  }
  throw;
}

// ---- What the operation tells ----

bool Run::MayGoOn() {
  return Interrupt::Received() == 0;
}

bool Run::MayDownload(const Step& step) {
  if (!downloads_.Fits(step) || !MayGoOn() || !RecordAttempt()) {
    return false;
  }
  downloads_.Begin();
  return true;
}

void Run::Downloaded(const Step& step, int exit_status) {
  bytes_ += SizeOf(step.file);
  downloads_.Ended(exit_status);
}

void Run::Began(const Step& step) {
  const bool is_package = step.kind == StepKind::kDownload;
  progress_.Show(database_, step, is_package ? OfferedBytes(step.url) : std::nullopt);
}

// A run that cannot be written down would come again and again, and its result could not be written
// down either.
bool Run::RecordAttempt() {
  if (has_asked_server_ || !cool_down_) {
    return true;
  }
  try {
    cool_down_->BeginAttempt();
  } catch (const std::exception& error) {
    downloads_.Refuse(std::string("not begun: ") + error.what());
    return false;
  }
  has_asked_server_ = true;
  return true;
}

}  // namespace tolm::operation
