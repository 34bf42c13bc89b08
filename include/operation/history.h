#ifndef TOLM_OPERATION_HISTORY_H_
#define TOLM_OPERATION_HISTORY_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "operation/export.h"
#include "operation/failure.h"

namespace tolm::operation {

/// What is written in HistoryEntry::outcome.
inline constexpr char kUpdated[] = "updated";
inline constexpr char kUpToDate[] = "up-to-date";
inline constexpr char kRepaired[] = "repaired";
inline constexpr char kIntact[] = "intact";
inline constexpr char kInstalled[] = "installed";
inline constexpr char kFailed[] = "failed";
inline constexpr char kInterrupted[] = "interrupted";
inline constexpr char kSkipped[] = "skipped";
inline constexpr char kLowered[] = "lowered";
inline constexpr char kReset[] = "reset";

/// One operation on one database, or a scheduled run that was skipped or "trust-reset" ("database"
/// is empty then).
struct HistoryEntry {
  std::string time;       ///< Of the end, in UTC: "2026-11-21T10:00:00Z".
  std::string operation;  ///< "update", "fix", "force-install", "trust-lower" or "trust-reset".
  std::string database;
  bool scheduled = false;
  /// The version that was installed before and after; -1 for none. Of "trust-lower" the floor.
  int from = -1;
  int to = -1;
  std::string outcome;  ///< One of the above; a later program may write others.
  std::string message;  ///< Why it failed or was skipped; empty otherwise.
  double seconds = 0;
  std::uint64_t bytes = 0;  ///< Downloaded, the description included.
  Failure failure;          ///< Why it failed, for people and programs.
  /// Deltas that were tried in vain before the full package was asked for.
  struct FellBack {
    Failure failure;          ///< Why they failed.
    std::uint64_t bytes = 0;  ///< Downloaded of the full package.
  };
  std::optional<FellBack> fell_back;
  /// What gave the newest package, or without one the description: a server's address or a
  /// directory; empty where nothing came.
  std::string server;
};

/// The outcome in words, with the version where one was installed: "updated to 7", "up to date".
TOLM_OPERATION_API std::string OutcomeText(const HistoryEntry& entry);

/// "delta 7: 404 Not Found from https://...; the full package was taken, 8.1 MB"
TOLM_OPERATION_API std::string FellBackText(const HistoryEntry::FellBack& fell_back);

/// The UTC time in the form that an entry has it.
TOLM_OPERATION_API std::string TimeText(std::int64_t unix_seconds);

/// Adds a line to the history. The file is kept below a mebibyte: what would make it larger makes
/// it forget all but its newest entries. Safe against other threads and processes that do the same
/// (waits up to 10 s for them) and against being killed in the middle. A failure is a warning in
/// the system log and nothing else.
TOLM_OPERATION_API void AppendToHistory(const HistoryEntry& entry) noexcept;

/// The newest entry about the database, nothing when there is none or the file cannot be read.
/// Skipped runs tried nothing and are passed over, and so are lines that are damaged. Takes no
/// lock and waits for nothing. Any thread may call it.
TOLM_OPERATION_API std::optional<HistoryEntry> LastOf(const std::string& database);

/// Calls @p take with each entry of the history, the oldest first; lines that are damaged are
/// passed over, and a history that cannot be read has none. Takes no lock and waits for nothing.
/// Any thread may call it.
TOLM_OPERATION_API void ForEachEntry(const std::function<void(const HistoryEntry&)>& take);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_HISTORY_H_
