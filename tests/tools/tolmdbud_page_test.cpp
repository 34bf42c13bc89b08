// The page of a device, by the installed program.

#include <filesystem>

#include "tests/report/page_problems.h"
#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kHistory[] = "/var/lib/data_update/history.jsonl";

class DevicePageTest : public ::testing::Test {
 protected:
  // The page, which must be good.
  std::string Page(std::vector<std::string> options = {}, int status = 0) {
    options.insert(options.begin(), {"status", "--html", page_});
    const CommandResult result = Tool(options);
    EXPECT_EQ(result.exit_status, status) << result.err;
    EXPECT_EQ(PageProblems(page_), "");
    return ReadFile(page_);
  }

  const fs::path page_ = "/tmp/status.html";
  GoldenDevice device_;
};

TEST_F(DevicePageTest, NothingInstalledIsShown) {
  const std::string page = Page();
  EXPECT_THAT(page, HasSubstr("not installed"));
  EXPECT_THAT(page, HasSubstr("Nothing is recorded."));
  EXPECT_THAT(page, HasSubstr("70001"));
}

TEST_F(DevicePageTest, PageStandsInPlaceOfTheLinesAndNotOfTheDocument) {
  const CommandResult lines = Tool({"status", "--html", page_});
  EXPECT_EQ(lines.out, "");
  EXPECT_EQ(lines.err, "");
  const CommandResult document = Tool({"status", "--html", page_, "--json"});
  EXPECT_THAT(document.out, HasSubstr("\"state\" : \"not-installed\""));
}

TEST_F(DevicePageTest, WhatWasDoneIsShownInPicturesAndWords) {
  device_.Install();
  device_.OfferSecondByDelta();
  GoldenDevice::MustRun({"update", "oui"});
  const std::string page = Page();
  EXPECT_THAT(page, HasSubstr("up to date"));
  EXPECT_THAT(page, HasSubstr("updated to 70002"));
  EXPECT_THAT(page, HasSubstr("<title id=\"h-outcomes-t\">Runs by day</title>"));
  EXPECT_THAT(page, HasSubstr("How many runs of all databases ended how. 2 ("));
}

TEST_F(DevicePageTest, FailuresHaveTheirReasonAndRemedy) {
  device_.Install();
  device_.ServerFails();
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  const std::string page = Page({}, 1);
  EXPECT_THAT(page, HasSubstr("500 Internal Server Error from "));
  EXPECT_THAT(page, HasSubstr("the server is overloaded or broken: try later"));
  EXPECT_THAT(page, HasSubstr("<td class=\"t w bad\">failed, "));
}

TEST_F(DevicePageTest, DamagedHistoryIsPassedOver) {
  WriteFile(kHistory,
            "{\"format\":1,\"time\":\"never\",\"operation\":\"update\",\"database\":\"oui\","
            "\"scheduled\":false,\"from\":-1,\"to\":1,\"outcome\":\"strange\",\"message\":\"\","
            "\"seconds\":1e300,\"bytes\":1}\n{\"format\":1,\"time\":7}\n\xFF\xFE no JSON\n"
            "{\"format\":1,\"time\":\"9999-01-01T00:00:00Z\",\"operation\":\"<script>\","
            "\"database\":\"\\u202e<b>\",\"scheduled\":true,\"from\":1,\"to\":2,"
            "\"outcome\":\"failed\",\"message\":\"</td><script>x</script>\\u0007\","
            "\"seconds\":-1,\"bytes\":0}\n{\"for");
  const std::string page = Page();
  EXPECT_THAT(page, HasSubstr("strange"));
  EXPECT_THAT(page, HasSubstr("&lt;/td&gt;&lt;script&gt;x&lt;/script&gt;\\x07"));
  EXPECT_THAT(page, Not(HasSubstr("h-outcomes"))) << "neither has a time that can be";
  WriteFile(kHistory, std::string(100000, '\0'));
  EXPECT_THAT(Page(), HasSubstr("Nothing is recorded."));
}

TEST_F(DevicePageTest, NamesAndPlacesOfMarkupAreText) {
  const std::string name = "<script>alert('\"&')";
  ConfigureDevice(device_.publisher, {{name, kOnVolume}});
  const std::string page = Page({"--offline"});
  EXPECT_THAT(page, HasSubstr("&lt;script&gt;alert(&#39;&quot;&amp;&#39;)"));
}

TEST_F(DevicePageTest, WhatCannotBeLookedAtIsSaidAndTheRestIsShown) {
  device_.Install();
  WriteFile(kOverrides, "{");
  const std::string page = Page({}, 1);
  EXPECT_THAT(page, HasSubstr("databases.conf: line 1, column 2"));
  EXPECT_THAT(page, HasSubstr("70001"));
}

TEST_F(DevicePageTest, FullDiskAndWrongPlacesAreTold) {
  Page();
  const std::string before = ReadFile(page_);
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/full", 4096);
  const CommandResult full = Tool({"status", "--html", "/tmp/full/status.html"});
  EXPECT_EQ(full.exit_status, 1);
  EXPECT_THAT(full.err, HasSubstr("No space left on device"));
  EXPECT_TRUE(ListTree("/tmp/full").empty());
  EXPECT_EQ(Tool({"status", "--html", "/dev/null"}).exit_status, 1);
  EXPECT_EQ(Tool({"status", "--html", "/tmp/none/status.html"}).exit_status, 1);
  EXPECT_EQ(Tool({"status", "--html", ""}).exit_status, 2);
  EXPECT_EQ(ReadFile(page_), before);
}

}  // namespace
}  // namespace tolm::testing
