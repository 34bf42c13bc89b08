// What the device has seen already and does not go back behind.

#include <memory>

#include "operation/history.h"
#include "operation/trust.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::kNeverInstalled;
using operation::Service;

Json::Value VersionOrNull(int version) {
  return version == kNeverInstalled ? Json::Value() : Json::Value(version);
}

Json::Value ToJson(const operation::AcceptedDescription& accepted) {
  Json::Value json;
  json["repository"] = accepted.repository;
  json["signer_since"] = operation::TimeText(accepted.signer_since);
  json["counter"] = Json::UInt64(accepted.counter);
  json["issued"] = operation::TimeText(accepted.issued);
  json["expires"] = operation::TimeText(accepted.expires);
  return json;
}

std::string TextOf(const operation::AcceptedDescription& accepted) {
  return "repository " + accepted.repository + ", number " + std::to_string(accepted.counter) +
         " of " + operation::TimeText(accepted.issued) + ", good until " +
         operation::TimeText(accepted.expires) + ", by a signer since " +
         operation::TimeText(accepted.signer_since);
}

void ShowDescriptions(Console& console) {
  const operation::DescriptionTrust trust = operation::TrustInDescriptions();
  Json::Value& json = console.Document()["descriptions"];
  json["accepted"] = trust.accepted ? ToJson(*trust.accepted) : Json::Value();
  json["signed_wanted"] = trust.is_signed_wanted;
  json["signed_required"] = trust.is_signed_required;
  if (trust.accepted) {
    console.Say("descriptions: " + TextOf(*trust.accepted));
  }
  if (trust.is_signed_wanted || trust.is_signed_required) {
    console.Say(std::string("descriptions: unsigned ones are refused") +
                (trust.is_signed_required ? ", as require_signed_description says" : ""));
  }
}

int Show(Console& console, const Service& service, const std::vector<std::string>& names) {
  Json::Value& list = console.Document()["databases"] = Json::Value(Json::arrayValue);
  bool good = true;
  for (const std::string& name : NamedOrAll(service, names)) {
    good = console.Succeeds(name, [&] {
      const int floor = operation::FloorOf(service, name);
      console.Say(name + ": " +
                  (floor == kNeverInstalled
                       ? "nothing was ever installed"
                       : "nothing older than " + std::to_string(floor) + " is installed"));
      Json::Value& json = list.append(Json::Value(Json::objectValue));
      json["name"] = name;
      json["floor"] = VersionOrNull(floor);
    }) && good;
  }
  good = console.Succeeds("descriptions", [&] { ShowDescriptions(console); }) && good;
  return good ? kSuccess : kFailure;
}

struct Wanted {
  std::string name;
  int version = 0;
};

int Lower(Console& console, const Service& service, const Wanted& wanted) {
  console.Document()["name"] = wanted.name;
  const bool good = console.Succeeds(wanted.name, [&] {
    operation::LowerFloor(service, wanted.name, wanted.version);
    console.Say(wanted.name + ": what is offered from version " + std::to_string(wanted.version) +
                " on is installed again");
    console.Document()["floor"] = wanted.version;
  });
  return good ? kSuccess : kFailure;
}

int Reset(Console& console) {
  const bool good = console.Succeeds("trust", [&] {
    operation::ForgetDescriptions();
    const bool is_required = operation::TrustInDescriptions().is_signed_required;
    console.Say(std::string("what was accepted of signed descriptions is forgotten") +
                (is_required ? "; a signed one stays required by require_signed_description" : ""));
    console.Document()["signed_required"] = is_required;
  });
  return good ? kSuccess : kFailure;
}

void AddShow(CommandSyntax trust, Choice& choice) {
  const auto names = std::make_shared<std::vector<std::string>>();
  AddCommand(
      trust, choice, "show",
      "Show below which version nothing is installed, and which descriptions are believed",
      {"tolmdbud trust show", "tolmdbud trust show vendors --json"},
      [names](Console& console, const Service& service) { return Show(console, service, *names); })
      .AddOption("NAME", *names, "Databases; all without one");
}

void AddLower(CommandSyntax trust, Choice& choice) {
  const auto wanted = std::make_shared<Wanted>();
  const CommandSyntax command = AddCommand(
      trust, choice, "lower", "Accept offers of an older version than was installed before",
      {"tolmdbud trust lower vendors 41"}, [wanted](Console& console, const Service& service) {
        return Interruptible(console, [&] { return Lower(console, service, *wanted); });
      });
  command.AddOption("NAME", wanted->name, "The database").Required();
  command.AddOption("VERSION", wanted->version, "The oldest version to be accepted").Required();
}

void AddReset(CommandSyntax trust, Choice& choice) {
  AddCommand(trust, choice, "reset",
             "Forget the accepted signed descriptions, so that another repository can be followed",
             {"tolmdbud trust reset"}, [](Console& console, const Service&) {
               return Interruptible(console, [&] { return Reset(console); });
             });
}

}  // namespace

void AddTrust(CommandSyntax app, Choice& choice) {
  const CommandSyntax trust = app.AddCommand("trust", "What the device does not go back behind");
  trust.RequireCommand();
  AddShow(trust, choice);
  AddLower(trust, choice);
  AddReset(trust, choice);
}

}  // namespace tolm::tool
