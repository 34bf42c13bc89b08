#include "publish/catalog.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "publish/error.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

// Of a file that has nothing but what the first version of this program knew: that one drops what
// it does not know, and refuses the later format.
constexpr int kFirstFormat = 1;
constexpr int kSecondFormat = 2;
constexpr int kThirdFormat = 3;
constexpr int kFormat = 4;

Json::Value ToJson(const PackageRecord& package) {
  Json::Value value;
  value["path"] = package.path;
  value["size"] = Json::UInt64(package.size_bytes);
  value["sha384"] = package.sha384;
  return value;
}

Json::Value ToJson(const std::set<std::string>& texts) {
  Json::Value value(Json::arrayValue);
  for (const std::string& text : texts) {
    value.append(text);
  }
  return value;
}

Json::Value ToJson(const Release& release) {
  Json::Value value;
  value["version"] = release.version;
  value["released"] = Json::Int64(release.released);
  value["content"] = release.content;
  value["full"] = ToJson(release.full);
  value["delta"] = Json::Value();
  if (release.delta) {
    value["delta"] = ToJson(release.delta->package);
    value["delta"]["keys"] = ToJson(release.delta->keys);
    value["delta"]["withdrawn"] = Json::Int64(release.delta->withdrawn);
  } else {
    value["no_delta"] = release.no_delta_reason;
  }
  if (release.withdrawn != 0) {
    value["withdrawn"] = Json::Int64(release.withdrawn);
  }
  if (release.restores) {
    value["restores"] = *release.restores;
  }
  if (release.offered_until != 0) {
    value["offered_until"] = Json::Int64(release.offered_until);
  }
  return value;
}

Json::Value ToJson(const std::vector<RetiredPackage>& retired) {
  Json::Value value(Json::arrayValue);
  for (const RetiredPackage& package : retired) {
    Json::Value record = ToJson(package.package);
    record["since"] = Json::Int64(package.since);
    value.append(record);
  }
  return value;
}

// Nothing for none.
void AddForgotten(const std::vector<WithdrawnFiles>& forgotten, Json::Value& value) {
  for (const WithdrawnFiles& files : forgotten) {
    Json::Value record;
    record["version"] = files.version;
    record["withdrawn"] = Json::Int64(files.withdrawn);
    record["content"] = files.content;
    value["forgotten"].append(record);
  }
}

Json::Value ToJson(const Rollout& rollout) {
  Json::Value value;
  value["stable"] = rollout.stable;
  value["start"] = Json::Int64(rollout.plan.start);
  value["steps"] = Json::Value(Json::arrayValue);
  for (const offer::RolloutStep& step : rollout.plan.steps) {
    Json::Value& made = value["steps"].append(Json::Value(Json::objectValue));
    made["share"] = step.share;
    made["seconds"] = Json::Int64(step.seconds);
  }
  if (rollout.plan.held) {
    value["held"] = Json::Int64(*rollout.plan.held);
  }
  value["stopped"] = rollout.plan.stopped;
  return value;
}

Json::Value ToJson(const Database& database) {
  Json::Value value;
  value["deprecated"] = database.deprecated;
  value["last_fetch_time"] = Json::Int64(database.last_fetch_time);
  value["directories"] = ToJson(database.directories);
  value["releases"] = Json::Value(Json::arrayValue);
  for (const Release& release : database.releases) {
    value["releases"].append(ToJson(release));
  }
  value["retired"] = ToJson(database.retired);
  AddForgotten(database.forgotten, value);
  if (database.rollout) {
    value["rollout"] = ToJson(*database.rollout);
  }
  return value;
}

