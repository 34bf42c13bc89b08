// The commands that change databases.

#include <json/value.h>

#include <functional>
#include <memory>

#include "operation/interrupt.h"
#include "operation/run.h"
#include "operation/schedule.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "operation/taken_from.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

using operation::HistoryEntry;
using operation::Interrupt;
using operation::Interrupted;
using operation::NoVolume;
using operation::Run;
using operation::Service;

using Operation = std::function<const HistoryEntry&(Run&, const std::string& database)>;

// What was given on the command line.
struct Given {
  std::vector<std::string> names;
  bool all = false;
  bool keep_going = false;
  bool scheduled = false;
  bool refresh = false;
  bool by_package = false;
  std::optional<std::string> from{};  ///< In place of the configured server and its mirrors.
};

Json::Value VersionOrNull(int version) {
  return version < 0 ? Json::Value() : Json::Value(version);
}

Json::Value StatusOrNull(const operation::Failure& failure) {
  return failure.http_status == 0 ? Json::Value() : Json::Value(failure.http_status);
}

Json::Value ToJson(const HistoryEntry& result) {
  Json::Value value;
  value["operation"] = result.operation;
  value["database"] = result.database;
  value["outcome"] = result.outcome;
  value["from"] = VersionOrNull(result.from);
  value["to"] = VersionOrNull(result.to);
  value["message"] = result.message;
  value["seconds"] = result.seconds;
  value["bytes"] = Json::UInt64(result.bytes);
  value["server"] = result.server.empty() ? Json::Value() : Json::Value(result.server);
  value["reason"] = result.failure.reason;
  value["http_status"] = StatusOrNull(result.failure);
  value["fell_back"] = Json::Value();
  if (result.fell_back) {
    value["fell_back"] = tool::ToJson(result.fell_back->failure);
    value["fell_back"]["explanation"] = operation::LineOf("", result.fell_back->failure);
    value["fell_back"]["bytes"] = Json::UInt64(result.fell_back->bytes);
  }
  return value;
}

// One command's work, from its first database to the exit status.
class Work {
 public:
  Work(Console& console, const Service& service, const Given& given, Operation operation)
      : console_(console),
        service_(service),
        given_(given),
        operation_(std::move(operation)),
        from_(TakeFrom(given.from)),
        run_(service, given.scheduled,
             !console.GetOptions().quiet && console.GetOptions().verbosity == 0) {}

  int Do() {
    Json::Value& results = console_.Document()["results"] = Json::Value(Json::arrayValue);
    console_.Document()["offers_from"] = Json::Value();
    operation::RequireSoundSettings();
    if (given_.refresh) {
      operation::AskServerAnew();
    }
    if (const std::optional<std::string> why = run_.HeldBack()) {
      console_.Say("skipped: " + *why);
      console_.Document()["skipped"] = *why;
      return kSuccess;
    }
    WarnOfHiddenDatabases(console_);
    if (given_.all && !given_.keep_going) {
      DoAllOrStop();
    } else {
      DoEach(given_.all ? operation::ScheduledDatabases(*service_.config) : given_.names);
    }
    run_.Finish(status_ == kSuccess);
    console_.Document()["offers_from"] = OffersFrom();
    for (const HistoryEntry& result : run_.Results()) {
      results.append(ToJson(result));
    }
    return Interrupt::Received() == 0 ? status_ : SayInterrupted();
  }

 private:
  void DoOne(const std::string& name) {
    const HistoryEntry& result = operation_(run_, name);
    if (result.fell_back) {
      console_.Warn(name + ' ' + operation::FellBackText(*result.fell_back));
    }
    const bool goes_by_offer = result.outcome == operation::kUpToDate;
    console_.Say(name + ": " + operation::OutcomeText(result) + (goes_by_offer ? AsOfText() : ""));
  }

  // As the library does it: the first failure ends the run. So does a missing volume, without a
  // word.
  void DoAllOrStop() {
    Try("", [this] {
      service_.update->OperateAllProjects([this](const std::string& name) { DoOne(name); });
      const bool had_work = !operation::ScheduledDatabases(*service_.config).empty();
      if (had_work && service_.config->GetCurVolume().empty()) {
        throw NoVolume();
      }
    });
  }

