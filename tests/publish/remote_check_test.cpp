#include "publish/remote_check.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "publish/description.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/rollout.h"
#include "publish/settings.h"
#include "publish/signed_description.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/http_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kDescription[] = "database_info/1";
constexpr char kDelta[] = "packages/oui/oui_d1000002";
constexpr char kTwo[] = "packages/oui/oui_v1000002";

/// A repository with two releases, and a folder with what it serves.
class RemoteCheckTest : public ReleaseFixture {
 protected:
  void Prepare(const publish::InitRequest& order) {
    InitRepository(order, now_);
    WriteFile(Path("tree/filler"), Noise(10000, 7));
    ReleaseAt(now_, "a");
    fs::copy(Path("repo/public"), Path("older"), fs::copy_options::recursive);
    ReleaseAt(now_ + 3600, "b");
    fs::copy(Path("repo/public"), Path("store"), fs::copy_options::recursive);
  }
  void ReleaseAt(std::time_t now, const std::string& text, const std::string& name = "oui") {
    publish::ReleaseRequest request = NewRelease();
    request.name = name;
    WriteFile(Path("tree/a.txt"), text);
    MakeRelease(
        request, now, [](const std::string&) {}, [](const publish::Step&) {});
  }
  publish::RemoteCheckReport Check(const std::string& store = "store", bool quick = false) {
    steps_.clear();
    return publish::CheckRemote(
        {Path("repo"), Path(store), quick}, now_ + 7200, [this](const publish::Step& step) {
          steps_.push_back(std::string(step.what) + ' ' + std::to_string(step.done) + '/' +
                           std::to_string(step.total));
        });
  }
  std::string InStore(const std::string& path) const { return Path("store/") + path; }
  std::string Says(const std::string& what, const std::string& store = "store") const {
    return Path(store) + ": the description " + what;
  }
  /// Of this repository's own description.
  std::string Number() const {
    const publish::RepositoryPaths paths(Path("repo"));
    return std::to_string(
        ServedOffer(paths, publish::LoadSettings(paths.SettingsFile()), now_).value().counter);
  }
  static std::string Link(const std::string& path) { return "http://example.org/" + path; }

  const std::time_t now_ = std::time(nullptr);  // Certificates are judged by the machine's clock.
  std::vector<std::string> steps_;
};

TEST_F(RemoteCheckTest, WhatIsServedAsItWasReleasedIsInOrder) {
  Prepare(NewRepository(now_));
  const publish::RemoteCheckReport whole = Check();
  EXPECT_THAT(whole.wrong, IsEmpty());
  EXPECT_THAT(whole.remarks, IsEmpty());
  EXPECT_EQ(whole.packages, 2u);
  EXPECT_EQ(whole.bytes, fs::file_size(InStore(kDelta)) + fs::file_size(InStore(kTwo)));
  EXPECT_THAT(steps_, ElementsAre("reading 1/2", "reading 2/2"));
  const publish::RemoteCheckReport quick = Check("store", true);
  EXPECT_THAT(quick.wrong, IsEmpty());
  EXPECT_EQ(quick.packages, 2u);
  EXPECT_EQ(quick.bytes, 0u);
  EXPECT_THAT(steps_, ElementsAre("looking 1/2", "looking 2/2"));
}

TEST_F(RemoteCheckTest, EveryPackageThatIsAnotherIsTold) {
  Prepare(NewRepository(now_));
  ChangeByte(InStore(kDelta), 20);
  ChangeByte(InStore(kTwo), 20);
  const std::string other = ": is another file than the one that is offered";
  EXPECT_THAT(Check().wrong, ElementsAre(Link(kDelta) + other, Link(kTwo) + other));
  EXPECT_THAT(Check("store", true).wrong, IsEmpty()) << "the sizes alone";
}

