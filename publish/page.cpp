#include "publish/page.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/human_text.h"
#include "package/trust.h"
#include "publish/error.h"
#include "publish/list.h"
#include "publish/release.h"
#include "publish/repository.h"
#include "publish/rollout_picture.h"
#include "publish/validity.h"
#include "report/chart.h"
#include "report/html.h"
#include "report/page.h"

namespace tolm::publish {
namespace {

using base::HumanSize;
using report::Bar;
using report::BarChart;
using report::Facts;
using report::Html;
using report::kBad;
using report::kFewDatabases;
using report::kNone;
using report::kQuiet;
using report::PageTable;
using report::Quantity;
using report::Section;
using Kind = report::PageTable::Kind;

constexpr char kPageName[] = "index.html";

std::string Counted(std::uint64_t count, const std::string& one, const std::string& several) {
  return base::Grouped(count) + ' ' + (count == 1 ? one : several);
}

std::string DayText(std::int64_t seconds) {
  constexpr std::size_t kDay = 10;  // "2026-01-31"
  return TimeText(seconds).substr(0, kDay);
}

// Not known of what is in the future: one of two clocks is wrong.
std::string AgeText(std::int64_t time, std::int64_t now) {
  return time > 0 && time <= now ? base::HumanDuration(now - time) : "not known";
}

// "12 days left", "expired 3 days ago".
std::string LeftText(std::int64_t end, std::int64_t now) {
  const std::string days = DaysText(DaysLeft(end, now));
  return end < now ? "ended " + days + " ago" : days + " left";
}

// ---- What is told of one database ----

std::size_t WithdrawnOf(const Database& database) {
  return static_cast<std::size_t>(
      std::count_if(database.releases.begin(), database.releases.end(),
                    [](const Release& release) { return release.withdrawn != 0; }));
}

struct Waiting {
  std::size_t packages = 0;
  std::uint64_t bytes = 0;
  std::int64_t since = 0;  // the first one
};

void Count(const std::vector<RetiredPackage>& packages, Waiting& waiting) {
  for (const RetiredPackage& retired : packages) {
    ++waiting.packages;
    waiting.bytes += retired.package.size_bytes;
    waiting.since = waiting.since == 0 ? retired.since : std::min(waiting.since, retired.since);
  }
}

std::string WaitingText(const Waiting& waiting) {
  return waiting.packages == 0
             ? "none"
             : Counted(waiting.packages, "package", "packages") + ", " + HumanSize(waiting.bytes) +
                   ", the first since " + DayText(waiting.since);
}

// "for 5 % of the devices", "held at 5 % of the devices", "stopped".
std::string StageWords(const offer::RolloutPlan& plan, std::int64_t now) {
  return plan.stopped
             ? "stopped"
             : (plan.held ? "held at " : "for ") + ShareOfDevices(offer::ShareAt(plan, now));
}

std::string NotesOf(const Database& database, std::int64_t now) {
  std::vector<std::string> notes;
  if (database.deprecated) {
    notes.push_back("deprecated");
  }
  if (database.rollout) {
    notes.push_back("staged: " + StageWords(database.rollout->plan, now));
    notes.push_back(std::to_string(database.rollout->stable) + " is stable");
  }
  if (const std::size_t withdrawn = WithdrawnOf(database); withdrawn != 0) {
    notes.push_back(Counted(withdrawn, "withdrawn", "withdrawn"));
  }
  std::string text;
  for (const std::string& note : notes) {
    text += (text.empty() ? "" : ", ") + note;
  }
  return text;
}

// How devices with other versions come to this one.
struct Way {
  const Release& to;
  std::map<int, Load> loads;  // by deltas, by their version
};

Way WayTo(const Database& database, const Release& release) {
  Way way{release, {}};
  for (const Load& load : LoadsTo(database, release.version)) {
    way.loads[load.version] = load;
  }
  return way;
}

Way WayToNewest(const Database& database) {
  return WayTo(database, database.releases.back());
}

std::uint64_t BytesFor(const Way& way, int version) {
  if (version == way.to.version) {
    return 0;
  }
  const auto found = way.loads.find(version);
  return found == way.loads.end() ? way.to.full.size_bytes : found->second.bytes;
}

std::string LoadText(const Way& way, int version) {
  if (version == way.to.version) {
    return "nothing";
  }
  if (version > way.to.version) {
    return kNone;
  }
  const auto found = way.loads.find(version);
  if (found == way.loads.end()) {
    return HumanSize(way.to.full.size_bytes) + ", full";
  }
  return HumanSize(found->second.bytes) + ", " + Counted(found->second.deltas, "delta", "deltas");
}

// ---- Pictures ----

std::string SizeOfNewestDelta(const Database& database) {
  const Release& newest = database.releases.back();
  return newest.delta ? HumanSize(newest.delta->package.size_bytes) : kNone;
}

void DrawSizes(Html& html, const std::string& id, const Database& database) {
  BarChart full{id + "-full",
                "Full packages",
                "Size of the full package by version.",
                Quantity::kBytes,
                {{"full", "released"}, {"bad", "withdrawn"}},
                {}};
  BarChart delta{id + "-delta",
                 "Deltas",
                 "Size of the delta to each version from the one before.",
                 Quantity::kBytes,
                 {{"delta", "offered"}, {"dim", "not offered any more"}},
                 {}};
  bool has_delta = false;
  for (const Release& release : database.releases) {
    const std::string label = std::to_string(release.version);
    const auto bytes = static_cast<double>(release.full.size_bytes);
    const bool is_bad = release.withdrawn != 0;
    full.bars.push_back({label, {is_bad ? 0 : bytes, is_bad ? bytes : 0}});
    const double step = release.delta ? static_cast<double>(release.delta->package.size_bytes) : 0;
    const bool is_offered = release.delta && release.delta->withdrawn == 0;
    delta.bars.push_back({label, {is_offered ? step : 0, is_offered ? 0 : step}});
    has_delta = has_delta || release.delta;
  }
  Draw(html, full);
  if (has_delta) {
    Draw(html, delta);
  }
}

void DrawLoads(Html& html, const std::string& id, const Database& database, const Way& way) {
  const bool is_newest = way.to.version == database.releases.back().version;
  const std::string version = std::to_string(way.to.version);
  BarChart chart{id,
                 database.rollout
                     ? "What a device loads that is offered " + version +
                           (is_newest ? ", the staged version" : ", the stable version")
                     : "What a device at each version loads",
                 "Bytes that a device with each version loads to come to " +
                     (database.rollout ? version : "the newest one") + '.',
                 Quantity::kBytes,
                 {{"delta", "deltas"}, {"full", "the full package"}},
                 {}};
  for (const Release& release : database.releases) {
    if (release.version > way.to.version) {
      break;  // Nobody goes back.
    }
    const auto bytes = static_cast<double>(BytesFor(way, release.version));
    const bool comes_by_deltas = way.loads.count(release.version) != 0;
    chart.bars.push_back({std::to_string(release.version),
                          {comes_by_deltas ? bytes : 0, comes_by_deltas ? 0 : bytes}});
  }
  Draw(html, chart);
}

// ---- One database ----

std::string RemarksOn(const Database& database, const Release& release, std::int64_t now) {
  std::string text;
  const auto add = [&text](const std::string& remark) {
    text += (text.empty() ? "" : "; ") + remark;
  };
  if (database.rollout && &release == &database.releases.back()) {
    add("staged, " + StageWords(database.rollout->plan, now));
  }
  if (database.rollout && release.version == database.rollout->stable) {
    add("stable");
  }
  if (release.withdrawn != 0) {
    add("withdrawn " + DayText(release.withdrawn));
  }
  if (release.restores) {
    add("the files of " + std::to_string(*release.restores) + " again");
  }
  if (release.delta && release.delta->withdrawn != 0) {
    add("delta not offered since " + DayText(release.delta->withdrawn));
  }
  return text;
}

std::vector<PageTable::Column> ColumnsOf(const Database& database) {
  std::vector<PageTable::Column> columns = {{"Version", Kind::kShort}, {"Released", Kind::kShort}};
  if (database.rollout) {
    const std::string to = "A device with it loads to ";
    columns.push_back({to + std::to_string(database.rollout->stable), Kind::kNumber});
    columns.push_back({to + std::to_string(database.releases.back().version), Kind::kNumber, true});
  } else {
    columns.push_back({"A device with it loads", Kind::kNumber});
  }
  columns.insert(columns.end(), {{"Full package", Kind::kNumber, true},
                                 {"Delta", Kind::kNumber},
                                 {"of the full", Kind::kNumber, true},
                                 {"Remarks", Kind::kText}});
  return columns;
}

void ListReleases(Html& html, const std::string& name, const Database& database, const Way& newest,
                  bool has_all, std::int64_t now) {
  const Way stable = WayTo(database, StableRelease(database));
  const std::size_t count =
      has_all ? database.releases.size() : std::min(database.releases.size(), kPageReleases);
  html.Put("h3", "Releases");
  {
    PageTable table(html, "Releases of " + name, ColumnsOf(database));
    for (auto release = database.releases.rbegin();
         release != database.releases.rbegin() + static_cast<std::ptrdiff_t>(count); ++release) {
      const std::optional<DeltaRecord>& delta = release->delta;
      std::vector<PageTable::Cell> cells = {{std::to_string(release->version)},
                                            {DayText(release->released)}};
      if (database.rollout) {
        cells.push_back({LoadText(stable, release->version)});
      }
      cells.insert(cells.end(),
                   {{LoadText(newest, release->version)},
                    {HumanSize(release->full.size_bytes)},
                    {delta ? HumanSize(delta->package.size_bytes) : kNone, "",
                     delta && delta->withdrawn == 0 ? "" : kQuiet},
                    {delta ? ShareText(delta->package.size_bytes, release->full.size_bytes) : kNone,
                     "", kQuiet},
                    {RemarksOn(database, *release, now), "", release->withdrawn != 0 ? kBad : ""}});
      table.Add(cells);
    }
  }
  if (count < database.releases.size()) {
    html.Put("p", {{"class", "quiet"}},
             "The newest " + std::to_string(count) + " of " +
                 std::to_string(database.releases.size()) +
                 " releases. The pictures show all of them.");
  }
}

std::string ForgottenText(const std::vector<WithdrawnFiles>& forgotten) {
  std::string text;
  for (const WithdrawnFiles& files : forgotten) {
    text += (text.empty() ? "" : ", ") + std::to_string(files.version);
  }
  return text;
}

std::string DeltasText(const Way& way) {
  if (way.loads.empty()) {
    return "none: every device takes the full package";
  }
  std::uint64_t bytes = 0;
  for (const auto& [version, load] : way.loads) {
    bytes = std::max(bytes, load.bytes);
  }
  return std::to_string(way.loads.size()) + ", from " + std::to_string(way.loads.begin()->first) +
         " on, together " + HumanSize(bytes) + " (" + ShareText(bytes, way.to.full.size_bytes) +
         " of the full package)";
}

void PutVersions(Facts& facts, const Database& database, const Way& way, std::int64_t now) {
  if (!database.rollout) {
    facts.Add("Newest version", std::to_string(way.to.version));
    return;
  }
  const Way stable = WayTo(database, StableRelease(database));
  facts.Add("Stable version", std::to_string(stable.to.version) + ", for all other devices; full " +
                                  "package " + HumanSize(stable.to.full.size_bytes));
  facts.Add("Deltas to that", DeltasText(stable));
  facts.Add("Staged version",
            std::to_string(way.to.version) + ", " + StageWords(database.rollout->plan, now));
}

void PutFacts(Html& html, const Database& database, const Way& way, std::int64_t now) {
  Waiting waiting;
  Count(database.retired, waiting);
  Facts facts(html);
  PutVersions(facts, database, way, now);
  facts.Add("Released",
            TimeText(way.to.released) + ", age " + AgeText(database.last_fetch_time, now));
  facts.Add("Full package", HumanSize(way.to.full.size_bytes));
  facts.Add("Deltas offered", DeltasText(way));
  facts.Add("Kept", Counted(database.releases.size(), "release", "releases") + " from " +
                        std::to_string(database.releases.front().version) + " on");
  facts.Add("Retired, not removed yet", WaitingText(waiting));
  if (!database.forgotten.empty()) {
    facts.Add("Withdrawn, kept no more", ForgottenText(database.forgotten));
  }
}

void PutDatabase(Html& html, const std::string& id, const std::string& name,
                 const PageContent& content, std::int64_t now) {
  const Database& database = content.catalog.databases.at(name);
  const Release& newest = database.releases.back();
  Html::Attributes attributes;
  if (content.catalog.databases.size() <= kFewDatabases) {
    attributes.push_back({"open", "open"});
  }
  const Html::Element details(html, "details", attributes);
  {
    const Html::Element summary(html, "summary");
    html.Put("b", name);
    html.Put("span", {{"class", "quiet"}},
             (database.rollout ? std::to_string(database.rollout->stable) + ", staged " : "") +
                 std::to_string(newest.version) + ", " + AgeText(database.last_fetch_time, now) +
                 ", " + HumanSize(newest.full.size_bytes));
  }
  // A browser that goes to what is inside opens it.
  const Html::Element body(html, "div", {{"id", id}});
  const Way way = WayToNewest(database);
  if (database.deprecated) {
    report::PutWarning(html, "Deprecated: devices are told so.");
  }
  PutFacts(html, database, way, now);
  if (database.rollout) {
    DrawRollout(html, id + "-stages", newest.version, database.rollout->plan, now);
  }
  if (database.releases.size() > 1) {
    const Html::Element pictures(html, "div", {{"class", "pictures"}});
    DrawSizes(html, id, database);
    if (database.rollout) {
      DrawLoads(html, id + "-stable-loads", database, WayTo(database, StableRelease(database)));
    }
    DrawLoads(html, id + "-loads", database, way);
  }
  ListReleases(html, name, database, way, content.has_all, now);
}

// ---- All of it ----

void PutOverview(Html& html, const PageContent& content,
                 const std::map<std::string, std::string>& ids, std::int64_t now) {
  const Section section(html, "overview", "Overview");
  if (ids.empty()) {
    html.Put("p", "Nothing has been released yet.");
    return;
  }
  PageTable table(html, "All databases",
                  {{"Database", Kind::kText},
                   {"Newest", Kind::kShort},
                   {"Released", Kind::kShort, true},
                   {"Age", Kind::kNumber},
                   {"Full package", Kind::kNumber, true},
                   {"Newest delta", Kind::kNumber, true},
                   {"Deltas", Kind::kNumber, true},
                   {"Releases", Kind::kNumber, true},
                   {"Remarks", Kind::kText}});
  for (const auto& [name, id] : ids) {
    const Database& database = content.catalog.databases.at(name);
    const Release& newest = database.releases.back();
    table.Add({{name, id},
               {std::to_string(newest.version)},
               {TimeText(newest.released)},
               {AgeText(database.last_fetch_time, now)},
               {HumanSize(newest.full.size_bytes)},
               {SizeOfNewestDelta(database)},
               {std::to_string(OfferedChain(database).size())},
               {std::to_string(database.releases.size())},
               {NotesOf(database, now)}});
  }
}

void PutDescription(Html& html, const PageContent& content, std::int64_t now) {
  const Section section(html, "description", "Description");
  if (!content.is_signed) {
    html.Put("p", "Descriptions of this repository are not signed.");
    return;
  }
  if (!content.offer) {
    report::PutWarning(html,
                       "What is served is not signed so that devices accept it. "
                       "\xE2\x80\x9Ctolmdbpub check\xE2\x80\x9D says why.");
    return;
  }
  const offer::Offer& offer = *content.offer;
  Facts facts(html);
  facts.Add("Signed for repository", offer.repository);
  facts.Add("Counter", base::Grouped(offer.counter));
  facts.Add("Issued", TimeText(offer.issued) + ", age " + AgeText(offer.issued, now));
  facts.Add("Valid until", TimeText(offer.expires) + ", " + LeftText(offer.expires, now),
            offer.expires - now < content.description_care_seconds ? kBad : "");
}

const char* UseOf(CertificateRole role) {
  switch (role) {
    case CertificateRole::kSigning:
      return "signs packages";
    case CertificateRole::kDescriptions:
      return "signs descriptions";
    case CertificateRole::kAuthority:
      return "authority";
    case CertificateRole::kRoot:
      return "root, trusted by devices";
    case CertificateRole::kPackages:
      return "has signed an oldest or newest release";
  }
  return "";
}

void PutCertificates(Html& html, const PageContent& content, std::int64_t now) {
  if (content.certificates.all.empty() && content.certificates.unreadable.empty()) {
    return;
  }
  const Section section(html, "certificates", "Certificates");
  const std::int64_t at = package::VerificationTime(now);
  if (!content.certificates.unreadable.empty()) {
    // How they say it, they name files of the publisher's machine.
    report::PutWarning(
        html, Counted(content.certificates.unreadable.size(), "file", "files") +
                  " of certificates could not be read. \xE2\x80\x9Ctolmdbpub check\xE2\x80\x9D "
                  "says why.");
  }
  if (content.certificates.all.empty()) {
    return;
  }
  PageTable table(html, "Certificates",
                  {{"Certificate", Kind::kText},
                   {"Use", Kind::kText},
                   {"Valid until", Kind::kShort},
                   {"Left", Kind::kNumber}});
  for (const RepositoryCertificate& certificate : content.certificates.all) {
    const package::CertificateDetails& details = certificate.details;
    const bool ends_soon = DaysLeft(details.not_after, at) <= kCertificateWarningDays;
    const char* style = !certificate.is_needed ? kQuiet : ends_soon ? kBad : "";
    table.Add(
        {{details.subject},
         {std::string(UseOf(certificate.role)) +
              (certificate.is_needed ? "" : "; nothing offered needs it"),
          "", style},
         {TimeText(details.not_after), "", style},
         {at < details.not_before ? "not valid yet" : LeftText(details.not_after, at), "", style}});
  }
}

void PutRemoved(Html& html, const Catalog& catalog) {
  if (catalog.removed.empty()) {
    return;
  }
  const Section section(html, "removed", "Not offered any more");
  PageTable table(html, "Removed databases",
                  {{"Database", Kind::kText},
                   {"Newest was", Kind::kShort},
                   {"Removed", Kind::kShort},
                   {"Retired, not removed yet", Kind::kText, true}});
  for (const auto& [name, removed] : catalog.removed) {
    Waiting waiting;
    Count(removed.retired, waiting);
    table.Add({{name},
               {std::to_string(removed.newest)},
               {TimeText(removed.since)},
               {WaitingText(waiting), "", waiting.packages == 0 ? kQuiet : ""}});
  }
}

void PutTotals(Html& html, const Catalog& catalog) {
  std::uint64_t bytes = 0;
  std::size_t packages = 0;
  for (const PackageRecord& package : OfferedPackages(catalog)) {
    bytes += package.size_bytes;
    ++packages;
  }
  Waiting waiting;
  std::int64_t newest = 0;
  for (const auto& [name, database] : catalog.databases) {
    Count(database.retired, waiting);
    newest = std::max(newest, database.releases.back().released);
  }
  for (const auto& [name, removed] : catalog.removed) {
    Count(removed.retired, waiting);
  }
  Facts facts(html);
  facts.Add("Databases", base::Grouped(catalog.databases.size()));
  facts.Add("Last release", newest == 0 ? "none yet" : TimeText(newest));
  facts.Add("Packages offered", base::Grouped(packages) + ", " + HumanSize(bytes));
  facts.Add("Retired, not removed yet", WaitingText(waiting));
}

std::map<std::string, std::string> IdsOf(const Catalog& catalog) {
  std::map<std::string, std::string> ids;
  for (const auto& [name, database] : catalog.databases) {
    ids[name] = "d" + std::to_string(ids.size() + 1);
  }
  return ids;
}

bool IsWithin(const std::filesystem::path& path, const std::filesystem::path& directory) {
  return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
         directory.end();
}

// What lies in a repository is the repository's, and `check` says of anything else that it does not
// belong there.
void RequireElsewhere(const PageRequest& request) {
  const auto place =
      std::filesystem::weakly_canonical(std::filesystem::absolute(request.directory));
  if (IsWithin(place, std::filesystem::canonical(request.repository))) {
    throw Error(request.directory + " is within the repository " + request.repository +
                ", where no page belongs: name a directory elsewhere");
  }
}

// Of each database the oldest and the newest release. To read the signer of every package of a
// large repository takes many times as long as all the rest.
Catalog FirstAndLast(const Catalog& catalog) {
  Catalog few;
  for (const auto& [name, database] : catalog.databases) {
    few.databases[name].releases = {database.releases.front(), database.releases.back()};
  }
  return few;
}

}  // namespace

std::string FormatPage(const PageContent& content, std::int64_t now) {
  const std::map<std::string, std::string> ids = IdsOf(content.catalog);
  return report::MakePage({"Databases of " + content.address,
                           "What is released, and what devices load of it.", "tolmdbpub page", now},
                          [&](Html& html) {
                            PutTotals(html, content.catalog);
                            PutOverview(html, content, ids, now);
                            PutDescription(html, content, now);
                            PutCertificates(html, content, now);
                            if (!ids.empty()) {
                              const Section section(html, "databases", "Databases");
                              for (const auto& [name, id] : ids) {
                                PutDatabase(html, id, name, content, now);
                              }
                            }
                            PutRemoved(html, content.catalog);
                          });
}

std::string WritePageOf(const PageRequest& request, std::int64_t now) {
  const RepositoryPaths paths(request.repository);
  RequireRepository(paths);
  RequireElsewhere(request);
  const Settings settings = LoadSettings(paths.SettingsFile());
  PageContent content;
  content.address = settings.base_url.netloc;
  content.catalog = LoadCatalog(paths.CatalogFile());
  content.certificates = ReadCertificates(paths, settings, FirstAndLast(content.catalog));
  content.is_signed = settings.IsSigned();
  content.offer = ServedOffer(paths, settings, now);
  content.description_care_seconds = DescriptionCareSeconds(settings);
  content.has_all = request.has_all;
  std::filesystem::create_directories(request.directory);
  const std::string path = std::filesystem::path(request.directory) / kPageName;
  report::WritePage(path, FormatPage(content, now));
  return path;
}

}  // namespace tolm::publish