  void DoEach(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      Try(name, [this, &name] { DoOne(name); });
    }
  }

  // An ordinary failure outweighs a missing volume.
  void Try(const std::string& context, const std::function<void()>& action) {
    try {
      action();
    } catch (const Interrupted&) {
      // Said once, at the end.
    } catch (const NoVolume& error) {
      console_.Fail(context, operation::FailureOf(error));
      status_ = status_ == kSuccess ? kNoVolume : status_;
    } catch (const std::exception& error) {
      SayFailure(context, error);
      status_ = kFailure;
    }
  }

  // The library puts an error of its own in place of what an operation over all of them has thrown.
  void SayFailure(const std::string& context, const std::exception& error) {
    const auto& results = run_.Results();
    const bool is_of_operation =
        context.empty() && !results.empty() && results.back().outcome == operation::kFailed;
    if (is_of_operation) {
      console_.Fail(results.back().database, results.back().failure);
    } else {
      console_.Fail(context, operation::FailureOf(error));
    }
  }

  int SayInterrupted() {
    const auto& results = run_.Results();
    const bool was_cut = !results.empty() && results.back().outcome == operation::kInterrupted;
    console_.Fail(was_cut ? results.back().database : "", operation::FailureOf(Interrupted()));
    return kSignal + Interrupt::Received();
  }

  Console& console_;
  const Service& service_;
  const Given& given_;
  const Operation operation_;
  const Interrupt interrupt_;                         // before the thread that run_ starts
  const std::unique_ptr<operation::TakenFrom> from_;  // before run_, which asks whom to ask
  Run run_;
  int status_ = kSuccess;
};

int ForceInstall(Console& console, const Service& service, const Given& given, int version) {
  const auto install = [version](Run& run, const std::string& database) -> const HistoryEntry& {
    return run.ForceInstall(database, version);
  };
  return Work(console, service, given, install).Do();
}

void AddRefresh(CommandSyntax command, Given& given) {
  command.AddFlag("--refresh", given.refresh,
                  "Ask the server now, however young its last answer is");
}

// Adds a command that works on named databases or on all. Returns its --all.
CommandOption AddOperation(CommandSyntax app, Choice& choice, const std::string& name,
                           const std::string& help, const std::shared_ptr<Given>& given,
                           const Operation& operation) {
  const CommandSyntax command =
      AddCommand(app, choice, name, help,
                 {"tolmdbud " + name + " --all", "tolmdbud " + name + " --all --keep-going",
                  "tolmdbud " + name + " vendors"},
                 [given, operation](Console& console, const Service& service) {
                   return Work(console, service, *given, operation).Do();
                 });
  const CommandOption named = command.AddOption(
      "NAME", given->names, "Databases; a failure of one is reported and the next is tried");
  const CommandOption all = command.AddFlag(
      "--all", given->all, "Every scheduled database, in order; the first failure ends the run");
  all.Excludes(named);
  command.AddFlag("--keep-going", given->keep_going,
                  "With --all: go on with the other databases after a failure");
  AddRefresh(command, *given);
  AddFrom(command, given->from);
  command.OnParsed([given] {
    if (given->names.empty() && !given->all) {
      throw WrongUsage("name a database or give --all");
    }
  });
  return all;
}

void AddUpdate(CommandSyntax app, Choice& choice) {
  const auto given = std::make_shared<Given>();
  const CommandOption all = AddOperation(
      app, choice, "update", "Bring databases to the newest version", given, &Run::Update);
  app.GetCommand("update")
      .AddFlag("--scheduled", given->scheduled,
               "A timer started this: do nothing, successfully, while the server is left alone "
               "after failures")
      .Needs(all)
      .Excludes(app.GetCommand("update").GetOption("--from"));
}

void AddFix(CommandSyntax app, Choice& choice) {
  const auto given = std::make_shared<Given>();
  const auto fix = [given](Run& run, const std::string& database) -> const HistoryEntry& {
    return given->by_package ? run.FixByPackage(database) : run.Fix(database);
  };
  AddOperation(app, choice, "fix", "Check installed files and reinstall damaged databases", given,
               fix);
  app.GetCommand("fix").AddFlag(
      "--package", given->by_package,
      "Compare with the full package, which is downloaded for it, whatever is recorded");
}

void AddForceInstall(CommandSyntax app, Choice& choice) {
  struct Wanted {
    std::string name;
    int version = 0;
    Given given;
  };
  const auto wanted = std::make_shared<Wanted>();
  const CommandSyntax command =
      AddCommand(app, choice, "force-install", "Install a version whatever is installed",
                 {"tolmdbud force-install vendors", "tolmdbud force-install vendors --version -1"},
                 [wanted](Console& console, const Service& service) {
                   wanted->given.names = {wanted->name};
                   return ForceInstall(console, service, wanted->given, wanted->version);
                 });
  AddRefresh(command, wanted->given);
  command.AddOption("NAME", wanted->name, "The database").Required();
  command
      .AddOption("--version", wanted->version,
                 "A version; 0 for the newest, -1 for the one before it, and so on")
      .ShowDefault();
}

}  // namespace

void AddOperations(CommandSyntax app, Choice& choice) {
  AddUpdate(app, choice);
  AddFix(app, choice);
  AddForceInstall(app, choice);
}

}  // namespace tolm::tool
