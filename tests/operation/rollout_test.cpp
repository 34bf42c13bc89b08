#include "operation/rollout.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/paths.h"
#include "offer/signed_offer.h"
#include "operation/belief.h"
#include "operation/device_trust.h"
#include "operation/offered_package.h"
#include "operation/offered_size.h"
#include "operation/offers.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/told_time.h"
#include "tolm/hwid.h"

namespace {
// Empty: the device has none.
std::string test_identifier;
}  // namespace

// In place of the platform's.
extern "C" int tolmcrypto_hwid_str(tolmcrypto_hwid* context, int length) {
  const std::string text = test_identifier.substr(0, static_cast<std::size_t>(length));
  text.copy(context->text, text.size());
  context->text[text.size()] = '\0';
  return text.empty() ? 0 : 1;
}

namespace tolm::operation {
namespace {

using offer::kWholeShare;
using testing::kDay;
using testing::kIssued;
using Turn = Rollout::Turn;
using State = Rollout::State;

constexpr std::int64_t kHour = 3600;
constexpr int kStable = 7;
constexpr int kBetween = 8;
constexpr int kNext = 9;

offer::RolloutPlan Plan() {
  offer::RolloutPlan plan;
  plan.start = kIssued;
  plan.steps = {{100, 6 * kHour}, {1000, 18 * kHour}, {kWholeShare, 0}};
  return plan;
}
offer::RolloutPlan Held(std::int64_t at) {
  offer::RolloutPlan plan = Plan();
  plan.held = at;
  return plan;
}
offer::RolloutPlan Stopped() {
  offer::RolloutPlan plan = Plan();
  plan.stopped = true;
  return plan;
}

offer::NextOffer NextWith(const offer::RolloutPlan& plan) {
  return {kNext,
          1700000009,
          testing::PackageNamed("packages/oui/oui_v9"),
          {{8, testing::PackageNamed("d/oui_d8")}, {9, testing::PackageNamed("d/oui_d9")}},
          plan};
}

offer::Offer StagedOffer(const offer::RolloutPlan& plan = Plan()) {
  offer::Offer made = testing::SomeOffer();
  made.databases["oui"].next = NextWith(plan);
  return made;
}

Rollout Decide(const offer::RolloutPlan& plan, int installed, const RolloutDevice& device,
               std::int64_t at) {
  return RolloutOf("oui", StagedOffer(plan).databases["oui"], installed, device, at);
}

void Set(const std::string& rollout) {
  testing::WriteFile(paths::kOperationSettings, R"({"rollout": ")" + rollout + "\"}");
}

void PutInstalled(const std::string& name, int version) {
  testing::WriteFile("/var/lib/data_update/" + name + "/version.json",
                     R"({"data_version": ")" + std::to_string(version) +
                         R"(", "last_fetch_time": 1, "file_status": {}})");
}

// ---- The decision ----

struct SettingRow {
  RolloutSetting setting;
  std::optional<int> position;
  std::int64_t reached_at;  // After the plan's start; -1: never.
};

TEST(RolloutTest, SettingDecidesThePosition) {
  const std::string identifier = "0123456789abcdef";
  const int own = offer::PositionOf(identifier, "oui", kNext);
  ASSERT_GE(own, 1000) << "it is of the last step";
  const SettingRow rows[] = {{RolloutSetting::kEarly, 0, 0},
                             {RolloutSetting::kNormal, own, kDay},
                             {RolloutSetting::kLate, kWholeShare - 1, kDay},
                             {RolloutSetting::kStable, std::nullopt, -1}};
  for (const SettingRow& row : rows) {
    SCOPED_TRACE(SettingText(row.setting));
    const RolloutDevice device{identifier, row.setting};
    const Rollout before = Decide(Plan(), kStable, device, kIssued - 1);
    EXPECT_EQ(before.position, row.position);
    EXPECT_EQ(before.setting, SettingText(row.setting));
    EXPECT_FALSE(before.IsOffered());
    if (row.reached_at < 0) {
      EXPECT_EQ(before.turn, Turn::kNever);
      EXPECT_EQ(before.turn_at, std::nullopt);
      EXPECT_EQ(Decide(Plan(), kStable, device, kIssued + 9999 * kDay).turn, Turn::kNever);
      continue;
    }
    EXPECT_EQ(before.turn_at, kIssued + row.reached_at);
    EXPECT_EQ(Decide(Plan(), kStable, device, kIssued + row.reached_at - 1).turn, Turn::kLater);
    const Rollout then = Decide(Plan(), kStable, device, kIssued + row.reached_at);
    EXPECT_EQ(then.turn, Turn::kReached);
    EXPECT_EQ(then.turn_at, std::nullopt);
  }
  EXPECT_EQ(PositionOf({"", RolloutSetting::kNormal}, "oui", kNext), kWholeShare - 1);
  EXPECT_EQ(PositionOf({"", RolloutSetting::kEarly}, "oui", kNext), 0);
}

