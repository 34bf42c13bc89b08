#include "offer/acceptance.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "package/trust.h"
#include "tests/offer/offers.h"

namespace tolm::testing {
namespace {

using offer::Acceptance;
using offer::Accepted;
using offer::Code;
using offer::Judge;
using offer::VerifiedOffer;

constexpr std::int64_t kEpoch = kIssued - 100 * kDay;
constexpr std::int64_t kNow = kIssued + kDay;
constexpr std::int64_t kFarFuture = kIssued + 1000 * kDay;

VerifiedOffer Offered() {
  VerifiedOffer verified;
  verified.offer = SomeOffer();
  verified.digest = "digest";
  verified.signer.not_before = kEpoch;
  return verified;
}

Accepted Remembered() {
  return Judge(Offered(), {}, "1", kNow).accepted;
}

TEST(AcceptanceTest, FirstOneIsRemembered) {
  const Acceptance acceptance = Judge(Offered(), {}, "1", kNow);
  EXPECT_TRUE(acceptance.is_new);
  EXPECT_FALSE(acceptance.is_newer_epoch) << "there was none before";
  EXPECT_EQ(acceptance.accepted.repository, std::string(32, '7'));
  EXPECT_EQ(acceptance.accepted.epoch, kEpoch);
  EXPECT_EQ(acceptance.accepted.counter, 41U);
  EXPECT_EQ(acceptance.accepted.digest, "digest");
  EXPECT_EQ(acceptance.accepted.issued, kIssued);
  EXPECT_EQ(acceptance.accepted.expires, kIssued + 14 * kDay);
}

TEST(AcceptanceTest, DateOfAnEarlierOneAheadOfTheClockIsNamed) {
  Accepted remembered = Remembered();
  remembered.counter = 1;
  remembered.issued = kIssued + 400 * kDay;
  try {
    Judge(Offered(), remembered, "1", kNow);
    ADD_FAILURE() << "it is over by then";
  } catch (const offer::Error& error) {
    EXPECT_EQ(error.code(), Code::kExpired);
    EXPECT_EQ(std::string(error.what()),
              "it ends on 2096-10-16 07:06 UTC, and one that says it was issued on 2097-11-06 "
              "07:06 UTC was accepted before");
  }
}

TEST(AcceptanceTest, DateOfAnEarlierOneIsNamedUntilTheClockIsBehindTheEndToo) {
  Accepted remembered = Remembered();
  remembered.counter = 1;
  remembered.issued = kIssued + 400 * kDay;
  const std::int64_t end = kIssued + 14 * kDay;
  const auto text_at = [&remembered](std::int64_t now) {
    try {
      Judge(Offered(), remembered, "1", now);
    } catch (const offer::Error& error) {
      return std::string(error.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(text_at(end).find("it ends on "), 0U) << text_at(end);
  EXPECT_EQ(text_at(end + 1).find("it ended on "), 0U) << text_at(end + 1);
}

TEST(AcceptanceTest, SameOneIsNotNewAndOneWithAnyOtherFieldIs) {
  EXPECT_FALSE(Judge(Offered(), Remembered(), "1", kNow).is_new);
  VerifiedOffer newer = Offered();
  newer.offer.counter = 42;
  EXPECT_TRUE(Judge(newer, Remembered(), "1", kNow).is_new);
  VerifiedOffer longer = Offered();
  longer.offer.expires += kDay;
  EXPECT_TRUE(Judge(longer, Remembered(), "1", kNow).is_new);
}

struct Row {
  const char* what;
  std::function<void(VerifiedOffer&)> change;
  std::optional<Code> code;
};

TEST(AcceptanceTest, WhatMayFollowWhat) {
  for (const Row& row : {
           Row{"higher counter",
               [](auto& v) {
                 v.offer.counter = 42;
                 v.digest = "x";
               },
               std::nullopt},
           Row{"lower counter", [](auto& v) { v.offer.counter = 40; }, Code::kOlder},
           Row{"same counter, other content", [](auto& v) { v.digest = "x"; }, Code::kAltered},
           Row{"another repository", [](auto& v) { v.offer.repository[0] = '8'; },
               Code::kOtherRepository},
           Row{"another repository, newer signer",
               [](auto& v) {
                 v.offer.repository[0] = '8';
                 v.signer.not_before = kEpoch + 1;
               },
               Code::kOtherRepository},
           Row{"another form", [](auto& v) { v.offer.info_version = "2"; }, Code::kOtherForm},
           Row{"older signer, higher counter",
               [](auto& v) {
                 v.signer.not_before = kEpoch - 1;
                 v.offer.counter = 99;
               },
               Code::kOlderSigner},
           Row{"newer signer, lower counter",
               [](auto& v) {
                 v.signer.not_before = kEpoch + 1;
                 v.offer.counter = 1;
               },
               std::nullopt},
           Row{"time is over",
               [](auto& v) {
                 v.offer.counter = 42;
                 v.offer.issued = 1;
                 v.offer.expires = 2;
               },
               Code::kExpired},
       }) {
    VerifiedOffer verified = Offered();
    row.change(verified);
    EXPECT_EQ(OfferCodeOf([&] { Judge(verified, Remembered(), "1", kNow); }), row.code) << row.what;
  }
}

TEST(AcceptanceTest, NewerSignerIsOneForEver) {
  VerifiedOffer newer = Offered();
  newer.signer.not_before = kEpoch + 1;
  newer.offer.counter = 1;
  newer.offer.issued = kIssued - 3 * kDay;
  const Acceptance acceptance = Judge(newer, Remembered(), "1", kNow);
  EXPECT_TRUE(acceptance.is_newer_epoch);
  EXPECT_EQ(acceptance.accepted.counter, 1U);
  EXPECT_EQ(acceptance.accepted.issued, kIssued - 3 * kDay);
  EXPECT_EQ(OfferCodeOf([&] { Judge(Offered(), acceptance.accepted, "1", kNow); }),
            Code::kOlderSigner);
}

TEST(AcceptanceTest, TimeDoesNotGoBackBehindTheNewestOne) {
  const std::int64_t end = kIssued + 14 * kDay;
  EXPECT_EQ(OfferCodeOf([&] { Judge(Offered(), Remembered(), "1", end); }), std::nullopt);
  EXPECT_EQ(OfferCodeOf([&] { Judge(Offered(), Remembered(), "1", end + 1); }), Code::kExpired);
  // The clock was never set, but another was issued behind this one's end.
  VerifiedOffer later = Offered();
  later.offer.counter = 42;
  later.offer.issued = end + 1;
  later.offer.expires = end + kDay;
  Accepted accepted = Judge(later, Remembered(), "1", 0).accepted;
  EXPECT_EQ(offer::TimeOf(accepted, 0), end + 1);
  VerifiedOffer frozen = Offered();
  frozen.offer.counter = 43;
  EXPECT_EQ(OfferCodeOf([&] { Judge(frozen, accepted, "1", 0); }), Code::kExpired);
  // And one that was issued earlier, though it counts higher, does not take the time back.
  frozen.offer.expires = end + 2 * kDay;
  EXPECT_EQ(Judge(frozen, accepted, "1", 0).accepted.issued, end + 1);
}

TEST(AcceptanceTest, BeforeItWasBuiltNoClockIsBelieved) {
  EXPECT_EQ(offer::TimeOf({}, 0), package::BuildDate());
  VerifiedOffer old = Offered();
  old.offer.issued = 1000;
  old.offer.expires = 2000;
  EXPECT_EQ(OfferCodeOf([&] { Judge(old, {}, "1", 1500); }), Code::kExpired);
}

TEST(AcceptanceTest, NewerSignerIsNotJudgedByTheDatesOfTheOlderOne) {
  Accepted accepted = Remembered();
  accepted.issued = kFarFuture;
  EXPECT_EQ(offer::TimeFor(kEpoch + 1, accepted, kNow), kNow);
  EXPECT_EQ(offer::TimeFor(kEpoch, accepted, kNow), kFarFuture);
}

TEST(AcceptanceTest, EndIsSaidAndTheClockWhereItIsFarAhead) {
  EXPECT_EQ(offer::EndText(kIssued, kIssued + 3 * kDay),
            "it ended on 2096-10-02 07:06 UTC, 3 days ago");
  EXPECT_EQ(offer::EndText(kIssued, kIssued + 400 * kDay),
            "it ended on 2096-10-02 07:06 UTC, 400 days ago; this machine's clock says "
            "2097-11-06 07:06 UTC, which is probably wrong");
}

TEST(AcceptanceTest, ClockIsDoubtedWhereItIsMoreThanNinetyDaysAhead) {
  const auto doubted = [](std::int64_t ago) {
    return offer::EndText(kIssued, kIssued + ago).find("probably wrong") != std::string::npos;
  };
  EXPECT_FALSE(doubted(90 * kDay));
  EXPECT_TRUE(doubted(90 * kDay + 1));
}

}  // namespace
}  // namespace tolm::testing