TEST_F(RemoteCheckTest, PackageOfAnotherSizeAndOneThatIsMissingAreTold) {
  Prepare(NewRepository(now_));
  const std::uint64_t size = fs::file_size(InStore(kTwo));
  WriteFile(InStore(kTwo), "abc");
  fs::remove(InStore(kDelta));
  for (const bool quick : std::initializer_list<bool>{false, true}) {
    const publish::RemoteCheckReport report = Check("store", quick);
    EXPECT_THAT(report.wrong, ElementsAre(Link(kDelta) + ": is not there",
                                          Link(kTwo) + ": has 3 bytes, and " +
                                              std::to_string(size) + " are offered"));
    EXPECT_EQ(report.packages, 2u);
    EXPECT_EQ(report.bytes, quick ? 0u : 3u);
  }
}

TEST_F(RemoteCheckTest, WebServerIsAskedWhereTheLinksLeadAndItsHeadersAreJudged) {
  fs::create_directory(Path("store"));
  HttpServer server(Path("store"));
  publish::InitRequest order = NewRepository(now_);
  order.settings.base_url = {"http", "127.0.0.1:" + std::to_string(server.Port())};
  Prepare(order);
  const auto check = [&] {
    return publish::CheckRemote({Path("repo"), server.Url("/"), false}, now_, nullptr);
  };
  const publish::RemoteCheckReport whole = check();
  EXPECT_THAT(whole.wrong, IsEmpty());
  EXPECT_EQ(whole.packages, 2u);
  EXPECT_EQ(whole.bytes, fs::file_size(InStore(kDelta)) + fs::file_size(InStore(kTwo)));
  EXPECT_THAT(whole.remarks,
              ElementsAre(server.Url("/") + kDelta +
                          ": no ranges of it are served (Accept-Ranges), so that a download that "
                          "was cut off begins anew"));
  HttpAnswer encoded;
  encoded.headers = {{"Content-Encoding", "br"}};
  encoded.body = ReadFile(InStore(kDescription));
  server.SetAnswer(std::string("/") + kDescription, encoded);
  EXPECT_THAT(check().wrong, ElementsAre("the description: comes with Content-Encoding: br, and "
                                         "devices keep it as it comes"));
}

TEST_F(RemoteCheckTest, WhatIsNoRepositoryIsNotCompared) {
  EXPECT_THROW(Check(), publish::Error);
}

TEST_F(RemoteCheckTest, WithoutSignaturesVersionsSayHowFarBehindItIs) {
  Prepare(NewRepository(now_));
  ReleaseAt(now_ + 3601, "a", "geo");
  EXPECT_THAT(Check("older", true).wrong,
              ElementsAre(Says("is behind this repository's; geo is not offered there; oui 1000001 "
                               "there, 1000002 here",
                               "older")));
  EXPECT_THAT(Check("store", true).wrong,
              ElementsAre(Says("is behind this repository's; geo is not offered there")));
}

TEST_F(RemoteCheckTest, WithoutADescriptionNothingElseIsLookedAt) {
  Prepare(NewRepository(now_));
  WriteFile(InStore(kDescription), "{\"db_list");
  const publish::RemoteCheckReport damaged = Check();
  EXPECT_THAT(damaged.wrong, ElementsAre(HasSubstr(Says("is damaged"))));
  EXPECT_EQ(damaged.packages, 0u);
  fs::remove(InStore(kDescription));
  const publish::RemoteCheckReport none = Check();
  EXPECT_THAT(none.wrong, ElementsAre(Path("store") + ": database_info/1 is not there"));
  EXPECT_EQ(none.packages, 0u);
}

