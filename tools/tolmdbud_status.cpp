// The commands that only look: list, status, busy.

#include <algorithm>
#include <memory>
#include <optional>

#include "operation/history.h"
#include "operation/survey.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Description;
using operation::HistoryEntry;
using operation::Installed;
using operation::kNeverInstalled;
using operation::Offer;
using operation::Service;
using operation::UpdatePlan;

// All that is known of one database.
struct Report {
  std::string name;
  Installed installed;
  std::optional<Offer> offer;
  std::optional<UpdatePlan> plan;
  std::optional<HistoryEntry> last;
};

std::string VersionText(int version) {
  return version == kNeverInstalled ? "none" : std::to_string(version);
}

Json::Value VersionJson(int version) {
  return version == kNeverInstalled ? Json::Value() : Json::Value(version);
}

Json::Value BytesJson(const std::optional<std::uint64_t>& bytes) {
  return bytes.has_value() ? Json::Value(Json::UInt64{*bytes}) : Json::Value();
}

std::string StateOf(const Report& report) {
  if (report.installed.cut_short) {
    return "cut short";
  }
  if (report.installed.version == kNeverInstalled) {
    return "not installed";
  }
  if (!report.offer.has_value()) {
    return "unknown";
  }
  return report.installed.version < report.offer->version ? "update offered" : "up to date";
}

std::string PlanText(const UpdatePlan& plan) {
  const std::string size =
      plan.bytes.has_value() ? std::to_string(*plan.bytes) + " bytes" : "size unknown";
  switch (plan.road) {
    case UpdatePlan::Road::kDeltas:
      return std::to_string(plan.packages) + (plan.packages == 1 ? " delta, " : " deltas, ") + size;
    case UpdatePlan::Road::kFullPackage:
      return "full package, " + size;
    case UpdatePlan::Road::kNothing:
      break;
  }
  return "none needed";
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

void PrintReport(const Console& console, const Report& report) {
  console.Say(report.name);
  console.Say("  installed  " + VersionText(report.installed.version));
  console.Say("  offered    " + OfferText(report.offer));
  console.Say("  state      " + StateOf(report));
  if (report.plan.has_value()) {
    console.Say("  update     " + PlanText(*report.plan));
  }
  console.Say("  directory  " + report.installed.directory);
  console.Say(std::string("  schedule   ") + (report.installed.scheduled ? "on" : "off"));
  console.Say("  last run   " + LastText(report.last));
}

// Words of the text form, joined, are the values of the other.
std::string Hyphenated(std::string words) {
  std::replace(words.begin(), words.end(), ' ', '-');
  return words;
}

Json::Value ReportJson(const Report& report) {
  Json::Value json;
  json["name"] = report.name;
  json["installed"] = VersionJson(report.installed.version);
  json["offered"] = report.offer.has_value() ? Json::Value(report.offer->version) : Json::Value();
  json["deprecated"] =
      report.offer.has_value() ? Json::Value(report.offer->deprecated) : Json::Value();
  json["state"] = Hyphenated(StateOf(report));
  json["update"] = report.plan.has_value() ? PlanJson(*report.plan) : Json::Value();
  json["directory"] = report.installed.directory;
  json["volume"] =
      report.installed.volume.empty() ? Json::Value() : Json::Value(report.installed.volume);
  json["scheduled"] = report.installed.scheduled;
  json["last_run"] = LastJson(report.last);
  return json;
}

// What was cut short is installed in full, whatever stands in its record.
Report Examine(const Service& service, const std::string& name,
               const std::optional<Description>& description) {
  Report report{name, operation::ExamineInstalled(service, name), std::nullopt, std::nullopt,
                operation::LastOf(name)};
  if (description.has_value()) {
    report.offer = description->OfferOf(name);
    const int from = report.installed.cut_short ? kNeverInstalled : report.installed.version;
    report.plan = operation::PlanUpdate(from, report.offer->version, report.offer->deltas,
                                        report.offer->full_package_bytes);
  }
  return report;
}

int List(Console& console, const Service& service) {
  Json::Value& list = console.Document()["databases"] = Json::Value(Json::arrayValue);
  for (const std::string& name : service.config->GetDatabaseIDs()) {
    console.Say(name);
    list.append(Json::Value(Json::objectValue))["name"] = name;
  }
  WarnOfSettings(console);
  return kSuccess;
}

struct StatusRequest {
  std::vector<std::string> names;
  bool offline = false;
};

std::optional<Description> Ask(Console& console, const Service& service, bool offline, bool& good) {
  std::optional<Description> description;
  if (offline) {
    description = Description::FromCache(service);
  } else {
    good = console.Succeeds("", [&] { description = Description::Fetch(service); });
  }
  return description;
}

void PrintHead(Console& console, const std::string& volume,
               const std::optional<Description>& description) {
  console.Say("volume       " + (volume.empty() ? "none" : volume));
  console.Document()["volume"] = volume.empty() ? Json::Value() : Json::Value(volume);
  if (description.has_value()) {
    const std::string time = operation::TimeText(description->downloaded_at());
    console.Say("offers from  " + time);
    console.Document()["offers_from"] = time;
  } else {
    console.Say("offers from  none");
    console.Document()["offers_from"] = Json::Value();
  }
}

int Status(Console& console, const Service& service, const StatusRequest& request) {
  Json::Value& reports = console.Document()["databases"] = Json::Value(Json::arrayValue);
  const std::vector<std::string> names = NamedOrAll(service, request.names);
  const std::string volume = service.config->GetCurVolume();
  WarnOfSettings(console);
  bool good = true;
  const std::optional<Description> description = Ask(console, service, request.offline, good);
  PrintHead(console, volume, description);
  for (const std::string& name : names) {
    good = console.Succeeds(name, [&] {
      const Report report = Examine(service, name, description);
      PrintReport(console, report);
      reports.append(ReportJson(report));
    }) && good;
  }
  return good ? kSuccess : kFailure;
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

void AddStatus(CLI::App& app, Choice& choice) {
  const auto request = std::make_shared<StatusRequest>();
  CLI::App* command = AddCommand(
      app, choice, "status", "Show what is installed and what is offered",
      {"tolmdbud status", "tolmdbud status vendors --offline", "tolmdbud status --json"},
      [request](Console& console, const Service& service) {
        return Interruptible(console, [&] { return Status(console, service, *request); });
      },
      Output::kOwn, Rights::kRootToAskTheServer);
  command->add_option("NAME", request->names, "Databases; all without one");
  command->add_flag("--offline", request->offline,
                    "Do not ask the server: show the offers that it was last seen to make");
}

void AddBusy(CLI::App& app, Choice& choice) {
  const auto name = std::make_shared<std::string>();
  AddCommand(
      app, choice, "busy", "Say whether an operation is running, of one database or of any",
      {"tolmdbud busy", "tolmdbud busy vendors --quiet && reboot"},
      [name](Console& console, const Service& service) { return Busy(console, service, *name); },
      Output::kOwn, Rights::kAnyone)
      ->add_option("NAME", *name, "The database");
}

}  // namespace

void AddLooking(CLI::App& app, Choice& choice) {
  AddCommand(app, choice, "list", "Name the configured databases",
             {"tolmdbud list", "tolmdbud list --json"}, List, Output::kOwn, Rights::kAnyone);
  AddStatus(app, choice);
  AddBusy(app, choice);
}

}  // namespace tolm::tool
