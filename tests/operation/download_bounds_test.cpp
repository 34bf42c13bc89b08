#include "operation/download_bounds.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "base/paths.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tolm/archive.h"

namespace tolm::operation {
namespace {

constexpr std::uint64_t kMebibyte = 1 << 20;
constexpr std::uint64_t kRoom = 19 * kMebibyte;  // All but five per cent.
constexpr int kServerError = 8;
constexpr int kTooMuch = 128 + SIGXFSZ;
constexpr char kFile[] = "/volume1/oui_v2";
constexpr char kLink[] = "http://h/oui_v2";

// A volume of 20 MiB and a server's unsigned description, which may say a package's size.
class DownloadBoundsTest : public ::testing::Test {
 protected:
  void Offer(std::optional<std::uint64_t> bytes) const {
    testing::WriteFile(paths::kServiceDefaults, R"({"config": {}})");
    testing::WriteFile(paths::kDatabaseInfo,
                       R"({"db_list": {"oui": {"download_link": ")" + std::string(kLink) + '"' +
                           (bytes ? ", \"file_size\": " + std::to_string(*bytes) : "") + "}}}");
  }
  static DownloadResult Answer(int http_status) {
    return {kServerError, "", {reasons::kHttpStatus, "text", "remedy", "", http_status}};
  }

  const testing::ScopedMount volume_ = testing::ScopedMount::Tmpfs("/volume1", 20 * kMebibyte);
  const Step step_{StepKind::kDownload, kFile, kLink};
  DownloadBounds bounds_;
};

TEST_F(DownloadBoundsTest, WhatIsSaidToBeLargerThanTheRoomDoesNotBegin) {
  Offer(kRoom);
  EXPECT_TRUE(bounds_.Fits(step_));
  EXPECT_EQ(bounds_.MostBytes(), kRoom);
  EXPECT_EQ(bounds_.failure().reason, "");
  Offer(kRoom + 1);
  EXPECT_FALSE(bounds_.Fits(step_));
  EXPECT_EQ(bounds_.failure().reason, reasons::kNoRoom);
  EXPECT_EQ(bounds_.failure().item, "2");
  EXPECT_EQ(bounds_.failure().text,
            "no room on /volume1: 19.9 MB needed, 19.9 MB free beyond the 5 % reserve");
  EXPECT_EQ(bounds_.WithReason(std::string("Fail to wget url: ") + kLink),
            std::string("Fail to wget url: ") + kLink +
                " (it has more than the 19922944 bytes "
                "that there are for it in /volume1 while five per cent stay free)");
  Offer(std::nullopt);
  EXPECT_TRUE(bounds_.Fits(step_));
  EXPECT_EQ(bounds_.failure().reason, "") << "of another download";
  EXPECT_EQ(bounds_.WithReason(kLink), kLink);
  testing::WriteFile("/volume1/filler", std::string(kRoom + kMebibyte / 2, 'x'));
  EXPECT_FALSE(bounds_.Fits(step_)) << "there is no room at all";
}

TEST_F(DownloadBoundsTest, ServerThatSendsMoreThanThereIsRoomForIsToldWithWhatIsKnown) {
  const std::string more =
      "no room on /volume1: more is needed than the 19.9 MB free beyond the 5 % reserve";
  for (const std::optional<std::uint64_t> offered :
       {std::optional<std::uint64_t>(), std::make_optional<std::uint64_t>(5),
        std::make_optional(kRoom)}) {
    Offer(offered);
    ASSERT_TRUE(bounds_.Fits(step_));
    bounds_.Ended(step_, {kTooMuch, "", {reasons::kOther, "unused"}});
    EXPECT_EQ(bounds_.failure().reason, reasons::kNoRoom);
    EXPECT_EQ(bounds_.failure().text, more);
  }
  bounds_.Ended(step_, {kTooMuch - 2 * SIGXFSZ, "why", {reasons::kOther, "another signal"}});
  EXPECT_EQ(bounds_.failure().text, "another signal");
}

TEST_F(DownloadBoundsTest, ServerWithoutADescriptionMayBeTheWrongOne) {
  const Step description{StepKind::kDownload, paths::kDatabaseInfo, "http://h/database_info"};
  bounds_.Ended(description, Answer(404));
  EXPECT_EQ(bounds_.failure().remedy,
            "is db_netloc in /usr/share/data_update/data_update.conf right?");
  bounds_.Ended(description, Answer(500));
  EXPECT_EQ(bounds_.failure().remedy, "remedy");
  bounds_.Ended(step_, Answer(404));
  EXPECT_EQ(bounds_.failure().remedy, "remedy");
  EXPECT_EQ(bounds_.failure().item, "2");
}

TEST_F(DownloadBoundsTest, ErrorIsExplainedByWhatItIsAbout) {
  const std::string of_link = std::string("Fail to wget url: ") + kLink;
  const std::string of_package = "Fail to extract: /volume1/oui_v2";
  const std::string of_else = "Fail to wget url: http://h/else";
  const auto reason = [this](const std::string& what) {
    return bounds_.Explain(std::runtime_error(what)).reason;
  };
  EXPECT_EQ(reason(of_else), reasons::kDownloadFailed) << "nothing has failed yet";
  ASSERT_TRUE(bounds_.Fits(step_));
  EXPECT_EQ(reason(of_link), reasons::kDownloadFailed);
  bounds_.Ended(step_, {kServerError, "a reason", {reasons::kTimedOut, "text"}, 2});
  EXPECT_EQ(reason(of_link), reasons::kTimedOut);
  EXPECT_EQ(bounds_.failure().text, "text, and 2 mirrors failed too");
  EXPECT_EQ(reason(of_package), reasons::kOther);
  EXPECT_EQ(reason(of_else), reasons::kDownloadFailed);
  EXPECT_EQ(bounds_.WithReason(of_link), of_link + " (a reason, and 2 mirrors failed too)");
  EXPECT_EQ(bounds_.WithReason(of_else), of_else);
  bounds_.PackageRefused({kFile, kFile, TOLMARCHIVE_E_REVOKED, "in words"});
  EXPECT_EQ(reason(of_package), reasons::kPackageRevoked);
  EXPECT_EQ(reason(of_link), reasons::kTimedOut);
  EXPECT_EQ(reason(of_else), reasons::kDownloadFailed);
}

}  // namespace
}  // namespace tolm::operation