Json::Value ToJson(const RemovedDatabase& removed) {
  Json::Value value;
  value["since"] = Json::Int64(removed.since);
  value["newest"] = removed.newest;
  value["retired"] = ToJson(removed.retired);
  AddForgotten(removed.forgotten, value);
  return value;
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

void RequireDatabaseName(const std::string& name, const std::string& path) {
  if (const std::string problem = DatabaseNameProblem(name); !problem.empty()) {
    throw Error(path + ": \"" + name + "\": " + problem);
  }
}

// Files are removed by these paths: they must not lead anywhere else.
void RequirePackagePath(const std::string& path, const std::string& name,
                        const std::string& where) {
  if (!IsPackagePathOf(name, path)) {
    throw Error(where + ": \"" + path + "\" is no package of this database");
  }
}

PackageRecord PackageFromJson(const JsonObject& object, const std::string& name,
                              const std::string& where) {
  PackageRecord package;
  package.path = object.Text("path");
  RequirePackagePath(package.path, name, where);
  package.size_bytes = object.Size("size");
  package.sha384 = object.Text("sha384");
  return package;
}

std::set<std::string> TextsFromJson(const JsonObject& object, const char* key) {
  std::set<std::string> texts;
  object.ForEachElement(key, [&](const Json::Value& element, const std::string& where) {
    if (!element.isString()) {
      throw Error(where + ": not a list of texts");
    }
    texts.insert(element.asString());
  });
  return texts;
}

Release ReleaseFromJson(const JsonObject& object, const std::string& name,
                        const std::string& where) {
  Release release;
  release.version = object.Int("version");
  release.released = object.Number("released");
  release.content = object.Text("content");
  release.full = PackageFromJson(object.Object("full"), name, where);
  if (object.Has("delta")) {
    const JsonObject delta = object.Object("delta");
    release.delta = DeltaRecord{PackageFromJson(delta, name, where), TextsFromJson(delta, "keys"),
                                delta.Number("withdrawn")};
  } else {
    release.no_delta_reason = object.Text("no_delta");
  }
  if (object.Has("withdrawn")) {
    release.withdrawn = object.Number("withdrawn");
  }
  if (object.Has("restores")) {
    release.restores = object.Int("restores");
  }
  if (object.Has("offered_until")) {
    release.offered_until = object.Number("offered_until");
  }
  return release;
}

std::vector<RetiredPackage> RetiredFromJson(const JsonObject& object, const std::string& name) {
  std::vector<RetiredPackage> retired;
  object.ForEachElement("retired", [&](const Json::Value& element, const std::string& place) {
    const JsonObject record(element, place);
    retired.push_back({PackageFromJson(record, name, place), record.Number("since")});
  });
  return retired;
}

std::vector<WithdrawnFiles> ForgottenFromJson(const JsonObject& object) {
  std::vector<WithdrawnFiles> forgotten;
  if (object.Has("forgotten")) {
    object.ForEachElement("forgotten", [&](const Json::Value& element, const std::string& place) {
      const JsonObject record(element, place);
      forgotten.push_back(
          {record.Int("version"), record.Number("withdrawn"), record.Text("content")});
    });
  }
  return forgotten;
}

std::optional<Rollout> RolloutFromJson(const JsonObject& object,
                                       const std::vector<Release>& releases,
                                       const std::string& where) {
  if (!object.Has("rollout")) {
    return std::nullopt;
  }
  const JsonObject record = object.Object("rollout");
  Rollout rollout;
  rollout.stable = record.Int("stable");
  rollout.plan.start = record.Number("start");
  record.ForEachElement("steps", [&](const Json::Value& element, const std::string& place) {
    const JsonObject step(element, place);
    rollout.plan.steps.push_back({step.Int("share"), step.Number("seconds")});
  });
  if (record.Has("held")) {
    rollout.plan.held = record.Number("held");
  }
  rollout.plan.stopped = record.Flag("stopped");
  if (const std::string problem = ProblemOf(rollout.plan); !problem.empty()) {
    throw Error(where + ": a rollout cannot be: " + problem);
  }
  const bool is_before_newest =
      std::any_of(releases.begin(), releases.end() - 1,
                  [&rollout](const Release& release) { return release.version == rollout.stable; });
  if (!is_before_newest) {
    throw Error(where + ": a rollout has no stable version before the newest one");
  }
  return rollout;
}

Database DatabaseFromJson(const JsonObject& object, const std::string& name,
                          const std::string& where) {
  Database database;
  database.deprecated = object.Flag("deprecated");
  database.last_fetch_time = object.Number("last_fetch_time");
  database.directories = TextsFromJson(object, "directories");
  int version = -1;
  object.ForEachElement("releases", [&](const Json::Value& element, const std::string& place) {
    database.releases.push_back(ReleaseFromJson(JsonObject(element, place), name, place));
    if (database.releases.back().version <=
        std::exchange(version, database.releases.back().version)) {
      throw Error(place + ": versions do not grow");
    }
  });
  if (database.releases.empty()) {
    throw Error(where + ": \"" + name + "\" has no release");
  }
  database.retired = RetiredFromJson(object, name);
  database.forgotten = ForgottenFromJson(object);
  database.rollout = RolloutFromJson(object, database.releases, where);
  return database;
}

bool IsOfWithdrawal(const Release& release) {
  return release.withdrawn != 0 || release.restores;
}

bool IsKnownToTheFirst(const Database& database) {
  return database.forgotten.empty() &&
         std::none_of(database.releases.begin(), database.releases.end(), IsOfWithdrawal);
}

bool IsKnownToTheThird(const Database& database) {
  return !database.rollout &&
         std::none_of(database.releases.begin(), database.releases.end(),
                      [](const Release& release) { return release.offered_until != 0; });
}

bool IsKnownToTheThird(const Catalog& catalog) {
  return std::all_of(catalog.databases.begin(), catalog.databases.end(),
                     [](const auto& entry) { return IsKnownToTheThird(entry.second); });
}

bool IsKnownToTheFirst(const Catalog& catalog) {
  return catalog.removed.empty() &&
         std::all_of(catalog.databases.begin(), catalog.databases.end(),
                     [](const auto& entry) { return IsKnownToTheFirst(entry.second); });
}

int FormatOf(const Catalog& catalog) {
  if (!IsKnownToTheThird(catalog)) {
    return kFormat;
  }
  if (catalog.counter != 0 || !catalog.former_roots.empty()) {
    return kThirdFormat;
  }
  return IsKnownToTheFirst(catalog) ? kFirstFormat : kSecondFormat;
}

// Absent where nothing was ever removed.
std::map<std::string, RemovedDatabase> RemovedFromJson(const JsonObject& object,
                                                       const Catalog& catalog,
                                                       const std::string& path) {
  std::map<std::string, RemovedDatabase> removed;
  if (!object.Has("removed")) {
    return removed;
  }
  object.Object("removed").ForEachMember([&](const std::string& name, const JsonObject& record) {
    RequireDatabaseName(name, path);
    if (catalog.databases.count(name) != 0) {
      throw Error(path + ": \"" + name + "\" is released and removed");
    }
    removed[name] = {record.Number("since"), record.Int("newest"), RetiredFromJson(record, name),
                     ForgottenFromJson(record)};
  });
  return removed;
}

using Releases = std::vector<Release>;

// Whether who comes from the good version to the one that took a bad one's place has to step there.
bool IsWayBack(const Releases& releases, const Release& release) {
  return IsOfWithdrawal(release) ||
         std::any_of(releases.begin(), releases.end(), [&release](const Release& later) {
           return later.restores && later.version > release.version &&
                  *later.restores < release.version;
         });
}

// What the deltas from a release's on may have together.
std::uint64_t LimitOf(bool is_way_back, std::uint64_t full_bytes, int share_percent) {
  const std::uint64_t share = ShareOf(full_bytes, share_percent);
  return is_way_back && share_percent > 0 ? std::max(share, full_bytes - 1) : share;
}

// Of the releases from one place up to before another, of which the last one is the goal.
std::string Trim(Releases& releases, std::size_t begin, std::size_t end, int share_percent,
                 std::int64_t now) {
  const std::uint64_t full_bytes = releases[end - 1].full.size_bytes;
  std::string sentence;
  std::uint64_t total_bytes = 0;
  std::string reason;
  int next_version = releases[end - 1].version;
  for (std::size_t at = end; at-- > begin;) {
    Release& release = releases[at];
    const bool offered = release.delta && release.delta->withdrawn == 0;
    if (reason.empty() && (!offered || release.version != next_version)) {
      reason = "no delta leads on from there";
    }
    if (!offered) {
      continue;
    }
    next_version = release.version - 1;
    total_bytes += release.delta->package.size_bytes;
    const bool is_way_back = IsWayBack(releases, release);
    if (reason.empty() && total_bytes > LimitOf(is_way_back, full_bytes, share_percent)) {
      reason = is_way_back ? "with it the deltas would not be smaller than the full package"
                           : "with it the deltas would exceed " + std::to_string(share_percent) +
                                 " % of the full package";
    }
    if (!reason.empty()) {
      release.delta->withdrawn = now;
      sentence = sentence.empty() ? "deltas to " + std::to_string(release.version) +
                                        " and older are not offered any more: " + reason
                                  : sentence;
    }
  }
  return sentence;
}

std::size_t PlaceOfStable(const Database& database) {
  return static_cast<std::size_t>(&StableRelease(database) - database.releases.data());
}

}  // namespace

