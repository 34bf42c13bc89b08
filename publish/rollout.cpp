#include "publish/rollout.h"

#include <json/value.h>

#include <algorithm>
#include <iomanip>
#include <ostream>

#include "base/utf8.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/list.h"

namespace tolm::publish {
namespace {

constexpr int kShowFormat = 1;
constexpr int kSharesOfOnePercent = offer::kWholeShare / 100;
constexpr std::int64_t kMinuteSeconds = 60;
constexpr std::int64_t kHourSeconds = 60 * kMinuteSeconds;
constexpr std::int64_t kDaySeconds = 24 * kHourSeconds;
// A plan whose last step has begun so long ago has nothing left to wait for.
constexpr std::int64_t kLongDoneSeconds = 7 * kDaySeconds;

[[noreturn]] void RefuseStages(const std::string& text, const std::string& why) {
  throw Error("stages \"" + text + "\": " + why + "; such as 1%/1d,10%/2d,100%");
}

// Of at most this many digits, one at least; nothing for anything else.
std::optional<std::int64_t> NumberFrom(const std::string& digits, std::size_t most) {
  if (digits.empty() || digits.size() > most ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return std::stoll(digits);
}

// "10" or "0.05".
std::optional<int> ShareFrom(const std::string& percent) {
  const std::size_t point = percent.find('.');
  const std::optional<std::int64_t> whole = NumberFrom(percent.substr(0, point), 3);
  std::optional<std::int64_t> decimals = 0;
  if (point != std::string::npos) {
    std::string digits = percent.substr(point + 1);
    decimals = NumberFrom(digits, 2);
    if (decimals && digits.size() == 1) {
      *decimals *= 10;
    }
  }
  if (!whole || !decimals) {
    return std::nullopt;
  }
  return static_cast<int>(*whole * kSharesOfOnePercent + *decimals);
}

// "30m", "6h" or "2d".
std::optional<std::int64_t> SecondsFrom(const std::string& time) {
  const std::int64_t unit = time.empty()         ? 0
                            : time.back() == 'm' ? kMinuteSeconds
                            : time.back() == 'h' ? kHourSeconds
                            : time.back() == 'd' ? kDaySeconds
                                                 : 0;
  const auto count = NumberFrom(time.substr(0, time.empty() ? 0 : time.size() - 1), 7);
  return unit == 0 || !count ? std::nullopt : std::optional<std::int64_t>(*count * unit);
}

offer::RolloutStep StepFrom(const std::string& step, bool is_last, const std::string& text) {
  const std::size_t slash = step.find('/');
  const std::string percent = step.substr(0, slash);
  const std::optional<int> share = percent.empty() || percent.back() != '%'
                                       ? std::nullopt
                                       : ShareFrom(percent.substr(0, percent.size() - 1));
  if (!share) {
    RefuseStages(text, "\"" + percent + "\" is no share in percent with two decimals at most");
  }
  if ((slash == std::string::npos) != is_last) {
    RefuseStages(text, is_last ? "the last step has no time, as none follows it"
                               : "\"" + step + "\" does not say after which time the next follows");
  }
  const std::optional<std::int64_t> seconds =
      is_last ? std::optional<std::int64_t>(0) : SecondsFrom(step.substr(slash + 1));
  if (!seconds) {
    RefuseStages(text, "\"" + step.substr(slash + 1) + "\" is no time in minutes (30m), hours " +
                           "(6h) or days (2d)");
  }
  return {*share, *seconds};
}

std::int64_t ClockOf(const offer::RolloutPlan& plan, std::int64_t now) {
  return std::min(now, plan.held.value_or(now));
}

bool IsAtLastStep(const offer::RolloutPlan& plan, std::int64_t now) {
  return ClockOf(plan, now) >= LastStepOf(plan);
}

// Of a plan whose clock runs, the step that begins next.
struct NextStep {
  int share;
  std::int64_t at;
};

std::optional<NextStep> NextStepOf(const offer::RolloutPlan& plan, std::int64_t now) {
  std::int64_t begin = plan.start;
  for (const offer::RolloutStep& step : plan.steps) {
    if (begin > now) {
      return NextStep{step.share, begin};
    }
    begin += step.seconds;
  }
  return std::nullopt;
}

std::string ReachText(const OpenRollout& rollout, std::int64_t now) {
  const offer::RolloutPlan& plan = rollout.plan;
  const std::string devices = DeviceShareText(ShareAt(plan, now)) + " of the devices";
  if (plan.stopped) {
    return "is stopped: devices that have it keep it, and nobody else is offered it";
  }
  if (plan.held) {
    return "is held at " + devices + " since " + TimeText(*plan.held) + " UTC";
  }
  if (const auto next = NextStepOf(plan, now)) {
    return "is offered to " + devices + ", to " + DeviceShareText(next->share) + " from " +
           TimeText(next->at) + " UTC on";
  }
  return "is offered to " + devices + ", its last step, since " + TimeText(LastStepOf(plan)) +
         " UTC";
}

const char* StateWord(const offer::RolloutPlan& plan) {
  return plan.stopped ? "stopped" : plan.held ? "held" : "running";
}

const char* ActionWord(RolloutAction action) {
  switch (action) {
    case RolloutAction::kHold:
      return "hold";
    case RolloutAction::kResume:
      return "resume";
    case RolloutAction::kStop:
      return "stop";
    case RolloutAction::kFinish:
      return "finish";
  }
  return "";
}

void Hold(const OpenRollout& rollout, offer::RolloutPlan& plan, std::int64_t now) {
  const std::string version = std::to_string(rollout.next);
  if (plan.stopped) {
    throw Error(version + " is stopped already, which is more");
  }
  if (plan.held) {
    throw Error(version + " is held already, since " + TimeText(*plan.held) + " UTC");
  }
  if (IsAtLastStep(plan, now)) {
    throw Error("the last step of " + version + " has begun, " +
                DeviceShareText(ShareAt(plan, now)) +
                " of the devices, so that holding it would change nothing; \"tolmdbpub rollout "
                "stop\" keeps it from those that have not taken it yet");
  }
  plan.held = std::max(now, plan.start);
}

void Resume(const OpenRollout& rollout, offer::RolloutPlan& plan, bool stopped_too,
            std::int64_t now) {
  const std::string version = std::to_string(rollout.next);
  if (plan.stopped && !stopped_too) {
    throw Error(version + " was stopped; when it is good after all, --yes resumes it");
  }
  if (!plan.held && !plan.stopped) {
    throw Error(version + " is not held");
  }
  plan.start += std::max<std::int64_t>(now - plan.held.value_or(now), 0);
  plan.held.reset();
  plan.stopped = false;
}

// Its clock stands still as well, so that it can go on where it was.
void Stop(const OpenRollout& rollout, offer::RolloutPlan& plan, std::int64_t now) {
  if (plan.stopped) {
    throw Error(std::to_string(rollout.next) + " is stopped already");
  }
  plan.held = plan.held.value_or(std::max(now, plan.start));
  plan.stopped = true;
}

void Finish(const OpenRollout& rollout, RepositoryChange& change, Database& database,
            bool stopped_too, std::int64_t now) {
  if (rollout.plan.stopped && !stopped_too) {
    const std::string version = std::to_string(rollout.next);
    throw Error(version +
                " was stopped, and would reach all devices; when it is good after all, "
                "--yes makes it the stable version; when it is not, \"tolmdbpub withdraw " +
                change.paths().Root() + ' ' + rollout.name + ' ' + version + "\" ends the rollout");
  }
  EndRollout(database, now);
  const std::string trimmed = TrimChain(database, change.settings.chain_share_percent, now);
  if (!trimmed.empty()) {
    change.notes()(trimmed);
  }
}

void Apply(const RolloutRequest& request, const OpenRollout& rollout, std::int64_t now,
           RepositoryChange& change, Database& database) {
  offer::RolloutPlan& plan = database.rollout->plan;
  switch (request.action) {
    case RolloutAction::kHold:
      return Hold(rollout, plan, now);
    case RolloutAction::kResume:
      return Resume(rollout, plan, request.stopped_too, now);
    case RolloutAction::kStop:
      return Stop(rollout, plan, now);
    case RolloutAction::kFinish:
      return Finish(rollout, change, database, request.stopped_too, now);
  }
}

std::string NoneText(const Database& database) {
  return "no rollout is open; all devices are offered " +
         std::to_string(database.releases.back().version);
}

void PrintSteps(const offer::RolloutPlan& plan, std::int64_t now, std::ostream& out) {
  std::int64_t begin = plan.start;
  for (const offer::RolloutStep& step : plan.steps) {
    const bool has_begun = begin <= ClockOf(plan, now);
    out << "  " << std::right << std::setw(7) << DeviceShareText(step.share) << "  "
        << (has_begun || !plan.held ? "from " + TimeText(begin) + " UTC" : "when it is resumed")
        << '\n';
    begin += step.seconds;
  }
}

Json::Value StepsToJson(const offer::RolloutPlan& plan, std::int64_t now) {
  Json::Value steps(Json::arrayValue);
  std::int64_t begin = plan.start;
  for (const offer::RolloutStep& step : plan.steps) {
    const bool is_known = !plan.held || begin <= *plan.held;
    Json::Value& made = steps.append(Json::Value(Json::objectValue));
    made["share"] = step.share;
    made["seconds"] = Json::Int64(step.seconds);
    made["begins"] = is_known ? Json::Value(Json::Int64(begin)) : Json::Value();
    made["has_begun"] = begin <= ClockOf(plan, now);
    begin += step.seconds;
  }
  return steps;
}

}  // namespace

std::vector<offer::RolloutStep> ParseStages(const std::string& text) {
  offer::RolloutPlan plan;
  for (std::size_t begin = 0; begin != std::string::npos;) {
    const std::size_t comma = text.find(',', begin);
    const bool is_last = comma == std::string::npos;
    plan.steps.push_back(StepFrom(text.substr(begin, comma - begin), is_last, text));
    begin = is_last ? comma : comma + 1;
  }
  if (const std::string problem = ProblemOf(plan); !problem.empty()) {
    RefuseStages(text, problem);
  }
  return plan.steps;
}

std::string DeviceShareText(int share) {
  std::string text = std::to_string(share / kSharesOfOnePercent);
  if (const int decimals = share % kSharesOfOnePercent; decimals != 0) {
    text += decimals < 10 ? ".0" : ".";
    text += std::to_string(decimals % 10 == 0 ? decimals / 10 : decimals);
  }
  return text + " %";
}

std::optional<OpenRollout> RolloutOf(const std::string& name, const Database& database) {
  if (!database.rollout) {
    return std::nullopt;
  }
  return OpenRollout{name, database.rollout->stable, database.releases.back().version,
                     database.rollout->plan};
}

std::string RolloutText(const OpenRollout& rollout, std::int64_t now) {
  return std::to_string(rollout.next) + ' ' + ReachText(rollout, now) + "; the stable version is " +
         std::to_string(rollout.stable);
}

std::string RolloutCare(const OpenRollout& rollout, const std::string& repository,
                        std::int64_t now) {
  const offer::RolloutPlan& plan = rollout.plan;
  if (plan.held || plan.stopped || now < LastStepOf(plan) + kLongDoneSeconds) {
    return "";
  }
  return "nothing follows the last step of " + std::to_string(rollout.next) +
         "; \"tolmdbpub rollout finish " + repository + ' ' + rollout.name +
         "\" makes it the stable version, for devices that know of no rollouts, too";
}

Json::Value ToJson(const OpenRollout& rollout, std::int64_t now) {
  const offer::RolloutPlan& plan = rollout.plan;
  Json::Value value;
  value["stable"] = rollout.stable;
  value["next"] = rollout.next;
  value["state"] = StateWord(plan);
  value["share"] = ShareAt(plan, now);
  value["start"] = Json::Int64(plan.start);
  value["held"] = plan.held ? Json::Value(Json::Int64(*plan.held)) : Json::Value();
  value["steps"] = StepsToJson(plan, now);
  return value;
}

OpenRollout ChangeRollout(const RolloutRequest& request, std::int64_t now, const Notes& notes) {
  const std::string what = std::string("rollout ") + ActionWord(request.action) + ' ';
  RepositoryChange change(request.repository, notes);
  Database& database = change.DatabaseNamed(request.name);
  const std::optional<OpenRollout> before = RolloutOf(request.name, database);
  if (!before) {
    throw Error(what + request.name + ": " + NoneText(database));
  }
  try {
    Apply(request, *before, now, change, database);
  } catch (const Error& error) {
    throw Error(what + request.name + ": " + error.what());
  }
  change.Begin(what + request.name);
  change.Commit();
  return RolloutOf(request.name, database).value_or(*before);
}

void ShowRollouts(const std::string& repository, const std::string& name, bool as_json,
                  std::int64_t now, std::ostream& out) {
  const RepositoryPaths paths(repository);
  RequireRepository(paths);
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  if (!name.empty()) {
    RequireDatabase(paths, catalog, name);
  }
  Json::Value value;
  value["format"] = kShowFormat;
  value["rollouts"] = Json::Value(Json::arrayValue);
  for (const auto& [of, database] : catalog.databases) {
    const std::optional<OpenRollout> rollout = RolloutOf(of, database);
    if (!rollout || (!name.empty() && of != name)) {
      continue;
    }
    Json::Value& record = value["rollouts"].append(ToJson(*rollout, now));
    record["name"] = of;
    if (!as_json) {
      out << base::EscapeControls(of) << ' ' << RolloutText(*rollout, now) << '\n';
      PrintSteps(rollout->plan, now, out);
    }
  }
  if (as_json) {
    out << FormatJson(value);
  } else if (value["rollouts"].empty()) {
    out << (name.empty() ? "no rollout is open"
                         : base::EscapeControls(name) + ": " + NoneText(catalog.databases.at(name)))
        << '\n';
  }
}

}  // namespace tolm::publish
