#include "bench/fleet/scenario.h"

#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

namespace tolm::fleet {
namespace {

constexpr std::int64_t kMostDevices = 100000000;
constexpr std::int64_t kMostSeconds = 400 * kDay;
constexpr std::int64_t kMostBytes = std::int64_t{1} << 40;
constexpr int kMostVersion = 30000;

// The members of a JSON object: each is asked for with its bounds, and none is passed over.
class Members {
 public:
  Members(const Json::Value& value, std::string where) : value_(value), where_(std::move(where)) {
    if (!value_.isObject()) {
      throw std::runtime_error(where_ + ": must be an object");
    }
    for (const std::string& name : value_.getMemberNames()) {
      unknown_.insert(name);
    }
  }

  bool Has(const std::string& name) const { return value_.isMember(name); }

  std::int64_t Whole(const std::string& name, std::int64_t least, std::int64_t most,
                     std::optional<std::int64_t> without = std::nullopt) {
    const Json::Value* value = Find(name, without.has_value());
    if (value == nullptr) {
      return *without;
    }
    if (!value->isInt64() || value->asInt64() < least || value->asInt64() > most) {
      throw std::runtime_error(where_ + "." + name + ": must be a whole number from " +
                               std::to_string(least) + " to " + std::to_string(most));
    }
    return value->asInt64();
  }

  double Share(const std::string& name, std::optional<double> without = 0.0) {
    const Json::Value* value = Find(name, without.has_value());
    if (value == nullptr) {
      return *without;
    }
    if (!value->isNumeric() || value->asDouble() < 0 || value->asDouble() > 1) {
      throw std::runtime_error(where_ + "." + name + ": must be a number from 0 to 1");
    }
    return value->asDouble();
  }

  bool Flag(const std::string& name, bool without) {
    const Json::Value* value = Find(name, true);
    if (value != nullptr && !value->isBool()) {
      throw std::runtime_error(where_ + "." + name + ": must be true or false");
    }
    return value == nullptr ? without : value->asBool();
  }

  std::string Text(const std::string& name, const std::string& without) {
    const Json::Value* value = Find(name, true);
    if (value != nullptr && !value->isString()) {
      throw std::runtime_error(where_ + "." + name + ": must be a text");
    }
    return value == nullptr ? without : value->asString();
  }

  // Calls read(Members&) for each object of an array, which may be missing.
  template <typename Read>
  void Each(const std::string& name, Read read) {
    const Json::Value* value = Find(name, true);
    if (value == nullptr) {
      return;
    }
    if (!value->isArray()) {
      throw std::runtime_error(where_ + "." + name + ": must be an array");
    }
    for (Json::ArrayIndex i = 0; i < value->size(); ++i) {
      Members members((*value)[i], where_ + "." + name + "[" + std::to_string(i) + "]");
      read(members);
      members.RequireNoMore();
    }
  }

  template <typename Read>
  void Object(const std::string& name, Read read) {
    if (const Json::Value* value = Find(name, true)) {
      Members members(*value, where_ + "." + name);
      read(members);
      members.RequireNoMore();
    }
  }

  void RequireNoMore() const {
    if (!unknown_.empty()) {
      throw std::runtime_error(where_ + "." + *unknown_.begin() + ": is not known");
    }
  }

 private:
  const Json::Value* Find(const std::string& name, bool may_be_missing) {
    unknown_.erase(name);
    if (value_.isMember(name)) {
      return &value_[name];
    }
    if (!may_be_missing) {
      throw std::runtime_error(where_ + "." + name + ": is missing");
    }
    return nullptr;
  }

