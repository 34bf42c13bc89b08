#include "operation/events.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>

#include "base/utf8.h"
#include "operation/journal.h"
#include "operation/service.h"

namespace tolm::operation {
namespace {

// Never another one for the same event: programs look for them, and
// packaging/systemd/tolmdbud.catalog explains them.
constexpr char kBegun[] = "efa66414eb014f32a4f30faac14b61d0";
constexpr char kDamaged[] = "2114aaffbf6c4e388bec9ab279de9693";

struct Ending {
  const char* outcome;
  const char* id;
  int priority;
};
// What fails is told by a line of its own besides, at the priority of errors.
constexpr std::array<Ending, 8> kEndings = {{
    {kUpdated, "550c7d2118124e8895d891a6589ded07", LOG_INFO},
    {kRepaired, "6eb55e749bf842aea240131f76087c51", LOG_INFO},
    {kInstalled, "fabcfb7d12b746c3b4a9e0cf3a1f6475", LOG_INFO},
    {kUpToDate, "362b8df365464157adf4608de6c99589", LOG_INFO},
    {kIntact, "362b8df365464157adf4608de6c99589", LOG_INFO},
    {kFailed, "3247a2eb62bf432b862e6472370a8dc0", LOG_NOTICE},
    {kInterrupted, "0e0ae647ecdf445fa7936aadf92c0bdf", LOG_NOTICE},
    {kSkipped, "5c00879662dc4407a0031f2dd5725923", LOG_NOTICE},
}};

class Event {
 public:
  Event(const char* id, int priority, const std::string& message) {
    Add("MESSAGE_ID", id);
    Add("MESSAGE", message);
    Add("PRIORITY", std::to_string(priority));
    Add("SYSLOG_IDENTIFIER", program_invocation_short_name);
  }

  // journalctl gives values as texts only when they are printable.
  void Add(const char* name, const std::string& value) {
    if (!value.empty()) {
      fields_.emplace_back(name, base::PrintableLines(value));
    }
  }
  void AddVersion(const char* name, int version) {
    if (version != kNeverInstalled) {
      Add(name, std::to_string(version));
    }
  }
  // What is known before the operation begins, too.
  void AddOperation(const HistoryEntry& entry, const std::string& server) {
    Add("TOLMDBUD_OPERATION", entry.operation);
    Add("TOLMDBUD_DATABASE", entry.database);
    Add("TOLMDBUD_SCHEDULED", entry.scheduled ? "1" : "0");
    AddVersion("TOLMDBUD_FROM", entry.from);
    Add("TOLMDBUD_SERVER", server);
  }
  void Send() const { SendToJournal(fields_); }

 private:
  JournalFields fields_;
};

std::string SecondsText(double seconds) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.3f", seconds);
  return text.data();
}

std::string AboutText(const HistoryEntry& entry) {
  return (entry.database.empty() ? "" : entry.database + ": ") + entry.operation;
}

// Why it failed or was skipped.
std::string WhyText(const HistoryEntry& entry) {
  const std::string of_failure = LineOf("", entry.failure);
  return of_failure.empty() ? entry.message : of_failure;
}

void Tell(const Ending& ending, const HistoryEntry& entry, const std::string& server) {
  const std::string why = WhyText(entry);
  Event event(ending.id, ending.priority,
              AboutText(entry) + ": " + OutcomeText(entry) + (why.empty() ? "" : ", " + why));
  event.AddOperation(entry, server);
  event.Add("TOLMDBUD_OUTCOME", entry.outcome);
  event.Add("TOLMDBUD_EXPLANATION", why);
  if (entry.outcome != kSkipped) {
    event.AddVersion("TOLMDBUD_TO", entry.to);
    event.Add("TOLMDBUD_REASON", entry.failure.reason);
    event.Add("TOLMDBUD_BYTES", std::to_string(entry.bytes));
    event.Add("TOLMDBUD_SECONDS", SecondsText(entry.seconds));
  }
  if (entry.fell_back) {
    event.Add("TOLMDBUD_FELL_BACK", entry.fell_back->failure.reason);
  }
  event.Send();
}

// With little memory left nobody is told.
template <typename Action>
void Quietly(Action action) noexcept {
  try {
    action();
  } catch (const std::exception&) {
  }
}

}  // namespace

void TellBegun(const HistoryEntry& entry, const std::string& server) noexcept {
  Quietly([&] {
    Event event(kBegun, LOG_INFO, AboutText(entry) + " begins");
    event.AddOperation(entry, server);
    event.Send();
  });
}

void TellEnded(const HistoryEntry& entry, const std::string& server) noexcept {
  Quietly([&] {
    const auto* const ending = std::find_if(
        kEndings.begin(), kEndings.end(),
        [&entry](const Ending& candidate) { return entry.outcome == candidate.outcome; });
    if (ending != kEndings.end()) {
      Tell(*ending, entry, server);
    }
  });
}

void TellDamage(const std::string& name, const Verification& verification) noexcept {
  Quietly([&] {
    if (verification.IsIntact()) {
      return;
    }
    const std::size_t files = verification.damaged.size();
    std::string list;
    for (const DamagedFile& damaged : verification.damaged) {
      if (list.size() > kMostJournalBytes) {
        break;
      }
      list +=
          (list.empty() ? "" : "\n") + base::EscapeControls(damaged.file) + ": " + damaged.problem;
    }
    Event event(kDamaged, LOG_NOTICE,
                name + ": damage was found, " + std::to_string(files) +
                    (files == 1 ? " file" : " files") +
                    (verification.cut_short ? ", and an operation was cut short" : ""));
    event.Add("TOLMDBUD_OPERATION", "verify");
    event.Add("TOLMDBUD_DATABASE", name);
    event.AddVersion("TOLMDBUD_FROM", verification.version);
    event.Add("TOLMDBUD_OUTCOME", "damaged");
    event.Add("TOLMDBUD_DAMAGED_FILES", std::to_string(files));
    event.Add("TOLMDBUD_EXPLANATION", list);
    event.Send();
  });
}

}  // namespace tolm::operation