TEST_F(RemoteCheckTest, SignedOneIsComparedByItsNumber) {
  Prepare(NewSignedRepository(now_));
  const publish::RemoteCheckReport same = Check("store", true);
  EXPECT_THAT(same.wrong, IsEmpty());
  EXPECT_THAT(same.remarks, IsEmpty());
  EXPECT_EQ(same.packages, 2u);
  const std::string newer = Number();
  const publish::RemoteCheckReport behind = Check("older", true);
  WriteFile(Path("repo/public/database_info/1"), ReadFile(Path("older/database_info/1")));
  const std::string older = Number();
  EXPECT_NE(newer, older);
  EXPECT_THAT(behind.wrong,
              ElementsAre(AllOf(HasSubstr(" behind this repository's: its number is " + older +
                                          ", and this one's " + newer),
                                HasSubstr("; oui 1000001 there, 1000002 here"))));
  EXPECT_THAT(behind.wrong.front(), ::testing::ContainsRegex(" is [0-9]+ (s|min) behind "));
  EXPECT_THAT(behind.remarks, IsEmpty());
  const publish::RemoteCheckReport ahead = Check("store", true);
  EXPECT_THAT(ahead.wrong, IsEmpty());
  EXPECT_THAT(ahead.remarks, ElementsAre(Says("is newer than this repository's: its number is " +
                                              newer + ", and this one's " + older)));
}

TEST_F(RemoteCheckTest, SignatureIsJudgedAsByADevice) {
  Prepare(NewSignedRepository(now_));
  const std::string served = ReadFile(InStore(kDescription));
  const publish::RepositoryPaths paths(Path("repo"));
  const std::string identity = publish::LoadSettings(paths.SettingsFile()).identity;
  ReplaceInFile(paths.SettingsFile(), identity, "0123456789abcdef0123456789abcdef");
  EXPECT_THAT(Check("store", true).wrong,
              ElementsAre(Says("is another repository's, " + identity)));
  ReplaceInFile(paths.SettingsFile(), "0123456789abcdef0123456789abcdef", identity);
  const auto late = [&](std::time_t days) {
    return publish::CheckRemote({Path("repo"), Path("store"), true},
                                now_ + 3600 + days * 24 * 60 * 60, [](const publish::Step&) {});
  };
  EXPECT_THAT(late(13).remarks, ElementsAre(HasSubstr(Says("is valid until "))));
  EXPECT_THAT(late(13).wrong, IsEmpty());
  EXPECT_EQ(late(15).wrong.size(), 1u) << "its time is over";
}

TEST_F(RemoteCheckTest, PartsOfTheDescriptionThatDisagreeOrAreMissingAreTold) {
  Prepare(NewSignedRepository(now_));
  const Json::Value whole = publish::ParseJson(ReadFile(InStore(kDescription)), "served");
  const auto wrong_of = [&](const Json::Value& served) {
    WriteFile(InStore(kDescription), publish::FormatJson(served));
    return Check("store", true).wrong;
  };
  Json::Value served = whole;
  served["db_list"]["oui"]["sha384"] = std::string(96, '0');
  EXPECT_THAT(wrong_of(served), ElementsAre(Says("says two things of " + Link(kTwo))));
  served = whole;
  served["db_list"]["oui"].removeMember("sha384");
  EXPECT_THAT(wrong_of(served), IsEmpty()) << "the other part says it";
  served = whole;
  Json::Value& size = served["db_list"]["oui"]["diff_files"]["1000002"]["file_size"];
  size = Json::Value(Json::UInt64(size.asUInt64() + 1));
  EXPECT_THAT(wrong_of(served), ElementsAre(Says("says two things of " + Link(kDelta))));
  served = whole;
  served["signed"] = served["signed"].asString() + ' ';
  EXPECT_THAT(wrong_of(served), ElementsAre(::testing::StartsWith(Says(""))));
  served.removeMember("signature");
  EXPECT_THAT(wrong_of(served), ElementsAre(Says("its signed part, or the signature, is missing or "
                                                 "no text")));
  served.removeMember("signed");
  EXPECT_THAT(wrong_of(served), ElementsAre(Says("is not signed")));
}

