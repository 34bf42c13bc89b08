// schedule: which databases do runs over all of them include?

#include <memory>

#include "operation/schedule.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Service;

struct Request {
  std::string name;
  std::string setting;  // "on", "off" or empty: only show it
};

void Show(Console& console, const Service& service, const std::string& name) {
  const bool scheduled = operation::IsScheduled(*service.config, name);
  console.Say(name + ": " + (scheduled ? "on" : "off"));
  Json::Value& json = console.Document()["databases"].append(Json::Value(Json::objectValue));
  json["name"] = name;
  json["scheduled"] = scheduled;
}

// Sets it, and says which other databases come along.
void Set(Console& console, const Service& service, const Request& request) {
  const std::vector<std::string> hidden = operation::HiddenDatabases();
  operation::SetScheduled(*service.config, request.name, request.setting == "on");
  for (const std::string& name : hidden) {
    if (name != request.name) {
      console.Warn(name + " was hidden and is listed from now on");
    }
  }
}

int Schedule(Console& console, const Service& service, const Request& request) {
  console.Document()["databases"] = Json::Value(Json::arrayValue);
  const std::vector<std::string> names =
      request.name.empty() ? service.config->GetDatabaseIDs() : std::vector{request.name};
  WarnOfSettingsFiles(console);
  if (request.setting.empty()) {  // A setting lists the hidden ones.
    WarnOfHiddenDatabases(console);
  }
  const bool good = console.Succeeds(request.name, [&] {
    if (!request.setting.empty()) {
      Set(console, service, request);
    }
    for (const std::string& name : names) {
      Show(console, service, name);
    }
  });
  return good ? kSuccess : kFailure;
}

}  // namespace

void AddSchedule(CommandSyntax app, Choice& choice) {
  const auto request = std::make_shared<Request>();
  const CommandSyntax command = AddCommand(
      app, choice, "schedule", "Show or set whether runs over all databases include one",
      {"tolmdbud schedule", "tolmdbud schedule vendors off"},
      [request](Console& console, const Service& service) {
        return Schedule(console, service, *request);
      },
      Output::kOwn, Rights::kRootToSet);
  command.AddOption("NAME", request->name, "The database; without one all are shown");
  command.AddOption("SETTING", request->setting, "on or off; without it the present one is shown")
      .OneOf({"on", "off"});
}

}  // namespace tolm::tool
