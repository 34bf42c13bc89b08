#include "operation/metrics.h"

#include <algorithm>
#include <ctime>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "base/utc_time.h"
#include "offer/rollout.h"
#include "operation/device_trust.h"
#include "operation/history.h"
#include "operation/keyring_dates.h"
#include "operation/last_verification.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "operation/trust_state.h"
#include "report/open_metrics.h"

namespace tolm::operation {
namespace {

using report::MetricFamily;
using report::MetricLabels;
using report::OpenMetrics;

constexpr char kDatabase[] = "database";
constexpr char kOperation[] = "operation";
constexpr char kServer[] = "server";

// ---- The device ----

constexpr MetricFamily kBuild{"tolmdbud_build_info",
                              "Always 1; its label is the version of the program."};
constexpr MetricFamily kCollected{"tolmdbud_collected_timestamp_seconds",
                                  "When these numbers were collected."};
constexpr MetricFamily kSettingsSound{
    "tolmdbud_settings_sound", "Whether operations begin with the files of settings as they are."};
constexpr MetricFamily kVolumeChosen{"tolmdbud_volume_chosen",
                                     "Whether a volume is chosen for the databases."};
constexpr MetricFamily kTimerWaiting{"tolmdbud_timer_waiting",
                                     "Whether the timer is started, as systemd says."};
constexpr MetricFamily kTimerNext{"tolmdbud_timer_next_timestamp_seconds",
                                  "When the timer elapses next, as systemd says."};
constexpr MetricFamily kCertificateEnd{"tolmdbud_certificate_not_after_timestamp_seconds",
                                       "When the certificate in the keyring ends."};
constexpr MetricFamily kCoolDownEnd{"tolmdbud_cool_down_until_timestamp_seconds",
                                    "Until when scheduled runs leave the server alone."};
constexpr MetricFamily kCoolDownFailures{"tolmdbud_cool_down_failures",
                                         "Failed runs in a row after which they do so."};

void AddDevice(const Service& service, std::int64_t now, Metrics& metrics, OpenMetrics& out) {
  out.Add(kBuild, {{"version", TOLM_VERSION}}, 1);
  out.Add(kCollected, {}, static_cast<double>(now));
  try {
    RequireSoundSettings();
    out.Add(kSettingsSound, {}, 1);
  } catch (const DamagedSettings&) {
    out.Add(kSettingsSound, {}, 0);
  }
  try {
    out.Add(kVolumeChosen, {}, service.config->GetCurVolume().empty() ? 0 : 1);
  } catch (const std::exception& error) {
    metrics.problems[""] = FailureOf(error);
  }
}

void AddTimers(OpenMetrics& out) {
  const Timers timers = ExamineTimers();
  if (!timers.is_known) {
    return;
  }
  for (const Timer* timer : {&timers.update, &timers.verify}) {
    const MetricLabels unit = {{"unit", timer->unit}};
    out.Add(kTimerWaiting, unit, timer->is_waiting ? 1 : 0);
    if (timer->next) {
      out.Add(kTimerNext, unit, static_cast<double>(*timer->next));
    }
  }
}

void AddKeyring(OpenMetrics& out) {
  const std::string file = KeyringFile(".pem");
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    return;
  }
  try {
    for (const std::optional<CertificateDates>& certificate : ReadCertificateDates(file)) {
      if (certificate && certificate->not_after != 0) {
        out.Add(kCertificateEnd,
                {{"file", file},
                 {"subject", certificate->subject},
                 {"not_before", TimeText(certificate->not_before)}},
                static_cast<double>(certificate->not_after));
      }
    }
  } catch (const std::exception&) {
    // `doctor` says what is amiss with it.
  }
}

void AddCoolDowns(OpenMetrics& out) {
  for (const ServerCoolDown& cool_down : PresentCoolDowns()) {
    const MetricLabels server = {{kServer, cool_down.server}};
    out.Add(kCoolDownEnd, server, static_cast<double>(cool_down.until));
    out.Add(kCoolDownFailures, server, cool_down.failures);
  }
}

// ---- The offers ----

constexpr MetricFamily kOffersDownloaded{"tolmdbud_offers_downloaded_timestamp_seconds",
                                         "When the server gave the description that is cached."};
constexpr MetricFamily kOffersIssued{"tolmdbud_offers_issued_timestamp_seconds",
                                     "When the cached description was signed."};
constexpr MetricFamily kOffersExpire{"tolmdbud_offers_expire_timestamp_seconds",
                                     "When the offers of the cached description count no more."};

void AddOffers(const std::optional<Description>& description, OpenMetrics& out) {
  if (const std::optional<Asked> asked = LastAsked()) {
    out.Add(kOffersDownloaded, {}, static_cast<double>(asked->at));
  }
  const std::optional<OffersSignature> signature =
      description ? description->Signature() : SignatureOfOffers();
  if (signature) {
    const MetricLabels repository = {{"repository", signature->repository}};
    out.Add(kOffersIssued, repository, static_cast<double>(signature->issued));
    out.Add(kOffersExpire, repository, static_cast<double>(signature->expires));
  }
}

// ---- A database ----

constexpr MetricFamily kReadable{"tolmdbud_database_readable",
                                 "Whether the database's settings and record can be read."};
constexpr MetricFamily kScheduled{"tolmdbud_database_scheduled",
                                  "Whether runs over all databases include it."};
constexpr MetricFamily kInstalledVersion{"tolmdbud_installed_version",
                                         "The installed version; absent where none is."};
constexpr MetricFamily kData{"tolmdbud_data_timestamp_seconds",
                             "When the publisher made what is installed."};
constexpr MetricFamily kCutShort{
    "tolmdbud_cut_short", "Whether an operation ended while it may have been changing files."};
constexpr MetricFamily kVolumeMissing{"tolmdbud_volume_missing",
                                      "Whether the database's volume is not mounted."};
constexpr MetricFamily kFloor{"tolmdbud_floor_version",
                              "Below which version nothing is installed; known to root."};
constexpr MetricFamily kOfferedVersion{"tolmdbud_offered_version", "The version that is offered."};
constexpr MetricFamily kOfferedData{"tolmdbud_offered_data_timestamp_seconds",
                                    "When the publisher made what is offered."};
constexpr MetricFamily kDeprecated{"tolmdbud_deprecated",
                                   "Whether the publisher has deprecated the database."};
constexpr MetricFamily kUpToDate{"tolmdbud_up_to_date",
                                 "Whether an update would have nothing to do."};
constexpr MetricFamily kUpdateBytes{"tolmdbud_update_bytes", "What an update would download."};
constexpr MetricFamily kRolloutVersion{"tolmdbud_rollout_version",
                                       "The staged version; absent where no rollout is open."};
constexpr MetricFamily kRolloutReached{"tolmdbud_rollout_reached_ratio",
                                       "The share of all devices that is offered it now."};
constexpr MetricFamily kRolloutPosition{
    "tolmdbud_rollout_position_ratio",
    "Where this device stands among all; absent where it waits for stable versions."};
constexpr MetricFamily kRolloutOffered{"tolmdbud_rollout_offered",
                                       "Whether this device is offered it."};
constexpr MetricFamily kRolloutTaken{"tolmdbud_rollout_taken", "Whether it is installed here."};
constexpr MetricFamily kRolloutTurn{
    "tolmdbud_rollout_turn_timestamp_seconds",
    "When this device's turn comes; absent once it has come, and where that is not known."};
constexpr MetricFamily kVerified{"tolmdbud_verified_timestamp_seconds",
                                 "When all files that are installed now were last compared."};
constexpr MetricFamily kVerifiedFiles{"tolmdbud_verified_files", "How many were compared then."};
constexpr MetricFamily kDamagedFiles{"tolmdbud_damaged_files", "How many were found damaged then."};

void AddInstalled(const Installed& installed, int version, const MetricLabels& labels,
                  OpenMetrics& out) {
  out.Add(kScheduled, labels, installed.scheduled ? 1 : 0);
  out.Add(kCutShort, labels, installed.cut_short ? 1 : 0);
  out.Add(kVolumeMissing, labels, installed.volume_missing ? 1 : 0);
  if (version != kNeverInstalled && installed.fetched_at > 0) {
    out.Add(kData, labels, installed.fetched_at);
  }
}

void AddRollout(const Rollout& rollout, int version, const MetricLabels& labels, OpenMetrics& out) {
  const auto ratio = [](int parts) { return static_cast<double>(parts) / offer::kWholeShare; };
  out.Add(kRolloutVersion, labels, rollout.next);
  out.Add(kRolloutReached, labels, ratio(rollout.share));
  if (rollout.position) {
    out.Add(kRolloutPosition, labels, ratio(*rollout.position));
  }
  out.Add(kRolloutOffered, labels, rollout.IsOffered() ? 1 : 0);
  out.Add(kRolloutTaken, labels, version == rollout.next ? 1 : 0);
  if (rollout.turn_at) {
    out.Add(kRolloutTurn, labels, static_cast<double>(*rollout.turn_at));
  }
}

void AddOffer(const Offer& offer, const std::optional<Installed>& installed, int version,
              const MetricLabels& labels, OpenMetrics& out) {
  if (offer.version < 0) {
    return;
  }
  out.Add(kOfferedVersion, labels, offer.version);
  if (offer.fetched_at > 0) {
    out.Add(kOfferedData, labels, offer.fetched_at);
  }
  out.Add(kDeprecated, labels, offer.deprecated ? 1 : 0);
  if (offer.rollout) {
    AddRollout(*offer.rollout, version, labels, out);
  }
  if (!installed) {
    return;
  }
  const bool is_replaced = offer.replaces_higher && version > offer.version;
  const UpdatePlan plan =
      PlanUpdate(installed->cut_short || is_replaced ? kNeverInstalled : version, offer.version,
                 offer.deltas, offer.full_package_bytes);
  out.Add(kUpToDate, labels, plan.road == UpdatePlan::Road::kNothing ? 1 : 0);
  if (plan.bytes) {
    out.Add(kUpdateBytes, labels, static_cast<double>(*plan.bytes));
  }
}

void AddVerification(const std::string& name, const MetricLabels& labels, OpenMetrics& out) {
  if (const std::optional<LastVerification> last = LookForVerification(name)) {
    out.Add(kVerified, labels, static_cast<double>(last->at));
    out.Add(kVerifiedFiles, labels, static_cast<double>(last->checked_files));
    out.Add(kDamagedFiles, labels, static_cast<double>(last->damaged_files));
  }
}

void AddDatabase(const Service& service, const std::string& name,
                 const std::optional<Description>& description, Metrics& metrics,
                 OpenMetrics& out) {
  const auto tries = [&](const std::function<void()>& look) {
    try {
      look();
    } catch (const std::exception& error) {
      metrics.problems.emplace(name, FailureOf(error));
    }
  };
  const MetricLabels labels = {{kDatabase, name}};
  const int version = std::max(RecordedVersion(service, name), kNeverInstalled);
  std::optional<Installed> installed;
  tries([&] { installed = ExamineInstalled(service, name); });
  out.Add(kReadable, labels, installed ? 1 : 0);
  if (version != kNeverInstalled) {
    out.Add(kInstalledVersion, labels, version);
  }
  if (installed) {
    AddInstalled(*installed, version, labels, out);
  }
  const std::optional<int> floor = LookForFloor(name);
  if (floor && *floor != kNeverInstalled) {
    out.Add(kFloor, labels, *floor);
  }
  if (description) {
    tries([&] { AddOffer(description->OfferOf(name), installed, version, labels, out); });
  }
  AddVerification(name, labels, out);
}

// ---- The history ----

constexpr MetricFamily kHistoryBegin{"tolmdbud_history_begin_timestamp_seconds",
                                     "Time of the oldest operation that the history knows."};
constexpr MetricFamily kLastAttempt{"tolmdbud_last_attempt_timestamp_seconds",
                                    "When the operation ended last, well or not."};
constexpr MetricFamily kLastSuccess{"tolmdbud_last_success_timestamp_seconds",
                                    "When the operation ended well last."};
constexpr MetricFamily kFailuresInRow{
    "tolmdbud_failures_in_row",
    "Operations on the database that have failed since one ended well."};
constexpr MetricFamily kLastDuration{"tolmdbud_last_duration_seconds",
                                     "How long the last one took."};
constexpr MetricFamily kLastDownloaded{"tolmdbud_last_downloaded_bytes",
                                       "What the last one downloaded."};
constexpr MetricFamily kOperations{"tolmdbud_history_operations",
                                   "Operations in the history, by outcome."};
constexpr MetricFamily kFailures{"tolmdbud_history_failures",
                                 "Failed operations in the history, by reason."};
constexpr MetricFamily kDuration{"tolmdbud_history_duration_seconds",
                                 "How long the operations in the history took together."};
constexpr MetricFamily kDownloaded{"tolmdbud_history_downloaded_bytes",
                                   "What the operations in the history downloaded together."};
constexpr MetricFamily kFellBack{
    "tolmdbud_history_fallbacks",
    "Operations in the history that took the full package after deltas were tried in vain."};
constexpr MetricFamily kHeldBack{
    "tolmdbud_history_cool_downs",
    "How often in the history scheduled runs were held back after a failure, once for each."};

bool IsOperation(const HistoryEntry& entry) {
  return entry.operation == "update" || entry.operation == "fix" ||
         entry.operation == "force-install";
}

// What one kind of operation has come to on one database.
struct Record {
  std::optional<std::int64_t> attempt;
  std::optional<std::int64_t> success;
  HistoryEntry last;
  double seconds = 0;
  std::uint64_t bytes = 0;
  std::uint64_t fell_back = 0;
  std::map<std::string, std::uint64_t> outcomes;
  std::map<std::string, std::uint64_t> reasons;
};

class Past {
 public:
  void Take(const HistoryEntry& entry) {
    const std::optional<std::int64_t> time = base::ParseUtcTime(entry.time);
    begin_ = begin_ ? begin_ : time;
    if (entry.outcome == kSkipped) {
      ++held_back_;
    } else if (IsOperation(entry)) {
      TakeOperation(entry, time);
    }
  }

