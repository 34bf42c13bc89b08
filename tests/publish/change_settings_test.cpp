#include "publish/change_settings.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "package/error.h"
#include "publish/json_object.h"
#include "tests/package/authority.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using publish::ChangeSettingsRequest;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ChangeSettingsTest : public ReleaseFixture {
 protected:
  std::vector<std::string> Change(ChangeSettingsRequest request) const {
    std::vector<std::string> notes;
    request.repository = Path("repo");
    ChangeSettings(request, now_, [&notes](const std::string& note) { notes.push_back(note); });
    return notes;
  }
  std::vector<std::string> ChangeOf(const std::string& name,
                                    publish::ChangeDatabaseSettingsRequest request) const {
    std::vector<std::string> notes;
    request.repository = Path("repo");
    request.name = name;
    ChangeDatabaseSettings(request, [&notes](const std::string& note) { notes.push_back(note); });
    return notes;
  }
  Json::Value Kept() const {
    return publish::ParseJson(ReadFile(Path("repo/state/settings.json")), "");
  }
  std::string FormerRoots() const {
    return publish::LoadCatalog(Path("repo/state/catalog.json")).former_roots;
  }
  void MakeFirst(const std::string& name) const {
    publish::ReleaseRequest request = NewRelease();
    request.name = name;
    publish::MakeRelease(
        request, now_, [](const std::string&) {}, [](const publish::Step&) {});
  }
  // Another signer of packages below the same root.
  publish::KeyFiles NewSigner(const std::string& directory) const {
    publish::SigningKeyRequest request;
    request.directory = Path(directory);
    request.root_key = Path("keys/root.key");
    request.root_path = Path("keys/root.pem");
    GenerateSigningKey(request, now_);
    return {Path(directory + "/signing.key"), Path(directory + "/signing.pem"), ""};
  }

  const std::time_t now_ = std::time(nullptr);
};

TEST_F(ChangeSettingsTest, WhatIsGivenIsChangedAndTheRestStays) {
  InitRepository(NewSignedRepository(now_), now_);
  const Json::Value before = Kept();
  const std::map<std::string, std::function<void(ChangeSettingsRequest&)>> rows = {
      {"chain_share_percent", [](auto& r) { r.chain_share_percent = 71; }},
      {"oldest_sqlite", [](auto& r) { r.oldest_sqlite = "3.40.0"; }},
      {"max_shrink_percent", [](auto& r) { r.max_shrink_percent = 21; }},
      {"min_certificate_days", [](auto& r) { r.min_certificate_days = 15; }},
      {"compression", [](auto& r) { r.compression = package::CompressionChoice::kXz; }},
      {"compression_window_mib", [](auto& r) { r.window_mebibytes = 4; }},
      {"description_days", [](auto& r) { r.description_days = 15; }},
      {"base_url", [](auto& r) {
         r.base_url = publish::BaseUrl{"https", "other.example.org"};
       }}};
  for (const auto& [member, change] : rows) {
    ChangeSettingsRequest request;
    change(request);
    EXPECT_THAT(Change(request), IsEmpty());
    EXPECT_NE(Kept()[member], before[member]) << member;
  }
  const Json::Value kept = Kept();
  EXPECT_THAT(Change({}), IsEmpty());
  EXPECT_EQ(Kept(), kept);
  EXPECT_EQ(kept["chain_share_percent"], 71);
  EXPECT_EQ(kept["oldest_sqlite"], "3.40.0");
  EXPECT_EQ(kept["max_shrink_percent"], 21);
  EXPECT_EQ(kept["min_certificate_days"], 15);
  EXPECT_EQ(kept["compression"], "xz");
  EXPECT_EQ(kept["compression_window_mib"], 4);
  EXPECT_EQ(kept["description_days"], 15);
  EXPECT_EQ(kept["base_url"], "https://other.example.org");
  EXPECT_EQ(kept["key"], before["key"]);
  EXPECT_EQ(kept["repository"], before["repository"]);
}

TEST_F(ChangeSettingsTest, SettingsOfDescriptionsNeedSignedOnes) {
  InitRepository(NewRepository(now_), now_);
  const Json::Value before = Kept();
  const std::string text = Path("repo") +
                           ": its descriptions are not signed, so that nothing can be set for "
                           "them; \"tolmdbpub upgrade " +
                           Path("repo") + " --root-key KEY\" begins with it";
  ChangeSettingsRequest days;
  days.description_days = 3;
  ChangeSettingsRequest lists;
  lists.revocations_path = "";
  ChangeSettingsRequest key;
  key.keys.info_key = Path("keys/info.key");
  ChangeSettingsRequest certificate;
  certificate.keys.info_certificate_path = Path("keys/info.pem");
  for (const ChangeSettingsRequest& request : {days, lists, key, certificate}) {
    ExpectError([&] { Change(request); }, text);
  }
  EXPECT_EQ(Kept(), before);
}

TEST_F(ChangeSettingsTest, NewSignerIsSaidToLeaveWhatWasSignedBefore) {
  InitRepository(NewSignedRepository(now_), now_);
  ChangeSettingsRequest request;
  request.keys = NewSigner("second");
  EXPECT_THAT(Change(request), IsEmpty()) << "nothing is offered yet";
  MakeFirst("geo");
  request.keys = NewSigner("third");
  const std::string end = " signed with another certificate, and stay so; \"tolmdbpub resign " +
                          Path("repo") + "\" signs anew";
  EXPECT_THAT(Change(request), ElementsAre("1 package is" + end));
  EXPECT_EQ(FormerRoots(), "");
  MakeFirst("oui");
  EXPECT_THAT(Change(request), ElementsAre("1 package is" + end)) << "the other one is its own";
  request.keys = NewSigner("fourth");
  EXPECT_THAT(Change(request), ElementsAre("2 packages are" + end));
}

