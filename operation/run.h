#ifndef TOLM_OPERATION_RUN_H_
#define TOLM_OPERATION_RUN_H_

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "operation/bounded_downloads.h"
#include "operation/cool_down.h"
#include "operation/history.h"
#include "operation/platform_calls.h"
#include "operation/progress.h"
#include "operation/service.h"

namespace tolm::operation {

/// One run of a program over one or more databases, made a good citizen:
///
/// - every operation is written to the history;
/// - downloads are bounded by the space that there is (see LimitFor);
/// - a run that asks the server for something and fails makes scheduled runs leave the server alone
///   for a while; one that succeeds ends that (see CoolDown). A run that a person has interrupted
///   says nothing about the server;
/// - progress is shown;
/// - a signal (see Interrupt, of which there must be one) ends it between any two steps before the
///   installation of files.
///
/// One at a time. The service must outlive it.
class Run : private StepObserver {
 public:
  Run(const Service& service, bool scheduled, bool with_progress);
  ~Run() override;

  /// Why a scheduled run must not go on now, in words; nothing when it may. Puts the first refusal
  /// of a cool-down into the history. Throws std::exception when that cannot be found out.
  std::optional<std::string> HeldBack();

  /// What is done to one database, and what it is called when nothing had to be done.
  struct Operation {
    std::string name;       ///< "update", "fix" or "force-install"
    std::string changed;    ///< The outcome when it has stored a version: kUpdated, ...
    std::string unchanged;  ///< The outcome otherwise: kUpToDate, ...
    std::function<void(const std::string& database)> perform;
  };
  /// Returns what came of it. Throws what the operation throws: UpdateError with the reason of a
  /// failed download added, and Interrupted in place of any failure after a signal.
  const HistoryEntry& Perform(const Operation& operation, const std::string& database);

  /// To be called at the end, with whether all that was asked for was done.
  void Finish(bool good) noexcept;

  /// Of all operations so far, in their order.
  const std::vector<HistoryEntry>& Results() const { return results_; }

 private:
  bool MayGoOn() override;
  bool MayDownload(const Step& step) override;
  void Downloaded(const Step& step, int exit_status) override;
  void Began(const Step& step) override;

  bool RecordAttempt();
  void Record(HistoryEntry& entry, std::chrono::steady_clock::time_point begin);
  [[noreturn]] static void ThrowAgain(const std::exception& error, const HistoryEntry& entry);

  const Service& service_;
  const bool scheduled_;
  std::optional<CoolDown> cool_down_;
  bool has_asked_server_ = false;
  std::string database_;
  std::uint64_t bytes_ = 0;
  std::vector<HistoryEntry> results_;
  BoundedDownloads downloads_;
  Progress progress_;
  WatchedSteps watched_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RUN_H_
