// The installed tool and signed descriptions: which are believed, what is left to remember, and
// what somebody between device and publisher can make of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "offer/offer.h"
#include "tests/support/killed_run.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/device.h"
#include "tests/tools/signed_descriptions.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

const fs::path kCached = "/var/cache/data_update/database_info.json";
const fs::path kState = "/var/lib/data_update/trust.json";
constexpr char kDescriptionPath[] = "/database_info/1";
constexpr std::time_t kDay = 24 * 3600;
constexpr std::time_t kOlderEpoch = 1100000000;
constexpr std::time_t kEpoch = 1200000000;
constexpr std::time_t kNewerEpoch = 1300000000;
constexpr std::uint64_t kCounter = 10;

class SignedTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    AddToKeyring(authority_.Pem());
  }

  void Serve(const std::string& document) {
    publisher_.Server().SetBody(kDescriptionPath, document);
  }
  void Serve(const offer::Offer& offer) { Serve(Describe(offer, signer_)); }
  offer::Offer Offer(int version, std::uint64_t counter = kCounter) {
    return OfferOf(publisher_, version, counter);
  }
  // Without a signature, as before there were any.
  std::string Unsigned(int version) {
    return Json::writeString(Json::StreamWriterBuilder(), LegacyOf(Offer(version)));
  }

  static CommandResult Ask(const std::string& command = "update") {
    return Tool({command, "oui", "--refresh"});
  }

  void Follow(int version, std::uint64_t counter = kCounter) {
    Serve(Offer(version, counter));
    const CommandResult result = Ask();
    ASSERT_EQ(result.exit_status, 0) << result.err;
  }

  static Json::Value State() {
    Json::Value value;
    std::istringstream(ReadFile(kState)) >> value;
    return value;
  }

  static std::uint64_t CachedCounter() {
    Json::Value document;
    std::istringstream(ReadFile(kCached)) >> document;
    return offer::ParseOffer(document["signed"].asString()).counter;
  }

  // The line about an answer that is refused, up to the reason.
  std::string RefusedLine(const std::string& says) {
    return "tolmdbud: oui: the description from " + publisher_.Server().Url(kDescriptionPath) +
           " is refused: " + says;
  }

  void ExpectRefused(const std::string& says, const std::string& reason,
                     const CommandOptions& options = {}) {
    const std::string cached = fs::exists(kCached) ? ReadFile(kCached) : "";
    const std::string state = fs::exists(kState) ? ReadFile(kState) : "";
    const Tree installed = fs::exists(prefix_) ? ReadTree(prefix_) : Tree();
    const CommandResult result =
        RunCommand({kTool, "update", "oui", "--refresh", "--json"}, options);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, HasSubstr(RefusedLine(says)));
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    EXPECT_THAT(result.out, HasSubstr("\"reason\" : \"" + reason + '"'));
    EXPECT_EQ(fs::exists(kCached) ? ReadFile(kCached) : "", cached) << "what was cached stays";
    EXPECT_EQ(fs::exists(kState) ? ReadFile(kState) : "", state);
    EXPECT_EQ(fs::exists(prefix_) ? ReadTree(prefix_) : Tree(), installed);
    EXPECT_FALSE(fs::exists(kCached.string() + ".new"));
  }

  static CommandOptions At(std::time_t now) {
    CommandOptions options;
    options.environment = EnvironmentAt(now);
    return options;
  }

  const Authority authority_{"Test root for descriptions"};
  const package::Signer signer_ = authority_.NewSigner(ForDescriptions(kEpoch));
  const package::Signer older_signer_ = authority_.NewSigner(ForDescriptions(kOlderEpoch));
  const package::Signer newer_signer_ = authority_.NewSigner(ForDescriptions(kNewerEpoch));
};

TEST_F(SignedTest, OneIsFollowedAndRemembered) {
  Serve(Offer(1));
  EXPECT_EQ(Ask().out, "oui: updated to 1\n");
  const Json::Value accepted = State()["accepted"];
  EXPECT_EQ(accepted["repository"], std::string(32, 'a'));
  EXPECT_EQ(accepted["counter"].asUInt64(), kCounter);
  EXPECT_EQ(accepted["epoch"].asInt64(), kEpoch);
  EXPECT_EQ(State()["signed_wanted"], true);
  EXPECT_EQ(State()["databases"]["oui"]["floor"], 1);
  EXPECT_EQ(fs::status(kState).permissions(), fs::perms(0600));
  // What devices without signatures read counts for nothing.
  Json::Value garbage;
  garbage["db_list"] = "garbage";
  garbage["deprecated"] = 7;
  const std::string text = offer::FormatOffer(Offer(2, kCounter + 1));
  Serve(Describe(garbage, offer::Sign(text, signer_)));
  EXPECT_EQ(Tool({"check", "--refresh"}).out, "oui: 2 is offered, 1 is installed\n");
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n") << "of the cached one";
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_THAT(Tool({"status", "--offline"}).out, HasSubstr("2"));
  EXPECT_EQ(Tool({"doctor"}).exit_status & ~2, 0);
}

