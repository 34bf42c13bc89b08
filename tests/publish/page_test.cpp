#include "publish/page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "publish/rollout_picture.h"
#include "report/page.h"
#include "tests/report/page_problems.h"

namespace tolm::testing {
namespace {

using package::Kind;
using publish::FormatPage;
using publish::PageContent;
using publish::Release;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::int64_t kNow = 1800000000;  // 2027-01-15 08:00
constexpr std::int64_t kDay = 86400;
constexpr int kFirst = 1000001;

Release ReleaseOf(const std::string& name, int at, std::int64_t released, std::uint64_t full_bytes,
                  std::uint64_t delta_bytes) {
  Release release;
  release.version = kFirst + at;
  release.released = released;
  release.full = {publish::PackagePath("packages", name, Kind::kFull, release.version), full_bytes,
                  "f"};
  if (delta_bytes > 0) {
    release.delta = publish::DeltaRecord{
        {publish::PackagePath("packages", name, Kind::kDelta, release.version), delta_bytes, "d"},
        {},
        0};
  }
  return release;
}

void AddDatabase(PageContent& content, const std::string& name, int releases) {
  publish::Database& database = content.catalog.databases[name];
  for (int at = 0; at < releases; ++at) {
    database.releases.push_back(ReleaseOf(name, at, kNow - (releases - 1 - at) * 7 * kDay - 60,
                                          8000000 + static_cast<std::uint64_t>(at) * 1000,
                                          at == 0 ? 0 : 50000 + static_cast<std::uint64_t>(at)));
  }
  database.last_fetch_time = database.releases.back().released;
}

PageContent ContentOf(const std::vector<std::string>& names, int releases) {
  PageContent content;
  content.address = "databases.example.com";
  for (const std::string& name : names) {
    AddDatabase(content, name, releases);
  }
  return content;
}

// One of everything.
PageContent Varied() {
  PageContent content = ContentOf({"vendors"}, 4);
  publish::Database& database = content.catalog.databases["vendors"];
  database.deprecated = true;
  database.releases[1].delta->withdrawn = kNow - kDay;
  database.releases[2].withdrawn = kNow - kDay;
  database.releases[3].restores = kFirst + 1;
  database.retired = {{{"packages/vendors/vendors_v1", 3000, "r"}, kNow - 2 * kDay}};
  database.forgotten = {{7, kNow - 9 * kDay, "c"}};
  content.catalog.removed["old"] = {kNow - 3 * kDay, 41, {}, {}};
  return content;
}

// What the tag begins with: a line of its own, a part of one, or nothing that is seen.
std::string SeparatorOf(const std::string& tag) {
  static const std::set<std::string> kLines = {"section", "h2",      "h3",     "p",   "div",
                                               "tr",      "details", "figure", "svg", "figcaption",
                                               "title",   "desc",    "li",     "path"};
  static const std::set<std::string> kParts = {"th", "td", "dt", "dd", "b", "span"};
  return kLines.count(tag) != 0 ? "\n" : kParts.count(tag) != 0 ? " | " : "";
}

std::string AttributesIn(const std::string& tag) {
  std::string seen;
  for (const char* name : {" id=\"", " href=\"", " class=\"", " d=\"", " open=\""}) {
    if (const std::size_t begin = tag.find(name); begin != std::string::npos) {
      const std::size_t value = tag.find('"', begin) + 1;
      seen += '[' + tag.substr(value, tag.find('"', value) - value) + ']';
    }
  }
  return seen;
}

// What stands between the page's head and its foot: the texts, and in brackets what tells them
// apart; of the pictures without their scales.
std::string Seen(const std::string& page) {
  std::string seen;
  for (std::size_t at = page.find("<main>"); at < page.find("</main>");) {
    if (page[at] != '<') {
      const std::size_t end = page.find('<', at);
      const std::string text = page.substr(at, end - at);
      seen += text == "\n" ? "" : text;
      at = end;
      continue;
    }
    const std::string tag = page.substr(at + 1, page.find('>', at) - at - 1);
    const std::string name = tag.substr(0, tag.find(' '));
    at = name == "text" ? page.find("</text>", at) : at + tag.size() + 2;
    const std::string separator = SeparatorOf(name);
    const bool is_at_begin = seen.empty() || seen.back() == '\n';
    seen += is_at_begin ? "" : separator;
    seen += separator.empty() && name != "a" ? "" : AttributesIn(tag);
  }
  return seen;
}

TEST(PublisherPageTest, SaysWhatIsReleasedAndWhatDevicesLoad) {
  const std::string page = FormatPage(Varied(), kNow);
  EXPECT_EQ(ProblemsOfPageText(page), "");
  for (const char* text :
       {"<h1>Databases of databases.example.com</h1>", "1000004", "2027-01-15 07:59",
        "1 package, 3.0 kB, the first since 2027-01-13", "deprecated, 1 withdrawn",
        "withdrawn 2027-01-14", "the files of 1000002 again", "delta not offered since 2027-01-14",
        "50.0 kB, 1 delta", "100 kB, 2 deltas", "8.0 MB, full", "Full package</dt><dd>8.0 MB</dd>",
        "Withdrawn, kept no more</dt><dd>7</dd>", "Databases</dt><dd>1</dd>", ">old</th>",
        ">41</td>"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
}

TEST(PublisherPageTest, OverviewIsNarrowWhereTheScreenIs) {
  EXPECT_THAT(FormatPage(Varied(), kNow),
              HasSubstr("<th scope=\"col\" class=\"t\">Database</th>"
                        "<th scope=\"col\" class=\"s\">Newest</th>"
                        "<th scope=\"col\" class=\"s w\">Released</th>"
                        "<th scope=\"col\" class=\"n\">Age</th>"
                        "<th scope=\"col\" class=\"n w\">Full package</th>"
                        "<th scope=\"col\" class=\"n w\">Newest delta</th>"
                        "<th scope=\"col\" class=\"n w\">Deltas</th>"
                        "<th scope=\"col\" class=\"n w\">Releases</th>"
                        "<th scope=\"col\" class=\"t\">Remarks</th>"));
}

TEST(PublisherPageTest, DeltaThatIsNotOfferedStandsBack) {
  PageContent content = ContentOf({"vendors"}, 2);
  publish::DeltaRecord& delta = *content.catalog.databases["vendors"].releases[1].delta;
  delta.package.size_bytes = 54321;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("<td class=\"n\">54.3 kB</td>"));
  delta.withdrawn = kNow - kDay;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("<td class=\"n quiet\">54.3 kB</td>"));
}

TEST(PublisherPageTest, DeltaThatIsNotOfferedIsDrawnAsThat) {
  PageContent content = ContentOf({"vendors"}, 3);
  EXPECT_THAT(FormatPage(content, kNow), Not(HasSubstr("<path class=\"dim\"")));
  content.catalog.databases["vendors"].releases[1].delta->withdrawn = kNow - kDay;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("<path class=\"dim\""));
}

TEST(PublisherPageTest, SecondReleaseBringsThePictures) {
  const std::string pictures = "<div class=\"pictures\">";
  EXPECT_THAT(FormatPage(ContentOf({"vendors"}, 1), kNow), Not(HasSubstr(pictures)));
  PageContent content = ContentOf({"vendors"}, 2);
  EXPECT_THAT(FormatPage(content, kNow),
              AllOf(HasSubstr(pictures), HasSubstr("<figcaption>Deltas<")));
  content.catalog.databases["vendors"].releases[1].delta.reset();
  EXPECT_THAT(FormatPage(content, kNow),
              AllOf(HasSubstr(pictures), Not(HasSubstr("<figcaption>Deltas<"))));
}

TEST(PublisherPageTest, AgeOfDataIsCountedFromAnyTimeAfter1970) {
  PageContent content = ContentOf({"vendors"}, 1);
  content.catalog.databases["vendors"].last_fetch_time = 0;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("07:59, age not known</dd>"));
  content.catalog.databases["vendors"].last_fetch_time = 1;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("07:59, age 20833 days</dd>"));
}