Catalog LoadCatalog(const std::string& path) {
  const Json::Value value = ReadJsonFile(path);
  const JsonObject object(value, path);
  if (const int format = object.Int("format"); format < kFirstFormat || format > kFormat) {
    throw Error(path + ": written by a newer version of this program");
  }
  Catalog catalog;
  catalog.part = object.Text("part");
  catalog.replaces = object.Text("replaces");
  object.Object("databases")
      .ForEachMember([&](const std::string& name, const JsonObject& database) {
        RequireDatabaseName(name, path);
        catalog.databases[name] = DatabaseFromJson(database, name, path);
      });
  catalog.removed = RemovedFromJson(object, catalog, path);
  catalog.counter = object.Has("counter") ? object.Size("counter") : 0;
  catalog.former_roots = object.Has("former_roots") ? object.Text("former_roots") : "";
  return catalog;
}

std::string FormatCatalog(const Catalog& catalog) {
  Json::Value value;
  value["format"] = FormatOf(catalog);
  value["part"] = catalog.part;
  value["replaces"] = catalog.replaces;
  value["databases"] = Json::Value(Json::objectValue);
  for (const auto& [name, database] : catalog.databases) {
    value["databases"][name] = ToJson(database);
  }
  for (const auto& [name, removed] : catalog.removed) {
    value["removed"][name] = ToJson(removed);
  }
  if (catalog.counter != 0) {
    value["counter"] = Json::UInt64(catalog.counter);
  }
  if (!catalog.former_roots.empty()) {
    value["former_roots"] = catalog.former_roots;
  }
  return FormatJson(value);
}

