#include "publish/prune.h"

#include <iterator>
#include <utility>

#include "publish/error.h"

namespace tolm::publish {
namespace {

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;

void Retire(std::vector<RetiredPackage>& retired, const Database& database, std::size_t place,
            std::int64_t now) {
  const Release& release = database.releases[place];
  retired.push_back({release.full, OfferedUntil(database, place, now)});
  if (release.delta) {
    const std::int64_t withdrawn = release.delta->withdrawn;
    retired.push_back({release.delta->package, withdrawn == 0 ? now : withdrawn});
  }
}

// Its files are not released again by chance when it is not kept any more.
void Remember(const Release& release, std::vector<WithdrawnFiles>& forgotten) {
  if (release.withdrawn != 0) {
    forgotten.push_back({release.version, release.withdrawn, release.content});
  }
}

// What is stable stays, and all that is staged after it.
std::size_t CountOfOld(const Database& database, std::size_t keep) {
  const std::size_t size = database.releases.size();
  const int stable = StableRelease(database).version;
  std::size_t count = 0;
  while (count + keep < size && database.releases[count].version != stable) {
    ++count;
  }
  return count;
}

void RetireOldReleases(Database& database, std::size_t keep, std::int64_t now,
                       PruneReport& report) {
  const std::size_t count = CountOfOld(database, keep);
  for (std::size_t i = 0; i < count; ++i) {
    Retire(database.retired, database, i, now);
    Remember(database.releases[i], database.forgotten);
    report.versions.push_back(database.releases[i].version);
  }
  database.releases.erase(database.releases.begin(),
                          database.releases.begin() + static_cast<std::ptrdiff_t>(count));
}

void ForgetExpired(std::vector<RetiredPackage>& packages, std::int64_t retired_before,
                   PruneReport& report) {
  std::vector<RetiredPackage> staying;
  for (RetiredPackage& retired : packages) {
    if (retired.since <= retired_before) {
      report.removed.push_back(retired.package.path);
    } else {
      report.waiting.push_back(retired.package.path);
      staying.push_back(std::move(retired));
    }
  }
  packages = std::move(staying);
}

}  // namespace

PruneReport Prune(const PruneRequest& request, std::int64_t now, const Notes& notes) {
  if (request.keep < 1 || request.grace_days < 0) {
    throw Error("prune " + request.name + ": one release at least stays, and no time is negative");
  }
  RepositoryChange change(request.repository, notes);
  const std::int64_t retired_before = now - request.grace_days * kDaySeconds;
  PruneReport report;
  const auto removed = change.catalog.removed.find(request.name);
  if (removed != change.catalog.removed.end()) {
    ForgetExpired(removed->second.retired, retired_before, report);
  } else {
    Database& database = change.DatabaseNamed(request.name);
    RetireOldReleases(database, static_cast<std::size_t>(request.keep), now, report);
    ForgetExpired(database.retired, retired_before, report);
  }
  if (!report.versions.empty() || !report.removed.empty()) {
    change.Begin("prune of " + request.name);
    change.Commit();
  }
  return report;
}

bool SetDeprecated(const std::string& repository, const std::string& name, bool deprecated,
                   const Notes& notes) {
  RepositoryChange change(repository, notes);
  Database& database = change.DatabaseNamed(name);
  if (database.deprecated == deprecated) {
    return false;
  }
  database.deprecated = deprecated;
  change.Begin("deprecate " + name);
  change.Commit();
  return true;
}

int RemoveDatabase(const RemoveRequest& request, std::int64_t now, const Notes& notes) {
  RepositoryChange change(request.repository, notes);
  Database& database = change.DatabaseNamed(request.name);
  if (!database.deprecated && !request.not_deprecated) {
    throw Error("remove " + request.name +
                ": it is not deprecated, so that nobody was told of its end; \"deprecate\" it "
                "first and wait until devices have heard of it, or insist by --yes");
  }
  RemovedDatabase removed;
  removed.since = now;
  removed.newest = database.releases.back().version;
  removed.retired = std::move(database.retired);
  removed.forgotten = WithdrawnFilesOf(database);
  for (std::size_t i = 0; i < database.releases.size(); ++i) {
    Retire(removed.retired, database, i, now);
  }
  const int newest = removed.newest;
  change.catalog.databases.erase(request.name);
  change.catalog.removed[request.name] = std::move(removed);
  change.Begin("remove " + request.name);
  change.Commit();
  return newest;
}

}  // namespace tolm::publish
