#include "publish/check.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <climits>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "package/layout.h"
#include "package/package_writer.h"
#include "package/signature.h"
#include "publish/files.h"
#include "publish/prune.h"
#include "publish/repository.h"
#include "publish/signed_description.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CheckDescriptionTest : public ReleaseFixture {
 protected:
  CheckDescriptionTest() { InitRepository(NewRepository(), kNow); }

  publish::CheckReport Check() {
    publish::CheckRequest request;
    request.repository = Path("repo");
    return CheckRepository(request, kNow, [](const publish::Step&) {});
  }

  // The only file that is served.
  std::string Description() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Path("repo/public"))) {
      if (entry.is_regular_file()) {
        return entry.path();
      }
    }
    return "";
  }
};

TEST_F(CheckDescriptionTest, SignedOneOfARepositoryThatSignsNoneIsWrong) {
  EXPECT_THAT(Check().wrong, IsEmpty());
  const std::string description = Description();
  std::string content = ReadFile(description);
  WriteFile(description,
            content.insert(content.find('{') + 1, R"("signed": "{}", "signature": "AAAA",)"));
  const publish::CheckReport report = Check();
  EXPECT_THAT(report.wrong,
              Contains(description + ": is signed, and the settings have no info key"));
  EXPECT_EQ(report.problems.at("signature"), 1u);
}

// Releases of noise at kNow + 1 and on, of which each adds some bytes.
class CheckRepositoryTest : public ReleaseFixture {
 protected:
  void Init(const publish::InitRequest& request) { InitRepository(request, now_); }

  void Make(const std::string& text) {
    ++now_;
    WriteFile(Path("tree/n"), Noise(20000, 2) + text);
    MakeRelease(
        NewRelease(), now_, [](const std::string&) {}, [](const publish::Step&) {});
  }

  // A release of another database.
  void MakeGeo(const Tree& files) {
    ++now_;
    publish::ReleaseRequest request = NewRelease();
    request.name = "geo";
    request.directory = Path("geo");
    fs::remove_all(request.directory);
    MakeTree(request.directory, files);
    WriteFile(Path("geo/n"), Noise(20000, 3));  // Else a delta would be no smaller.
    MakeRelease(
        request, now_, [](const std::string&) {}, [](const publish::Step&) {});
  }

  publish::CheckReport Check() {
    steps_.clear();
    request_.repository = Path("repo");
    return CheckRepository(request_, now_, [this](const publish::Step& step) {
      steps_.push_back(std::string(step.what) + ' ' + std::to_string(step.done) + '/' +
                       std::to_string(step.total));
    });
  }

  // All but the sentences.
  static std::string Counts(const publish::CheckReport& report) {
    std::string text = "packages " + std::to_string(report.packages);
    for (const auto& [compression, count] : report.compressions) {
      text += ' ' + compression + ' ' + std::to_string(count);
    }
    text += ", older " + std::to_string(report.older_packages) + ", replayed " +
            std::to_string(report.replayed) + ", remembered " + std::to_string(report.remembered) +
            ", together " + std::to_string(report.together) + ", without start " +
            std::to_string(report.without_start);
    return text + (report.certificates_need_care ? ", care" : "");
  }

  // Of each part that has found some, how many.
  static std::string Problems(const publish::CheckReport& report) {
    std::string text;
    for (const auto& [part, count] : report.problems) {
      text += count == 0 ? "" : (text.empty() ? "" : ", ") + part + ' ' + std::to_string(count);
    }
    return text;
  }

  void ChangeCatalog(const std::function<void(publish::Database&)>& change) {
    publish::RepositoryChange repository(Path("repo"), [](const std::string&) {});
    repository.Begin("test");
    change(repository.catalog.databases.at("oui"));
    repository.Commit();
  }

  std::string InPublic(const std::string& package) const {
    return Path("repo/public/packages/oui/oui_" + package);
  }

  std::string Description() const { return Path("repo/public/database_info/1"); }

  // Puts something else in place of a package, which the repository knows by its digest.
  void Replace(const std::string& package, const std::string& content,
               publish::PackageRecord& record) const {
    WriteFile(InPublic(package), content);
    record.size_bytes = content.size();
    record.sha384 = publish::Sha384OfText(content);
  }

