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

// The version that reaches devices by and by; nothing where there is none.
const offer::NextOffer* StagedOf(const PageContent& content, const std::string& name) {
  if (!content.offer) {
    return nullptr;
  }
  const auto found = content.offer->databases.find(name);
  return found != content.offer->databases.end() && found->second.next ? &*found->second.next
                                                                       : nullptr;
}

std::string NotesOf(const PageContent& content, const std::string& name, const Database& database,
                    std::int64_t now) {
  std::vector<std::string> notes;
  if (database.deprecated) {
    notes.push_back("deprecated");
  }
  if (const offer::NextOffer* next = StagedOf(content, name); next != nullptr) {
    notes.push_back(std::to_string(next->version) + " for " +
                    ShareOfDevices(offer::ShareAt(next->plan, now)));
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

// What a device with each of the versions loads.
using Loads = std::map<int, Load>;

Loads LoadsByVersion(const Database& database) {
  Loads loads;
  for (const Load& load : LoadsOf(database)) {
    loads[load.version] = load;
  }
  return loads;
}

std::uint64_t BytesFor(const Database& database, const Loads& loads, int version) {
  const Release& newest = database.releases.back();
  if (version == newest.version) {
    return 0;
  }
  const auto found = loads.find(version);
  return found == loads.end() ? newest.full.size_bytes : found->second.bytes;
}

std::string LoadText(const Database& database, const Loads& loads, int version) {
  const Release& newest = database.releases.back();
  if (version == newest.version) {
    return "nothing";
  }
  const auto found = loads.find(version);
  if (found == loads.end()) {
    return HumanSize(newest.full.size_bytes) + ", full";
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

void DrawLoads(Html& html, const std::string& id, const Database& database, const Loads& loads) {
  BarChart chart{id + "-loads",
                 "What a device at each version loads",
                 "Bytes that a device with each version loads to come to the newest one.",
                 Quantity::kBytes,
                 {{"delta", "deltas"}, {"full", "the full package"}},
                 {}};
  for (const Release& release : database.releases) {
    const auto bytes = static_cast<double>(BytesFor(database, loads, release.version));
    const bool comes_by_deltas = loads.count(release.version) != 0;
    chart.bars.push_back({std::to_string(release.version),
                          {comes_by_deltas ? bytes : 0, comes_by_deltas ? 0 : bytes}});
  }
  Draw(html, chart);
}

// ---- One database ----

std::string RemarksOn(const Release& release) {
  std::string text;
  const auto add = [&text](const std::string& remark) {
    text += (text.empty() ? "" : "; ") + remark;
  };
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

void ListReleases(Html& html, const std::string& name, const Database& database, const Loads& loads,
                  bool has_all) {
  const std::size_t count =
      has_all ? database.releases.size() : std::min(database.releases.size(), kPageReleases);
  html.Put("h3", "Releases");
  {
    PageTable table(html, "Releases of " + name,
                    {{"Version", Kind::kShort},
                     {"Released", Kind::kShort},
                     {"A device with it loads", Kind::kNumber},
                     {"Full package", Kind::kNumber, true},
                     {"Delta", Kind::kNumber},
                     {"of the full", Kind::kNumber, true},
                     {"Remarks", Kind::kText}});
    for (auto release = database.releases.rbegin();
         release != database.releases.rbegin() + static_cast<std::ptrdiff_t>(count); ++release) {
      const std::optional<DeltaRecord>& delta = release->delta;
      table.Add({{std::to_string(release->version)},
                 {DayText(release->released)},
                 {LoadText(database, loads, release->version)},
                 {HumanSize(release->full.size_bytes)},
                 {delta ? HumanSize(delta->package.size_bytes) : kNone, "",
                  delta && delta->withdrawn == 0 ? "" : kQuiet},
                 {delta ? ShareText(delta->package.size_bytes, release->full.size_bytes) : kNone,
                  "", kQuiet},
                 {RemarksOn(*release), "", release->withdrawn != 0 ? kBad : ""}});
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

void PutFacts(Html& html, const Database& database, const Loads& loads, std::int64_t now) {
  const Release& newest = database.releases.back();
  std::uint64_t offered = 0;
  for (const auto& [version, load] : loads) {
    offered = std::max(offered, load.bytes);
  }
  Waiting waiting;
  Count(database.retired, waiting);
  Facts facts(html);
  facts.Add("Newest version", std::to_string(newest.version));
  facts.Add("Released",
            TimeText(newest.released) + ", age " + AgeText(database.last_fetch_time, now));
  facts.Add("Kept", Counted(database.releases.size(), "release", "releases") + " from " +
                        std::to_string(database.releases.front().version) + " on");
  facts.Add("Full package", HumanSize(newest.full.size_bytes));
  facts.Add("Deltas offered",
            loads.empty()
                ? "none: every device takes the full package"
                : std::to_string(loads.size()) + ", from " + std::to_string(loads.begin()->first) +
                      " on, together " + HumanSize(offered) + " (" +
                      ShareText(offered, newest.full.size_bytes) + " of the full package)");
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
             std::to_string(newest.version) + ", " + AgeText(database.last_fetch_time, now) + ", " +
                 HumanSize(newest.full.size_bytes));
  }
  // A browser that goes to what is inside opens it.
  const Html::Element body(html, "div", {{"id", id}});
  const Loads loads = LoadsByVersion(database);
  if (database.deprecated) {
    report::PutWarning(html, "Deprecated: devices are told so.");
  }
  PutFacts(html, database, loads, now);
  if (const offer::NextOffer* next = StagedOf(content, name); next != nullptr) {
    DrawRollout(html, id + "-stages", next->version, next->plan, now);
  }
  if (database.releases.size() > 1) {
    const Html::Element pictures(html, "div", {{"class", "pictures"}});
    DrawSizes(html, id, database);
    DrawLoads(html, id, database, loads);
  }
  ListReleases(html, name, database, loads, content.has_all);
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
               {NotesOf(content, name, database, now)}});
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
  const std::time_t at = package::VerificationTime(now);
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

std::string FormatPage(const PageContent& content, std::time_t now) {
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

std::string WritePageOf(const PageRequest& request, std::time_t now) {
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