struct Attack {
  std::string name;
  std::function<std::string(offer::Offer)> answer;  // Is told what is offered honestly.
  std::string says;
  std::string reason;
};

TEST_F(SignedTest, WhatSomebodyInBetweenMakesOfItIsRefused) {
  const std::string first_answer = Describe(Offer(1, kCounter - 1), signer_);
  Serve(first_answer);
  ASSERT_EQ(Ask().exit_status, 0);
  Follow(1);
  const Authority stranger{"Test root for descriptions"};
  const package::Signer strangers = stranger.NewSigner(ForDescriptions(kEpoch));
  const package::Signer for_packages = authority_.NewSigner();
  const package::Signer expired = authority_.NewSigner(ForDescriptions(kEpoch, kEpoch + kDay));
  const package::Signer early = authority_.NewSigner(ForDescriptions(kFarFuture - kDay));
  const auto text_of = [](const offer::Offer& offer) { return offer::FormatOffer(offer); };
  const Attack attacks[] = {
      {"Stripped",
       [](const offer::Offer& offer) {
         return Json::writeString(Json::StreamWriterBuilder(), LegacyOf(offer));
       },
       "it is not signed, and this device has had a signed one; ", "description-not-signed"},
      {"SignatureStripped",
       [&](const offer::Offer& offer) {
         Json::Value document = LegacyOf(offer);
         document["signed"] = text_of(offer);
         return Json::writeString(Json::StreamWriterBuilder(), document);
       },
       "its signed part, or the signature, is missing", "description-damaged"},
      {"MadeLookVerified",
       [](const offer::Offer& offer) {
         return Json::writeString(Json::StreamWriterBuilder(), offer::DocumentOf(offer));
       },
       "its signed part, or the signature, is missing", "description-damaged"},
      {"Replayed", [&](const offer::Offer&) { return first_answer; }, "it is the one of ",
       "description-older"},
      {"LowerCounter",
       [&](offer::Offer offer) {
         offer.counter = kCounter - 5;
         return Describe(offer, signer_);
       },
       "it is the one of ", "description-older"},
      {"SameCounterOtherContent",
       [&](offer::Offer offer) {
         offer.counter = kCounter;
         return Describe(offer, signer_);
       },
       "it has another content than the one with the same counter", "description-altered"},
      {"OlderSigner", [&](const offer::Offer& offer) { return Describe(offer, older_signer_); },
       "its signer's certificate, of ", "description-older"},
      {"OtherRepository",
       [&](offer::Offer offer) {
         offer.repository = std::string(32, 'b');
         return Describe(offer, signer_);
       },
       "it is of repository bbbb", "description-for-another"},
      {"OtherInfoVersion",
       [&](offer::Offer offer) {
         offer.info_version = "2";
         return Describe(offer, signer_);
       },
       "it is for devices that ask for version \"2\"", "description-for-another"},
      {"KeyForPackages",
       [&](const offer::Offer& offer) {
         return Describe(LegacyOf(offer),
                         {text_of(offer), SignAs("TOLMINFO1\n" + text_of(offer), for_packages)});
       },
       "the signer's certificate is not for signing descriptions", "description-not-trusted"},
      {"OtherRoot", [&](const offer::Offer& offer) { return Describe(offer, strangers); },
       "the signer's certificate is refused: unable to get local issuer",
       "description-not-trusted"},
      {"SignerExpired", [&](const offer::Offer& offer) { return Describe(offer, expired); },
       "the signer's certificate is refused: certificate has expired; is this machine's clock",
       "description-signer-not-valid"},
      {"SignerNotYetValid", [&](const offer::Offer& offer) { return Describe(offer, early); },
       "the signer's certificate is refused: certificate is not yet valid; is this machine's",
       "description-signer-not-valid"},
      {"Expired",
       [&](offer::Offer offer) {
         offer.issued -= 40 * kDay;
         offer.expires = std::time(nullptr) - kDay;
         return Describe(offer, signer_);
       },
       "it ended on ", "description-expired"},
      {"TextOfOneSignatureOfAnother",
       [&](offer::Offer offer) {
         const std::string signature = offer::Sign(text_of(offer), signer_).signature;
         ++offer.counter;
         return Describe(LegacyOf(offer), {text_of(offer), signature});
       },
       "the signature does not belong to this text", "description-not-trusted"},
      {"OtherPrefix",
       [&](const offer::Offer& offer) {
         return Describe(LegacyOf(offer), {text_of(offer), SignAs(text_of(offer), signer_)});
       },
       "the signature does not belong to this text", "description-not-trusted"},
      {"SignedTextCutShort",
       [&](const offer::Offer& offer) {
         const std::string text = text_of(offer);
         return Describe(LegacyOf(offer), offer::Sign(text.substr(0, text.size() / 2), signer_));
       },
       "its signed part cannot be read: it is no JSON", "description-damaged"},
      {"SignatureCutShort",
       [&](const offer::Offer& offer) {
         offer::SignedText signed_text = offer::Sign(text_of(offer), signer_);
         signed_text.signature.resize(signed_text.signature.size() / 2);
         return Describe(LegacyOf(offer), signed_text);
       },
       "the signature is not one CMS object", "description-not-trusted"},
  };
  for (const Attack& attack : attacks) {
    SCOPED_TRACE(attack.name);
    Serve(attack.answer(Offer(2, kCounter + 1)));
    ExpectRefused(attack.says, attack.reason);
  }
  // Bounds are looked at before anything else.
  Serve(std::string(5 << 20, ' '));
  EXPECT_EQ(Ask().exit_status, 1);
  EXPECT_EQ(Ask("fix").exit_status, 1);
  // The legacy members of a newer one with the signed part of the accepted one: that counts.
  Serve(Describe(LegacyOf(Offer(2)), offer::Sign(text_of(Offer(1, kCounter + 1)), signer_)));
  EXPECT_EQ(Ask().out, "oui: up to date\n");
  Follow(2, kCounter + 2);
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(SignedTest, ClockThatIsWrongIsAskedFor) {
  const package::Signer young =
      authority_.NewSigner(ForDescriptions(kEpoch, std::time(nullptr) + 60 * kDay));
  Serve(Describe(Offer(1), young));
  // A clock that was never set, before all that is known: the build's date counts.
  const CommandResult behind = RunCommand({kTool, "update", "oui"}, At(1000));
  EXPECT_EQ(behind.out, "oui: updated to 1\n") << behind.err;
  Serve(Describe(Offer(2, kCounter + 1), young));
  const std::time_t far_ahead = std::time(nullptr) + 200 * kDay;
  ExpectRefused("", "description-signer-not-valid", At(far_ahead));
  EXPECT_THAT(Tool({"update", "oui"}).out, Not(HasSubstr("refused")));
  Serve(Offer(2, kCounter + 2));
  const CommandResult result =
      RunCommand({kTool, "update", "oui", "--refresh"}, At(std::time(nullptr) + 300 * kDay));
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("; this machine's clock says "));
  EXPECT_EQ(CountLines(result.err), 1);
}