  const Json::Value& value_;
  const std::string where_;
  std::set<std::string> unknown_;
};

void RequireShares(const std::string& what, double sum) {
  if (sum > 1 + 1e-9) {
    throw std::runtime_error(what + ": the shares are more than 1 together");
  }
}

std::vector<Part> ReadParts(Members& scenario, const std::string& list, const std::string& member,
                            std::int64_t least, std::int64_t most) {
  std::vector<Part> parts;
  double sum = 0;
  scenario.Each(list, [&](Members& one) {
    parts.push_back({one.Share("share", std::nullopt), one.Whole(member, least, most)});
    sum += parts.back().share;
  });
  RequireShares(list, sum);
  return parts;
}

void ReadTimer(Members& timer, Timer& into) {
  into.period = timer.Whole("period", 60, 31 * kDay, into.period);
  into.delay = timer.Whole("delay", 0, kDay, into.delay);
  into.fixed = timer.Flag("fixed", into.fixed);
  into.persistent = timer.Flag("persistent", into.persistent);
}

void ReadPresence(Members& presence, Presence& into) {
  into.off = presence.Share("off");
  into.asleep = presence.Share("asleep");
  RequireShares("presence", into.off + into.asleep);
  into.from = presence.Whole("from", 0, kDay - 1, into.from);
  into.until = presence.Whole("until", into.from + 1, kDay, into.until);
  into.spread = presence.Whole("spread", 0, kDay, into.spread);
  into.away = presence.Share("away");
  into.back = presence.Whole("back", 0, kMostSeconds, into.back);
}

Release ReadRelease(Members& release) {
  Release read;
  read.version = static_cast<int>(release.Whole("version", 1, kMostVersion));
  read.at = release.Whole("at", 0, kMostSeconds, 0);
  read.full_bytes = release.Whole("full_bytes", 1, kMostBytes);
  if (release.Has("delta_bytes")) {
    read.delta_bytes = release.Whole("delta_bytes", 1, kMostBytes);
  }
  release.Each("plan", [&](Members& step) {
    read.plan.push_back(
        {step.Share("share", std::nullopt), step.Whole("seconds", 0, kMostSeconds)});
    if (read.plan.size() > 1 && read.plan.back().share < read.plan[read.plan.size() - 2].share) {
      throw std::runtime_error("releases: the shares of a plan never become less");
    }
  });
  read.stopped = release.Whole("stopped", read.at, kMostSeconds, kNever);
  read.description_bytes = release.Whole("description_bytes", 1, kMostBytes, 0);
  return read;
}

void ReadReleases(Members& scenario, std::vector<Release>& releases) {
  scenario.Each("releases", [&](Members& one) {
    releases.push_back(ReadRelease(one));
    if (releases.size() > 1) {
      const Release& before = releases[releases.size() - 2];
      if (releases.back().version <= before.version || releases.back().at < before.at) {
        throw std::runtime_error("releases: must be in the order of versions and times");
      }
    }
  });
  if (releases.empty() || releases.front().at != 0 || !releases.front().plan.empty()) {
    throw std::runtime_error("releases: the first one must be there from the beginning, for all");
  }
}

void ReadServer(Members& server, ServerLimits& into) {
  into.bytes_per_second = server.Whole("bytes_per_second", 0, kMostBytes, 0);
  into.requests_per_second = server.Whole("requests_per_second", 0, kMostBytes, 0);
  into.connections = server.Whole("connections", 0, kMostBytes, 0);
}

void ReadRest(Members& scenario, Scenario& into) {
  into.line_bytes_per_second = scenario.Whole("line_bytes_per_second", 1, kMostBytes, 1250000);
  into.devices_at_site =
      static_cast<std::uint32_t>(scenario.Whole("devices_at_site", 0, kMostDevices, 0));
  into.description_age = scenario.Whole("description_age", 0, kDay, into.description_age);
  into.description_bytes = scenario.Whole("description_bytes", 1, kMostBytes);
  into.description_delta_bytes = scenario.Whole("description_delta_bytes", 0, kMostBytes, 0);
  into.chain_share_percent =
      static_cast<int>(scenario.Whole("chain_share_percent", 0, 1000, into.chain_share_percent));
  into.series_seconds = scenario.Whole("series_seconds", 1, kDay, into.series_seconds);
}

// "6h", "90", "15min", "1h 30min": as units write it.
Seconds ParseSpan(const std::string& text) {
  static const std::map<std::string, Seconds> kUnits{
      {"", 1},         {"s", 1},    {"sec", 1},   {"seconds", 1},  {"m", 60},   {"min", 60},
      {"minutes", 60}, {"h", 3600}, {"hr", 3600}, {"hours", 3600}, {"d", kDay}, {"days", kDay}};
  std::istringstream in(text);
  Seconds sum = 0;
  Seconds number = 0;
  while (in >> number) {
    std::string unit;
    while (std::isalpha(in.peek()) != 0) {
      unit += static_cast<char>(in.get());
    }
    const auto found = kUnits.find(unit);
    if (found == kUnits.end() || number < 0) {
      throw std::runtime_error("a timer's unit: " + text + " is no time that is understood");
    }
    sum += number * found->second;
  }
  if (!in.eof() || text.empty()) {
    throw std::runtime_error("a timer's unit: \"" + text + "\" is no time that is understood");
  }
  return sum;
}

Seconds ParseCalendar(const std::string& text) {
  if (text == "daily") {
    return kDay;
  }
  if (text == "hourly") {
    return 3600;
  }
  throw std::runtime_error("a timer's unit: OnCalendar=" + text + " is not understood");
}

bool ParseFlag(const std::string& text) {
  if (text == "yes" || text == "true" || text == "no" || text == "false") {
    return text == "yes" || text == "true";
  }
  throw std::runtime_error("a timer's unit: " + text + " is neither yes nor no");
}

}  // namespace

Timer ParseTimer(const std::string& unit) {
  Timer timer;
  bool has_calendar = false;
  std::istringstream lines(unit);
  bool is_in_timer = false;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.front() == '[') {
      is_in_timer = line == "[Timer]";
      continue;
    }
    const std::size_t equals = line.find('=');
    if (!is_in_timer || line.empty() || line.front() == '#' || equals == std::string::npos) {
      continue;
    }
    const std::string name = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (name == "OnCalendar") {
      timer.period = ParseCalendar(value);
      has_calendar = true;
    } else if (name == "RandomizedDelaySec") {
      timer.delay = ParseSpan(value);
    } else if (name == "FixedRandomDelay") {
      timer.fixed = ParseFlag(value);
    } else if (name == "Persistent") {
      timer.persistent = ParseFlag(value);
    } else {
      throw std::runtime_error("a timer's unit: " + name + " is not understood");
    }
  }
  if (!has_calendar) {
    throw std::runtime_error("a timer's unit: it has no OnCalendar");
  }
  return timer;
}

