#include "operation/package_reason.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace tolm::operation {
namespace {

TEST(PackageReasonTest, NumberIsFollowedByWords) {
  EXPECT_EQ(WithPackageReason("tolmarchive_open /v/@tmp/x_v2 failed, ret: 30"),
            "tolmarchive_open /v/@tmp/x_v2 failed, ret: 30 (the content is not what was signed)");
  EXPECT_EQ(WithPackageReason("Fail to force install: tolmarchive_extract /x failed, ret: 60"),
            "Fail to force install: tolmarchive_extract /x failed, ret: 60 "
            "(there is not enough room for it)");
}

TEST(PackageReasonTest, OtherMessagesStayAsTheyAre) {
  for (const char* message :
       {"", "Disk space is too low", "tolmarchive_open /x failed, ret: 0",
        "tolmarchive_open /x failed, ret: 4294967295", "tolmarchive_open /x failed, ret: 30 again",
        "Fail to wget url: http://h/tolmarchive_open?failed, ret: x"}) {
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

}  // namespace
}  // namespace tolm::operation