  std::time_t now_ = kNow;
  publish::CheckRequest request_;
  std::vector<std::string> steps_;
};

TEST_F(CheckRepositoryTest, ReportSaysHowMuchWasLookedAtAndEachPartThatWas) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  WriteFile(Path("repo/state/checked/gone/results.json"), "of a database that was removed");
  WriteFile(Path("repo/state/work/left"), "by a command that was cut short");
  const publish::CheckReport report = Check();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_THAT(report.remarks, IsEmpty());
  EXPECT_EQ(Counts(report),
            "packages 5 zstd 5, older 0, replayed 2, remembered 0, together 0, without start 0");
  EXPECT_THAT(report.problems,
              ElementsAre(::testing::Pair("description", 0u), ::testing::Pair("files", 0u),
                          ::testing::Pair("offers", 0u), ::testing::Pair("packages", 0u),
                          ::testing::Pair("revocations", 0u), ::testing::Pair("rollouts", 0u),
                          ::testing::Pair("signature", 0u)));
  EXPECT_THAT(steps_, ElementsAre("checking packages 0/5", "checking packages 1/5",
                                  "checking packages 2/5", "checking packages 3/5",
                                  "checking packages 4/5", "replaying 0/2", "replaying 1/2"));
  EXPECT_THAT(ListTree(Path("repo/state/work")), IsEmpty());
  EXPECT_THAT(ListTree(Path("repo/state/checked")), ElementsAre("oui/", "oui/results.json"));
  EXPECT_EQ(Counts(Check()),
            "packages 5 zstd 5, older 0, replayed 0, remembered 2, together 0, without start 0");
  request_.again = true;
  EXPECT_EQ(Counts(Check()),
            "packages 5 zstd 5, older 0, replayed 2, remembered 0, together 0, without start 0");
  request_.quick = true;
  EXPECT_EQ(Counts(Check()),
            "packages 5 zstd 5, older 0, replayed 0, remembered 0, together 0, without start 0");
}

TEST_F(CheckRepositoryTest, EachDatabaseIsProvedAndRememberedByItself) {
  Init(NewRepository());
  Make("1");
  Make("2");
  // From the first of these, one update is another matter than one after the other.
  MakeGeo({{"d", "1"}});
  MakeGeo({{"d/b", "2"}});
  MakeGeo({{"d/b", "3"}});
  const std::string work = Path("repo/state/work");
  WriteFile(work + "/0", "by a command that was cut short");
  std::vector<std::string> told;
  request_.repository = Path("repo");
  const publish::CheckReport report =
      CheckRepository(request_, now_, [&](const publish::Step& step) {
        if (step.what == std::string("replaying")) {
          told.push_back(std::to_string(step.done) + '/' + std::to_string(step.total) +
                         (step.done == 2 && !ListTree(work).empty() ? " beside another's" : ""));
        }
      });
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_THAT(report.remarks, IsEmpty());
  EXPECT_EQ(Counts(report).substr(Counts(report).find(", older")),
            ", older 0, replayed 3, remembered 0, together 1, without start 0");
  EXPECT_THAT(told, ElementsAre("0/3", "1/3", "2/3"));
  // As many deltas are applied now as updates of several.
  MakeGeo({{"d/b", "4"}});
  const auto counts = [this] {
    const std::string text = Counts(Check());
    return text.substr(text.find("replayed"));
  };
  EXPECT_EQ(counts(), "replayed 1, remembered 3, together 1, without start 0");
  const std::string results = Path("repo/state/checked/geo/results.json");
  fs::create_hard_link(results, Path("results"));
  EXPECT_EQ(counts(), "replayed 0, remembered 4, together 0, without start 0");
  EXPECT_TRUE(fs::equivalent(results, Path("results"))) << "nothing new was proved";
}