struct InstalledRow {
  int installed;
  Turn not_reached;
  Turn reached;
  Turn stopped;
};

TEST(RolloutTest, WhatIsInstalledIsNotGoneBackBehind) {
  const RolloutDevice early{"", RolloutSetting::kEarly};
  const RolloutDevice late{"", RolloutSetting::kLate};
  const RolloutDevice stable{"", RolloutSetting::kStable};
  const InstalledRow rows[] = {
      {kNeverInstalled, Turn::kLater, Turn::kReached, Turn::kNever},
      {kStable - 1, Turn::kLater, Turn::kReached, Turn::kNever},
      {kStable, Turn::kLater, Turn::kReached, Turn::kNever},
      // A staged version whose place this one has taken: a stop keeps this one from it as well.
      {kBetween, Turn::kStays, Turn::kReached, Turn::kNever},
      {kNext, Turn::kStays, Turn::kReached, Turn::kStays},
      // Of another signer, or forced: no plan has put it there.
      {kNext + 1, Turn::kLater, Turn::kReached, Turn::kNever},
  };
  for (const InstalledRow& row : rows) {
    SCOPED_TRACE(row.installed);
    EXPECT_EQ(Decide(Plan(), row.installed, late, kIssued).turn, row.not_reached);
    EXPECT_EQ(Decide(Held(kIssued + kHour), row.installed, late, kIssued + 9 * kDay).turn,
              row.not_reached);
    EXPECT_EQ(Decide(Plan(), row.installed, late, kIssued + kDay).turn, row.reached);
    EXPECT_EQ(Decide(Held(kIssued + kHour), row.installed, early, kIssued + kHour).turn,
              row.reached);
    EXPECT_EQ(Decide(Stopped(), row.installed, early, kIssued + kDay).turn, row.stopped);
    const bool stays = row.not_reached == Turn::kStays;
    EXPECT_EQ(Decide(Plan(), row.installed, stable, kIssued + kDay).IsOffered(), stays);
    EXPECT_EQ(OfferedVersionOf(Decide(Plan(), row.installed, late, kIssued)),
              stays ? kNext : kStable);
  }
}

TEST(RolloutTest, TenThousandDevicesAreReachedByTheSharesOfThePlan) {
  const std::map<std::int64_t, int> shares = {{kIssued - 1, 0},
                                              {kIssued, 100},
                                              {kIssued + 6 * kHour - 1, 100},
                                              {kIssued + 6 * kHour, 1000},
                                              {kIssued + kDay - 1, 1000},
                                              {kIssued + kDay, kWholeShare}};
  const offer::DatabaseOffer database = StagedOffer().databases["oui"];
  std::map<std::int64_t, std::set<int>> reached;
  for (int number = 0; number < 10000; ++number) {
    const RolloutDevice device{"device-" + std::to_string(number), RolloutSetting::kNormal};
    for (const auto& [at, share] : shares) {
      const Rollout rollout = RolloutOf("oui", database, kStable, device, at);
      ASSERT_EQ(rollout.share, share);
      if (rollout.IsOffered()) {
        reached[at].insert(number);
      } else {
        ASSERT_GT(*rollout.turn_at, at);
        ASSERT_TRUE(RolloutOf("oui", database, kStable, device, *rollout.turn_at).IsOffered());
      }
    }
  }
  for (const auto& [at, share] : shares) {
    EXPECT_NEAR(static_cast<double>(reached[at].size()), share, 100) << at - kIssued;
  }
  EXPECT_TRUE(reached[kIssued - 1].empty());
  EXPECT_EQ(reached[kIssued + kDay].size(), 10000u);
  EXPECT_TRUE(std::includes(reached[kIssued + 6 * kHour].begin(),
                            reached[kIssued + 6 * kHour].end(), reached[kIssued].begin(),
                            reached[kIssued].end()))
      << "who was reached stays so";
}