TEST_F(SignedTest, CachedOneThatHasEndedIsAskedForAgain) {
  Follow(1);
  const std::time_t later = std::time(nullptr) + 31 * kDay;
  // Within the hour for which a cached one counts, were it not for its time.
  fs::last_write_time(kCached, fs::file_time_type::clock::now() + std::chrono::hours(31 * 24));
  const CommandResult refused = RunCommand({kTool, "update", "oui"}, At(later));
  EXPECT_EQ(refused.exit_status, 1);
  EXPECT_THAT(refused.err, HasSubstr(RefusedLine("it ended on ")));
  EXPECT_EQ(CountLines(refused.err), 1);
  WriteFile(prefix_ / "a.txt", "damaged");
  EXPECT_EQ(RunCommand({kTool, "fix", "oui"}, At(later)).exit_status, 1);
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{kTool, "list"},
                                             {kTool, "directory", "oui"},
                                             {kTool, "status", "--offline"},
                                             {kTool, "lock", "oui", "--", "true"}}) {
    EXPECT_EQ(RunCommand(command, At(later)).exit_status, 0) << command[1];
  }
  offer::Offer renewed = Offer(2, kCounter + 1);
  renewed.expires += 60 * kDay;
  Serve(renewed);
  EXPECT_EQ(RunCommand({kTool, "update", "oui"}, At(later)).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(SignedTest, UnsignedOneIsAcceptedWhereNoneThatIsSignedIsWanted) {
  const std::string settings = ReadFile("/usr/share/data_update/data_update.conf");
  WriteFile("/usr/tolm/etc/data_update/data_update.conf",
            R"({"config": {"require_signed_description": true}})");
  Serve(Unsigned(1));
  ExpectRefused("it is not signed, and require_signed_description is set",
                "description-not-signed");
  EXPECT_THAT(Tool({"trust", "show"}).out,
              HasSubstr("unsigned ones are refused, as require_signed_description says\n"));
  EXPECT_THAT(Tool({"trust", "reset"}).out, HasSubstr("a signed one stays required"));
  WriteFile("/usr/tolm/etc/data_update/data_update.conf",
            R"({"config": {"require_signed_description": false}})");
  EXPECT_EQ(Ask().out, "oui: updated to 1\n");
  EXPECT_FALSE(State().isMember("signed_wanted"));
  // A default of the wrong type is no permission.
  fs::remove("/usr/tolm/etc/data_update/data_update.conf");
  std::string damaged = settings;
  damaged.insert(damaged.find("\"db_ver\""), "\"require_signed_description\": \"yes\", ");
  WriteFile("/usr/share/data_update/data_update.conf", damaged);
  const CommandResult result = Ask();
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("config.require_signed_description must be true or false"));
}