TEST_F(CheckRepositoryTest, ReleaseIsRecentToTheSecondInWhichItsDaysAreOver) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  request_.since_days = 3;
  now_ = kNow + 2 + 3 * 86400;
  EXPECT_EQ(Counts(Check()),
            "packages 5 zstd 5, older 0, replayed 2, remembered 0, together 0, without start 0");
  request_.again = true;
  ++now_;
  EXPECT_EQ(Counts(Check()),
            "packages 3 zstd 3, older 2, replayed 1, remembered 0, together 0, without start 0");
  ++now_;
  EXPECT_EQ(Counts(Check()),
            "packages 0, older 5, replayed 0, remembered 0, together 0, without start 0");
  // Only the size of those is looked at.
  ChangeByte(InPublic("v1000003"), 100);
  EXPECT_THAT(Check().wrong, IsEmpty());
  fs::resize_file(InPublic("v1000003"), 99);
  fs::remove(InPublic("d1000002"));
  const publish::CheckReport report = Check();
  EXPECT_THAT(report.wrong,
              ElementsAre("packages/oui/oui_d1000002: No such file or directory",
                          "packages/oui/oui_v1000003: not the package that was released"));
  EXPECT_EQ(Problems(report), "packages 2");
}

TEST_F(CheckRepositoryTest, EachFaultIsSaidOnceAndCountedWhereItWasFound) {
  Init(NewRepository());
  Make("1");
  Make("2");
  WriteFile(Path("repo/public/stray"), "");
  ChangeByte(InPublic("d1000002"), 100);
  ReplaceInFile(Description(), "\"sha384\":\"", "\"sha384\":\"0");
  ReplaceInFile(Description(), "\"file_size\":", "\"file_size\":1");
  const publish::CheckReport report = Check();
  EXPECT_THAT(
      report.wrong,
      ElementsAre(
          Description() + ": not what the catalog says", "stray: does not belong here",
          "packages/oui/oui_d1000002: not the package that was released",
          "oui: http://example.org/packages/oui/oui_v1000002: the stated digest is not the "
          "file's",
          "oui: http://example.org/packages/oui/oui_d1000002: the stated size is not the "
          "file's",
          "oui: by the delta from 1000001 to 1000002: the delta to 1000002 cannot be used"));
  EXPECT_EQ(Problems(report), "description 1, files 1, offers 3, packages 1");
  EXPECT_THAT(report.remarks, IsEmpty());
}

TEST_F(CheckRepositoryTest, WhatIsOfferedMustBeThereAndLeadToTheVersion) {
  Init(NewRepository());
  Make("1");
  Make("2");
  const std::string good = ReadFile(Description());
  const std::string beside = Description() + ": not what the catalog says";
  const std::string link = "oui: http://example.org/packages/oui/";
  struct Row {
    const char* from;
    const char* to;
    std::vector<std::string> wrong;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"\"1000002\",\"dep",
            "\"1000001\",\"dep",
            {link + "oui_v1000002: no package of version 1000001",
             "oui: the text \"1000001\" occurs 0 times in "
             "http://example.org/packages/oui/oui_v1000002, and a device that force-installs an "
             "older version rewrites every one of them",
             "oui: the delta to 1000002 is not one of a chain that leads to 1000001"}},
           {"oui_d1000002", "oui_v1000002", {link + "oui_v1000002: no package of version 1000002"}},
           {"oui_d1000002", "oui_d1000001", {link + "oui_d1000001: no package of version 1000002"}},
           {"{\"1000002\":",
            "{\"1000003\":",
            {"oui: the delta to 1000003 is not one of a chain that leads to 1000002"}},
           {"\"data_version\":\"1000002\"",
            "\"data_version\":\"x\"",
            {Description() + ": \"x\" is no version"}}}) {
    SCOPED_TRACE(row.to);
    WriteFile(Description(), good);
    ReplaceInFile(Description(), row.from, row.to);
    std::vector<std::string> wrong = Check().wrong;
    // A link that was altered leads to a file of another size, too.
    EXPECT_EQ(wrong.front(), beside);
    wrong.erase(wrong.begin());
    wrong.resize(std::min(wrong.size(), row.wrong.size()));
    EXPECT_EQ(wrong, row.wrong);
  }
  // That there is none is said once.
  fs::remove(Description());
  EXPECT_THAT(Check().wrong, ElementsAre(beside));
}