// ---- The document ----

TEST(RolloutTest, DocumentOffersOneVersionAndNamesThePackagesOfBoth) {
  const offer::Offer offer = StagedOffer();
  for (const bool is_next : {false, true}) {
    const Rollout rollout =
        Decide(Plan(), kStable, {"", RolloutSetting::kLate}, is_next ? kIssued + kDay : kIssued);
    const Json::Value document = DocumentOf(offer, {{"oui", rollout}});
    const dataupdate::RemoteInfo remote = OfferIn(document, "oui");
    EXPECT_EQ(remote.data_version, is_next ? kNext : kStable);
    const std::optional<dataupdate::RemoteInfo> other = OtherOfferIn(document, "oui");
    ASSERT_TRUE(other);
    EXPECT_EQ(other->data_version, is_next ? kStable : kNext);
    EXPECT_FALSE(OtherOfferIn(document, "geo"));
    const std::map<int, dataupdate::DiffInfo> deltas = DeltasIn(document, "oui");
    EXPECT_EQ(deltas.count(7), 1u);
    EXPECT_EQ(deltas.count(8), is_next ? 1u : 0u);
    EXPECT_EQ(deltas.count(9), is_next ? 1u : 0u);
    const OfferedPackages packages = SignedPackagesIn(document, "oui");
    EXPECT_EQ(packages.size(), 5u);
    EXPECT_EQ(OtherVersionIn(document, "oui")["diff_files"].size(), is_next ? 0u : 2u)
        << "each stands there once";
    for (const char* tag : {"v7", "v9", "d7", "d8", "d9"}) {
      EXPECT_EQ(packages.count(tag), 1u) << tag;
    }
    for (const char* link : {"packages/oui/oui_v7", "packages/oui/oui_v9", "d/oui_d9"}) {
      EXPECT_EQ(OfferedBytesIn(document, offer.base + '/' + link), 1000u) << link;
    }
    EXPECT_TRUE(RolloutIn(document, "oui") == rollout);
    EXPECT_EQ(RolloutIn(document, "geo"), std::nullopt);
    EXPECT_EQ(RolloutIn(document, "Zeichen \xC3\xA4\"\n"), std::nullopt);
  }
}

TEST(RolloutTest, WithoutAStagedVersionTheDocumentIsTheOffersOwn) {
  const offer::Offer offer = testing::SomeOffer();
  const Rollouts rollouts = RolloutsOf(offer, kIssued);
  EXPECT_TRUE(rollouts.empty());
  EXPECT_EQ(DocumentOf(offer, rollouts), offer::DocumentOf(offer));
}

TEST(RolloutTest, ServersOwnDocumentHasNone) {
  Json::Value document = DocumentOf(StagedOffer(), {{"oui", Decide(Plan(), kNext, {}, kIssued)}});
  document["db_list"]["oui"]["next"]["version"] = kNext + 1;
  document.removeMember("signed");
  EXPECT_EQ(RolloutIn(document, "oui"), std::nullopt);
  EXPECT_TRUE(OtherVersionIn(document, "oui").isNull());
  EXPECT_TRUE(SignedPackagesIn(document, "oui").empty());
  EXPECT_EQ(OfferIn(document, "oui").data_version, kNext) << "of data_version alone";
  for (const Json::Value& other : {Json::Value(), Json::Value(7), Json::Value(Json::arrayValue)}) {
    EXPECT_EQ(RolloutIn(other, "oui"), std::nullopt);
  }
}

// ---- In words ----

std::string WordsOf(const offer::RolloutPlan& plan, int installed, RolloutSetting setting,
                    std::int64_t at) {
  return RolloutText(Decide(plan, installed, {"", setting}, at), at);
}

