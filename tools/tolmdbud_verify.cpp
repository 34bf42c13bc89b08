// verify: are the installed files what they should be?

#include <algorithm>
#include <memory>

#include "operation/failure.h"
#include "operation/run.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "operation/verification.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::kNeverInstalled;
using operation::Service;
using operation::Verification;

struct Request {
  std::vector<std::string> names;
  bool against_package = false;
};

std::string StateOf(const Verification& verification) {
  if (!verification.IsIntact()) {
    return "damaged";
  }
  if (verification.version == kNeverInstalled) {
    return "not installed";
  }
  return verification.not_compared == 0 ? "intact" : "not compared";
}

// Words of the text form, joined, are the values of the other.
std::string Hyphenated(std::string words) {
  std::replace(words.begin(), words.end(), ' ', '-');
  return words;
}

std::string Summary(const Verification& verification) {
  std::string text = StateOf(verification);
  if (verification.cut_short) {
    text += ", an operation was cut short";
  }
  if (verification.version == kNeverInstalled) {
    return text;
  }
  return text + ", checked " + std::to_string(verification.checked_files) + " of " +
         std::to_string(verification.installed_files) + " files";
}

void Print(const Console& console, const std::string& name, const Verification& verification) {
  console.Say(name + ": " + Summary(verification));
  if (verification.not_compared != 0) {
    console.Say("  nothing is recorded of " + std::to_string(verification.not_compared) +
                (verification.not_compared == 1 ? " file" : " files") +
                "; \"tolmdbud verify --package " + name + "\" compares, \"tolmdbud fix --package " +
                name + "\" repairs");
  }
  for (const operation::DamagedFile& damaged : verification.damaged) {
    console.Say("  " + damaged.file + ": " + damaged.problem);
  }
  for (const std::string& file : verification.foreign) {
    console.Say("  " + file + ": not in the package");
  }
}

Json::Value ToJson(const std::string& name, const Verification& verification) {
  Json::Value json;
  json["name"] = name;
  const bool none = verification.version == kNeverInstalled;
  json["installed"] = none ? Json::Value() : Json::Value(verification.version);
  json["state"] = Hyphenated(StateOf(verification));
  json["not_compared"] = Json::UInt64{verification.not_compared};
  json["cut_short"] = verification.cut_short;
  json["checked_files"] = Json::UInt64{verification.checked_files};
  json["installed_files"] = Json::UInt64{verification.installed_files};
  json["damaged"] = Json::Value(Json::arrayValue);
  for (const operation::DamagedFile& damaged : verification.damaged) {
    Json::Value& entry = json["damaged"].append(Json::Value(Json::objectValue));
    entry["file"] = damaged.file;
    entry["problem"] = damaged.problem;
  }
  json["foreign"] = Json::Value(Json::arrayValue);
  for (const std::string& file : verification.foreign) {
    json["foreign"].append(file);
  }
  return json;
}

// Whether there is a volume for what has to be on it; without one all files would be missing.
bool LacksVolume(const Service& service, const Request& request, const std::string& name) {
  return service.config->GetCurVolume().empty() &&
         (request.against_package ||
          service.config->GetDatabaseConfig(name)->GetRootDirectory().empty());
}

Verification Look(const Service& service, const Request& request, const std::string& name) {
  return request.against_package ? operation::VerifyAgainstPackage(service, name)
                                 : operation::VerifyRecorded(service, name);
}

int VerifyOne(Console& console, const Service& service, const Request& request,
              const std::string& name) {
  service.config->CheckSupported(name);
  if (LacksVolume(service, request, name)) {
    console.Fail(name, operation::reasons::kNoVolume, "no volume is chosen");
    return kNoVolume;
  }
  const Verification verification = Look(service, request, name);
  Print(console, name, verification);
  console.Document()["databases"].append(ToJson(name, verification));
  return verification.IsIntact() ? kSuccess : kDamaged;
}

int VerifyWhatIsThere(Console& console, const Service& service, const Request& request,
                      const std::string& name) {
  try {
    return VerifyOne(console, service, request, name);
  } catch (const operation::NoVolume& error) {
    console.Fail(name, operation::FailureOf(error));
    return kNoVolume;
  }
}

int VerifyAll(Console& console, const Service& service, const Request& request) {
  console.Document()["databases"] = Json::Value(Json::arrayValue);
  console.Document()["against"] = request.against_package ? "package" : "record";
  operation::RequireSoundSettings();
  WarnOfSettings(console);
  int worst = kSuccess;
  for (const std::string& name : NamedOrAll(service, request.names)) {
    int status = kFailure;
    console.Succeeds(name, [&] { status = VerifyWhatIsThere(console, service, request, name); });
    worst = Worse(worst, status);
  }
  return worst;
}

// What only reads may simply be killed.
int Verify(Console& console, const Service& service, const Request& request) {
  const auto verify = [&] { return VerifyAll(console, service, request); };
  return request.against_package ? Interruptible(console, verify) : verify();
}

}  // namespace

void AddVerify(CommandSyntax app, Choice& choice) {
  const auto request = std::make_shared<Request>();
  const CommandSyntax command = AddCommand(
      app, choice, "verify", "Compare installed files with what they should be; change nothing",
      {"tolmdbud verify", "tolmdbud verify vendors --package",
       "tolmdbud verify || tolmdbud fix --all", "",
       "Exit status: 0 when no damage was found, 11 when files are damaged, 12 when no",
       "volume is chosen or it is not mounted, 1 when a database could not be looked at."},
      [request](Console& console, const Service& service) {
        return Verify(console, service, *request);
      },
      Output::kOwn, Rights::kAnyone);
  command.AddOption("NAME", request->names, "Databases; all without one");
  command.AddFlag("--package", request->against_package,
                  "Compare with the full package, which is downloaded for it (as root); otherwise "
                  "all files are compared with the record of their installation");
}

}  // namespace tolm::tool