TEST_F(CheckRepositoryTest, WhatAnInterruptedCommandLeftIsRemarkedAndNotWrong) {
  Init(NewRepository());
  Make("1");
  const std::string before = ReadFile(Description());
  Make("2");
  fs::copy_file(InPublic("v1000002"), InPublic("v1000003"));
  WriteFile(Description(), before);
  EXPECT_THAT(Check().wrong, ElementsAre(Description() + ": not what the catalog says",
                                         "packages/oui/oui_v1000003: does not belong here"));
  WriteFile(Path("repo/state/unfinished"), "release of oui 1000003");
  publish::CheckReport report = Check();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_THAT(report.remarks,
              ElementsAre("interrupted: release of oui 1000003",
                          "the description is still the one before; the next command replaces it",
                          "packages/oui/oui_v1000003: not released; the next command removes it"));
  // Neither a file of another kind nor another description is its own.
  WriteFile(InPublic("v1000003.tmp"), "");
  ReplaceInFile(Description(), "\"deprecated\":false", "\"deprecated\":true");
  report = Check();
  EXPECT_THAT(report.wrong, ElementsAre(Description() + ": not what the catalog says",
                                        "packages/oui/oui_v1000003.tmp: does not belong here"));
  EXPECT_THAT(report.remarks, ::testing::SizeIs(2));
}

TEST_F(CheckRepositoryTest, WhoHasSignedAPackageThatWasRetiredIsNoMatter) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeCatalog(
      [this](publish::Database& oui) { Replace("v1000001", "no package", oui.releases[0].full); });
  publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0], ::testing::StartsWith("packages/oui/oui_v1000001: "));
  EXPECT_EQ(Counts(report),
            "packages 3 zstd 2, older 0, replayed 0, remembered 0, together 0, without start 1");
  publish::Prune({Path("repo"), "oui", 1, 9}, now_, [](const std::string&) {});
  report = Check();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(Counts(report),
            "packages 3 zstd 2, older 0, replayed 0, remembered 0, together 0, without start 1");
  publish::RemoveDatabase({Path("repo"), "oui", true}, now_, [](const std::string&) {});
  report = Check();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.packages, 3u);
}

// Well signed, and recorded by its digest.
TEST_F(CheckRepositoryTest, PackageUnderAnothersNameIsWrong) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeCatalog([this](publish::Database& oui) {
    Replace("v1000001", ReadFile(InPublic("v1000002")), oui.releases[0].full);
  });
  const publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0], ::testing::StartsWith("packages/oui/oui_v1000001: "));
  EXPECT_EQ(Problems(report), "packages 1");
}

TEST_F(CheckRepositoryTest, PackageOfAnotherSignerIsWrong) {
  Init(NewRepository());
  Make("1");
  publish::GenerateKeys(Path("others"), now_);
  const package::Signer others =
      publish::LoadSigner(Path("others/signing.key"), Path("others/signing.pem"));
  package::WritePackage(Path("tree"), Path("oui_v1000001"), {"oui", package::Kind::kFull, 1000001},
                        {}, others, now_);
  ChangeCatalog([this](publish::Database& oui) {
    Replace("v1000001", ReadFile(Path("oui_v1000001")), oui.releases[0].full);
  });
  const publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0], ::testing::StartsWith("packages/oui/oui_v1000001: "));
  EXPECT_EQ(Problems(report), "packages 1");
}

// Well signed, and cut short before.
TEST_F(CheckRepositoryTest, PackageThatCannotBeReadToItsEndIsWrongUnlessTheCheckIsQuick) {
  Init(NewRepository());
  WriteFile(Path("tree/large"), Noise(600000, 4));
  Make("1");
  const std::string path = Path("cut");
  WriteFile(path, ReadFile(InPublic("v1000001")).substr(0, 500000));
  const base::Descriptor cut(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const std::string signature = package::SignPayload(
      cut.Get(), 500000, publish::LoadSigner(Path("keys/signing.key"), Path("keys/signing.pem")));
  ChangeCatalog([&](publish::Database& oui) {
    Replace("v1000001", ReadFile(path) + signature + package::FormatTrailer(signature.size()),
            oui.releases[0].full);
  });
  const publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0], ::testing::StartsWith("packages/oui/oui_v1000001: "));
  request_.quick = true;
  EXPECT_THAT(Check().wrong, IsEmpty());
}