  /// Of these databases: others may have been configured once.
  void Add(const std::set<std::string>& databases, OpenMetrics& out) const {
    if (begin_) {
      out.Add(kHistoryBegin, {}, static_cast<double>(*begin_));
      out.Add(kHeldBack, {}, static_cast<double>(held_back_));
    }
    for (const auto& [name, failures] : in_row_) {
      if (databases.count(name) != 0) {
        out.Add(kFailuresInRow, {{kDatabase, name}}, static_cast<double>(failures));
      }
    }
    for (const auto& [key, record] : records_) {
      if (databases.count(key.first) != 0) {
        AddRecord({{kDatabase, key.first}, {kOperation, key.second}}, record, out);
      }
    }
  }

 private:
  void TakeOperation(const HistoryEntry& entry, std::optional<std::int64_t> time) {
    const bool has_failed = entry.outcome == kFailed;
    const bool is_success = !has_failed && entry.outcome != kInterrupted;
    std::uint64_t& in_row = in_row_[entry.database];
    in_row = is_success ? 0 : in_row + (has_failed ? 1 : 0);
    Record& record = records_[{entry.database, entry.operation}];
    record.attempt = time ? time : record.attempt;
    record.success = is_success && time ? time : record.success;
    record.last = entry;
    record.seconds += entry.seconds;
    record.bytes += entry.bytes;
    record.fell_back += entry.fell_back ? 1 : 0;
    ++record.outcomes[entry.outcome];
    if (has_failed) {
      ++record.reasons[entry.failure.reason.empty() ? reasons::kOther : entry.failure.reason];
    }
  }