TEST_F(SignedTest, ResetForgetsWhatWasAcceptedAndKeepsFloors) {
  Follow(2);
  const std::string before = Tool({"trust", "show"}).out;
  EXPECT_THAT(before, HasSubstr("descriptions: repository aaaa"));
  EXPECT_THAT(before, HasSubstr(", number 10 of "));
  EXPECT_THAT(before, HasSubstr("unsigned ones are refused\n"));
  EXPECT_THAT(Tool({"trust", "show", "--json"}).out, HasSubstr("\"signed_wanted\" : true"));
  Serve(Unsigned(2));
  EXPECT_EQ(Ask().exit_status, 1);
  EXPECT_EQ(Tool({"trust", "reset"}).out,
            "what was accepted of signed descriptions is forgotten\n");
  EXPECT_EQ(Tool({"trust", "show"}).out, "oui: nothing older than 2 is installed\n");
  EXPECT_THAT(ReadFile("/var/lib/data_update/history.jsonl"),
              HasSubstr(R"("operation":"trust-reset")"));
  EXPECT_EQ(Ask().out, "oui: up to date\n");
  offer::Offer other = Offer(2, 1);
  other.repository = std::string(32, 'b');
  Serve(Describe(other, older_signer_));
  EXPECT_EQ(Ask().out, "oui: up to date\n");
  EXPECT_EQ(State()["accepted"]["repository"], std::string(32, 'b'));
}

TEST_F(SignedTest, NewerSignerMayOfferLessAndNobodyElse) {
  Follow(2, 4000000000000000000);  // Whoever had the older signer's key has counted high.
  Serve(Offer(1, 4000000000000000001));
  EXPECT_EQ(Ask().out, "oui: up to date\n");
  WriteFile(prefix_ / "a.txt", "damaged");
  EXPECT_EQ(Ask("fix").exit_status, 1) << "the floor is 2";
  EXPECT_FALSE(State()["databases"]["oui"].isMember("authorized"));
  offer::Offer anew = Offer(1, 1);
  anew.issued -= kDay;  // Before what the older one had claimed.
  Serve(Describe(anew, newer_signer_));
  const CommandResult check = Tool({"check", "--refresh"});
  EXPECT_EQ(check.out, "oui: 1 is offered, 2 is installed\n");
  EXPECT_EQ(check.exit_status, 10);
  const std::string status = Tool({"status", "oui", "--offline"}).out;
  EXPECT_THAT(status, HasSubstr("  state      update offered\n"));
  EXPECT_THAT(status, HasSubstr("  update     full package, "));
  EXPECT_EQ(State()["databases"]["oui"]["authorized"], 1);
  EXPECT_EQ(State()["databases"]["oui"]["floor"], 1);
  EXPECT_EQ(State()["accepted"]["counter"], 1);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.out, "oui: updated to 1\n") << result.err;
  EXPECT_THAT(result.err, HasSubstr("version 1 takes the place of 2"));
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_FALSE(State()["databases"]["oui"].isMember("authorized"));
  // The older one has had its time.
  Serve(Describe(Offer(2, 4000000000000000002), signer_));
  ExpectRefused("its signer's certificate, of ", "description-older");
}

