#include "publish/prune.h"

#include <iterator>
#include <utility>

#include "publish/error.h"

namespace tolm::publish {
namespace {

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;

// @p superseded is when the next release took its place in the description.
void Retire(Database& database, const Release& release, std::int64_t superseded, std::int64_t now) {
  database.retired.push_back({release.full, superseded});
  if (release.delta) {
    const std::int64_t withdrawn = release.delta->withdrawn;
    database.retired.push_back({release.delta->package, withdrawn == 0 ? now : withdrawn});
  }
}

void RetireOldReleases(Database& database, std::size_t keep, std::int64_t now,
                       PruneReport& report) {
  if (database.releases.size() <= keep) {
    return;
  }
  const std::size_t count = database.releases.size() - keep;
  for (std::size_t i = 0; i < count; ++i) {
    Retire(database, database.releases[i], database.releases[i + 1].released, now);
    report.versions.push_back(database.releases[i].version);
  }
  database.releases.erase(database.releases.begin(),
                          database.releases.begin() + static_cast<std::ptrdiff_t>(count));
}

void ForgetExpired(Database& database, std::int64_t retired_before, PruneReport& report) {
  std::vector<RetiredPackage> staying;
  for (RetiredPackage& retired : database.retired) {
    if (retired.since <= retired_before) {
      report.removed.push_back(retired.package.path);
    } else {
      report.waiting.push_back(retired.package.path);
      staying.push_back(std::move(retired));
    }
  }
  database.retired = std::move(staying);
}

}  // namespace

PruneReport Prune(const PruneRequest& request, std::time_t now, const Notes& notes) {
  if (request.keep < 1 || request.grace_days < 0) {
    throw Error("prune " + request.name + ": one release at least stays, and no time is negative");
  }
  RepositoryChange change(request.repository, notes);
  Database& database = change.DatabaseNamed(request.name);
  PruneReport report;
  RetireOldReleases(database, static_cast<std::size_t>(request.keep), now, report);
  ForgetExpired(database, now - request.grace_days * kDaySeconds, report);
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

}  // namespace tolm::publish