TEST(PublisherPageTest, FewDatabasesAreOpen) {
  std::vector<std::string> names;
  while (names.size() < report::kFewDatabases) {
    names.push_back("database-" + std::to_string(names.size()));
  }
  EXPECT_THAT(FormatPage(ContentOf(names, 1), kNow), HasSubstr("<details open"));
  names.push_back("one-more");
  EXPECT_THAT(FormatPage(ContentOf(names, 1), kNow), Not(HasSubstr("<details open")));
}

TEST(PublisherPageTest, EmptyRepositoryHasAPage) {
  const std::string page = FormatPage(ContentOf({}, 0), kNow);
  EXPECT_EQ(ProblemsOfPageText(page), "");
  EXPECT_THAT(page, HasSubstr("Nothing has been released yet."));
}

TEST(PublisherPageTest, NamesOfMarkupAreText) {
  const std::vector<std::string> names = {
      "<script>alert(1)<", "a\" onload=\"x",   "'><img src=x>", "&lt;",  "\xE2\x80\xAEgnp.exe",
      "http:\\\\x",        "\xF0\x9F\x93\xA6", "\xFF\x01",      "url(x)"};
  PageContent content = ContentOf(names, 3);
  for (const std::string& name : names) {
    content.catalog.removed["removed " + name] = {kNow, 3, {}, {}};
    publish::RepositoryCertificate certificate;
    certificate.details.subject = "CN=" + name;
    content.certificates.all.push_back(certificate);
  }
  content.address = "\"><script>";
  const std::string page = FormatPage(content, kNow);
  EXPECT_EQ(ProblemsOfPageText(page), "");
  EXPECT_THAT(page, HasSubstr(">&lt;script&gt;alert(1)&lt;</a>"));
  EXPECT_THAT(page, HasSubstr("\\u{202e}gnp.exe"));
  EXPECT_THAT(page, HasSubstr("\\xff\\x01"));
}

