// The installed tool and a cached description that cannot be used: it is removed, and the server is
// asked again within the hour.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

const fs::path kCached = "/var/cache/data_update/database_info.json";
constexpr char kDescriptionPath[] = "/database_info/1";

class TolmdbudDescriptionTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    InstallFirst();
  }

  static std::string TimeOfCached() {
    struct stat status;
    EXPECT_EQ(stat(kCached.c_str(), &status), 0);
    char text[32];
    std::tm parts{};
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&status.st_mtim.tv_sec, &parts));
    return text;
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
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: up to date as of "));
  fs::last_write_time(kCached, fs::file_time_type::clock::now() + std::chrono::hours(24));
  const CommandResult result = Tool({"update", "oui", "-vv"});
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

struct NoDescription {
  std::string name;
  std::string answer;
  std::string says;
};

class NoDescriptionTest : public TolmdbudDescriptionTest,
                          public ::testing::WithParamInterface<NoDescription> {};

TEST_P(NoDescriptionTest, IsNotKept) {
  const std::string before = ReadFile(kCached);
  fs::last_write_time(kCached, fs::file_time_type::clock::now() - std::chrono::hours(2));
  const auto time = fs::last_write_time(kCached);
  publisher_.Server().SetBody(kDescriptionPath, GetParam().answer);
  const std::string line = "the answer from " + publisher_.Server().Url(kDescriptionPath) +
                           " is no description of databases (" + GetParam().says + ')' +
                           kRightServer;
  for (const std::string command : {"update", "check", "status"}) {
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_EQ(result.err, "tolmdbud: " + std::string(command == "update" ? "oui: " : "") + line);
    EXPECT_EQ(ReadFile(kCached), before) << "what was offered before stays known";
    EXPECT_EQ(fs::last_write_time(kCached), time);
    EXPECT_FALSE(fs::exists(kCached.string() + ".new"));
  }
  publisher_.Offer("oui", 2);
  // An earlier release kept whatever it was sent.
  WriteFile(kCached, GetParam().answer);
  EXPECT_THAT(Tool({"status", "--offline"}).out, HasSubstr("offers from  none\n"));
  EXPECT_EQ(Tool({"check"}).out, "oui: 2 is offered, 1 is installed\n");
  WriteFile(kCached, GetParam().answer);
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.out, "oui: updated to 2\n");
}

const NoDescription kNoDescriptions[] = {
    {"PortalsPage", "\r\n<!DOCTYPE html><html><body>Please log in</body></html>",
     "it is a web page: a portal or proxy may be in the way"},
    {"Nothing", " \n", "it is empty"},
    {"Text", "try again later", "it is no JSON"},
    {"List", "[]", "it is no JSON object"},
    {"AnotherObject", R"({"error": "maintenance"})", "it has no db_list"},
    {"EmptyList", R"({"db_list": {}})", "it lists none of the configured databases"},
    {"OtherDatabases", R"({"db_list": {"other": {}}})",
     "it lists none of the configured databases"},
};
INSTANTIATE_TEST_SUITE_P(Answer, NoDescriptionTest, ::testing::ValuesIn(kNoDescriptions),
                         [](const auto& row) { return row.param.name; });

TEST_F(TolmdbudDescriptionTest, UpToDateSaysWhenItAskedAndRefreshAsksNow) {
  EXPECT_EQ(Tool({"update", "oui", "--refresh"}).out, "oui: up to date\n");
  OfferSecond();
  fs::last_write_time(kCached, fs::file_time_type::clock::now() - std::chrono::minutes(12));
  const std::string as_of =
      " as of ([0-9-]+ )?[0-9:]+ .asked 12 minutes ago; --refresh asks now.\n";
  EXPECT_THAT(Tool({"update", "oui"}).out, MatchesRegex("oui: up to date" + as_of));
  EXPECT_THAT(Tool({"check"}).out, MatchesRegex("oui: up to date with 1" + as_of));
  for (const std::string command : {"update", "check"}) {
    EXPECT_THAT(Tool({command, "oui", "--json"}).out,
                HasSubstr("\"offers_from\" : \"" + TimeOfCached() + '"'));
  }
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: intact\n");
  EXPECT_EQ(Tool({"update", "oui", "--refresh"}).out, "oui: updated to 2\n");
}

TEST_F(TolmdbudDescriptionTest, RefreshOfEveryCommandAsksOnceAndLosesNothingInVain) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"update", "--all"}, {"fix", "oui"}, {"force-install", "oui"}, {"check"}}) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> refreshing = command;
    refreshing.push_back("--refresh");
    const std::size_t asked = publisher_.Server().RequestCount(kDescriptionPath);
    EXPECT_EQ(Tool(command).exit_status, 0);
    EXPECT_EQ(publisher_.Server().RequestCount(kDescriptionPath), asked);
    EXPECT_EQ(Tool(refreshing).exit_status, 0);
    EXPECT_EQ(publisher_.Server().RequestCount(kDescriptionPath), asked + 1);
  }
  const std::string before = ReadFile(kCached);
  HttpAnswer failure;
  failure.status = 503;
  publisher_.Server().SetAnswer(kDescriptionPath, failure);
  EXPECT_EQ(Tool({"update", "oui", "--refresh"}).exit_status, 1);
  EXPECT_EQ(ReadFile(kCached), before);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0) << "the answer of before counts for its hour";
}

}  // namespace
}  // namespace tolm::testing