Scenario ParseScenario(const std::string& json, const std::string& timer_unit) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(json.data(), json.data() + json.size(), &value, &errors)) {
    throw std::runtime_error("the scenario is no JSON: " + errors);
  }
  Scenario scenario;
  scenario.timer = ParseTimer(timer_unit);
  Members members(value, "scenario");
  scenario.name = members.Text("name", "");
  members.Text("about", "");  // For whoever reads the file.
  scenario.devices = static_cast<std::uint32_t>(members.Whole("devices", 1, kMostDevices));
  scenario.seconds = members.Whole("seconds", 1, kMostSeconds);
  scenario.seed = static_cast<std::uint64_t>(members.Whole("seed", 0, kMostBytes, 1));
  scenario.cool_down = members.Flag("cool_down", true);
  members.Object("timer", [&](Members& timer) { ReadTimer(timer, scenario.timer); });
  members.Object("presence", [&](Members& one) { ReadPresence(one, scenario.presence); });
  members.Object("server", [&](Members& server) { ReadServer(server, scenario.server); });
  members.Object("rollout", [&](Members& rollout) {
    scenario.rollout = {rollout.Share("early"), rollout.Share("late"), rollout.Share("stable")};
    const Rollout& read = scenario.rollout;
    RequireShares("rollout", read.early + read.late + read.stable);
  });
  members.Each("outages", [&](Members& outage) {
    const Seconds before = scenario.outages.empty() ? 0 : scenario.outages.back().until;
    const Seconds from = outage.Whole("from", before, kMostSeconds);
    scenario.outages.push_back({from, outage.Whole("until", from, kMostSeconds)});
  });
  scenario.zones = ReadParts(members, "zones", "seconds", -12 * 3600, 14 * 3600);
  scenario.start = ReadParts(members, "start", "version", 0, kMostVersion);
  ReadReleases(members, scenario.releases);
  ReadRest(members, scenario);
  members.RequireNoMore();
  return scenario;
}

}  // namespace tolm::fleet
