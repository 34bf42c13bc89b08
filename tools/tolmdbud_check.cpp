// check: is an update offered?

#include <ctime>
#include <memory>
#include <optional>

#include "operation/history.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::Description;
using operation::Installed;
using operation::kNeverInstalled;
using operation::Offer;
using operation::Service;

struct Request {
  std::vector<std::string> names;
  bool refresh = false;
  std::optional<std::string> from{};
};

bool IsUpToDate(const Installed& installed, const Offer& offer) {
  return offer.replaces_higher ? installed.version == offer.version
                               : installed.version >= offer.version;
}

std::string AnswerText(const Installed& installed, const Offer& offer) {
  if (installed.cut_short) {
    return "an operation was cut short, the next update installs " + std::to_string(offer.version) +
           " in full";
  }
  if (IsUpToDate(installed, offer)) {
    return "up to date with " + std::to_string(installed.version) + AsOfText();
  }
  return std::to_string(offer.version) + " is offered, " +
         (installed.version == kNeverInstalled ? "none" : std::to_string(installed.version)) +
         " is installed";
}

// Of a version that other devices are offered and this one is not yet.
std::string RolloutText(const std::optional<operation::Rollout>& rollout) {
  return rollout && !rollout->IsOffered()
             ? "; " + operation::RolloutText(*rollout, std::time(nullptr))
             : "";
}

int CheckOne(Console& console, const Service& service, const Description& description,
             const std::string& name) {
  const Installed installed = operation::ExamineInstalled(service, name);
  const Offer offer = description.OfferOf(name);
  const bool offered = installed.cut_short || !IsUpToDate(installed, offer);
  console.Say(name + ": " + AnswerText(installed, offer) + RolloutText(offer.rollout));
  Json::Value& json = console.Document()["databases"].append(Json::Value(Json::objectValue));
  json["name"] = name;
  json["installed"] =
      installed.version == kNeverInstalled ? Json::Value() : Json::Value(installed.version);
  json["offered"] = offer.version;
  json["cut_short"] = installed.cut_short;
  json["update_offered"] = offered;
  if (offer.rollout) {
    json["rollout"] = RolloutJson(offer.rollout);
  }
  return offered ? kUpdateOffered : kSuccess;
}

int Check(Console& console, const Service& service, const Request& request) {
  console.Document()["databases"] = Json::Value(Json::arrayValue);
  console.Document()["offers_from"] = Json::Value();
  console.Document()["offers_signed"] = Json::Value();
  operation::RequireSoundSettings();
  const std::vector<std::string> names = NamedOrAll(service, request.names);
  WarnOfSettings(console);
  const auto from = TakeFrom(request.from);
  if (request.refresh) {
    operation::AskServerAnew();
  }
  std::optional<Description> fetched;
  const bool is_fetched = console.Succeeds("", [&] { fetched = Description::Fetch(service); });
  console.Document()["offers_signed"] = SignatureJson(SignatureOf(fetched), std::time(nullptr));
  if (!is_fetched) {
    return kFailure;
  }
  const Description& description = *fetched;
  console.Document()["offers_from"] = operation::TimeText(description.downloaded_at());
  int worst = kSuccess;
  for (const std::string& name : names) {
    int status = kFailure;
    console.Succeeds(name, [&] { status = CheckOne(console, service, description, name); });
    worst = Worse(worst, status);
  }
  return worst;
}

}  // namespace

void AddCheck(CommandSyntax app, Choice& choice) {
  const auto request = std::make_shared<Request>();
  const CommandSyntax command = AddCommand(
      app, choice, "check", "Say whether an update is offered, by the exit status, too",
      {"tolmdbud check", "tolmdbud check vendors --refresh",
       "tolmdbud check --quiet; [ $? -eq 10 ] && tolmdbud update --all", "",
       "Exit status: 0 when all are up to date, 10 when an update is offered, 1 when",
       "that could not be found out for one of them."},
      [request](Console& console, const Service& service) {
        return Interruptible(console, [&] { return Check(console, service, *request); });
      },
      Output::kOwn, Rights::kRootToAskTheServer);
  command.AddOption("NAME", request->names, "Databases; all without one");
  command.AddFlag("--refresh", request->refresh,
                  "Ask the server now, however young its last answer is");
  AddFrom(command, request->from);
}

}  // namespace tolm::tool