TEST(PublisherPageTest, CertificatesHaveTheirEndsAndNoPaths) {
  PageContent content = ContentOf({"vendors"}, 1);
  publish::RepositoryCertificate certificate;
  // Later than any build: certificates are judged at the later one of now and that.
  constexpr std::int64_t kLate = 4102444800;  // 2100-01-01
  certificate.details = {"CN=signing", kLate - kDay, kLate + 30 * kDay + 60, "ff"};
  certificate.file = "/secret/place/signing.pem";
  content.certificates.all = {certificate};
  content.certificates.unreadable = {"/secret/place/info.pem: no such file"};
  content.catalog.databases["vendors"].releases[0].no_delta_reason = "/secret/place/x is damaged";
  const std::string page = FormatPage(content, kLate);
  EXPECT_THAT(page, HasSubstr("<td class=\"n bad\">30 days left</td>"));
  EXPECT_THAT(page, HasSubstr("1 file of certificates could not be read."));
  EXPECT_THAT(page, Not(HasSubstr("/secret")));
}

TEST(PublisherPageTest, DescriptionHasItsCounterAndItsEnd) {
  PageContent content = ContentOf({"vendors"}, 1);
  EXPECT_THAT(FormatPage(content, kNow),
              HasSubstr("Descriptions of this repository are not signed."));
  content.is_signed = true;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("not signed so that devices accept it"));
  content.offer = offer::Offer{};
  content.offer->counter = 1234;
  content.offer->issued = kNow - 3600;
  content.offer->expires = kNow + 9 * kDay;
  content.description_care_seconds = 9 * kDay;
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("<dd>2027-01-24 08:00, 9 days left</dd>"));
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("1,234"));
  EXPECT_THAT(FormatPage(content, kNow), HasSubstr("<dd>2027-01-15 07:00, age 1 h</dd>"));
  EXPECT_THAT(FormatPage(content, content.offer->issued),
              HasSubstr("<dd>2027-01-15 07:00, age 0 s</dd>"));
  EXPECT_THAT(FormatPage(content, kNow - kDay),
              HasSubstr("<dd>2027-01-15 07:00, age not known</dd>"));
  content.description_care_seconds = 10 * kDay;
  EXPECT_THAT(FormatPage(content, kNow),
              HasSubstr("<dd class=\"bad\">2027-01-24 08:00, 9 days left</dd>"));
}

