#include "operation/package_reason.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/mounts.h"
#include "tolm/archive.h"

namespace tolm::operation {
namespace {

TEST(PackageReasonTest, NumberIsFollowedByWords) {
  EXPECT_EQ(WithPackageReason("tolmarchive_open /v/@tmp/x_v2 failed, ret: 30"),
            "tolmarchive_open /v/@tmp/x_v2 failed, ret: 30 (the content is not what was signed)");
  EXPECT_EQ(WithPackageReason("Fail to force install: tolmarchive_extract /x failed, ret: 60"),
            "Fail to force install: tolmarchive_extract /x failed, ret: 60 "
            "(there is not enough room for it)");
  EXPECT_EQ(WithPackageReason("tolmarchive_open /x failed, ret: 0030"),
            "tolmarchive_open /x failed, ret: 0030 (the content is not what was signed)");
}

TEST(PackageReasonTest, OtherMessagesStayAsTheyAre) {
  for (const char* message :
       {"", "Disk space is too low", "tolmarchive_open /x failed, ret: 0",
        "tolmarchive_open /x failed, ret: 4294967295", "tolmarchive_open /x failed, ret: 30 again",
        "Fail to wget url: http://h/tolmarchive_open?failed, ret: x", "ret: 30", "30",
        "tolmarchive_open /x failed, ret: ", "tolmarchive_open /x failed, ret: 00030",
        "tolmarchive_open failed, ret: 30", "/x failed, ret: 30",
        "tolmarchive_open /x\n/y failed, ret: 30", "tolmarchive_open /x failed, ret: 30\n"}) {
    EXPECT_EQ(WithPackageReason(message), message);
  }
}

TEST(PackageReasonTest, EveryErrorOfThePlatformHasWords) {
  std::ifstream header(TOLM_TEST_SOURCE_DIR "/platform/include/tolm/archive.h");
  const std::regex pattern(" *TOLMARCHIVE_E_[A-Z_]+ = ([0-9]+).*");
  int found = 0;
  std::string line;
  std::smatch match;
  while (std::getline(header, line)) {
    if (std::regex_match(line, match, pattern) && match[1] != "0") {
      const std::string message = "tolmarchive_open /x failed, ret: " + match[1].str();
      EXPECT_NE(WithPackageReason(message), message);
      ++found;
    }
  }
  EXPECT_GT(found, 30);
}

TEST(PackageReasonTest, PlatformWithoutWordsIsExplainedByItsNumber) {
  const Failure failure = PackageFailure("/v/@tmp/x_v2", TOLMARCHIVE_E_EXPIRED, "");
  EXPECT_EQ(LineOf("x", failure),
            "x 2: the signer's certificate has expired; the publisher signs anew by \"tolmdbpub "
            "resign\"");
  EXPECT_EQ(failure.reason, reasons::kPackageExpired);
  EXPECT_EQ(LineOf("", PackageFailure("/v/@tmp/x_d7", 99, "")),
            "delta 7: the package is refused, with error 99");
}

TEST(PackageReasonTest, WhatThePlatformSaysIsAddedOrTellsAll) {
  struct Row {
    int code;
    const char* detail;
    const char* text;
  };
  for (const Row& row :
       {Row{TOLMARCHIVE_E_PAYLOAD, "", "the content is damaged or of an unknown form"},
        {TOLMARCHIVE_E_PAYLOAD, "at byte 7",
         "the content is damaged or of an unknown form: at byte 7"},
        {TOLMARCHIVE_E_PAYLOAD, "not signed by anybody",
         "the content is damaged or of an unknown form: not signed by anybody"},
        {TOLMARCHIVE_E_REVOKED, "signed by \"A\", who was revoked",
         "signed by \"A\", who was revoked"},
        {TOLMARCHIVE_E_NO_SPACE, "", "no room on /volume1"},
        {TOLMARCHIVE_E_NO_SPACE, "5 bytes needed", "no room on /volume1: 5 bytes needed"},
        {TOLMARCHIVE_E_NO_SPACE, "signed by \"A\"", "no room on /volume1: signed by \"A\""}}) {
    const auto volume = testing::ScopedMount::Tmpfs("/volume1", 1 << 20);
    const Failure failure = PackageFailure("/volume1/@tmp/x_v2", row.code, row.detail);
    EXPECT_EQ(failure.text, row.text);
    EXPECT_EQ(failure.item, "2");
  }
}

TEST(PackageReasonTest, PackageThatIsNotTheOfferedOneIsSaidToBe) {
  const Failure failure =
      PackageFailure("/v/@tmp/x_d7", kDiffersFromOffer, "it has 5 bytes and not 6");
  EXPECT_EQ(LineOf("x", failure),
            "x delta 7: it is not the package that the signed description names: it has 5 bytes "
            "and not 6; the publisher's \"tolmdbpub check\" tells what the server has");
  EXPECT_EQ(failure.reason, reasons::kPackageDiffers);
}

TEST(PackageReasonTest, MessageOfTheLibraryIsExplainedWhereNothingElseIsKnown) {
  const std::optional<Failure> failure =
      PackageFailureIn("Fail to force install: tolmarchive_open /v/x_debug failed, ret: 12");
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, reasons::kPackageDamaged);
  EXPECT_EQ(failure->item, "");
  EXPECT_FALSE(PackageFailureIn("Disk space is too low"));
  struct Row {
    const char* message;
    const char* item;
  };
  for (const Row& row :
       {Row{"tolmarchive_open /v/oui_v12 failed, ret: 12", "12"},
        Row{"tolmarchive_open  failed, ret: 12", ""},
        Row{"tolmarchive_extract /v/a failed, ret: 5/oui_d7 failed, ret: 12", "delta 7"},
        Row{"tolmarchive_open /x\ntolmarchive_open /v/oui_v8 failed, ret: 12", "8"}}) {
    const std::optional<Failure> told = PackageFailureIn(row.message);
    ASSERT_TRUE(told) << row.message;
    EXPECT_EQ(told->item, row.item) << row.message;
    EXPECT_EQ(told->reason, reasons::kPackageDamaged) << row.message;
  }
}

TEST(PackageReasonTest, PackagesAreKnownByTheirNames) {
  EXPECT_EQ(ItemOf("/v/@tmp/a_b_v12"), "12");
  EXPECT_EQ(ItemOf("/v/@tmp/a_d12"), "delta 12");
  EXPECT_EQ(ItemOf("x_v3"), "3");
  for (const char* other :
       {"", "/v/x", "/v/x_", "/v/x_v", "/v/x_vx", "/v/x_debug", "/v/x_q1", "/v/x_vx1", "/v/v1"}) {
    EXPECT_EQ(ItemOf(other), "") << other;
  }
}

}  // namespace
}  // namespace tolm::operation
