#include "tools/tolmdbud_page.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <utility>
#include <vector>

#include "base/human_text.h"
#include "base/utc_time.h"
#include "operation/history.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "report/chart.h"
#include "report/html.h"
#include "report/page.h"

namespace tolm::tool {
namespace {

using operation::HistoryEntry;
using report::Bar;
using report::BarChart;
using report::Facts;
using report::Html;
using report::kBad;
using report::kFewDatabases;
using report::kNone;
using report::kQuiet;
using report::PageTable;
using report::Quantity;
using report::Section;
using Kind = report::PageTable::Kind;

constexpr std::size_t kFailures = 10;
constexpr std::size_t kRuns = 20;
constexpr std::int64_t kDaySeconds = 86400;

// For people: without the letters and the seconds.
std::string PlainTime(const std::string& text) {
  const std::optional<std::int64_t> time = base::ParseUtcTime(text);
  return time ? base::UtcMinutes(*time) : text;
}

// The same of every time in a sentence of this program's.
std::string WithPlainTimes(std::string text) {
  constexpr std::size_t kLength = 20;  // "2026-01-31T23:59:59Z"
  for (std::size_t end = text.find('Z'); end != std::string::npos; end = text.find('Z', end + 1)) {
    if (end + 1 >= kLength) {
      const std::size_t begin = end + 1 - kLength;
      const std::string plain = PlainTime(text.substr(begin, kLength));
      text.replace(begin, kLength, plain);
      end = begin + plain.size() - 1;
    }
  }
  return text;
}

std::vector<HistoryEntry> ReadHistory() {
  std::vector<HistoryEntry> entries;
  operation::ForEachEntry([&entries](const HistoryEntry& entry) { entries.push_back(entry); });
  return entries;
}

bool HasFailed(const HistoryEntry& entry) {
  return entry.outcome == operation::kFailed;
}

// Why, with what to do about it, in the words that stood on the screen.
std::string ReasonOf(const HistoryEntry& entry) {
  const std::string& text = entry.failure.text.empty() ? entry.message : entry.failure.text;
  return text.empty() ? "no reason was recorded" : text;
}

std::string OperationText(const HistoryEntry& entry) {
  return (entry.scheduled ? "scheduled " : "") + entry.operation;
}

std::string SecondsText(double seconds) {
  constexpr double kLeast = 0.1;
  return seconds > 0 && seconds < kLeast ? "below 0.1 s"
                                         : QuantityText(Quantity::kSeconds, seconds);
}

// ---- The machine ----

void PutProblems(Html& html, const Sight& sight) {
  for (const operation::SettingsProblem& problem : operation::CheckSettingsFiles()) {
    report::PutWarning(html, problem.Line());
  }
  for (const std::string& problem : sight.problems) {
    report::PutWarning(html, problem);
  }
}

void PutSignature(Facts& facts, const Surroundings& around) {
  if (!around.signature) {
    facts.Add("Offers signed", around.description ? "no" : "no offers are known");
    return;
  }
  const operation::OffersSignature& signature = *around.signature;
  const bool is_over = signature.expires < around.now;
  facts.Add("Offers signed for repository", signature.repository);
  facts.Add("Offers valid",
            base::UtcMinutes(signature.issued) + " to " + base::UtcMinutes(signature.expires) +
                (is_over ? ": their time is over" : ""),
            is_over ? kBad : "");
}

void PutMachine(Html& html, const Surroundings& around) {
  Facts facts(html);
  facts.Add("Volume", ChosenVolumeText(around), around.volume_missing ? kBad : "");
  facts.Add("Offers from", WithPlainTimes(OffersFromText(around)));
  PutSignature(facts, around);
  facts.Add("Next run", WithPlainTimes(NextRunText(around.timers, around.now)));
  facts.Add("Cool-down",
            around.cool_down ? WithPlainTimes(CoolDownText(*around.cool_down)) + ", " +
                                   CoolDownReason(*around.cool_down)
                             : "none",
            around.cool_down ? kBad : "");
}

// ---- Databases ----

std::string IdOf(std::size_t at) {
  return "d" + std::to_string(at + 1);
}

const char* StyleOfState(const Report& database) {
  const bool is_bad =
      !database.installed || database.installed->volume_missing || database.installed->cut_short;
  return is_bad ? kBad : "";
}

// What comes later, of a staged version.
std::string LaterText(const operation::Rollout& rollout) {
  if (rollout.turn != operation::Rollout::Turn::kLater) {
    return "";
  }
  return ", " + VersionText(rollout.next) +
         (rollout.turn_at ? " comes " + base::UtcMinutes(*rollout.turn_at) : " is held");
}

std::string StateText(const Report& database) {
  if (!database.offer) {
    return StateOf(database);
  }
  const operation::Offer& offer = *database.offer;
  return StateOf(database) + (offer.deprecated ? ", deprecated" : "") +
         (offer.rollout ? LaterText(*offer.rollout) : "");
}

std::string AgeWord(const Report& database, std::int64_t now) {
  const std::optional<std::int64_t> age = AgeOf(database, now);
  return age ? base::HumanDuration(*age) : kNone;
}

std::string CostWord(const Report& database) {
  const std::string cost = CostText(database.plan);
  return cost == kUnknown ? kNone : cost;
}

std::string LastWord(const std::optional<HistoryEntry>& last) {
  return last ? OutcomeText(*last) + ", " + PlainTime(last->time) : "none recorded";
}

void PutOverview(Html& html, const Sight& sight) {
  const Section section(html, "overview", "Overview");
  if (sight.reports.empty()) {
    html.Put("p", "No database was looked at.");
    return;
  }
  PageTable table(html, "All databases",
                  {{"Database", Kind::kText},
                   {"Installed", Kind::kShort},
                   {"Offered", Kind::kShort, true},
                   {"State", Kind::kText},
                   {"Age", Kind::kNumber},
                   {"An update loads", Kind::kNumber, true},
                   {"Next run", Kind::kNumber, true},
                   {"Last run", Kind::kText, true}});
  for (std::size_t at = 0; at < sight.reports.size(); ++at) {
    const Report& database = sight.reports[at];
    const std::string next = NextRunWord(database, sight.around);
    table.Add(
        {{database.name, IdOf(at)},
         {database.version < 0 ? kNone : VersionText(database.version)},
         {database.offer ? VersionText(database.offer->version) : kNone},
         {StateText(database), "", StyleOfState(database)},
         {AgeWord(database, sight.around.now)},
         {CostWord(database)},
         {next == kUnknown ? kNone : next},
         {LastWord(database.last), "", database.last && HasFailed(*database.last) ? kBad : ""}});
  }
}

void PutLastRun(Facts& facts, const HistoryEntry& last) {
  facts.Add("Last run",
            PlainTime(last.time) + ", " + OperationText(last) + ": " + OutcomeText(last));
  facts.Add("It took",
            SecondsText(last.seconds) + ", " + base::HumanSize(last.bytes) + " downloaded");
  if (HasFailed(last)) {
    facts.Add("Why it failed", ReasonOf(last), kBad);
  }
  if (last.fell_back) {
    facts.Add("Deltas in vain", FellBackText(*last.fell_back));
  }
}

void PutRollout(Facts& facts, const operation::Rollout& rollout, std::int64_t now) {
  facts.Add("Stable version", VersionText(rollout.stable));
  facts.Add("Staged version", operation::StageText(rollout));
  facts.Add("This device\xE2\x80\x99s turn", WithPlainTimes(operation::TurnText(rollout, now)));
}

void PutDatabase(Html& html, const std::string& id, const Report& database, const Sight& sight) {
  const operation::Details seen = operation::ExamineDetails(database.name);
  Html::Attributes attributes;
  if (sight.reports.size() <= kFewDatabases) {
    attributes.push_back({"open", "open"});
  }
  const Html::Element details(html, "details", attributes);
  {
    const Html::Element summary(html, "summary");
    html.Put("b", database.name);
    html.Put("span", {{"class", *StyleOfState(database) == '\0' ? kQuiet : kBad}},
             StateText(database));
  }
  // A browser that goes to what is inside opens it.
  const Html::Element body(html, "div", {{"id", id}});
  if (!database.problem.empty()) {
    report::PutWarning(html, database.problem);
  }
  Facts facts(html);
  facts.Add("Installed", VersionText(database.version));
  facts.Add("Offered", OfferText(database.offer));
  if (database.offer && database.offer->rollout) {
    PutRollout(facts, *database.offer->rollout, sight.around.now);
  }
  facts.Add("Age of the data", WithPlainTimes(AgeText(database, sight.around.now)));
  if (database.plan) {
    facts.Add("An update loads", PlanText(*database.plan));
  }
  if (database.installed) {
    facts.Add("Directory", database.installed->directory);
    facts.Add("Volume", VolumeText(*database.installed), StyleOfState(database));
    facts.Add("Scheduled runs", database.installed->scheduled ? "on" : "off");
  }
  if (database.last) {
    PutLastRun(facts, *database.last);
  } else {
    facts.Add("Last run", "none recorded");
  }
  facts.Add("Takes no version below", FloorText(seen.floor));
  facts.Add("Record of installed files", RecordText(seen.record));
  facts.Add("Locks", LocksText(seen.locks));
}

// ---- What happened ----

void PutFailures(Html& html, const std::vector<HistoryEntry>& history) {
  std::vector<const HistoryEntry*> failures;
  for (auto entry = history.rbegin(); entry != history.rend() && failures.size() < kFailures;
       ++entry) {
    if (HasFailed(*entry)) {
      failures.push_back(&*entry);
    }
  }
  const Section section(html, "failures", "Failures");
  if (failures.empty()) {
    html.Put("p", "None is recorded.");
    return;
  }
  Facts list(html, Facts::Form::kList);
  for (const HistoryEntry* entry : failures) {
    list.Add(PlainTime(entry->time) + ", " + entry->database + ", " + OperationText(*entry),
             ReasonOf(*entry));
  }
}

// A part of the time that is shown, as one bar.
struct Bucket {
  std::int64_t begin = 0;
  std::array<double, 4> outcomes{};
  double bytes = 0;
  double longest = 0;  // seconds
};

constexpr std::int64_t kLongestSpanDays = 731;
constexpr std::int64_t kMostBuckets = 92;
constexpr double kLongestRun = 1e9;  // Seconds: whatever a damaged history says.

// In the order of Bucket::outcomes; what is no run of an update or a repair has none.
std::optional<std::size_t> PlaceOf(const HistoryEntry& entry) {
  static const std::map<std::string, std::size_t> kPlaces = {
      {operation::kUpdated, 0},  {operation::kRepaired, 0}, {operation::kInstalled, 0},
      {operation::kUpToDate, 1}, {operation::kIntact, 1},   {operation::kFailed, 2}};
  if (entry.outcome == operation::kLowered || entry.outcome == operation::kReset) {
    return std::nullopt;
  }
  const auto found = kPlaces.find(entry.outcome);
  constexpr std::size_t kOther = 3;
  return found == kPlaces.end() ? kOther : found->second;
}

// From the oldest entry on, or two years ago, to today. Entries with times outside of that, or
// none, are left out.
std::vector<Bucket> BucketsOf(const std::vector<HistoryEntry>& history, std::int64_t now) {
  const std::int64_t end = (now / kDaySeconds + 1) * kDaySeconds;
  const std::int64_t limit = end - kLongestSpanDays * kDaySeconds;
  const auto time_of = [&](const HistoryEntry& entry) -> std::optional<std::int64_t> {
    const std::optional<std::int64_t> time = base::ParseUtcTime(entry.time);
    return time && *time >= limit && *time < end && PlaceOf(entry) ? time : std::nullopt;
  };
  std::int64_t begin = end;
  for (const HistoryEntry& entry : history) {
    begin = std::min(begin, time_of(entry).value_or(end));
  }
  if (begin == end) {
    return {};
  }
  constexpr std::int64_t kWeek = 7;
  const std::int64_t days = (end - begin + kDaySeconds - 1) / kDaySeconds;
  const std::int64_t width = (days <= kMostBuckets           ? 1
                              : days <= kMostBuckets * kWeek ? kWeek
                                                             : 4 * kWeek) *
                             kDaySeconds;
  std::vector<Bucket> buckets(static_cast<std::size_t>((end - begin + width - 1) / width));
  for (std::size_t at = 0; at < buckets.size(); ++at) {
    buckets[at].begin = end - static_cast<std::int64_t>(buckets.size() - at) * width;
  }
  for (const HistoryEntry& entry : history) {
    if (const std::optional<std::int64_t> time = time_of(entry)) {
      Bucket& bucket = buckets[static_cast<std::size_t>((*time - buckets.front().begin) / width)];
      bucket.outcomes[*PlaceOf(entry)] += 1;
      bucket.bytes += static_cast<double>(entry.bytes);
      bucket.longest = std::clamp(entry.seconds, bucket.longest, kLongestRun);
    }
  }
  return buckets;
}

std::string WidthText(const std::vector<Bucket>& buckets, std::int64_t now) {
  const std::int64_t width = buckets.size() > 1
                                 ? buckets[1].begin - buckets[0].begin
                                 : (now / kDaySeconds + 1) * kDaySeconds - buckets[0].begin;
  const std::int64_t days = width / kDaySeconds;
  return days == 1 ? "day" : std::to_string(days) + " days";
}

void DrawHistory(Html& html, const std::vector<HistoryEntry>& history, std::int64_t now) {
  const std::vector<Bucket> buckets = BucketsOf(history, now);
  if (buckets.empty()) {
    return;
  }
  const std::string by = " by " + WidthText(buckets, now);
  const auto label = [](const Bucket& bucket) {
    constexpr std::size_t kDay = 10;  // "2026-01-31"
    return base::UtcMinutes(bucket.begin).substr(0, kDay);
  };
  BarChart outcomes{"h-outcomes",
                    "Runs" + by,
                    "How many runs of all databases ended how.",
                    Quantity::kCount,
                    {{"delta", "changed"},
                     {"full", "nothing to do"},
                     {"bad", "failed"},
                     {"dim", "skipped, interrupted, other"}},
                    {}};
  BarChart bytes{"h-bytes",        "Downloaded" + by,   "Bytes downloaded by all runs.",
                 Quantity::kBytes, {{"full", "bytes"}}, {}};
  BarChart seconds{"h-seconds",        "Longest run" + by,    "Duration of the longest run.",
                   Quantity::kSeconds, {{"full", "seconds"}}, {}};
  for (const Bucket& bucket : buckets) {
    outcomes.bars.push_back({label(bucket), {bucket.outcomes.begin(), bucket.outcomes.end()}});
    bytes.bars.push_back({label(bucket), {bucket.bytes}});
    seconds.bars.push_back({label(bucket), {bucket.longest}});
  }
  const Html::Element pictures(html, "div", {{"class", "pictures"}});
  Draw(html, outcomes);
  Draw(html, bytes);
  Draw(html, seconds);
}

void ListRuns(Html& html, const std::vector<HistoryEntry>& history) {
  PageTable table(html, "The last runs",
                  {{"When", Kind::kShort},
                   {"Database", Kind::kText},
                   {"Operation", Kind::kShort, true},
                   {"Outcome", Kind::kText},
                   {"Took", Kind::kNumber, true},
                   {"Downloaded", Kind::kNumber, true}});
  const std::size_t count = std::min(history.size(), kRuns);
  for (auto entry = history.rbegin();
       entry != history.rbegin() + static_cast<std::ptrdiff_t>(count); ++entry) {
    table.Add({{PlainTime(entry->time)},
               {entry->database.empty() ? "all" : entry->database},
               {OperationText(*entry)},
               {OutcomeText(*entry) + (entry->fell_back ? ", in full after a delta" : ""), "",
                HasFailed(*entry) ? kBad : ""},
               {SecondsText(entry->seconds)},
               {base::HumanSize(entry->bytes)}});
  }
}

void PutHistory(Html& html, const std::vector<HistoryEntry>& history, std::int64_t now) {
  const Section section(html, "history", "What was done");
  if (history.empty()) {
    html.Put("p", "Nothing is recorded.");
    return;
  }
  DrawHistory(html, history, now);
  html.Put("h3", "The last runs");
  ListRuns(html, history);
}

}  // namespace

void WriteStatusPage(const std::string& path, const Sight& sight) {
  const std::vector<HistoryEntry> history = ReadHistory();
  const std::string page = report::MakePage(
      {"Databases of this device", "What is installed, what is offered, and what was done.",
       "tolmdbud status --html", sight.around.now},
      [&](Html& html) {
        PutProblems(html, sight);
        PutMachine(html, sight.around);
        PutOverview(html, sight);
        PutFailures(html, history);
        PutHistory(html, history, sight.around.now);
        if (!sight.reports.empty()) {
          const Section section(html, "databases", "Databases");
          for (std::size_t at = 0; at < sight.reports.size(); ++at) {
            PutDatabase(html, IdOf(at), sight.reports[at], sight);
          }
        }
      });
  report::WritePage(path, page);
}

}  // namespace tolm::tool