TEST(RolloutTest, IsToldInWords) {
  const std::string stable = ", 7 is the stable version; this device's turn ";
  EXPECT_EQ(WordsOf(Plan(), kStable, RolloutSetting::kEarly, kIssued),
            "9 has reached 1 % of the devices" + stable +
                "has come, at position 0 % (rollout \"early\")");
  EXPECT_EQ(WordsOf(Plan(), kStable, RolloutSetting::kLate, kIssued + 6 * kHour),
            "9 has reached 10 % of the devices" + stable +
                "comes 2096-10-03T07:06:40Z (in 18 h), at position 99.99 % (rollout \"late\")");
  EXPECT_EQ(WordsOf(Held(kIssued + kHour), kStable, RolloutSetting::kLate, kIssued + kDay),
            "9 is held at 1 % of the devices" + stable +
                "comes when it is no longer held, at position 99.99 % (rollout \"late\")");
  EXPECT_EQ(WordsOf(Stopped(), kStable, RolloutSetting::kEarly, kIssued),
            "9 was stopped, devices that have it stay with it" + stable +
                "does not come, since it was stopped");
  EXPECT_EQ(WordsOf(Stopped(), kNext, RolloutSetting::kEarly, kIssued),
            "9 was stopped, devices that have it stay with it" + stable +
                "is over, it has more than the stable version");
  EXPECT_EQ(WordsOf(Plan(), kStable, RolloutSetting::kStable, kIssued),
            "9 has reached 1 % of the devices" + stable +
                "comes when it is the stable version (rollout \"stable\")");
  offer::RolloutPlan part = Plan();
  part.steps = {{50, 0}};
  EXPECT_EQ(WordsOf(part, kStable, RolloutSetting::kLate, kIssued),
            "9 has reached 0.5 % of the devices" + stable +
                "is in none of its steps, at position 99.99 % (rollout \"late\")");
}

TEST(RolloutTest, WaitIsToldToItsLastSecond) {
  const Rollout rollout = Decide(Plan(), kStable, {"", RolloutSetting::kLate}, kIssued);
  ASSERT_EQ(rollout.turn_at, kIssued + kDay);
  const std::string place = ", at position 99.99 % (rollout \"late\")";
  EXPECT_EQ(TurnText(rollout, kIssued + kDay - 1), "comes 2096-10-03T07:06:40Z (in 1 s)" + place);
  EXPECT_EQ(TurnText(rollout, kIssued + kDay), "comes 2096-10-03T07:06:40Z" + place);
}

// ---- What is believed of a signed description ----

class BelievedRolloutTest : public ::testing::Test {
 protected:
  static constexpr std::time_t kOlderEpoch = 1100000000;
  static constexpr std::time_t kNewerEpoch = 1200000000;

  BelievedRolloutTest() {
    testing::WriteFile(KeyringFile(".pem"), root_.Pem());
    testing::WriteFile(paths::kServiceDefaults, R"({"config": {"db_ver": "1"}})");
    tolm::testing::test_time = kIssued;
  }
  ~BelievedRolloutTest() override { tolm::testing::test_time = 0; }

  package::Signer SignerSince(std::time_t not_before) const {
    testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    options.not_before = not_before;
    return root_.NewSigner(options);
  }

  /// As a description is read from a file.
  static Claim ClaimOf(const offer::Offer& offer, const package::Signer& signer) {
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer));
    return Claim(document);
  }
  Claim ClaimOf(const offer::Offer& offer) const { return ClaimOf(offer, signer_); }

  static int OfferedBy(const Claim& claim, const std::string& name = "oui") {
    return OfferIn(*Believe(claim, "it").document, name).data_version;
  }

  /// What the device is offered by it, once it has been accepted.
  static int Accept(const Claim& claim) {
    const Belief belief = Believe(claim, "it");
    Remember(belief);
    return OfferIn(*belief.document, "oui").data_version;
  }
  int Accept(const offer::Offer& offer) const { return Accept(ClaimOf(offer)); }

  const testing::Authority root_;
  const package::Signer signer_ = SignerSince(kOlderEpoch);
  const package::Signer newer_signer_ = SignerSince(kNewerEpoch);
};

