// The commands that only look: list, status, busy.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>

#include "base/human_text.h"
#include "operation/failure.h"
#include "operation/history.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "tools/table.h"
#include "tools/tolmdbud_cli.h"
#include "tools/tolmdbud_look.h"
#include "tools/tolmdbud_metrics.h"
#include "tools/tolmdbud_page.h"

namespace tolm::tool {
namespace {

using operation::Details;
using operation::HistoryEntry;
using operation::Installed;
using operation::kNeverInstalled;
using operation::ServerCoolDown;
using operation::Service;
using operation::Timers;
using operation::UpdatePlan;

Json::Value VersionJson(int version) {
  return version < 0 ? Json::Value() : Json::Value(version);
}

Json::Value TextJson(const std::string& text) {
  return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value BytesJson(const std::optional<std::uint64_t>& bytes) {
  return bytes.has_value() ? Json::Value(Json::UInt64{*bytes}) : Json::Value();
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

Json::Value NextRunJson(const Timers& timers) {
  return timers.update.next ? Json::Value(operation::TimeText(*timers.update.next)) : Json::Value();
}

Json::Value NextRunByJson(const Timers& timers) {
  if (timers.update.next) {
    return "systemd";
  }
  return timers.cron.empty() ? Json::Value() : Json::Value("cron");
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
  json["server"] = TextJson(last->server);
  return json;
}

// ---- One database in full ----

void PrintPlace(const Console& console, const Installed& installed) {
  console.Say("  directory  " + installed.directory);
  console.Say("  volume     " + VolumeText(installed));
  console.Say(std::string("  schedule   ") + (installed.scheduled ? "on" : "off"));
}

void PrintRollout(const Console& console, const operation::Rollout& rollout, std::int64_t now) {
  console.Say("  stable     " + VersionText(rollout.stable));
  console.Say("  rollout    " + operation::StageText(rollout));
  console.Say("  its turn   " + operation::TurnText(rollout, now));
}

void PrintReport(const Console& console, const Report& report, const Surroundings& around) {
  const Details details = operation::ExamineDetails(report.name);
  console.Say(report.name);
  console.Say("  installed  " + VersionText(report.version));
  console.Say("  offered    " + OfferText(report.offer));
  if (report.offer && report.offer->rollout) {
    PrintRollout(console, *report.offer->rollout, around.now);
  }
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
  json["rollout"] = RolloutJson(report.offer ? report.offer->rollout : std::nullopt);
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

// What was seen, as lines and for programs.
class StatusOutput {
 public:
  StatusOutput(Console& console, const StatusRequest& request, const Sight& sight)
      : console_(console), request_(request), sight_(sight), around_(sight.around) {}

  void Print() const {
    console_.Say("volume       " + ChosenVolumeText(around_));
    console_.Say("offers from  " + OffersFromText(around_));
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
      for (const Report& report : sight_.reports) {
        PrintReport(console_, report, around_);
      }
    } else if (!sight_.reports.empty()) {
      PrintTable();
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
    for (const Report& report : sight_.reports) {
      document["databases"].append(ReportJson(report, around_));
    }
  }

 private:
  void PrintTable() const {
    Table table({{"NAME", false, 0},
                 {"INSTALLED", true, 0},
                 {"OFFERED", true, 1},
                 {"AGE", true, 3},
                 {"COST", false, 2},
                 {"STATE", false, 0},
                 {"NEXT RUN", false, 4}});
    for (const Report& report : sight_.reports) {
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

  Console& console_;
  const StatusRequest& request_;
  const Sight& sight_;
  const Surroundings& around_;
};

int Status(Console& console, const Service& service, const StatusRequest& request) {
  console.Document()["databases"] = Json::Value(Json::arrayValue);
  const Sight sight = LookAround(console, service, request);
  StatusOutput output(console, request, sight);
  output.FillDocument();
  if (request.page.empty()) {
    output.Print();
    return sight.is_good ? kSuccess : kFailure;
  }
  const bool is_written = console.Succeeds("", [&] { WriteStatusPage(request.page, sight); });
  return is_written && sight.is_good ? kSuccess : kFailure;
}

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
      {"tolmdbud status", "tolmdbud status vendors --offline", "tolmdbud status --json",
       "tolmdbud status --html status.html", "",
       "One line a database; of named ones all that is known, one fact a line. Exit status: 1",
       "when there was something that could not be looked at, or no operation would begin with",
       "the settings; the rest is shown all the same."},
      [request](Console& console, const Service& service) {
        const MetricsRequest& metrics = request->metrics;
        if (metrics.is_wanted || !metrics.file.empty()) {
          return PrintMetrics(console, service, metrics);
        }
        return Interruptible(console, [&] { return Status(console, service, *request); });
      },
      Output::kOwn, Rights::kRootToAskTheServer);
  command.AddOption("NAME", request->names, "Databases; all without one");
  command.AddFlag("--offline", request->offline,
                  "Do not ask the server: show the offers that it was last seen to make");
  command.AddOption("--html", request->page, "Write a page for browsers to this file, and no lines")
      .Check([](const std::string& file) { return file.empty() ? "no file" : ""; });
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
