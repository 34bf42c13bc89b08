#include "operation/trust_state.h"

#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/description_reader.h"
#include "operation/notes_lock.h"
#include "operation/service.h"
#include "operation/settings_file.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::UpdateError;

constexpr char kLogSource[] = "trust";
constexpr int kFormat = 1;
constexpr mode_t kRootOnly = 0600;
constexpr std::uint32_t kLockSeconds = 60;

constexpr char kDatabases[] = "databases";
constexpr char kFloor[] = "floor";
constexpr char kAuthorized[] = "authorized";
constexpr char kAccepted[] = "accepted";
constexpr char kSignedWanted[] = "signed_wanted";

bool IsDatabaseInOrder(const Json::Value& database) {
  return database.isObject() && database[kFloor].isInt() &&
         (!database.isMember(kAuthorized) || database[kAuthorized].isInt());
}

bool IsAcceptedInOrder(const Json::Value& accepted) {
  return accepted.isObject() && accepted["repository"].isString() && accepted["epoch"].isInt64() &&
         accepted["counter"].isUInt64() && accepted["digest"].isString() &&
         accepted["issued"].isInt64() && accepted["expires"].isInt64();
}

bool IsInOrder(const Json::Value& document) {
  if (!document.isObject() || document["format"] != kFormat || !document[kDatabases].isObject()) {
    return false;
  }
  const Json::Value& databases = document[kDatabases];
  return std::all_of(databases.begin(), databases.end(), IsDatabaseInOrder) &&
         (!document.isMember(kAccepted) || IsAcceptedInOrder(document[kAccepted])) &&
         (!document.isMember(kSignedWanted) || document[kSignedWanted].isBool());
}

Json::Value Empty() {
  Json::Value document(Json::objectValue);
  document["format"] = kFormat;
  document[kDatabases] = Json::Value(Json::objectValue);
  return document;
}

int FloorIn(const Json::Value& document, const std::string& name) {
  const Json::Value& database = document[kDatabases][name];
  return database.isObject() ? database[kFloor].asInt() : kNeverInstalled;
}

SignedState SignedStateIn(const Json::Value& document) {
  SignedState state;
  state.is_wanted = document[kSignedWanted].asBool();
  const Json::Value& accepted = document[kAccepted];
  if (accepted.isObject()) {
    state.accepted = {accepted["repository"].asString(), accepted["epoch"].asInt64(),
                      accepted["counter"].asUInt64(),    accepted["digest"].asString(),
                      accepted["issued"].asInt64(),      accepted["expires"].asInt64()};
  }
  return state;
}

Json::Value ToJson(const offer::Accepted& accepted) {
  Json::Value value;
  value["repository"] = accepted.repository;
  value["epoch"] = Json::Int64(accepted.epoch);
  value["counter"] = Json::UInt64(accepted.counter);
  value["digest"] = accepted.digest;
  value["issued"] = Json::Int64(accepted.issued);
  value["expires"] = Json::Int64(accepted.expires);
  return value;
}

// Nothing when it is damaged.
std::optional<Json::Value> Look() {
  if (!fs::exists(paths::kTrustState)) {
    return Empty();
  }
  try {
    Json::Value document = DescriptionReader().ReadJson(paths::kTrustState);
    if (IsInOrder(document)) {
      return document;
    }
  } catch (const UpdateError& error) {
    if (error.code() == UpdateError::kFileNotExist) {
      return Empty();
    }
    if (geteuid() != 0) {
      throw;  // It is for root's eyes only.
    }
    const std::string problem = DiskProblem(paths::kTrustState, error);
    if (!problem.empty()) {
      throw std::runtime_error(std::string(paths::kTrustState) + ": " + problem);
    }
  }
  return std::nullopt;
}

// Under the notes lock.
Json::Value ReadToChange() {
  if (const std::optional<Json::Value> document = Look()) {
    return *document;
  }
  fs::rename(paths::kTrustState, std::string(paths::kTrustState) + ".aside");
  syslog(LOG_WARNING, "%s:%d %s is damaged; kept as trust.json.aside", TOLM_LOG_HERE,
         paths::kTrustState);
  return Empty();
}

// It is replaced whole, so whoever only reads it needs no lock.
Json::Value Read() {
  if (const std::optional<Json::Value> document = Look()) {
    return *document;
  }
  const NotesLock lock(kLockSeconds);
  return ReadToChange();
}

