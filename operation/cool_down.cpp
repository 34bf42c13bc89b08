#include "operation/cool_down.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <exception>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/description_reader.h"
#include "operation/notes_lock.h"
#include "operation/settings_file.h"

namespace tolm::operation {
namespace {

using dataupdate::UpdateError;

constexpr char kLogSource[] = "cool_down";
constexpr int kFormat = 1;
constexpr std::uint32_t kLockSeconds = 60;
constexpr int kMostFailures = 1000000;
// Another server's, which nobody has asked for so long, is forgotten.
constexpr std::int64_t kForgottenSeconds = 30 * 24 * 60 * 60;

// Nothing for a file that is not in order. Throws UpdateError for one that cannot be read.
std::optional<Json::Value> LookAtServers() {
  const Json::Value file = DescriptionReader().ReadJson(paths::kCoolDowns);
  const bool is_in_order =
      file.isObject() && file["format"] == kFormat && file["servers"].isObject();
  return is_in_order ? std::make_optional(file["servers"]) : std::nullopt;
}

// A file that is not in order counts as none, but is kept for whoever wants to know. Throws
// std::runtime_error for one that a disk does not give.
Json::Value ReadServers() {
  try {
    if (const std::optional<Json::Value> servers = LookAtServers()) {
      return *servers;
    }
  } catch (const UpdateError& error) {
    if (error.code() == UpdateError::kFileNotExist) {
      return Json::Value(Json::objectValue);
    }
    const std::string problem = DiskProblem(paths::kCoolDowns, error);
    if (!problem.empty()) {
      throw std::runtime_error(std::string(paths::kCoolDowns) + ": " + problem);
    }
  }
  std::error_code ignored;
  std::filesystem::rename(paths::kCoolDowns, std::string(paths::kCoolDowns) + ".aside", ignored);
  syslog(LOG_WARNING, "%s:%d %s is damaged; kept as cooldown.json.aside", TOLM_LOG_HERE,
         paths::kCoolDowns);
  return Json::Value(Json::objectValue);
}

}  // namespace

// The file's content, from its reading to its writing.
class CoolDown::File {
 public:
  explicit File(const CoolDown& owner) : owner_(owner), lock_(kLockSeconds) {
    servers_ = ReadServers();
  }

  std::optional<Entry> Get() const {
    return Parse(servers_[owner_.server_], owner_.times_, owner_.clock_());
  }

  void Set(const std::optional<Entry>& entry) {
    const bool is_new = !servers_.isMember(owner_.server_);
    servers_.removeMember(owner_.server_);
    if (!entry) {
      if (!is_new) {
        Write();
      }
      return;
    }
    Json::Value& value = servers_[owner_.server_];
    value["failures"] = entry->failures;
    value["attempted"] = Json::Int64(entry->attempted);
    value["until"] = Json::Int64(entry->until);
    value["asked"] = entry->asked;
    Write();
  }

 private:
  void ForgetOthers() {
    const std::int64_t now = owner_.clock_();
    for (const std::string& name : servers_.getMemberNames()) {
      const Json::Value& value = servers_[name];
      const bool is_known = value.isObject() && value["attempted"].isInt64();
      if (!is_known || value["attempted"].asInt64() < now - kForgottenSeconds) {
        servers_.removeMember(name);
      }
    }
  }

  void Write() {
    ForgetOthers();
    Json::Value file;
    file["format"] = kFormat;
    file["servers"] = servers_;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "\t";
    base::ReplaceFile(paths::kCoolDowns, Json::writeString(builder, file) + '\n');
  }

  const CoolDown& owner_;
  const NotesLock lock_;
  Json::Value servers_;
};

std::string ServerOf(const std::string& scheme, const std::string& netloc) {
  std::string server = netloc.substr(netloc.rfind('@') + 1);  // npos + 1 is 0.
  std::transform(server.begin(), server.end(), server.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const std::size_t colon = server.rfind(':');
  const std::size_t bracket = server.rfind(']');  // of a numeric address with colons of its own
  const bool has_port =
      colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  return has_port ? server : server + (scheme == "https" ? ":443" : ":80");
}

CoolDown::CoolDown(std::string server)
    : CoolDown(
          std::move(server), CoolDownTimes(),
          [] { return static_cast<std::int64_t>(std::time(nullptr)); },
          [] {
            std::random_device device;
            return std::uniform_real_distribution<double>()(device);
          }) {}

CoolDown::CoolDown(std::string server, CoolDownTimes times, Clock clock, Chance chance)
    : server_(std::move(server)),
      times_(times),
      clock_(std::move(clock)),
      chance_(std::move(chance)) {}

std::optional<CoolDown::HeldBack> CoolDown::Ask() {
  File file(*this);
  std::optional<Entry> entry = file.Get();
  if (!entry || entry->until <= clock_()) {
    return std::nullopt;
  }
  const HeldBack held{entry->failures, entry->until, !entry->asked};
  entry->asked = true;
  file.Set(entry);
  return held;
}

void CoolDown::BeginAttempt() {
  File file(*this);
  before_attempt_ = file.Get();
  const int failures = before_attempt_ ? before_attempt_->failures + 1 : 1;
  const std::int64_t now = clock_();
  file.Set(Entry{failures, now, now + Delay(failures), false});
}

void CoolDown::Succeed() {
  File(*this).Set(std::nullopt);
}

void CoolDown::Withdraw() {
  File(*this).Set(before_attempt_);
}

// Damage and a clock that was put back: the wait begins now then, and is never longer than the
// longest.
std::optional<CoolDown::Entry> CoolDown::Parse(const Json::Value& value, const CoolDownTimes& times,
                                               std::int64_t now) {
  if (!value.isObject() || !value["failures"].isInt() || !value["attempted"].isInt64() ||
      !value["until"].isInt64() || !value["asked"].isBool()) {
    return std::nullopt;
  }
  Entry entry{std::clamp(value["failures"].asInt(), 1, kMostFailures), value["attempted"].asInt64(),
              value["until"].asInt64(), value["asked"].asBool()};
  const std::int64_t begin = std::clamp<std::int64_t>(entry.attempted, 0, now);
  const bool is_sane = entry.attempted >= 0 && entry.until >= entry.attempted;
  const std::int64_t wait = is_sane ? std::min(entry.until - entry.attempted, times.longest_seconds)
                                    : times.longest_seconds;
  entry.attempted = begin;
  entry.until = begin + wait;
  return entry;
}

std::vector<ServerCoolDown> CoolDown::LookForAll(CoolDownTimes times, std::int64_t now) noexcept {
  std::vector<ServerCoolDown> found;
  try {
    const Json::Value servers = LookAtServers().value_or(Json::Value(Json::objectValue));
    for (const std::string& server : servers.getMemberNames()) {
      const std::optional<Entry> entry = Parse(servers[server], times, now);
      if (entry && entry->until > now) {
        found.push_back({server, entry->failures, entry->until});
      }
    }
  } catch (const std::exception&) {
    // As good as none.
  }
  return found;
}

std::int64_t CoolDown::Delay(int failures) const {
  std::int64_t delay = std::min(times_.first_seconds, times_.longest_seconds);
  for (int i = 1; i < failures && delay < times_.longest_seconds; ++i) {
    delay = std::min(2 * delay, times_.longest_seconds);
  }
  const std::int64_t least = delay / 2;
  return least + static_cast<std::int64_t>(chance_() * static_cast<double>(delay - least));
}

}  // namespace tolm::operation
