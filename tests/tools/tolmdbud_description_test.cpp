// The installed tool and a cached description that cannot be used: it is removed, and the server is
// asked again within the hour.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

const fs::path kCached = "/var/cache/data_update/database_info.json";
constexpr char kDescriptionPath[] = "/database_info/1";

class TolmdbudDescriptionTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    InstallFirst();
  }

  // Without dropping what is cached.
  void OfferSecond() {
    const std::string cached = ReadFile(kCached);
    const auto time = fs::last_write_time(kCached);
    publisher_.Offer("oui", 2);
    WriteFile(kCached, cached);
    fs::last_write_time(kCached, time);
  }
};

TEST_F(TolmdbudDescriptionTest, OneThatWasDownloadedInTheFutureIsAskedForAgain) {
  OfferSecond();
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: up to date\n");
  fs::last_write_time(kCached, fs::file_time_type::clock::now() + std::chrono::hours(24));
  const CommandResult result = Tool({"update", "oui", "--verbose"});
  EXPECT_EQ(result.out, "oui: updated to 2\n");
  EXPECT_THAT(result.err, HasSubstr(" removed " + kCached.string() + ": it is from the future"));
}

TEST_F(TolmdbudDescriptionTest, OneThatIsNoFileIsAskedForAgain) {
  publisher_.Offer("oui", 2);
  ASSERT_EQ(mkfifo(kCached.c_str(), 0600), 0);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kCached)));
}

TEST_F(TolmdbudDescriptionTest, LinkInItsPlaceIsNotWrittenThrough) {
  publisher_.Offer("oui", 2);
  fs::create_symlink("/tmp/elsewhere", kCached);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  EXPECT_FALSE(fs::exists("/tmp/elsewhere"));
  EXPECT_FALSE(fs::is_symlink(kCached));
}

TEST_F(TolmdbudDescriptionTest, OneBeyondABoundIsNotKeptForTheHour) {
  publisher_.Offer("oui", 2);
  const std::string deep = std::string(17, '[') + std::string(17, ']');
  publisher_.Server().SetBody(kDescriptionPath, deep);
  ExpectRefusedUpdate(HasSubstr("(it has 17 levels, 1 more than a description may have)"));
  EXPECT_FALSE(fs::exists(kCached));
  publisher_.Offer("oui", 2);
  WriteFile(kCached, deep);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
}

}  // namespace
}  // namespace tolm::testing