void Write(const Json::Value& document) {
  fs::create_directories(fs::path(paths::kTrustState).parent_path());
  base::Replacement replacement(paths::kTrustState);
  replacement.Write(Json::writeString(Json::StreamWriterBuilder(), document) + '\n', kRootOnly);
  replacement.PutInPlace();
}

// Writes what the change makes of the document, if that is another one.
template <typename Action>
void Change(Action action) {
  const NotesLock lock(kLockSeconds);
  const Json::Value before = ReadToChange();
  Json::Value document = before;
  action(document);
  if (document != before) {
    Write(document);
  }
}

// What a newer signer offers counts, however high what the older one had offered.
void BeginAnew(Json::Value& document, const std::string& name, const OfferedVersion& version) {
  const int floor = FloorIn(document, name);
  Json::Value& databases = document[kDatabases];
  if (floor <= version.offered && version.installed <= version.offered) {
    if (databases.isMember(name)) {
      databases[name].removeMember(kAuthorized);
    }
    return;
  }
  Json::Value& database = databases[name];
  database[kFloor] = version.offered;
  if (version.installed > version.offered) {
    database[kAuthorized] = version.offered;
  }
  syslog(LOG_WARNING, "%s:%d %s: a newer signer of descriptions offers %d: the floor was %d",
         TOLM_LOG_HERE, name.c_str(), version.offered, floor);
}

// Nothing for a file that is damaged or that this process may not see.
std::optional<Json::Value> LookQuietly() noexcept {
  try {
    return Look();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

int FloorOf(const std::string& name) {
  return FloorIn(Read(), name);
}

std::optional<int> LookForFloor(const std::string& name) noexcept {
  const std::optional<Json::Value> document = LookQuietly();
  return document ? std::make_optional(FloorIn(*document, name)) : std::nullopt;
}

void SetFloor(const std::string& name, int version) {
  Change([&](Json::Value& document) { document[kDatabases][name][kFloor] = version; });
}

void RaiseFloor(const std::string& name, int version) {
  if (version <= FloorOf(name)) {
    return;
  }
  Change([&](Json::Value& document) {
    if (version > FloorIn(document, name)) {
      document[kDatabases][name][kFloor] = version;
    }
  });
}

void NoteInstalled(const std::string& name, int version, bool is_forced) {
  Change([&](Json::Value& document) {
    const int floor = FloorIn(document, name);
    Json::Value& database = document[kDatabases][name];
    database[kFloor] = is_forced ? version : std::max(version, floor);
    database.removeMember(kAuthorized);
  });
}

void NoteSuperseded(const std::string& name, const OfferedVersion& version) {
  Change([&](Json::Value& document) { BeginAnew(document, name, version); });
}

SignedState ReadSignedState() {
  return SignedStateIn(Read());
}

SignedState SignedStateToJudgeBy() {
  const std::optional<Json::Value> document = geteuid() == 0 ? Look() : LookQuietly();
  return document ? SignedStateIn(*document) : SignedState();
}

std::optional<SignedState> LookForSignedState() noexcept {
  const std::optional<Json::Value> document = LookQuietly();
  return document ? std::make_optional(SignedStateIn(*document)) : std::nullopt;
}

void RememberAccepted(const offer::Acceptance& acceptance,
                      const std::map<std::string, OfferedVersion>& databases) {
  Change([&](Json::Value& document) {
    document[kAccepted] = ToJson(acceptance.accepted);
    document[kSignedWanted] = true;
    if (acceptance.is_newer_epoch) {
      for (const auto& [name, version] : databases) {
        BeginAnew(document, name, version);
      }
    }
  });
}

std::optional<int> LookForAuthorized(const std::string& name) noexcept {
  const std::optional<Json::Value> document = LookQuietly();
  if (!document) {
    return std::nullopt;
  }
  const Json::Value& database = std::as_const(*document)[kDatabases][name];
  const Json::Value& version = database.isObject() ? database[kAuthorized] : database;
  return version.isInt() ? std::make_optional(version.asInt()) : std::nullopt;
}

void ForgetSignedDescriptions() {
  Change([](Json::Value& document) {
    document.removeMember(kAccepted);
    document.removeMember(kSignedWanted);
    for (Json::Value& database : document[kDatabases]) {
      database.removeMember(kAuthorized);
    }
  });
}

}  // namespace tolm::operation