// As where a command was interrupted, and what it began is not known any more.
TEST_F(CheckRepositoryTest, DescriptionThatOffersWhatWasTakenAwayIsWrongAndAllElseLookedAt) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  const std::string before = ReadFile(Description());
  const auto expect_stale = [&](const std::string& counts) {
    WriteFile(Description(), before);
    const publish::CheckReport report = Check();
    EXPECT_THAT(report.wrong, ElementsAre(Description() + ": not what the catalog says"));
    EXPECT_EQ(Counts(report), counts);
  };
  publish::Prune({Path("repo"), "oui", 1, 9}, now_, [](const std::string&) {});
  expect_stale("packages 5 zstd 5, older 0, replayed 0, remembered 0, together 0, without start 1");
  publish::RemoveDatabase({Path("repo"), "oui", true}, now_, [](const std::string&) {});
  expect_stale("packages 5 zstd 5, older 0, replayed 0, remembered 0, together 0, without start 2");
}

TEST_F(CheckRepositoryTest, DescriptionThatDevicesMaySoonRefuseIsRemarked) {
  Init(NewRepository());
  std::string large = ReadFile(Description());
  large.append((4 << 20) - large.size(), ' ');
  WriteFile(Description(), large);
  EXPECT_THAT(Check().remarks, ElementsAre("the description has 4194304 bytes; devices refuse one "
                                           "of more than 4194304"));
}

TEST_F(CheckRepositoryTest, DeltaOfMoreBytesThanDevicesCountIsWrong) {
  Init(NewRepository());
  Make("1");
  Make("2");
  for (const auto& [bytes, is_too_large] :
       {std::pair<std::uint64_t, bool>{INT_MAX, false}, {std::uint64_t{INT_MAX} + 1, true}}) {
    ChangeCatalog([bytes = bytes](publish::Database& oui) {
      oui.releases[1].delta->package.size_bytes = bytes;
    });
    const std::string sentence =
        "oui: http://example.org/packages/oui/oui_d1000002: too large for devices to count its "
        "bytes";
    EXPECT_EQ(::testing::Matches(Contains(sentence))(Check().wrong), is_too_large) << bytes;
  }
}

TEST_F(CheckRepositoryTest, WhatIsToBeSeenToIsRemarked) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeCatalog([](publish::Database& oui) { oui.releases[0].withdrawn = kNow + 60; });
  request_.min_days = 1095;
  now_ = kNow;
  publish::CheckReport report = Check();
  EXPECT_THAT(report.remarks, ElementsAre("oui 1000001 was withdrawn on 2027-01-15 08:01"));
  EXPECT_FALSE(report.certificates_need_care);
  request_.min_days = 1096;
  report = Check();
  EXPECT_TRUE(report.certificates_need_care);
  ASSERT_EQ(report.remarks.size(), 2u);
  EXPECT_THAT(report.remarks[0], ::testing::HasSubstr(Path("keys/signing.pem")));
  EXPECT_THAT(report.wrong, IsEmpty());
}

TEST_F(CheckRepositoryTest, RolloutThatNoSignedDescriptionSaysIsWrong) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeCatalog([](publish::Database& oui) {
    oui.rollout = publish::Rollout{1000001, {kNow, {{100, 3600}, {10000, 0}}, {}, false}};
  });
  const publish::CheckReport report = Check();
  EXPECT_THAT(
      report.wrong,
      ElementsAre("oui: a rollout is open, and the descriptions that could say so are not signed"));
  EXPECT_EQ(Problems(report), "rollouts 1");
  ASSERT_EQ(report.remarks.size(), 1u);
  EXPECT_THAT(report.remarks[0], ::testing::StartsWith("oui 1000002 "));
}

TEST_F(CheckRepositoryTest, DescriptionThatEndsWithItsSignersCertificateNeedsAnotherOne) {
  now_ = std::time(nullptr);
  Init(NewSignedRepository(now_ - (publish::kInfoDays - 5) * std::int64_t{86400}));
  const publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0],
              ::testing::AllOf(
                  ::testing::StartsWith(Description() + ": is valid until "),
                  ::testing::EndsWith("; its signer's certificate ends then: \"tolmdbpub set " +
                                      Path("repo") +
                                      " --info-key KEY --info-cert FILE\" takes "
                                      "another")));
}