TEST_F(BelievedRolloutTest, IsDecidedAnewAtEachLook) {
  const Claim claim = ClaimOf(StagedOffer());
  EXPECT_EQ(OfferedBy(claim), kStable) << "without an identifier it is the last";
  test_identifier = "device 000000142 and more";
  ASSERT_LT(offer::PositionOf(ThisDevice().identifier, "oui", kNext), 100);
  EXPECT_EQ(OfferedBy(claim), kNext);
  test_identifier.clear();
  Set("early");
  EXPECT_EQ(OfferedBy(claim), kNext);
  Set("stable");
  EXPECT_EQ(OfferedBy(claim), kStable);
  PutInstalled("oui", kNext);
  EXPECT_EQ(OfferedBy(claim), kNext) << "an operation has installed it";
  testing::WriteFile("/var/lib/data_update/oui/version.json", "damaged");
  EXPECT_EQ(OfferedBy(claim), kStable);
  RaiseFloor("oui", kNext);
  EXPECT_EQ(OfferedBy(claim), kNext) << "it was installed once";
  RaiseFloor("oui", kNext + 1);
  EXPECT_EQ(OfferedBy(claim), kStable);
  Set("late");
  tolm::testing::test_time = kIssued + kDay - 1;
  EXPECT_EQ(OfferedBy(claim), kStable);
  tolm::testing::test_time = kIssued + kDay;
  EXPECT_EQ(OfferedBy(claim), kNext);
  testing::WriteFile(paths::kOperationSettings, R"({"rollout": "soon"})");
  EXPECT_EQ(OfferedBy(claim), kStable) << "no operation begins with that";
}

TEST_F(BelievedRolloutTest, ClockThatIsBehindCountsAsTheTimeOfWhatWasAccepted) {
  tolm::testing::test_time = 1000;
  Set("early");
  offer::Offer offer = StagedOffer();
  offer.databases["oui"].next->plan.start = kIssued + kHour;
  EXPECT_EQ(Accept(offer), kStable) << "issued before the first step";
  offer.counter += 1;
  offer.issued = kIssued + kHour;
  EXPECT_EQ(Accept(offer), kNext) << "issued when it begins";
  Set("late");
  EXPECT_EQ(OfferedBy(ClaimOf(offer)), kStable);
  offer.counter += 1;
  offer.issued = kIssued + kHour + kDay;
  EXPECT_EQ(Accept(offer), kNext) << "issued when the last one begins";
  offer.counter += 1;
  offer.issued = kIssued;
  EXPECT_EQ(Accept(offer), kNext) << "time does not go back";
}

TEST_F(BelievedRolloutTest, ClockThatIsAheadCountsUntilTheDescriptionEnds) {
  Set("late");
  const Claim claim = ClaimOf(StagedOffer());
  EXPECT_EQ(OfferedBy(claim), kStable);
  tolm::testing::test_time = kIssued + 10 * kDay;
  EXPECT_EQ(OfferedBy(claim), kNext) << "ahead by ten days";
  tolm::testing::test_time = kIssued + 15 * kDay;
  EXPECT_THROW(OfferedBy(claim), Disbelieved);
}

TEST_F(BelievedRolloutTest, StopHoldAndResumeComeWithNewDescriptions) {
  Set("late");
  offer::Offer offer = StagedOffer();
  const auto next_one = [&](const offer::RolloutPlan& plan) {
    offer.counter += 1;
    offer.databases["oui"].next = NextWith(plan);
    return Accept(offer);
  };
  tolm::testing::test_time = kIssued + kDay;
  EXPECT_EQ(next_one(Held(kIssued + kHour)), kStable);
  offer::RolloutPlan resumed = Plan();
  resumed.start = kIssued + 2 * kDay - kHour;  // One hour of the first step is over.
  EXPECT_EQ(next_one(resumed), kStable);
  tolm::testing::test_time = kIssued + 3 * kDay;
  EXPECT_EQ(OfferedBy(ClaimOf(offer)), kNext);
  EXPECT_EQ(next_one(Stopped()), kStable) << "it has not installed it yet";
  PutInstalled("oui", kNext);
  EXPECT_EQ(OfferedBy(ClaimOf(offer)), kNext) << "it has";
  offer.counter += 1;
  offer.databases["oui"].version = kNext;
  offer.databases["oui"].next.reset();
  EXPECT_EQ(Accept(offer), kNext) << "it is the stable one";
}

