#include "publish/page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "publish/rollout_picture.h"
#include "tests/report/page_problems.h"

namespace tolm::testing {
namespace {

using package::Kind;
using publish::FormatPage;
using publish::PageContent;
using publish::Release;
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
  EXPECT_THAT(FormatPage(ContentOf({"vendors"}, 2), kNow), HasSubstr(pictures));
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
  content.description_care_seconds = 8 * kDay;
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