TEST_F(ChangeSettingsTest, RootBeforeIsRememberedWhileSomethingIsSignedBelowIt) {
  InitRepository(NewSignedRepository(now_), now_);
  const std::string first = ReadFile(Path("keys/root.pem"));
  const auto keys_in = [this](const std::string& directory) {
    ChangeSettingsRequest request;
    request.keys = {Path(directory + "/signing.key"), Path(directory + "/signing.pem"),
                    Path(directory + "/root.pem"), Path(directory + "/info.key"),
                    Path(directory + "/info.pem")};
    return request;
  };
  publish::GenerateKeys(Path("others"), now_);
  EXPECT_THAT(Change(keys_in("others")), IsEmpty());
  EXPECT_EQ(FormerRoots(), "") << "nothing is offered yet";
  Change(keys_in("keys"));
  MakeFirst("oui");
  Change(keys_in("keys"));
  EXPECT_EQ(FormerRoots(), "") << "it is the root";
  EXPECT_THAT(Change(keys_in("others")),
              ElementsAre("1 package is offered that devices with this root refuse; \"tolmdbpub "
                          "resign " +
                          Path("repo") + "\" signs anew"));
  EXPECT_EQ(FormerRoots(), first + '\n');
  Change(keys_in("keys"));
  const std::string both = first + '\n' + ReadFile(Path("others/root.pem")) + '\n';
  EXPECT_EQ(FormerRoots(), both);
  Change(keys_in("others"));
  EXPECT_EQ(FormerRoots(), both) << "each is remembered once";
}

TEST_F(ChangeSettingsTest, RevocationsAreTakenAndLeftOutAgain) {
  InitRepository(NewSignedRepository(now_), now_);
  const Authority other("other");
  WriteFile(Path("crl.pem"), other.RevocationPem({}, now_ - 10, now_ + 3 * 86400 + 60));
  ChangeSettingsRequest request;
  request.revocations_path = Path("crl.pem");
  const Json::Value before = Kept();
  EXPECT_THROW(Change(request), package::Error);
  EXPECT_EQ(Kept(), before);
  WriteFile(Path("both.pem"), ReadFile(Path("keys/root.pem")) + other.Pem());
  request.keys.root_path = Path("both.pem");
  EXPECT_THAT(Change(request),
              ElementsAre(AllOf(HasSubstr(Path("crl.pem") + ": the list of CN=other revokes 0"),
                                HasSubstr("3 days from now"))));
  EXPECT_EQ(Kept()["revocations"], "../crl.pem");
  EXPECT_EQ(Kept()["root"], "../both.pem");
  EXPECT_THAT(Change({}), IsEmpty());
  EXPECT_EQ(Kept()["revocations"], "../crl.pem");
  request = {};
  request.revocations_path = "";
  EXPECT_THAT(Change(request), IsEmpty());
  EXPECT_FALSE(Kept().isMember("revocations"));
}

TEST_F(ChangeSettingsTest, DatabaseHasItsOwnBeforeItIsReleased) {
  InitRepository(NewRepository(now_), now_);
  const std::string note = "no database \"oui\" is offered yet; this counts when it is released";
  publish::ChangeDatabaseSettingsRequest request;
  request.max_shrink_percent = 5;
  EXPECT_THAT(ChangeOf("oui", request), ElementsAre(note));
  request = {};
  request.test = "true";
  EXPECT_THAT(ChangeOf("oui", request), ElementsAre(note));
  EXPECT_EQ(Kept()["databases"]["oui"]["max_shrink_percent"], 5);
  EXPECT_EQ(Kept()["databases"]["oui"]["test"], "true");
  MakeFirst("oui");
  request = {};
  request.max_shrink_percent = std::optional<int>();
  EXPECT_THAT(ChangeOf("oui", request), IsEmpty());
  EXPECT_FALSE(Kept()["databases"]["oui"].isMember("max_shrink_percent"));
  request = {};
  request.test = "";
  ChangeOf("oui", request);
  EXPECT_FALSE(Kept().isMember("databases"));
}

TEST_F(ChangeSettingsTest, InterruptedOneIsNamed) {
  InitRepository(NewRepository(now_), now_);
  // What cannot be replaced ends it in the middle.
  WriteFile(Path("repo/state/catalog.json.new/x"), "x");
  ChangeSettingsRequest request;
  request.chain_share_percent = 71;
  EXPECT_THROW(Change(request), package::Error);
  EXPECT_EQ(ReadFile(Path("repo/state/unfinished")), "set");
  publish::ChangeDatabaseSettingsRequest of_one;
  of_one.test = "true";
  EXPECT_THROW(ChangeOf("oui", of_one), package::Error);
  EXPECT_EQ(ReadFile(Path("repo/state/unfinished")), "set oui");
  std::filesystem::remove_all(Path("repo/state/catalog.json.new"));
  EXPECT_THAT(Change({}), ElementsAre("an earlier command was interrupted: set oui"));
  EXPECT_EQ(Kept()["chain_share_percent"], 71);
}

}  // namespace
}  // namespace tolm::testing