TEST_F(BelievedRolloutTest, DatabasesAreDecidedEachForItself) {
  Set("late");
  offer::Offer offer = StagedOffer();
  offer.databases["geo"] = offer.databases["oui"];
  offer.databases["geo"].next->plan.start = kIssued - kDay;
  const Claim claim = ClaimOf(offer);
  EXPECT_EQ(OfferedBy(claim, "oui"), kStable);
  EXPECT_EQ(OfferedBy(claim, "geo"), kNext);
  PutInstalled("oui", kNext);
  EXPECT_EQ(OfferedBy(claim, "oui"), kNext);
}

struct NewerSignerRow {
  std::string name;
  int installed;
  std::function<void(offer::DatabaseOffer&)> change;
  int offered;
  std::optional<int> authorized;
  int floor;
};

TEST_F(BelievedRolloutTest, NewerSignerAuthorizesTheVersionThatTheDeviceIsOffered) {
  const auto nothing = [](offer::DatabaseOffer&) {};
  const auto stopped = [](offer::DatabaseOffer& database) { database.next->plan.stopped = true; };
  const NewerSignerRow rows[] = {
      {"staged, not reached", 12, nothing, kStable, kStable, kStable},
      {"staged, reached", 12,
       [](offer::DatabaseOffer& database) { database.next->plan.start = kIssued - kDay; }, kNext,
       kNext, kNext},
      {"stopped", 12, stopped, kStable, kStable, kStable},
      {"stopped, and the device has it", kNext, stopped, kNext, std::nullopt, kNext},
      {"nothing staged", kNext, [](offer::DatabaseOffer& database) { database.next.reset(); },
       kStable, kStable, kStable},
  };
  for (const NewerSignerRow& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all("/var/lib/data_update");
    Set("late");
    PutInstalled("oui", row.installed);
    offer::Offer offer = testing::SomeOffer();
    offer.databases["oui"].version = row.installed;
    Accept(offer);
    NoteInstalled("oui", row.installed, false);
    offer = StagedOffer();
    row.change(offer.databases["oui"]);
    offer.counter = 1;
    const Claim claim = ClaimOf(offer, newer_signer_);
    EXPECT_EQ(Accept(claim), row.offered);
    EXPECT_EQ(LookForAuthorized("oui"), row.authorized);
    EXPECT_EQ(FloorOf("oui"), row.floor);
    EXPECT_EQ(OfferedBy(claim), row.offered) << "also after the floor was lowered";
  }
}

TEST_F(BelievedRolloutTest, DigestsOfBothVersionsAndTheirDeltasAreNamed) {
  EXPECT_EQ(SignedDigests(), std::nullopt) << "nothing is cached";
  offer::Offer offer = StagedOffer();
  const auto named = [](char digit) {
    return offer::PackageOffer{std::string("packages/") + digit, 1000, std::string(96, digit)};
  };
  offer.databases["oui"].full = named('a');
  offer.databases["oui"].deltas = {{6, named('b')}, {7, named('c')}};
  offer.databases["oui"].next->full = named('d');
  offer.databases["oui"].next->deltas = {{8, named('e')}, {9, named('f')}};
  offer.databases["geo"] = {1, 1700000000, false, named('0'), {}};
  Json::Value document(Json::objectValue);
  offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer_));
  testing::WriteFile(paths::kDatabaseInfo, document.toStyledString());
  std::set<std::string> all;
  for (const char digit : {'a', 'b', 'c', 'd', 'e', 'f', '0'}) {
    all.insert(std::string(96, digit));
  }
  EXPECT_EQ(SignedDigests(), all);
  std::filesystem::remove(paths::kDatabaseInfo);
  testing::WriteFile(paths::kDatabaseInfo, R"({"db_list": {"oui": {"sha384": "unsigned"}}})");
  EXPECT_EQ(SignedDigests(), std::set<std::string>());
}

TEST_F(BelievedRolloutTest, MemberNextOfAnUnsignedOneChangesNothing) {
  Set("early");
  Json::Value document = offer::DocumentOf(testing::SomeOffer());
  document.removeMember("signed");
  document["db_list"]["oui"]["next"]["version"] = kNext;
  const Belief belief = Believe(Claim(document), "it");
  EXPECT_EQ(*belief.document, document);
  EXPECT_EQ(OfferIn(*belief.document, "oui").data_version, kStable);
}

}  // namespace
}  // namespace tolm::operation
