// The start of the service and the volumes' events.

#include <memory>

#include "operation/volume_events.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Service;
using operation::VolumeChange;

std::string NameOf(const std::string& volume) {
  return volume.empty() ? "none" : volume;
}

Json::Value ToJson(const std::string& text) {
  return text.empty() ? Json::Value() : Json::Value(text);
}

// Mount paths are compared as they are written.
std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

int Init(Console& console, const Service& service) {
  const std::string volume = operation::Start(service);
  console.Say("volume: " + NameOf(volume));
  console.Document()["volume"] = ToJson(volume);
  return kSuccess;
}

void ShowChosen(Console& console, const std::string& chosen) {
  const std::string problem = chosen.empty() ? "" : operation::WhyNoVolume(chosen);
  console.Say("chosen: " + NameOf(chosen) + (problem.empty() ? "" : " (" + problem + ')'));
  console.Document()["volume"] = ToJson(chosen);
  console.Document()["problem"] = ToJson(problem);
}

void ShowOne(Console& console, const operation::VolumeState& volume) {
  console.Say(volume.path + "  " + (volume.suitable ? "suitable" : "not suitable") + "  " +
              std::to_string(volume.available_bytes) + " bytes available" +
              (volume.suitable ? "" : ": " + volume.problem));
  Json::Value& json = console.Document()["volumes"].append(Json::Value(Json::objectValue));
  json["path"] = volume.path;
  json["suitable"] = volume.suitable;
  json["available_bytes"] = Json::UInt64{volume.available_bytes};
  json["obstacle"] = ToJson(volume.obstacle);
  json["problem"] = ToJson(volume.problem);
}

int Show(Console& console, const Service& service) {
  ShowChosen(console, service.config->GetCurVolume());
  console.Document()["volumes"] = Json::Value(Json::arrayValue);
  const std::vector<operation::VolumeState> volumes = operation::ListVolumes(service);
  for (const operation::VolumeState& volume : volumes) {
    ShowOne(console, volume);
  }
  if (volumes.empty()) {
    console.Say("nothing is mounted that volumes.conf names (without it, /volume[0-9]*)");
  }
  return kSuccess;
}

using Event = VolumeChange (*)(const Service&, const std::string&);

int Report(Console& console, const Service& service, Event event, const std::string& volume) {
  const VolumeChange change = event(service, WithoutTrailingSlash(volume));
  const bool changed = change.before != change.after;
  console.Say("volume: " + NameOf(change.after) +
              (changed ? " (was " + NameOf(change.before) + ')' : ""));
  console.Document()["volume"] = ToJson(change.after);
  console.Document()["before"] = ToJson(change.before);
  return kSuccess;
}

std::string MustBeAbsolute(const std::string& path) {
  return path.compare(0, 1, "/") == 0 ? "" : "must be an absolute path: " + path;
}

void AddEvent(CommandSyntax parent, Choice& choice, const std::string& name,
              const std::string& help, Event event) {
  const auto path = std::make_shared<std::string>();
  AddCommand(parent, choice, name, help, {"tolmdbud volume " + name + " /volume2"},
             [path, event](Console& console, const Service& service) {
               return Report(console, service, event, *path);
             })
      .AddOption("PATH", *path, "Where it is mounted")
      .Required()
      .Check(MustBeAbsolute);
}

}  // namespace

void AddStart(CommandSyntax app, Choice& choice) {
  AddCommand(app, choice, "init", "At the start of the service: choose a volume, let readers lock",
             {"tolmdbud init"}, Init);
}

void AddVolume(CommandSyntax app, Choice& choice) {
  const CommandSyntax volume = app.AddCommand("volume", "Follow the storage volumes");
  volume.RequireCommand();
  AddCommand(volume, choice, "show", "Show the chosen volume and the others",
             {"tolmdbud volume show", "tolmdbud volume show --json"}, Show, Output::kOwn,
             Rights::kAnyone);
  AddEvent(volume, choice, "mounted", "A volume was mounted: choose it when there is none",
           operation::Mounted);
  AddEvent(volume, choice, "unmounting", "A volume goes away: move its databases to another one",
           operation::Unmounting);
}

}  // namespace tolm::tool