std::string PackagePath(const std::string& part, const std::string& name, package::Kind kind,
                        int version) {
  return part + '/' + name + '/' + name + (kind == package::Kind::kFull ? "_v" : "_d") +
         std::to_string(version);
}

bool IsPackagePathOf(const std::string& name, const std::string& path) {
  constexpr char kPart[] = "packages";
  const std::string part = path.substr(0, path.find('/'));
  const std::string start = part + '/' + name + '/' + name + '_';
  if (path.compare(0, start.size(), start) != 0) {
    return false;
  }
  const bool has_number = part.rfind(std::string(kPart) + '-', 0) == 0;
  const std::string end = path.substr(start.size());
  const std::string version = end.empty() ? "" : end.substr(1);
  return (has_number ? IsNumber(part.substr(sizeof kPart)) : part == kPart) && IsNumber(version) &&
         (end[0] == 'v' || end[0] == 'd') && (version[0] != '0' || version.size() == 1);
}

std::string DatabaseNameProblem(const std::string& name) {
  if (!name.empty() && name.front() == '.') {
    return "a name must not begin with \".\"";
  }
  return package::NameProblem(name);
}

std::map<std::string, PackageRecord> PackagesOf(const Catalog& catalog) {
  std::map<std::string, PackageRecord> packages;
  for (const auto& [name, database] : catalog.databases) {
    for (const Release& release : database.releases) {
      packages.emplace(release.full.path, release.full);
      if (release.delta) {
        packages.emplace(release.delta->package.path, release.delta->package);
      }
    }
    for (const RetiredPackage& retired : database.retired) {
      packages.emplace(retired.package.path, retired.package);
    }
  }
  for (const auto& entry : catalog.removed) {
    for (const RetiredPackage& retired : entry.second.retired) {
      packages.emplace(retired.package.path, retired.package);
    }
  }
  return packages;
}