// Descriptions are signed by the clock.
class CheckSignatureTest : public CheckRepositoryTest {
 protected:
  CheckSignatureTest() {
    now_ = std::time(nullptr);
    Init(NewSignedRepository(now_));
    const auto verified = VerifyDescription(
        ReadFile(Description()), publish::LoadSettings(Path("repo/state/settings.json")), now_);
    expires_ = verified->offer.expires;
    counter_ = verified->offer.counter;
  }

  void SetCounter(std::uint64_t counter) const {
    const std::string path = Path("repo/state/catalog.json");
    publish::Catalog catalog = publish::LoadCatalog(path);
    catalog.counter = counter;
    WriteFile(path, FormatCatalog(catalog));
  }

  void Expect(const std::vector<std::string>& wrong, const std::vector<std::string>& remarks = {}) {
    const publish::CheckReport report = Check();
    EXPECT_EQ(report.wrong, wrong);
    EXPECT_EQ(report.remarks, remarks);
    EXPECT_EQ(Problems(report), wrong.empty() ? "" : "signature " + std::to_string(wrong.size()));
  }

  const std::string where_ = Description() + ": ";
  const std::string refresh_ = "; \"tolmdbpub refresh " + Path("repo") + "\" signs it anew";
  std::int64_t expires_ = 0;
  std::uint64_t counter_ = 0;
};

TEST_F(CheckSignatureTest, DescriptionThatEndsSoonIsWrongFromTheFirstSecondOn) {
  Expect({});
  now_ = expires_ - 10 * 86400;
  Expect({});
  ++now_;
  const publish::CheckReport report = Check();
  ASSERT_EQ(report.wrong.size(), 1u);
  EXPECT_THAT(report.wrong[0],
              ::testing::AllOf(
                  ::testing::StartsWith(where_ + "is valid until "),
                  ::testing::EndsWith(" UTC only, and devices refuse it from then on" + refresh_)));
}

TEST_F(CheckSignatureTest, CounterIsNotBelowThatOfOneSignedBefore) {
  SetCounter(counter_ - 1);
  Expect({});
  SetCounter(counter_);
  Expect({});
  SetCounter(counter_ + 1);
  Expect({where_ + "its counter, " + std::to_string(counter_) +
          ", is below that of one signed before, " + std::to_string(counter_ + 1) +
          ", and devices refuse it" + refresh_});
}

// Whose members besides are what the catalog says.
TEST_F(CheckSignatureTest, SignedTextOfAnotherRepositoryIsWrong) {
  publish::Settings settings = publish::LoadSettings(Path("repo/state/settings.json"));
  settings.identity = std::string(32, '7');
  const publish::DescriptionSigner signer(settings, "", now_);
  WriteFile(Description(), signer.Sign(publish::LoadCatalog(Path("repo/state/catalog.json")),
                                       settings, counter_, now_));
  Expect({where_ + "its signed part is not what the catalog says" + refresh_});
}

TEST_F(CheckSignatureTest, DescriptionWithoutASignatureIsWrongUnlessACommandWasInterrupted) {
  publish::Catalog catalog = publish::LoadCatalog(Path("repo/state/catalog.json"));
  const std::string plain = DescribeCatalog(catalog, {"http", "example.org"});
  WriteFile(Description(), plain);
  Expect({where_ + "is not signed" + refresh_});
  WriteFile(Path("repo/state/unfinished"), "set");
  Expect({}, {"interrupted: set", "the description is not signed yet; the next command signs it"});
  fs::remove(Path("repo/state/unfinished"));
  WriteFile(Description(), "{\"signed\":7," + plain.substr(1));
  const publish::CheckReport report = Check();
  EXPECT_EQ(report.problems.at("signature"), 1u);
  EXPECT_THAT(report.wrong.back(), ::testing::EndsWith(refresh_));
}

}  // namespace
}  // namespace tolm::testing
