#include "tools/tolmdbud_cli.h"

#include <json/writer.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>

#include "base/human_text.h"
#include "base/rules.h"
#include "operation/history.h"
#include "operation/interrupt.h"
#include "operation/overrides.h"
#include "operation/schedule.h"
#include "operation/settings_check.h"
#include "operation/survey.h"

namespace tolm::tool {
namespace {

constexpr int kFormat = 1;

bool ShowsColours(int descriptor) {
  const char* no_colour = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(descriptor) != 0 && (no_colour == nullptr || *no_colour == '\0') &&
         terminal != nullptr && std::string(terminal) != "dumb";
}

// A line is one line and does nothing to a terminal, whatever a server put into it. Terminals take
// the code points from U+0080 to U+009F for controls, too.
std::string WithoutControls(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  constexpr char kLead = '\xC2';
  for (std::size_t at = text.find(kLead); at != std::string::npos; at = text.find(kLead, at + 1)) {
    if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0) {
      text.replace(at, 2, "?");
    }
  }
  return text;
}

void PrintNote(const std::string& line, const char* colour) {
  constexpr char kProgram[] = "tolmdbud:";
  if (colour == nullptr) {
    std::cerr << kProgram;
  } else {
    std::cerr << colour << kProgram << "\033[0m";
  }
  std::cerr << ' ' << line << std::endl;
}

std::string RightsText(Rights rights) {
  switch (rights) {
    case Rights::kRoot:
      return "Needs root's rights.";
    case Rights::kRootToSet:
      return "Anyone may see the settings; changing them needs root's rights.";
    case Rights::kRootToAskTheServer:
      return std::string("Anyone may run it; asking the server, which happens ") +
             rules::kCacheText + ", needs root's rights.";
    case Rights::kAnyone:
      return "Anyone may run it.";
  }
  return "";
}

// The time of day, with the date when it is not today's.
std::string LocalText(std::int64_t seconds, std::time_t now) {
  const auto then = static_cast<std::time_t>(seconds);
  std::tm parts{};
  std::tm today{};
  localtime_r(&then, &parts);
  localtime_r(&now, &today);
  const bool is_today = parts.tm_year == today.tm_year && parts.tm_yday == today.tm_yday;
  char text[64];
  std::strftime(text, sizeof text, is_today ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

std::string AgoText(std::int64_t seconds) {
  constexpr std::int64_t kMinute = 60;
  constexpr std::int64_t kHour = 60 * kMinute;
  const auto count = [](std::int64_t number, const std::string& unit) {
    return std::to_string(number) + ' ' + unit + (number == 1 ? " ago" : "s ago");
  };
  if (seconds < 2 * kMinute) {
    return count(std::max<std::int64_t>(seconds, 0), "second");
  }
  return seconds < 2 * kHour ? count(seconds / kMinute, "minute") : count(seconds / kHour, "hour");
}

}  // namespace

Json::Value ToJson(const operation::Failure& failure) {
  Json::Value value(Json::objectValue);
  value["reason"] = failure.reason;
  if (failure.http_status != 0) {
    value["http_status"] = failure.http_status;
  }
  return value;
}

Console::Console(const Options& options)
    : options_(options),
      colours_on_output_(ShowsColours(STDOUT_FILENO)),
      colours_on_error_(ShowsColours(STDERR_FILENO)),
      document_(Json::objectValue),
      warnings_(Json::arrayValue),
      failures_(Json::arrayValue),
      reasons_(Json::arrayValue) {}

void Console::Say(const std::string& line) const {
  if (!options_.json && !options_.quiet) {
    std::cout << WithoutControls(line) << std::endl;
  }
}

void Console::Warn(const std::string& what) {
  constexpr char kYellow[] = "\033[33m";
  const std::string line = WithoutControls(what);
  warnings_.append(line);
  if (!options_.quiet) {
    PrintNote(line, colours_on_error_ ? kYellow : nullptr);
  }
}

void Console::Fail(const std::string& context, const operation::Failure& failure) {
  constexpr char kRed[] = "\033[31m";
  const std::string line = WithoutControls(operation::LineOf(context, failure));
  failures_.append(line);
  reasons_.append(ToJson(failure));
  PrintNote(line, colours_on_error_ ? kRed : nullptr);
}

void Console::Log(int priority, const std::string& line) const {
  constexpr const char* kPriorities[] = {"emergency", "alert",  "critical", "error",
                                         "warning",   "notice", "info",     "debug"};
  if (options_.verbosity < 2) {
    return;
  }
  const std::string text =
      std::string("[") + kPriorities[LOG_PRI(priority)] + "] " + WithoutControls(line);
  std::cerr << (colours_on_error_ ? "\033[2m" + text + "\033[0m" : text) << std::endl;
}

// One write, so that a line of another thread stays whole. A line of progress may stand there.
void Console::Inform(const std::string& what) const {
  const std::string line = "tolmdbud: " + WithoutControls(what) + '\n';
  const std::string text = (colours_on_error_ ? "\r\033[K" : "") + line;
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
}

void Console::Tell(const std::string& line) const {
  if (options_.verbosity > 0) {
    const std::string text = WithoutControls(line);
    std::cerr << (colours_on_error_ ? "\033[2m" + text + "\033[0m" : text) << std::endl;
  }
}

bool Console::Succeeds(const std::string& context, const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const operation::Interrupted&) {
    throw;
  } catch (const std::exception& error) {
    Fail(context, operation::FailureOf(error));
    return false;
  }
}

void Console::Finish(const std::string& command, int exit_status) {
  if (!options_.json) {
    return;
  }
  document_["format"] = kFormat;
  document_["command"] = command;
  document_["exit_status"] = exit_status;
  document_["warnings"] = warnings_;
  document_["failures"] = failures_;
  document_["reasons"] = reasons_;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  writer->write(document_, &std::cout);
  std::cout << std::endl;
}

int Interruptible(Console& console, const std::function<int()>& action) {
  const operation::Interrupt interrupt;
  int status = kSuccess;
  try {
    status = action();
  } catch (const operation::Interrupted&) {
    // Said below, like an interruption that came too late to end anything.
  }
  if (operation::Interrupt::Received() != 0) {
    console.Fail("", operation::FailureOf(operation::Interrupted()));
    return kSignal + operation::Interrupt::Received();
  }
  return status;
}

CommandSyntax AddCommand(CommandSyntax parent, Choice& choice, const std::string& name,
                         const std::string& help, const std::vector<std::string>& examples,
                         const Command& command, Output output, Rights rights) {
  const CommandSyntax added = parent.AddCommand(name, help);
  if (output == Output::kOwn) {
    added.AddFlag("--json", choice.options.json, "Print one JSON document");
  }
  added.AddFlag("-v,--verbose", choice.options.verbosity,
                "Tell what is done; twice (-vv): show the system log's lines as well");
  added.AddFlag("-q,--quiet", choice.options.quiet, "Say nothing but failures");
  std::string footer = "Examples:";
  for (const std::string& example : examples) {
    footer += "\n  " + example;
  }
  added.SetFooter(footer + "\n\n" + RightsText(rights));
  added.OnChosen([&choice, command, called = added.GetPath()] {
    choice.name = called;
    choice.command = command;
  });
  return added;
}

int Worse(int one, int other) {
  for (const int status : {kFailure, kNoVolume, kDamaged, kUpdateOffered}) {
    if (one == status || other == status) {
      return status;
    }
  }
  return std::max(one, other);
}

void WarnOfSettingsFiles(Console& console) {
  for (const operation::SettingsProblem& problem : operation::CheckSettingsFiles()) {
    if (problem.effect != operation::SettingsProblem::Effect::kSetAside) {
      console.Warn(problem.Line());
    }
  }
}

void WarnOfHiddenDatabases(Console& console) {
  operation::OverrideProblems problems;
  problems.hidden_databases = operation::HiddenDatabases();
  for (const std::string& line : problems.Lines()) {
    console.Warn(line);
  }
}

bool ReportSettings(Console& console) {
  using Effect = operation::SettingsProblem::Effect;
  bool is_sound = true;
  for (const operation::SettingsProblem& problem : operation::CheckSettingsFiles()) {
    if (problem.effect == Effect::kNothingIsDone) {
      is_sound = false;
      console.Fail("", {operation::reasons::kConfigurationDamaged, problem.Line(),
                        "no operation begins until that is mended"});
    } else if (problem.effect == Effect::kOneValue) {
      console.Warn(problem.Line());
    }
  }
  WarnOfHiddenDatabases(console);
  return is_sound;
}

void WarnOfSettings(Console& console) {
  WarnOfSettingsFiles(console);
  WarnOfHiddenDatabases(console);
}

void AddFrom(CommandSyntax command, std::optional<std::string>& place) {
  command.AddOption("--from", place,
                    "Take all from there alone: a directory with a copy of the publisher's public "
                    "tree, or another server's address");
}

std::unique_ptr<operation::TakenFrom> TakeFrom(const std::optional<std::string>& place) {
  return place ? std::make_unique<operation::TakenFrom>(*place) : nullptr;
}

std::string AsOfText() {
  const std::optional<operation::Asked> asked = operation::LastAsked();
  if (!asked || asked->by_this_process) {
    return "";
  }
  return " as of " + LocalText(asked->at, std::time(nullptr)) + " (asked " +
         AgoText(std::time(nullptr) - asked->at) + "; --refresh asks now)";
}

Json::Value OffersFrom() {
  const std::optional<operation::Asked> asked = operation::LastAsked();
  return asked ? Json::Value(operation::TimeText(asked->at)) : Json::Value();
}

std::string SignatureText(const operation::OffersSignature& signature, std::int64_t now) {
  const std::string end = base::UtcMinutes(signature.expires) + " UTC";
  return "by repository " + signature.repository + ", issued " +
         base::UtcMinutes(signature.issued) + " UTC, " +
         (signature.expires < now
              ? "of no use since " + end + ", " + AgoText(now - signature.expires)
              : "valid until " + end);
}

std::optional<operation::OffersSignature> SignatureOf(
    const std::optional<operation::Description>& description) {
  return description ? description->Signature() : operation::SignatureOfOffers();
}

Json::Value SignatureJson(const std::optional<operation::OffersSignature>& signature,
                          std::int64_t now) {
  if (!signature) {
    return {};
  }
  Json::Value json;
  json["repository"] = signature->repository;
  json["issued"] = operation::TimeText(signature->issued);
  json["expires"] = operation::TimeText(signature->expires);
  json["ended"] = signature->expires < now;
  return json;
}

Json::Value RolloutJson(const std::optional<operation::Rollout>& rollout) {
  if (!rollout) {
    return {};
  }
  constexpr const char* kStates[] = {"running", "held", "stopped"};
  constexpr const char* kTurns[] = {"reached", "stays", "later", "never"};
  Json::Value json;
  json["stable"] = rollout->stable;
  json["next"] = rollout->next;
  json["state"] = kStates[static_cast<int>(rollout->state)];
  json["share"] = rollout->share;
  json["setting"] = rollout->setting;
  json["position"] = rollout->position ? Json::Value(*rollout->position) : Json::Value();
  json["turn"] = kTurns[static_cast<int>(rollout->turn)];
  json["turn_at"] =
      rollout->turn_at ? Json::Value(operation::TimeText(*rollout->turn_at)) : Json::Value();
  return json;
}

std::vector<std::string> NamedOrAll(const operation::Service& service,
                                    const std::vector<std::string>& names) {
  return names.empty() ? service.config->GetDatabaseIDs() : names;
}

}  // namespace tolm::tool
