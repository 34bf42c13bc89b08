#include "offer/rollout.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "offer/offer.h"
#include "tests/offer/offers.h"

namespace tolm::testing {
namespace {

using offer::kWholeShare;
using offer::RolloutPlan;
using offer::RolloutStep;
using offer::ShareAt;

constexpr std::int64_t kHour = 3600;

RolloutPlan Plan() {
  RolloutPlan plan;
  plan.start = kIssued;
  plan.steps = {{100, 6 * kHour}, {1000, 18 * kHour}, {kWholeShare, 0}};
  return plan;
}

offer::Offer StagedOffer() {
  offer::Offer made = SomeOffer();
  made.databases["oui"].next =
      offer::NextOffer{9,
                       1700000009,
                       PackageNamed("packages/oui/oui_v9"),
                       {{8, PackageNamed("d/oui_d8")}, {9, PackageNamed("d/oui_d9")}},
                       Plan()};
  return made;
}

TEST(RolloutTest, ShareIsThatOfTheStepThatHasBegun) {
  const RolloutPlan plan = Plan();
  for (const auto& [at, share] :
       std::map<std::int64_t, int>{{0, 0},
                                   {kIssued - 1, 0},
                                   {kIssued, 100},
                                   {kIssued + 6 * kHour - 1, 100},
                                   {kIssued + 6 * kHour, 1000},
                                   {kIssued + 24 * kHour - 1, 1000},
                                   {kIssued + 24 * kHour, kWholeShare},
                                   {kIssued + 9999 * kDay, kWholeShare}}) {
    EXPECT_EQ(ShareAt(plan, at), share) << at;
  }
  EXPECT_EQ(offer::LastStepOf(plan), kIssued + kDay);
}

TEST(RolloutTest, HeldOneStaysWhereItWas) {
  RolloutPlan plan = Plan();
  plan.held = kIssued + 7 * kHour;
  EXPECT_EQ(ShareAt(plan, kIssued), 100) << "a clock that is behind gets no more";
  EXPECT_EQ(ShareAt(plan, kIssued + 7 * kHour), 1000);
  EXPECT_EQ(ShareAt(plan, kIssued + 9999 * kDay), 1000);
}

TEST(RolloutTest, StoppedOneReachesNobody) {
  RolloutPlan plan = Plan();
  plan.stopped = true;
  EXPECT_EQ(ShareAt(plan, kIssued + 9999 * kDay), 0);
  plan.held = kIssued + 7 * kHour;
  EXPECT_EQ(ShareAt(plan, kIssued + 9999 * kDay), 0);
}

TEST(RolloutTest, TimeOfAPositionIsWhenItsStepBegins) {
  RolloutPlan plan = Plan();
  EXPECT_EQ(offer::TimeOfPosition(plan, 0), kIssued);
  EXPECT_EQ(offer::TimeOfPosition(plan, 99), kIssued);
  EXPECT_EQ(offer::TimeOfPosition(plan, 100), kIssued + 6 * kHour);
  EXPECT_EQ(offer::TimeOfPosition(plan, kWholeShare - 1), kIssued + kDay);
  plan.steps = {{100, 0}};
  EXPECT_EQ(offer::TimeOfPosition(plan, 100), std::nullopt);
}

TEST(RolloutTest, SharesOfTenThousandDevicesAreThoseOfThePlan) {
  for (const int version : {1000001, 1000002}) {
    std::map<int, int> reached;
    for (int device = 0; device < 10000; ++device) {
      const int position = offer::PositionOf("device-" + std::to_string(device), "oui", version);
      ASSERT_GE(position, 0);
      ASSERT_LT(position, kWholeShare);
      for (const int share : {100, 1000, 2500, 5000, 9000, kWholeShare}) {
        reached[share] += position < share ? 1 : 0;
      }
    }
    for (const auto& [share, devices] : reached) {
      EXPECT_NEAR(devices, share, 100) << share << " of version " << version;
    }
    EXPECT_EQ(reached[kWholeShare], 10000);
  }
}

TEST(RolloutTest, SameDevicesAreNotAlwaysTheFirst) {
  int both = 0;
  for (int device = 0; device < 10000; ++device) {
    const std::string identifier = "device-" + std::to_string(device);
    both += offer::PositionOf(identifier, "oui", 2) < 1000 &&
                    offer::PositionOf(identifier, "oui", 3) < 1000
                ? 1
                : 0;
    both += offer::PositionOf(identifier, "oui", 2) < 1000 &&
                    offer::PositionOf(identifier, "geo", 2) < 1000
                ? 1
                : 0;
  }
  EXPECT_NEAR(both, 200, 60) << "a hundred by chance each";
}

TEST(RolloutTest, PositionIsThisOne) {
  // printf 'ab12\noui\n7' | sha384sum | cut -c1-8, as a fraction of 2^32
  EXPECT_EQ(offer::PositionOf("ab12", "oui", 7), 410);
}

TEST(RolloutTest, PlanThatCannotBeIsToldSo) {
  const auto with = [](std::vector<RolloutStep> steps) {
    RolloutPlan plan = Plan();
    plan.steps = std::move(steps);
    return ProblemOf(plan);
  };
  EXPECT_EQ(ProblemOf(Plan()), "");
  EXPECT_EQ(with({{kWholeShare, 0}}), "");
  EXPECT_NE(with({}), "");
  EXPECT_NE(with({{0, 0}}), "");
  EXPECT_NE(with({{kWholeShare + 1, 0}}), "");
  EXPECT_NE(with({{100, 60}, {100, 0}}), "") << "not above the one before";
  EXPECT_NE(with({{100, 0}, {200, 0}}), "") << "a step without time";
  EXPECT_NE(with({{100, 60}, {200, 60}}), "") << "a last step with an end";
  EXPECT_NE(with({{100, offer::kLongestStepSeconds + 1}, {200, 0}}), "");
  std::vector<RolloutStep> many;
  for (int share = 1; share <= 33; ++share) {
    many.push_back({share, share == 33 ? 0 : 60});
  }
  EXPECT_NE(with(many), "");
  RolloutPlan plan = Plan();
  plan.held = plan.start - 1;
  EXPECT_NE(ProblemOf(plan), "");
  plan.held.reset();
  plan.start = offer::kLatestRolloutTime;
  EXPECT_EQ(ProblemOf(plan), "");
  EXPECT_EQ(offer::TimeOfPosition(plan, kWholeShare - 1), offer::kLatestRolloutTime + 24 * kHour);
  plan.held = offer::kLatestRolloutTime + 1;
  EXPECT_NE(ProblemOf(plan), "");
  plan.held.reset();
  for (const std::int64_t start : {std::int64_t{-1}, offer::kLatestRolloutTime + 1,
                                   std::numeric_limits<std::int64_t>::max()}) {
    plan.start = start;
    EXPECT_NE(ProblemOf(plan), "") << start;
  }
}

TEST(RolloutTest, PlanAtItsLimitsIsOne) {
  RolloutPlan plan;
  for (int share = 1; share <= static_cast<int>(offer::kMostRolloutSteps); ++share) {
    plan.steps.push_back({share, offer::kLongestStepSeconds});
  }
  plan.steps.back().seconds = 0;
  plan.start = 0;
  plan.held = 0;
  EXPECT_EQ(ProblemOf(plan), "") << "from 1970 on, held at its start";
  plan.held = offer::kLatestRolloutTime;
  EXPECT_EQ(ProblemOf(plan), "") << "to the year 9999";
}

TEST(RolloutTest, NextVersionIsTheSameAfterItWasWrittenAndRead) {
  offer::Offer made = StagedOffer();
  for (const bool stopped : {false, true}) {
    made.databases["oui"].next->plan.stopped = stopped;
    const std::string text = FormatOffer(made);
    EXPECT_EQ(FormatOffer(offer::ParseOffer(text)), text);
    made.databases["oui"].next->plan.held = kIssued + 1;
  }
}

struct NextDamage {
  const char* what;
  const char* before;
  const char* after;
};

TEST(RolloutTest, NextVersionThatIsNotCompleteMakesTheWholeTextNone) {
  const std::string good = FormatOffer(StagedOffer());
  for (const NextDamage& row : {
           NextDamage{"not above the stable one", "\"version\":9", "\"version\":7"},
           NextDamage{"delta to the stable one", "\"8\":{", "\"7\":{"},
           NextDamage{"delta beyond it", "\"9\":{", "\"10\":{"},
           NextDamage{"no start", "\"start\"", "\"started\""},
           NextDamage{"negative start", "\"start\":4", "\"start\":-4"},
           NextDamage{"a start beyond all times", "\"start\":4", "\"start\":9223372036"},
           NextDamage{"steps as an object", "\"steps\":[", "\"steps\":{},\"x\":["},
           NextDamage{"step as a number", "\"steps\":[", "\"steps\":[1,"},
           NextDamage{"shares that fall", "\"share\":100}", "\"share\":1001}"},
           NextDamage{"share beyond the whole", "\"share\":10000", "\"share\":10001"},
           NextDamage{"flag as a text", "\"stopped\":false", "\"stopped\":\"no\""},
           NextDamage{"no flag", "\"stopped\":false", "\"stoped\":false"},
           NextDamage{"held before its start", "\"start\":4", "\"held\":5,\"start\":4"},
           NextDamage{"plan as null", "\"plan\":{", "\"plan\":null,\"x\":{"},
           NextDamage{"next as null", "\"next\":{", "\"next\":null,\"x\":{"},
       }) {
    std::string text = good;
    ASSERT_NE(text.find(row.before), std::string::npos) << row.what;
    text.replace(text.find(row.before), std::string(row.before).size(), row.after);
    EXPECT_EQ(OfferCodeOf([&] { offer::ParseOffer(text); }), offer::Code::kForm) << row.what;
  }
}

TEST(RolloutTest, OldDevicesReadTheStableVersionAndOthersWhatTheyTake) {
  const offer::Offer made = StagedOffer();
  const Json::Value stable = offer::DocumentOf(made);
  EXPECT_EQ(stable, offer::DocumentOf(SomeOffer())) << "as if there was no next one";
  const Json::Value next = offer::DocumentOf(made, {"oui"})["db_list"]["oui"];
  EXPECT_EQ(next["data_version"], "9");
  EXPECT_EQ(next["last_fetch_time"], 1700000009);
  EXPECT_EQ(next["download_link"], "https://updates.example.org/data/packages/oui/oui_v9");
  EXPECT_EQ(next["diff_files"].getMemberNames(), (std::vector<std::string>{"7", "8", "9"}))
      << "a chain leads through the stable one";
  EXPECT_EQ(offer::DocumentOf(SomeOffer(), {"oui", "none"}), offer::DocumentOf(SomeOffer()));
}

TEST(RolloutTest, NextVersionIsForWhoIsReachedAndWhoHasIt) {
  offer::DatabaseOffer database = StagedOffer().databases["oui"];
  const auto takes = [&](int installed, int position, std::int64_t at) {
    return offer::TakesNext(database, installed, position, at);
  };
  EXPECT_TRUE(takes(7, 99, kIssued));
  EXPECT_FALSE(takes(7, 100, kIssued));
  EXPECT_FALSE(takes(7, 0, kIssued - 1));
  EXPECT_TRUE(takes(-1, 99, kIssued)) << "never installed";
  EXPECT_TRUE(takes(8, kWholeShare, kIssued)) << "between the two: there is no way back";
  EXPECT_TRUE(takes(9, kWholeShare, kIssued));
  database.next->plan.stopped = true;
  EXPECT_FALSE(takes(7, 0, kIssued + 99 * kDay)) << "nobody further";
  EXPECT_TRUE(takes(9, 0, kIssued)) << "who has it stays";
  EXPECT_FALSE(takes(8, 0, kIssued)) << "who has what was staged before it does not have it";
  database.next.reset();
  EXPECT_FALSE(takes(9, 0, kIssued));
}

}  // namespace
}  // namespace tolm::testing
