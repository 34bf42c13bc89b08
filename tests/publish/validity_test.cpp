#include "publish/validity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

namespace tolm::testing {
namespace {

using publish::DaysLeft;
using publish::DaysText;
using publish::ValidityText;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kEnd = 1800000000;  // 2027-01-15 08:00

TEST(ValidityTest, DaysAreCountedWhole) {
  for (const auto& [left, days] : std::map<std::int64_t, std::int64_t>{{3 * kDay, 3},
                                                                       {2 * kDay - 1, 1},
                                                                       {kDay, 1},
                                                                       {kDay - 1, 0},
                                                                       {0, 0},
                                                                       {-1, -1},
                                                                       {-kDay, -1},
                                                                       {-kDay - 1, -2},
                                                                       {-3 * kDay, -3}}) {
    EXPECT_EQ(DaysLeft(kEnd, kEnd - left), days) << left;
  }
}

TEST(ValidityTest, DaysThatHavePassedAreToldLikeThoseThatAreLeft) {
  for (const auto& [days, text] : std::map<std::int64_t, std::string>{{-3, "2 days"},
                                                                      {-2, "1 day"},
                                                                      {-1, "less than a day"},
                                                                      {0, "less than a day"},
                                                                      {1, "1 day"},
                                                                      {2, "2 days"}}) {
    EXPECT_EQ(DaysText(days), text) << days;
  }
}

TEST(ValidityTest, CertificateIsValidInItsFirstAndItsLastSecond) {
  package::CertificateDetails certificate;
  certificate.not_before = kEnd - 10 * kDay;
  certificate.not_after = kEnd;
  const auto at = [&](std::int64_t now) { return ValidityText(certificate, now); };
  EXPECT_EQ(at(certificate.not_before - kDay - 1),
            "is not valid before 2027-01-05 08:00 UTC, 1 day from now");
  EXPECT_EQ(at(certificate.not_before - 1),
            "is not valid before 2027-01-05 08:00 UTC, less than a day from now");
  EXPECT_EQ(at(certificate.not_before), "is valid until 2027-01-15 08:00 UTC, 10 days from now");
  EXPECT_EQ(at(kEnd), "is valid until 2027-01-15 08:00 UTC, less than a day from now");
  EXPECT_EQ(at(kEnd + 1), "expired on 2027-01-15 08:00 UTC, less than a day ago");
  EXPECT_EQ(at(kEnd + 3 * kDay), "expired on 2027-01-15 08:00 UTC, 2 days ago");
}

}  // namespace
}  // namespace tolm::testing