std::vector<WithdrawnFiles> WithdrawnFilesOf(const Database& database) {
  std::vector<WithdrawnFiles> all = database.forgotten;
  for (const Release& release : database.releases) {
    if (release.withdrawn != 0) {
      all.push_back({release.version, release.withdrawn, release.content});
    }
  }
  return all;
}

const Release& StableRelease(const Database& database) {
  if (database.rollout) {
    for (const Release& release : database.releases) {
      if (release.version == database.rollout->stable) {
        return release;
      }
    }
  }
  return database.releases.back();
}

std::vector<const Release*> OfferedReleases(const Database& database) {
  std::vector<const Release*> offered = {&StableRelease(database)};
  if (database.rollout) {
    offered.push_back(&database.releases.back());
  }
  return offered;
}

std::int64_t OfferedUntil(const Database& database, std::size_t place, std::int64_t now) {
  const Release& release = database.releases[place];
  const std::vector<const Release*> offered = OfferedReleases(database);
  if (std::find(offered.begin(), offered.end(), &release) != offered.end()) {
    return now;
  }
  return release.offered_until != 0 ? release.offered_until : database.releases[place + 1].released;
}

void EndRollout(Database& database, std::int64_t now) {
  database.releases[PlaceOfStable(database)].offered_until = now;
  database.rollout.reset();
}

std::vector<const Release*> OfferedChain(const Database& database) {
  std::vector<const Release*> chain;
  for (const Release& release : database.releases) {
    if (release.delta && release.delta->withdrawn == 0) {
      chain.push_back(&release);
    }
  }
  return chain;
}

std::vector<const Release*> ChainTo(const Database& database, int version) {
  std::vector<const Release*> chain = OfferedChain(database);
  chain.erase(std::find_if(chain.begin(), chain.end(),
                           [version](const Release* step) { return step->version > version; }),
              chain.end());
  auto begin = chain.end();
  while (begin != chain.begin() && (*std::prev(begin))->version == version) {
    --begin;
    --version;
  }
  chain.erase(chain.begin(), begin);
  return chain;
}

std::vector<const Release*> ChainToNewest(const Database& database) {
  return ChainTo(database, database.releases.back().version);
}

std::string TrimChain(Database& database, int share_percent, std::int64_t now) {
  const std::size_t staged = PlaceOfStable(database) + 1;
  const std::size_t end = database.releases.size();
  std::string sentence;
  if (staged != end) {
    sentence = Trim(database.releases, staged, end, share_percent, now);
  }
  const std::string of_stable = Trim(database.releases, 0, staged, share_percent, now);
  return sentence + (sentence.empty() || of_stable.empty() ? "" : "; ") + of_stable;
}

std::uint64_t ShareOf(std::uint64_t bytes, int percent) {
  const auto share = static_cast<std::uint64_t>(percent);
  return bytes / 100 * share + bytes % 100 * share / 100;
}

}  // namespace tolm::publish