TEST_F(SignedTest, UpdateThatLearnsOfANewerSignerFollowsAtOnce) {
  Follow(2);
  Serve(Describe(Offer(1, 1), newer_signer_));
  EXPECT_EQ(Ask().out, "oui: updated to 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

// Another process learns of the newer signer while the older one's version is being installed.
TEST_F(SignedTest, NewerSignerWhoComesDuringAnUpdateIsFollowedByTheNextOne) {
  Follow(1);
  Serve(Offer(2, kCounter + 1));
  ASSERT_EQ(Tool({"check", "--refresh"}).exit_status, 10);
  Serve(Describe(Offer(1, 1), newer_signer_));
  const fs::path plugin = "/usr/tolm/lib/plugins/database_autoupdate/version_change/ask";
  WriteFile(plugin, "#!/bin/sh\nexec /usr/bin/tolmdbud check --refresh\n");
  fs::permissions(plugin, fs::perms(0755));
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  fs::remove(plugin);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(SignedTest, StateOfTheFormerVersionKeepsItsFloors) {
  Serve(Unsigned(2));
  ASSERT_EQ(Ask().exit_status, 0);
  ASSERT_EQ(State().size(), 2u) << "format and databases, as before";
  Follow(2);
  EXPECT_EQ(State()["databases"]["oui"]["floor"], 2);
  EXPECT_EQ(State()["signed_wanted"], true);
}

TEST_F(SignedTest, LostStateIsRememberedAgainByTheCachedOne) {
  Follow(2);
  const Json::Value before = State();
  WriteFile(kState, "{");
  Serve(Unsigned(1));
  EXPECT_EQ(Ask().exit_status, 1);
  EXPECT_EQ(State()["accepted"], before["accepted"]);
  EXPECT_EQ(ReadFile(kState.string() + ".aside"), "{");
  ExpectRefused("it is not signed, and this device has had a signed one", "description-not-signed");
}

// They may not see what was accepted: root has put there what there is.
TEST_F(SignedTest, OtherAccountsJudgeSignatureAndTime) {
  if (!HasOrdinaryAccount()) {
    GTEST_SKIP() << kNoOrdinaryAccount;
  }
  Follow(1);
  const offer::Offer second = Offer(2, kCounter + 1);
  Serve(Describe(LegacyOf(Offer(1)), offer::Sign(offer::FormatOffer(second), signer_)));
  ASSERT_EQ(Tool({"check", "--refresh"}).out, "oui: 2 is offered, 1 is installed\n");
  const std::vector<std::string> check = AsOrdinaryAccount({kTool, "check"});
  EXPECT_THAT(RunCommand(check).out, HasSubstr("oui: 2 is offered, 1 is installed"));
  // Perhaps they may not look where this was built.
  fs::copy_file(TOLM_SHIFTED_CLOCK_LIBRARY, "/tmp/clock.so");
  CommandOptions later = At(second.expires + kDay);
  later.environment.push_back("LD_PRELOAD=/tmp/clock.so");
  EXPECT_EQ(RunCommand(check, later).exit_status, 1);
  const package::Signer stranger = Authority().NewSigner(ForDescriptions(kEpoch));
  WriteFile(kCached, Describe(second, stranger));
  EXPECT_EQ(RunCommand(check).exit_status, 1);
}

TEST_F(SignedTest, KillsBetweenStateAndCacheLoseNothing) {
  AdoptOrphans();
  Follow(1);
  std::uint64_t counter = kCounter + 1;
  std::size_t moments = 0;
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {kTool, "check", "--refresh"}, {kTool, "update", "oui", "--refresh"}}) {
    Serve(Offer(1, ++counter));
    const std::size_t calls = TraceFileChanges(command).size();
    for (std::size_t moment = 1; moment <= calls; ++moment, ++moments) {
      SCOPED_TRACE(command[1] + " killed before call " + std::to_string(moment));
      const std::uint64_t before = counter++;
      const std::string newest = Describe(Offer(1, counter), signer_);
      Serve(newest);
      EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, 128 + SIGKILL);
      const std::uint64_t remembered = State()["accepted"]["counter"].asUInt64();
      EXPECT_GE(remembered, before);
      EXPECT_LE(CachedCounter(), remembered) << "it is remembered first";
      const CommandResult result = RunCommand(command);
      EXPECT_EQ(result.exit_status, 0) << result.err;
      EXPECT_EQ(State()["accepted"]["counter"].asUInt64(), counter);
      EXPECT_EQ(ReadFile(kCached), newest);
      WaitForOrphans();
    }
  }
  EXPECT_GE(moments, 50u);
  std::cout << "killed at " << moments << " moments\n";
}

}  // namespace
}  // namespace tolm::testing
