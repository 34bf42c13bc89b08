// The commands that only look: list, status, busy.

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <set>

#include "base/human_text.h"
#include "operation/failure.h"
#include "operation/history.h"
#include "operation/interrupt.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "tools/table.h"
#include "tools/tolmdbud_cli.h"
#include "tools/tolmdbud_metrics.h"

namespace tolm::tool {
namespace {

using operation::Description;
using operation::Details;
using operation::HistoryEntry;
using operation::Installed;
using operation::kNeverInstalled;
using operation::Offer;
using operation::ServerCoolDown;
using operation::Service;
using operation::Timers;
using operation::UpdatePlan;

constexpr char kUnknown[] = "-";  // In a table.

// All that is known of one database.
struct Report {
  std::string name;
  int version = kNeverInstalled;
  std::optional<Installed> installed;  // Nothing when it could not be looked at.
  std::string problem;                 // Why not.
  std::optional<Offer> offer;
  std::optional<UpdatePlan> plan;
  std::optional<HistoryEntry> last;
};

// What stands in version.json or in the description may be any number.
int VersionOrNone(int version) {
  return version < 0 ? kNeverInstalled : version;
}

// What is the same for all of them.
struct Surroundings {
  std::int64_t now = std::time(nullptr);
  std::string volume;
  bool volume_missing = false;
  std::optional<Description> description;
  std::string offers_problem;
  std::optional<operation::OffersSignature> signature;
  Timers timers;
  std::optional<ServerCoolDown> cool_down;
};

std::string VersionText(int version) {
  return version < 0 ? "none" : std::to_string(version);
}

Json::Value VersionJson(int version) {
  return version < 0 ? Json::Value() : Json::Value(version);
}

Json::Value TextJson(const std::string& text) {
  return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value BytesJson(const std::optional<std::uint64_t>& bytes) {
  return bytes.has_value() ? Json::Value(Json::UInt64{*bytes}) : Json::Value();
}

// Of one that is installed and offered.
bool IsUpToDate(const Report& report) {
  return report.offer->replaces_higher ? report.version == report.offer->version
                                       : report.version >= report.offer->version;
}

std::string StateOf(const Report& report) {
  if (!report.installed) {
    return "unreadable";
  }
  if (report.installed->volume_missing) {
    return "volume missing";
  }
  if (report.installed->cut_short) {
    return "cut short";
  }
  if (report.version == kNeverInstalled) {
    return "not installed";
  }
  if (!report.offer.has_value()) {
    return "unknown";
  }
  return IsUpToDate(report) ? "up to date" : "update offered";
}

// How long ago the publisher made what is installed; nothing for times that are none.
std::optional<std::int64_t> AgeOf(const Report& report, std::int64_t now) {
  const bool is_known = report.installed && report.version != kNeverInstalled &&
                        report.installed->fetched_at > 0 && report.installed->fetched_at <= now;
  return is_known ? std::make_optional(now - report.installed->fetched_at) : std::nullopt;
}

// ---- What an update would cost ----

std::string RoadText(const UpdatePlan& plan) {
  return plan.road == UpdatePlan::Road::kDeltas
             ? std::to_string(plan.packages) + (plan.packages == 1 ? " delta" : " deltas")
             : "full";
}

std::string CostText(const std::optional<UpdatePlan>& plan) {
  if (!plan || plan->road == UpdatePlan::Road::kNothing) {
    return kUnknown;
  }
  return RoadText(*plan) + ", " + (plan->bytes ? base::HumanSize(*plan->bytes) : "?");
}

std::string ExactSize(std::uint64_t bytes) {
  constexpr std::uint64_t kFirstUnit = 1000;
  const std::string grouped = base::Grouped(bytes) + " bytes";
  return bytes < kFirstUnit ? grouped : base::HumanSize(bytes) + " (" + grouped + ')';
}

std::string PlanText(const UpdatePlan& plan) {
  if (plan.road == UpdatePlan::Road::kNothing) {
    return "none needed";
  }
  return (plan.road == UpdatePlan::Road::kDeltas ? RoadText(plan) : "full package") + ", " +
         (plan.bytes ? ExactSize(*plan.bytes) : "size unknown");
}

Json::Value PlanJson(const UpdatePlan& plan) {
  if (plan.road == UpdatePlan::Road::kNothing) {
    return Json::Value();
  }
  Json::Value json;
  json["by"] = plan.road == UpdatePlan::Road::kDeltas ? "deltas" : "full";
  json["packages"] = plan.packages;
  json["bytes"] = BytesJson(plan.bytes);
  return json;
}

// ---- The next run ----

std::string TimeAndWait(std::int64_t time, std::int64_t now) {
  return operation::TimeText(time) +
         (time > now ? " (in " + base::HumanDuration(time - now) + ')' : " (now)");
}

// For the table.
std::string NextRunWord(const Report& report, const Surroundings& around) {
  if (report.installed && !report.installed->scheduled) {
    return "off";
  }
  const Timers& timers = around.timers;
  if (timers.update.next) {
    const std::int64_t wait = *timers.update.next - around.now;
    return wait > 0 ? "in " + base::HumanDuration(wait) : "now";
  }
  return timers.cron.empty() ? kUnknown : "cron";
}

std::string NextRunText(const Timers& timers, std::int64_t now) {
  if (timers.update.next) {
    return TimeAndWait(*timers.update.next, now);
  }
  if (!timers.cron.empty()) {
    return "by cron, see " + timers.cron;
  }
  return timers.is_known && !timers.update.is_waiting
             ? "none, " + timers.update.unit + " is not started"
             : "unknown";
}

Json::Value NextRunJson(const Timers& timers) {
  return timers.update.next ? Json::Value(operation::TimeText(*timers.update.next)) : Json::Value();
}

Json::Value NextRunByJson(const Timers& timers) {
  if (timers.update.next) {
    return "systemd";
  }
  return timers.cron.empty() ? Json::Value() : Json::Value("cron");
}

// ---- The last run ----

std::string LastText(const std::optional<HistoryEntry>& last) {
  if (!last.has_value()) {
    return "none recorded";
  }
  std::string text = last->time + ' ' + (last->scheduled ? "scheduled " : "") + last->operation +
                     ": " + last->outcome;
  if (last->from != last->to) {
    text += ", " + VersionText(last->from) + " to " + VersionText(last->to);
  }
  return last->message.empty() ? text : text + ", " + last->message;
}

Json::Value LastJson(const std::optional<HistoryEntry>& last) {
  if (!last.has_value()) {
    return Json::Value();
  }
  Json::Value json;
  json["time"] = last->time;
  json["operation"] = last->operation;
  json["scheduled"] = last->scheduled;
  json["from"] = VersionJson(last->from);
  json["to"] = VersionJson(last->to);
  json["outcome"] = last->outcome;
  json["message"] = last->message;
  json["seconds"] = last->seconds;
  json["bytes"] = Json::UInt64{last->bytes};
  return json;
}

std::string OfferText(const std::optional<Offer>& offer) {
  if (!offer.has_value()) {
    return "unknown";
  }
  return VersionText(offer->version) + (offer->deprecated ? " (deprecated)" : "");
}

// ---- One database in full ----

std::string AgeText(const Report& report, std::int64_t now) {
  const std::optional<std::int64_t> age = AgeOf(report, now);
  return age ? base::HumanDuration(*age) + ", made " +
                   operation::TimeText(report.installed->fetched_at)
             : "unknown";
}

std::string VolumeText(const Installed& installed) {
  if (installed.volume.empty()) {
    return "none";
  }
  return installed.volume + (installed.volume_missing ? " (not mounted)" : "");
}

const char* RecordText(Details::Record record) {
  switch (record) {
    case Details::Record::kNone:
      return "none";
    case Details::Record::kOutdated:
      return "outdated, another program has installed since";
    case Details::Record::kDamaged:
      return "damaged";
    case Details::Record::kCurrent:
      return "current";
  }
  return "";
}

std::string FloorText(const std::optional<int>& floor) {
  if (floor) {
    return VersionText(*floor);
  }
  return geteuid() == 0 ? "unknown, trust.json is damaged" : "unknown, it is for root's eyes";
}

std::string LocksText(const std::vector<operation::LockUse>& locks) {
  std::string text;
  for (const operation::LockUse& use : locks) {
    text += (text.empty() ? "" : "; ") + use.lock + " by process " + std::to_string(use.process) +
            (use.program.empty() ? "" : ", " + use.program);
  }
  return text.empty() ? "none held" : text;
}

std::string CoolDownText(const ServerCoolDown& cool_down) {
  return cool_down.server + " until " + operation::TimeText(cool_down.until);
}

std::string CoolDownReason(const ServerCoolDown& cool_down) {
  return "after " + std::to_string(cool_down.failures) +
         (cool_down.failures == 1 ? " failure" : " failures in a row") +
         "; a run by hand does not wait";
}

void PrintPlace(const Console& console, const Installed& installed) {
  console.Say("  directory  " + installed.directory);
  console.Say("  volume     " + VolumeText(installed));
  console.Say(std::string("  schedule   ") + (installed.scheduled ? "on" : "off"));
}

void PrintReport(const Console& console, const Report& report, const Surroundings& around) {
  const Details details = operation::ExamineDetails(report.name);
  console.Say(report.name);
  console.Say("  installed  " + VersionText(report.version));
  console.Say("  offered    " + OfferText(report.offer));
  console.Say("  age        " + AgeText(report, around.now));
  console.Say("  state      " + StateOf(report) +
              (report.problem.empty() ? "" : ", " + report.problem));
  if (report.plan.has_value()) {
    console.Say("  update     " + PlanText(*report.plan));
  }
  if (report.installed) {
    PrintPlace(console, *report.installed);
  }
  console.Say("  last run   " + LastText(report.last));
  console.Say("  floor      " + FloorText(details.floor));
  console.Say(std::string("  record     ") + RecordText(details.record));
  console.Say("  locks      " + LocksText(details.locks));
}

// ---- The same for programs ----

// Words of the text form, joined, are the values of the other.
std::string Hyphenated(std::string words) {
  std::replace(words.begin(), words.end(), ' ', '-');
  return words;
}

Json::Value LocksJson(const std::vector<operation::LockUse>& locks) {
  Json::Value list(Json::arrayValue);
  for (const operation::LockUse& use : locks) {
    Json::Value& json = list.append(Json::Value(Json::objectValue));
    json["lock"] = use.lock;
    json["process"] = use.process;
    json["program"] = use.program;
  }
  return list;
}

void AddDetails(const std::string& name, Json::Value& json) {
  constexpr const char* kRecords[] = {"none", "outdated", "damaged", "current"};
  const Details details = operation::ExamineDetails(name);
  json["floor"] = details.floor ? VersionJson(*details.floor) : Json::Value();
  json["record"] = kRecords[static_cast<int>(details.record)];
  json["locks"] = LocksJson(details.locks);
}

void AddInstalled(const Report& report, Json::Value& json) {
  const bool is_known = report.installed.has_value();
  const Installed installed = report.installed.value_or(Installed{});
  json["directory"] = TextJson(installed.directory);
  json["volume"] = TextJson(installed.volume);
  json["volume_missing"] = is_known ? Json::Value(installed.volume_missing) : Json::Value();
  json["scheduled"] = is_known ? Json::Value(installed.scheduled) : Json::Value();
}

Json::Value ReportJson(const Report& report, const Surroundings& around) {
  const std::optional<std::int64_t> age = AgeOf(report, around.now);
  const bool runs = report.installed && report.installed->scheduled;
  Json::Value json;
  json["name"] = report.name;
  json["installed"] = VersionJson(report.version);
  json["offered"] = report.offer.has_value() ? Json::Value(report.offer->version) : Json::Value();
  json["deprecated"] =
      report.offer.has_value() ? Json::Value(report.offer->deprecated) : Json::Value();
  json["state"] = Hyphenated(StateOf(report));
  json["problem"] = TextJson(report.problem);
  json["update"] = report.plan.has_value() ? PlanJson(*report.plan) : Json::Value();
  json["age_seconds"] = age ? Json::Value(Json::Int64{*age}) : Json::Value();
  json["next_run"] = runs ? NextRunJson(around.timers) : Json::Value();
  json["last_run"] = LastJson(report.last);
  AddInstalled(report, json);
  AddDetails(report.name, json);
  return json;
}

Json::Value CoolDownJson(const std::optional<ServerCoolDown>& cool_down) {
  if (!cool_down) {
    return Json::Value();
  }
  Json::Value json;
  json["server"] = cool_down->server;
  json["failures"] = cool_down->failures;
  json["until"] = operation::TimeText(cool_down->until);
  return json;
}

// ---- All of it ----

int List(Console& console, const Service& service) {
  Json::Value& list = console.Document()["databases"] = Json::Value(Json::arrayValue);
  for (const std::string& name : service.config->GetDatabaseIDs()) {
    console.Say(name);
    list.append(Json::Value(Json::objectValue))["name"] = name;
  }
  return ReportSettings(console) ? kSuccess : kFailure;
}

struct StatusRequest {
  std::vector<std::string> names;
  bool offline = false;
  MetricsRequest metrics;
};

// One look at databases. What is amiss with the settings of all of them is said once.
class Look {
 public:
  Look(Console& console, const Service& service, const StatusRequest& request)
      : console_(console), service_(service), request_(request) {}

  int Do() {
    console_.Document()["databases"] = Json::Value(Json::arrayValue);
    const std::vector<std::string> names = NamedOrAll(service_, request_.names);
    good_ = is_sound_ = ReportSettings(console_);
    LookAround();
    for (const std::string& name : names) {
      if (Tries(name, [&] { service_.config->CheckSupported(name); }).empty()) {
        reports_.push_back(Examine(name));
      }
    }
    Print();
    FillDocument();
    return good_ ? kSuccess : kFailure;
  }

 private:
  // Why it failed; empty when it did not.
  std::string Tries(const std::string& context, const std::function<void()>& action) {
    try {
      action();
      return "";
    } catch (const operation::Interrupted&) {
      throw;
    } catch (const std::exception& error) {
      const operation::Failure failure = operation::FailureOf(error);
      if (said_.insert(error.what()).second) {
        console_.Fail(context, failure);
      }
      good_ = false;
      return operation::LineOf("", failure);
    }
  }

  void LookAround() {
    Tries("", [this] { around_.volume = service_.config->GetCurVolume(); });
    AskForOffers();
    around_.timers = operation::ExamineTimers();
    const std::string server = operation::ConfiguredServerName(service_);
    for (const ServerCoolDown& cool_down : operation::PresentCoolDowns()) {
      if (cool_down.server == server) {
        around_.cool_down = cool_down;
      }
    }
  }

  // With settings that no operation begins with nobody is asked, and that is said already.
  void AskForOffers() {
    if (!request_.offline) {
      around_.offers_problem =
          is_sound_ ? Tries("", [this] { around_.description = Description::Fetch(service_); })
                    : "no operation begins with these settings";
    }
    if (!around_.description) {
      around_.description = Description::FromCache(service_);
    }
    around_.signature = SignatureOf(around_.description);
  }

  // What was cut short is installed in full, whatever stands in its record.
  Report Examine(const std::string& name) {
    Report report{name,
                  VersionOrNone(operation::RecordedVersion(service_, name)),
                  std::nullopt,
                  "",
                  std::nullopt,
                  std::nullopt,
                  operation::LastOf(name)};
    report.problem =
        Tries(name, [&] { report.installed = operation::ExamineInstalled(service_, name); });
    if (report.installed && report.installed->volume_missing) {
      around_.volume_missing = true;
    }
    if (around_.description) {
      Tries(name, [&] {
        const Offer offer = around_.description->OfferOf(name);
        if (VersionOrNone(offer.version) == kNeverInstalled) {
          return;
        }
        report.offer = offer;
        const bool is_replaced = offer.replaces_higher && report.version > offer.version;
        const bool is_usable = report.installed && !report.installed->cut_short && !is_replaced;
        report.plan = operation::PlanUpdate(is_usable ? report.version : kNeverInstalled,
                                            report.offer->version, report.offer->deltas,
                                            report.offer->full_package_bytes);
      });
    }
    return report;
  }

  void Print() const {
    console_.Say("volume       " + (around_.volume.empty() ? "none" : around_.volume) +
                 (around_.volume_missing ? " (not mounted)" : ""));
    console_.Say("offers from  " + OffersFrom());
    if (around_.signature) {
      console_.Say("signed       " + SignatureText(*around_.signature, around_.now));
    } else if (around_.description) {
      console_.Say("signed       no");
    }
    console_.Say("next run     " + NextRunText(around_.timers, around_.now));
    if (around_.cool_down) {
      console_.Say("cool-down    " + CoolDownText(*around_.cool_down));
      console_.Say("             " + CoolDownReason(*around_.cool_down));
    }
    if (!request_.names.empty()) {
      for (const Report& report : reports_) {
        PrintReport(console_, report, around_);
      }
    } else if (!reports_.empty()) {
      PrintTable();
    }
  }

  std::string OffersFrom() const {
    if (!around_.description) {
      return "none";
    }
    // It may have been downloaded since this command began.
    constexpr std::int64_t kMomentSeconds = 60;
    const std::int64_t time = around_.description->downloaded_at();
    return operation::TimeText(time) +
           (time > around_.now + kMomentSeconds
                ? " (later than this machine's clock)"
                : " (" + base::HumanDuration(around_.now - time) + " ago)");
  }

  void PrintTable() const {
    Table table({{"NAME", false, 0},
                 {"INSTALLED", true, 0},
                 {"OFFERED", true, 1},
                 {"AGE", true, 3},
                 {"COST", false, 2},
                 {"STATE", false, 0},
                 {"NEXT RUN", false, 4}});
    for (const Report& report : reports_) {
      const std::optional<std::int64_t> age = AgeOf(report, around_.now);
      const bool is_deprecated = report.offer && report.offer->deprecated;
      table.Add(
          {report.name, report.version == kNeverInstalled ? kUnknown : VersionText(report.version),
           report.offer ? VersionText(report.offer->version) : kUnknown,
           age ? base::HumanDuration(*age) : kUnknown, CostText(report.plan),
           StateOf(report) + (is_deprecated ? ", deprecated" : ""), NextRunWord(report, around_)});
    }
    for (const std::string& line : table.Lines(OutputColumns())) {
      console_.Say(line);
    }
  }

  void FillDocument() {
    Json::Value& document = console_.Document();
    document["volume"] = TextJson(around_.volume);
    document["offers_from"] =
        around_.description ? Json::Value(operation::TimeText(around_.description->downloaded_at()))
                            : Json::Value();
    document["offers_signed"] = SignatureJson(around_.signature, around_.now);
    document["offers_problem"] = TextJson(around_.offers_problem);
    document["next_run"] = NextRunJson(around_.timers);
    document["next_run_by"] = NextRunByJson(around_.timers);
    document["cool_down"] = CoolDownJson(around_.cool_down);
    for (const Report& report : reports_) {
      document["databases"].append(ReportJson(report, around_));
    }
  }

  Console& console_;
  const Service& service_;
  const StatusRequest& request_;
  Surroundings around_;
  std::vector<Report> reports_;
  std::set<std::string> said_;
  bool is_sound_ = true;  // The settings are; nothing else counts.
  bool good_ = true;
};

int Busy(Console& console, const Service& service, const std::string& name) {
  bool busy = false;
  const bool answered =
      console.Succeeds(name, [&] { busy = operation::IsOperationRunning(service, name); });
  if (!answered) {
    return kFailure;
  }
  console.Say(busy ? "busy" : "idle");
  console.Document()["busy"] = busy;
  return busy ? kBusy : kSuccess;
}

void AddStatus(CommandSyntax app, Choice& choice) {
  const auto request = std::make_shared<StatusRequest>();
  const CommandSyntax command = AddCommand(
      app, choice, "status", "Show what is installed, what is offered and when the next run is",
      {"tolmdbud status", "tolmdbud status vendors --offline", "tolmdbud status --json", "",
       "One line a database; of named ones all that is known, one fact a line. Exit status: 1",
       "when there was something that could not be looked at, or no operation would begin with",
       "the settings; the rest is shown all the same."},
      [request](Console& console, const Service& service) {
        const MetricsRequest& metrics = request->metrics;
        if (metrics.is_wanted || !metrics.file.empty()) {
          return PrintMetrics(console, service, metrics);
        }
        return Interruptible(console, [&] { return Look(console, service, *request).Do(); });
      },
      Output::kOwn, Rights::kRootToAskTheServer);
  command.AddOption("NAME", request->names, "Databases; all without one");
  command.AddFlag("--offline", request->offline,
                  "Do not ask the server: show the offers that it was last seen to make");
  AddMetricsOptions(command, request->metrics);
}

void AddBusy(CommandSyntax app, Choice& choice) {
  const auto name = std::make_shared<std::string>();
  AddCommand(
      app, choice, "busy", "Say whether an operation is running, of one database or of any",
      {"tolmdbud busy", "tolmdbud busy vendors --quiet && reboot"},
      [name](Console& console, const Service& service) { return Busy(console, service, *name); },
      Output::kOwn, Rights::kAnyone)
      .AddOption("NAME", *name, "The database");
}

}  // namespace

void AddLooking(CommandSyntax app, Choice& choice) {
  AddCommand(app, choice, "list", "Name the configured databases",
             {"tolmdbud list", "tolmdbud list --json"}, List, Output::kOwn, Rights::kAnyone);
  AddStatus(app, choice);
  AddBusy(app, choice);
}

}  // namespace tolm::tool