  static void AddRecord(const MetricLabels& labels, const Record& record, OpenMetrics& out) {
    const auto with = [&](const char* name, const std::string& value) {
      MetricLabels more = labels;
      more.emplace_back(name, value);
      return more;
    };
    if (record.attempt) {
      out.Add(kLastAttempt, labels, static_cast<double>(*record.attempt));
    }
    if (record.success) {
      out.Add(kLastSuccess, labels, static_cast<double>(*record.success));
    }
    out.Add(kLastDuration, labels, record.last.seconds);
    out.Add(kLastDownloaded, labels, static_cast<double>(record.last.bytes));
    out.Add(kDuration, labels, record.seconds);
    out.Add(kDownloaded, labels, static_cast<double>(record.bytes));
    out.Add(kFellBack, labels, static_cast<double>(record.fell_back));
    for (const auto& [outcome, count] : record.outcomes) {
      out.Add(kOperations, with("outcome", outcome), static_cast<double>(count));
    }
    for (const auto& [reason, count] : record.reasons) {
      out.Add(kFailures, with("reason", reason), static_cast<double>(count));
    }
  }

  std::optional<std::int64_t> begin_;
  std::uint64_t held_back_ = 0;
  std::map<std::string, std::uint64_t> in_row_;                    // By database.
  std::map<std::pair<std::string, std::string>, Record> records_;  // By database and operation.
};

std::vector<std::string> DatabasesOf(const Service& service, Metrics& metrics) {
  try {
    return service.config->GetDatabaseIDs();
  } catch (const std::exception& error) {
    metrics.problems[""] = FailureOf(error);
    return {};
  }
}

}  // namespace

Metrics CollectMetrics(const Service& service) {
  Metrics metrics;
  OpenMetrics out;
  AddDevice(service, std::time(nullptr), metrics, out);
  AddTimers(out);
  AddKeyring(out);
  AddCoolDowns(out);
  const std::optional<Description> description = Description::FromCache(service);
  AddOffers(description, out);
  const std::vector<std::string> names = DatabasesOf(service, metrics);
  for (const std::string& name : names) {
    AddDatabase(service, name, description, metrics, out);
  }
  Past past;
  ForEachEntry([&past](const HistoryEntry& entry) { past.Take(entry); });
  past.Add({names.begin(), names.end()}, out);
  metrics.text = out.Text();
  return metrics;
}

}  // namespace tolm::operation