offer::RolloutPlan Plan() {
  return {kNow - kDay, {{500, 2 * kDay}, {2500, kDay}, {offer::kWholeShare, 0}}, {}, false};
}

// The third of three releases is staged.
PageContent Staged() {
  PageContent content = ContentOf({"vendors"}, 3);
  content.catalog.databases["vendors"].rollout = publish::Rollout{kFirst + 1, Plan()};
  return content;
}

TEST(PublisherPageTest, StagedVersionIsDrawn) {
  const std::string page = FormatPage(Staged(), kNow);
  EXPECT_EQ(ProblemsOfPageText(page), "");
  EXPECT_THAT(page, HasSubstr("staged: for 5 % of the devices, 1000002 is stable"));
  EXPECT_THAT(page, HasSubstr("Version 1000003 has reached 5 % of the devices; 25 % of the devices "
                              "from 2027-01-16 08:00 on."));
  EXPECT_THAT(page, HasSubstr("2027-01-14 08:00 5 %; 2027-01-16 08:00 25 %; 2027-01-17 08:00 100 "
                              "%.</desc>"));
}

TEST(PublisherPageTest, WhatIsLoadedIsToldOfTheStableVersionAndTheStagedOne) {
  const std::string page = FormatPage(Staged(), kNow);
  for (const char* text :
       {"Stable version</dt><dd>1000002, for all other devices; full package 8.0 MB",
        "Deltas to that</dt><dd>1, from 1000001 on, together 50.0 kB (0.6 % of the full package)",
        "Staged version</dt><dd>1000003, for 5 % of the devices",
        "Deltas offered</dt><dd>2, from 1000001 on, together 100 kB (1.2 % of the full package)",
        ">A device with it loads to 1000002</th>", ">A device with it loads to 1000003</th>",
        ">What a device loads that is offered 1000002, the stable version</title>",
        ">What a device loads that is offered 1000003, the staged version</title>",
        ">staged, for 5 % of the devices</td>", ">stable</td>"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
  // A stable version without deltas is told beside a staged one with one.
  PageContent content = Staged();
  content.catalog.databases["vendors"].releases[1].delta.reset();
  const std::string without = FormatPage(content, kNow);
  EXPECT_THAT(without, HasSubstr("Deltas to that</dt><dd>none: every device takes the full"));
  EXPECT_THAT(without, HasSubstr("Deltas offered</dt><dd>1, from 1000002 on"));
}

TEST(PublisherPageTest, HeldAndStoppedRolloutsSaySo) {
  PageContent content = Staged();
  offer::RolloutPlan& plan = content.catalog.databases["vendors"].rollout->plan;
  plan.held = kNow - 60;
  EXPECT_THAT(FormatPage(content, kNow),
              HasSubstr("staged: held at 5 % of the devices, 1000002 is stable"));
  plan.stopped = true;
  const std::string page = FormatPage(content, kNow);
  EXPECT_EQ(ProblemsOfPageText(page), "");
  EXPECT_THAT(page, HasSubstr("staged: stopped, 1000002 is stable"));
  EXPECT_THAT(page, HasSubstr("Version 1000003 is stopped: no further device is offered it."));
}

TEST(PublisherPageTest, RolloutIsSaidInWords) {
  offer::RolloutPlan plan = Plan();
  EXPECT_EQ(publish::RolloutText(plan, kNow - 2 * kDay),
            "has reached no device; 5 % of the devices from 2027-01-14 08:00 on");
  EXPECT_EQ(publish::RolloutText(plan, kNow + 9 * kDay), "has reached all devices");
  plan.held = kNow + kDay;
  EXPECT_EQ(publish::RolloutText(plan, kNow + 9 * kDay),
            "is held since 2027-01-16 08:00 at 25 % of the devices");
  plan.stopped = true;
  EXPECT_EQ(publish::RolloutText(plan, kNow), "is stopped: no further device is offered it");
}

TEST(PublisherPageTest, NumbersOfAnySizeAreShown) {
  constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
  for (const std::int64_t time : {std::int64_t{0}, std::int64_t{1}, -kDay, kNow + kDay, kLast}) {
    for (const std::uint64_t bytes :
         {std::uint64_t{0}, std::uint64_t{1}, std::numeric_limits<std::uint64_t>::max()}) {
      PageContent content = ContentOf({"vendors"}, 3);
      publish::Database& database = content.catalog.databases["vendors"];
      database.last_fetch_time = time;
      database.releases.back().version = std::numeric_limits<int>::max();
      for (Release& release : database.releases) {
        release.released = time;
        release.full.size_bytes = bytes;
        release.delta = publish::DeltaRecord{{"d", bytes, "d"}, {}, time};
      }
      database.retired = {{{"r", bytes, "r"}, time}};
      content.is_signed = true;
      content.offer = offer::Offer{};
      content.offer->counter = std::numeric_limits<std::uint64_t>::max();
      content.offer->issued = content.offer->expires = time;
      const std::string page = FormatPage(content, kNow);
      EXPECT_TRUE(time != kLast || ProblemsOfPageText(page).empty()) << bytes;
      EXPECT_THAT(page, HasSubstr("2147483647"));
      EXPECT_THAT(page, Not(HasSubstr("nan")));
      EXPECT_THAT(page, Not(HasSubstr("-9223")));
    }
  }
}

// Each release and each delta has another size.
void VarySizes(publish::Database& database) {
  std::uint64_t factor = 1;
  for (Release& release : database.releases) {
    release.full.size_bytes = 4000000 + 1000000 * factor;
    if (release.delta) {
      release.delta->package.size_bytes = 30000 * factor;
    }
    factor *= 2;
  }
}

TEST(PublisherPageTest, EverythingStandsInItsPlace) {
  PageContent content = Varied();
  AddDatabase(content, "routes", 1);
  publish::Database& database = content.catalog.databases["vendors"];
  VarySizes(database);
  database.retired.push_back({{"packages/vendors/vendors_d1", 4000, "r"}, kNow - 5 * kDay});
  database.forgotten.push_back({9, kNow - 8 * kDay, "c"});
  content.catalog.removed["old"].retired = {{{"packages/old/old_v41", 500, "r"}, kNow - 3 * kDay}};
  content.catalog.removed["older"] = {kNow - 30 * kDay, 5, {}, {}};
  EXPECT_EQ(Seen(FormatPage(content, kNow)), R"(Databases | 2
Last release | 2027-01-15 07:59
Packages offered | 7, 39.4 MB
Retired, not removed yet | 3 packages, 7.5 kB, the first since 2027-01-10
[overview]Overview
[scroll]
[t]Database | [s]Newest | [s w]Released | [n]Age | [n w]Full package | [n w]Newest delta | [n w]Deltas | [n w]Releases | [t]Remarks
[t][#d1]routes | [s]1000001 | [s w]2027-01-15 07:59 | [n]1 min | [n w]8.0 MB | [n w]– | [n w]0 | [n w]1 | [t]
[t][#d2]vendors | [s]1000004 | [s w]2027-01-15 07:59 | [n]1 min | [n w]12.0 MB | [n w]240 kB | [n w]2 | [n w]4 | [t]deprecated, 1 withdrawn
[description]Description
Descriptions of this repository are not signed.
[databases]Databases
[open] | routes | [quiet]1000001, 1 min, 8.0 MB
[d1]
Newest version | 1000001
Released | 2027-01-15 07:59, age 1 min
Full package | 8.0 MB
Deltas offered | none: every device takes the full package
Kept | 1 release from 1000001 on
Retired, not removed yet | none
Releases
[scroll]
[s]Version | [s]Released | [n]A device with it loads | [n w]Full package | [n]Delta | [n w]of the full | [t]Remarks
[s]1000001 | [s]2027-01-15 | [n]nothing | [n w]8.0 MB | [n quiet]– | [n w quiet]– | [t]
[open] | vendors | [quiet]1000004, 1 min, 12.0 MB
[d2]
[warning]Deprecated: devices are told so.
Newest version | 1000004
Released | 2027-01-15 07:59, age 1 min
Full package | 12.0 MB
Deltas offered | 2, from 1000002 on, together 360 kB (3.0 % of the full package)
Kept | 4 releases from 1000001 on
Retired, not removed yet | 2 packages, 7.0 kB, the first since 2027-01-10
Withdrawn, kept no more | 7, 9
[pictures]
Full packages
[chart]
[d2-full-t]Full packages
[d2-full-d]Size of the full package by version. 4 bars: least 5 MB (1000001), most 12 MB (1000004), last 12 MB (1000004).
[full][M1 1000v-333h8v333zM11 1000v-400h8v400zM31 1000v-800h8v800z]
[bad][M21 1000v-533h8v533z]
[swatch full]released
[swatch bad]withdrawn
Deltas
[chart]
[d2-delta-t]Deltas
[d2-delta-d]Size of the delta to each version from the one before. 4 bars: least 0 B (1000001), most 240 kB (1000004), last 240 kB (1000004).
[delta][M21 1000v-400h8v400zM31 1000v-800h8v800z]
[dim][M11 1000v-200h8v200z]
[swatch delta]offered
[swatch dim]not offered any more
What a device at each version loads
[chart]
[d2-loads-t]What a device at each version loads
[d2-loads-d]Bytes that a device with each version loads to come to the newest one. 4 bars: least 0 B (1000004), most 12 MB (1000001), last 0 B (1000004).
[delta][M11 1000v-24h8v24zM21 1000v-16h8v16z]
[full][M1 1000v-800h8v800z]
[swatch delta]deltas
[swatch full]the full package
Releases
[scroll]
[s]Version | [s]Released | [n]A device with it loads | [n w]Full package | [n]Delta | [n w]of the full | [t]Remarks
[s]1000004 | [s]2027-01-15 | [n]nothing | [n w]12.0 MB | [n]240 kB | [n w quiet]2.0 % | [t]the files of 1000002 again
[s]1000003 | [s]2027-01-08 | [n]240 kB, 1 delta | [n w]8.0 MB | [n]120 kB | [n w quiet]1.5 % | [t bad]withdrawn 2027-01-14
[s]1000002 | [s]2027-01-01 | [n]360 kB, 2 deltas | [n w]6.0 MB | [n quiet]60.0 kB | [n w quiet]1.0 % | [t]delta not offered since 2027-01-14
[s]1000001 | [s]2026-12-25 | [n]12.0 MB, full | [n w]5.0 MB | [n quiet]– | [n w quiet]– | [t]
[removed]Not offered any more
[scroll]
[t]Database | [s]Newest was | [s]Removed | [t w]Retired, not removed yet
[t]old | [s]41 | [s]2027-01-12 08:00 | [t w]1 package, 500 B, the first since 2027-01-12
[t]older | [s]5 | [s]2026-12-16 08:00 | [t w quiet]none)");
}

TEST(PublisherPageTest, OpenRolloutStandsInItsPlace) {
  PageContent content = ContentOf({"vendors"}, 4);
  publish::Database& database = content.catalog.databases["vendors"];
  VarySizes(database);
  database.rollout = publish::Rollout{kFirst + 1, Plan()};
  EXPECT_EQ(Seen(FormatPage(content, kNow)), R"(Databases | 1
Last release | 2027-01-15 07:59
Packages offered | 7, 31.4 MB
Retired, not removed yet | none
[overview]Overview
[scroll]
[t]Database | [s]Newest | [s w]Released | [n]Age | [n w]Full package | [n w]Newest delta | [n w]Deltas | [n w]Releases | [t]Remarks
[t][#d1]vendors | [s]1000004 | [s w]2027-01-15 07:59 | [n]1 min | [n w]12.0 MB | [n w]240 kB | [n w]3 | [n w]4 | [t]staged: for 5 % of the devices, 1000002 is stable
[description]Description
Descriptions of this repository are not signed.
[databases]Databases
[open] | vendors | [quiet]1000002, staged 1000004, 1 min, 12.0 MB
[d1]
Stable version | 1000002, for all other devices; full package 6.0 MB
Deltas to that | 1, from 1000001 on, together 60.0 kB (1.0 % of the full package)
Staged version | 1000004, for 5 % of the devices
Released | 2027-01-15 07:59, age 1 min
Full package | 12.0 MB
Deltas offered | 3, from 1000001 on, together 420 kB (3.5 % of the full package)
Kept | 4 releases from 1000001 on
Retired, not removed yet | none
Version 1000004 has reached 5 % of the devices; 25 % of the devices from 2027-01-16 08:00 on.
[pictures]
Version 1000004: share of the devices
[chart]
[d1-stages-t]Version 1000004: share of the devices
[d1-stages-d]Share of the devices that are offered it, by time: 2027-01-14 08:00 5 %; 2027-01-16 08:00 25 %; 2027-01-17 08:00 100 %.
[delta][M0 1000H0V950H500V750H750V0H1000V1000z]
[pictures]
Full packages
[chart]
[d1-full-t]Full packages
[d1-full-d]Size of the full package by version. 4 bars: least 5 MB (1000001), most 12 MB (1000004), last 12 MB (1000004).
[full][M1 1000v-333h8v333zM11 1000v-400h8v400zM21 1000v-533h8v533zM31 1000v-800h8v800z]
Deltas
[chart]
[d1-delta-t]Deltas
[d1-delta-d]Size of the delta to each version from the one before. 4 bars: least 0 B (1000001), most 240 kB (1000004), last 240 kB (1000004).
[delta][M11 1000v-200h8v200zM21 1000v-400h8v400zM31 1000v-800h8v800z]
What a device loads that is offered 1000002, the stable version
[chart]
[d1-stable-loads-t]What a device loads that is offered 1000002, the stable version
[d1-stable-loads-d]Bytes that a device with each version loads to come to 1000002. 2 bars: least 0 B (1000002), most 60 kB (1000001), last 0 B (1000002).
[delta][M1 1000v-1000h8v1000z]
What a device loads that is offered 1000004, the staged version
[chart]
[d1-loads-t]What a device loads that is offered 1000004, the staged version
[d1-loads-d]Bytes that a device with each version loads to come to 1000004. 4 bars: least 0 B (1000004), most 420 kB (1000001), last 0 B (1000004).
[delta][M1 1000v-700h8v700zM11 1000v-600h8v600zM21 1000v-400h8v400z]
Releases
[scroll]
[s]Version | [s]Released | [n]A device with it loads to 1000002 | [n w]A device with it loads to 1000004 | [n w]Full package | [n]Delta | [n w]of the full | [t]Remarks
[s]1000004 | [s]2027-01-15 | [n]– | [n w]nothing | [n w]12.0 MB | [n]240 kB | [n w quiet]2.0 % | [t]staged, for 5 % of the devices
[s]1000003 | [s]2027-01-08 | [n]– | [n w]240 kB, 1 delta | [n w]8.0 MB | [n]120 kB | [n w quiet]1.5 % | [t]
[s]1000002 | [s]2027-01-01 | [n]nothing | [n w]360 kB, 2 deltas | [n w]6.0 MB | [n]60.0 kB | [n w quiet]1.0 % | [t]stable
[s]1000001 | [s]2026-12-25 | [n]60.0 kB, 1 delta | [n w]420 kB, 3 deltas | [n w]5.0 MB | [n quiet]– | [n w quiet]– | [t])");
}

TEST(PublisherPageTest, CertificatesAndDescriptionStandInTheirPlace) {
  constexpr std::int64_t kLate = 4102444800;  // 2100-01-01, later than any build
  PageContent content = ContentOf({}, 0);
  content.is_signed = true;
  content.offer = offer::Offer{};
  content.offer->repository = "databases.example.com";
  content.offer->counter = 12;
  content.offer->issued = kLate - 3 * kDay;
  content.offer->expires = kLate - 2 * kDay;
  const auto add = [&content](publish::CertificateRole role, const char* subject,
                              std::int64_t begin, std::int64_t end, bool is_needed) {
    publish::RepositoryCertificate certificate;
    certificate.role = role;
    certificate.details = {subject, begin, end, "ff"};
    certificate.is_needed = is_needed;
    content.certificates.all.push_back(certificate);
  };
  using publish::CertificateRole;
  add(CertificateRole::kSigning, "CN=a", kLate - kDay, kLate + 60 * kDay + 9, true);
  add(CertificateRole::kDescriptions, "CN=b", kLate - kDay, kLate - 1, true);
  add(CertificateRole::kAuthority, "CN=c", kLate + 1, kLate + 90 * kDay, true);
  add(CertificateRole::kRoot, "CN=d", kLate, kLate + 61 * kDay, true);
  add(CertificateRole::kPackages, "CN=e", kLate - kDay, kLate, false);
  content.certificates.unreadable = {"a", "b"};
  EXPECT_EQ(Seen(FormatPage(content, kLate)), R"(Databases | 0
Last release | none yet
Packages offered | 0, 0 B
Retired, not removed yet | none
[overview]Overview
Nothing has been released yet.
[description]Description
Signed for repository | databases.example.com
Counter | 12
Issued | 2099-12-29 00:00, age 3 days
Valid until | [bad]2099-12-30 00:00, ended 1 day ago
[certificates]Certificates
[warning]2 files of certificates could not be read. “tolmdbpub check” says why.
[scroll]
[t]Certificate | [t]Use | [s]Valid until | [n]Left
[t]CN=a | [t bad]signs packages | [s bad]2100-03-02 00:00 | [n bad]60 days left
[t]CN=b | [t bad]signs descriptions | [s bad]2099-12-31 23:59 | [n bad]ended less than a day ago
[t]CN=c | [t]authority | [s]2100-04-01 00:00 | [n]not valid yet
[t]CN=d | [t]root, trusted by devices | [s]2100-03-03 00:00 | [n]61 days left
[t]CN=e | [t quiet]has signed an oldest or newest release; nothing offered needs it | [s quiet]2100-01-01 00:00 | [n quiet]less than a day left)");
  content.certificates.all.clear();
  EXPECT_THAT(Seen(FormatPage(content, kLate)),
              EndsWith("[certificates]Certificates\n[warning]2 files of certificates could not be "
                       "read. \xE2\x80\x9Ctolmdbpub check\xE2\x80\x9D says why."));
  content.certificates.unreadable.clear();
  EXPECT_THAT(Seen(FormatPage(content, kLate)), Not(HasSubstr("ertificates")));
}

TEST(PublisherPageTest, LargeRepositoryIsBoundedAndReadable) {
  constexpr std::size_t kMostBytes = 2500000;
  std::vector<std::string> names;
  for (int at = 0; at < 100; ++at) {
    names.push_back("database-" + std::to_string(at));
  }
  PageContent content = ContentOf(names, 200);
  const std::string page = FormatPage(content, kNow);
  EXPECT_LT(page.size(), kMostBytes);
  EXPECT_THAT(page, HasSubstr("The newest 20 of 200 releases."));
  EXPECT_THAT(page, Not(HasSubstr("<details open")));
  content.has_all = true;
  EXPECT_THAT(FormatPage(content, kNow), Not(HasSubstr("The newest 20 of 200 releases.")));
}

}  // namespace
}  // namespace tolm::testing