TEST_F(RemoteCheckTest, SignedOneThatEndsSoonIsRemarkedFromTheFirstSecondOn) {
  Prepare(NewSignedRepository(now_));
  const publish::RepositoryPaths paths(Path("repo"));
  const publish::Settings settings = publish::LoadSettings(paths.SettingsFile());
  const std::int64_t from =
      ServedOffer(paths, settings, now_).value().expires - DescriptionCareSeconds(settings);
  const auto remarks_at = [&](std::int64_t now) {
    return publish::CheckRemote({Path("repo"), Path("store"), true}, now, nullptr).remarks;
  };
  EXPECT_THAT(remarks_at(from), IsEmpty());
  EXPECT_THAT(remarks_at(from + 1),
              ElementsAre(AllOf(HasSubstr(Says("is valid until ")),
                                ::testing::EndsWith(" UTC only; \"tolmdbpub refresh " +
                                                    Path("repo") + "\", and push it"))));
}

TEST_F(RemoteCheckTest, NumberStandsForOneContentAndIsComparedWithASignedOneAlone) {
  Prepare(NewSignedRepository(now_));
  const publish::RepositoryPaths paths(Path("repo"));
  const publish::Settings settings = publish::LoadSettings(paths.SettingsFile());
  const std::string own = Path("repo/public/database_info/1");
  const publish::DescriptionSigner signer(settings, "", now_);
  WriteFile(own, signer.Sign(publish::LoadCatalog(paths.CatalogFile()), settings,
                             std::stoull(Number()), now_ + 60));
  const publish::RemoteCheckReport other = Check("store", true);
  EXPECT_THAT(other.wrong,
              ElementsAre(Says("has the number of this repository's, and another content")));
  EXPECT_THAT(other.remarks, IsEmpty());
  WriteFile(own, DescribeCatalog(publish::LoadCatalog(paths.CatalogFile()), settings.base_url));
  const publish::RemoteCheckReport unsigned_one = Check("store", true);
  EXPECT_THAT(unsigned_one.wrong, IsEmpty());
  EXPECT_THAT(unsigned_one.remarks, ElementsAre(own + ": is not signed, and is not compared"));
}

TEST_F(RemoteCheckTest, DescriptionThatDevicesRefuseForItsSizeIsTold) {
  Prepare(NewRepository(now_));
  std::string served = ReadFile(InStore(kDescription));
  served.resize(4 << 20, ' ');
  WriteFile(InStore(kDescription), served);
  EXPECT_THAT(Check("store", true).wrong, IsEmpty());
  WriteFile(InStore(kDescription), served + ' ');
  EXPECT_THAT(Check("store", true).wrong,
              ElementsAre(Says("has 4194305 bytes, and devices refuse it")));
}

TEST_F(RemoteCheckTest, AddressOfEitherSchemeIsAskedThroughTheWeb) {
  InitRepository(NewRepository(now_), now_);
  for (const std::string& scheme : std::initializer_list<std::string>{"http", "https"}) {
    // Nobody listens there.
    const std::string url = scheme + "://127.0.0.1:1/";
    const publish::RemoteCheckReport report =
        publish::CheckRemote({Path("repo"), url, true}, now_, nullptr);
    EXPECT_THAT(report.wrong, ElementsAre(::testing::StartsWith(url + "database_info/1?")));
  }
}

TEST_F(RemoteCheckTest, PackagesOfAStagedReleaseAreReadToo) {
  Prepare(NewSignedRepository(now_));
  publish::ReleaseRequest request = NewRelease();
  request.stages = publish::ParseStages("1%/6h,100%");
  MakeRelease(
      request, now_ + 3700, [](const std::string&) {}, [](const publish::Step&) {});
  fs::copy(Path("repo/public"), Path("staged"), fs::copy_options::recursive);
  const publish::RemoteCheckReport report = Check("staged", true);
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.packages, 4u);
  const std::string full = "packages/oui/oui_v1000003";
  const std::string delta = "packages/oui/oui_d1000003";
  ChangeByte(Path("staged/") + full, 20);
  ChangeByte(Path("staged/") + delta, 20);
  const std::string other = ": is another file than the one that is offered";
  EXPECT_THAT(Check("staged").wrong, ElementsAre(Link(delta) + other, Link(full) + other));
}

}  // namespace
}  // namespace tolm::testing
