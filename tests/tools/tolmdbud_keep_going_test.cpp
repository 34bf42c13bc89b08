// The installed tool over several databases, and what it says of each.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Databases "a" and "z" beside "oui".
class TolmdbudKeepGoingTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    ConfigureDevice(publisher_, {{"a", kOnVolume}, {"oui", kOnVolume}, {"z", kOnVolume}});
    for (const char* name : {"a", "z"}) {
      publisher_.PackFull(name, 1, {{"f", name}});
      publisher_.Offer(name, 1);
    }
  }

  void BreakOui() { fs::remove(publisher_.FullPackage("oui", 1)); }

  std::string OuiMessage() {
    return "Fail to wget url: " + publisher_.Server().Url("/packages/oui_v1") +
           " (the server answers with an error)";
  }
  std::string OuiFailure() {
    return "tolmdbud: oui 1: 404 Not Found from " + publisher_.Server().Url("/packages/oui_v1") +
           "; tolmdbud check --refresh asks what is offered now\n";
  }

  static Json::Value Parse(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
  }

  // "seconds" is there and of no certain value.
  static Json::Value WithoutSeconds(Json::Value result) {
    EXPECT_TRUE(result["seconds"].isDouble() && result["seconds"].asDouble() > 0);
    result.removeMember("seconds");
    return result;
  }
};

TEST_F(TolmdbudKeepGoingTest, OtherDatabasesAreUpdatedAfterAFailure) {
  BreakOui();
  const CommandResult result = Tool({"update", "--all", "--keep-going"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "a: updated to 1\nz: updated to 1\n");
  EXPECT_EQ(result.err, OuiFailure());
}

TEST_F(TolmdbudKeepGoingTest, WithoutItTheFirstFailureEndsTheRun) {
  BreakOui();
  const CommandResult result = Tool({"update", "--all"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "a: updated to 1\n");
  EXPECT_EQ(result.err, OuiFailure());
  EXPECT_EQ(InstalledVersion("z"), "");
}

TEST_F(TolmdbudKeepGoingTest, OtherDatabasesAreFixedAfterAFailure) {
  ASSERT_EQ(Tool({"update", "--all"}).exit_status, 0);
  BreakOui();
  for (const char* name : {"a", "oui", "z"}) {
    for (const auto& file : fs::directory_iterator(kVolumePrefix / name)) {
      if (file.is_regular_file()) {
        WriteFile(file, "damaged");
      }
    }
  }
  const CommandResult result = Tool({"fix", "--all", "--keep-going"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "a: repaired with 1\nz: repaired with 1\n");
  const std::string found = " has another size; the database is installed in full\n";
  EXPECT_EQ(result.err, "tolmdbud: a: f" + found + "tolmdbud: oui: a.txt" + found + OuiFailure() +
                            "tolmdbud: z: f" + found);
}

TEST_F(TolmdbudKeepGoingTest, OnlyScheduledDatabasesAreTaken) {
  ASSERT_EQ(Tool({"schedule", "oui", "off"}).exit_status, 0);
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"update", "--all"}, {"update", "--all", "--keep-going"}}) {
    fs::remove_all("/var/lib/data_update");
    EXPECT_EQ(Tool(arguments).out, "a: updated to 1\nz: updated to 1\n");
  }
}

TEST_F(TolmdbudKeepGoingTest, NothingNewIsSaidOfEveryDatabase) {
  ASSERT_EQ(Tool({"update", "--all"}).exit_status, 0);
  EXPECT_EQ(WithoutAge(Tool({"update", "--all"}).out),
            "a: up to date\noui: up to date\nz: up to date\n");
  EXPECT_EQ(Tool({"fix", "--all"}).out, "a: intact\noui: intact\nz: intact\n");
}

TEST_F(TolmdbudKeepGoingTest, EveryResultStandsInTheDocument) {
  BreakOui();
  const CommandResult result = Tool({"update", "--all", "--keep-going", "--json"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, OuiFailure());
  const Json::Value document = Parse(result.out);
  EXPECT_EQ(document["format"], 1);
  EXPECT_EQ(document["command"], "update");
  EXPECT_EQ(document["exit_status"], 1);
  const Json::Value& results = document["results"];
  ASSERT_EQ(results.size(), 3u);
  const auto package_bytes = fs::file_size(publisher_.FullPackage("z", 1));
  EXPECT_EQ(WithoutSeconds(results[2]),
            Parse(R"({"operation": "update", "database": "z", "outcome": "updated", "from": null,
                      "to": 1, "message": "", "reason": "", "http_status": null,
                      "fell_back": null, "bytes": )" +
                  std::to_string(package_bytes) + R"(, "server": ")" + publisher_.Server().Url("") +
                  "\"}"));
  EXPECT_EQ(results[1]["outcome"], "failed");
  EXPECT_EQ(results[1]["message"], OuiMessage());
  EXPECT_EQ("tolmdbud: " + document["failures"][0].asString() + "\n", OuiFailure());
  EXPECT_GT(results[0]["bytes"].asUInt64(), package_bytes) << "the description is asked for once";
}

TEST_F(TolmdbudKeepGoingTest, EveryOperationHasItsOutcome) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> runs = {
      {{"update", "oui", "--json"}, "updated"},
      {{"update", "oui", "--json"}, "up-to-date"},
      {{"fix", "oui", "--json"}, "intact"},
      {{"force-install", "oui", "--json"}, "installed"}};
  for (const auto& [arguments, outcome] : runs) {
    const Json::Value results = Parse(Tool(arguments).out)["results"];
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0]["outcome"], outcome);
    EXPECT_EQ(results[0]["to"], 1);
    EXPECT_EQ(results[0]["operation"], arguments.front());
  }
  WriteFile(prefix_ / "a.txt", "damaged");
  fs::remove_all("/var/lib/data_update/oui");
  EXPECT_EQ(Parse(Tool({"fix", "oui", "--json"}).out)["results"][0]["outcome"], "repaired");
}

TEST_F(TolmdbudKeepGoingTest, EveryOperationIsInTheHistory) {
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  ASSERT_EQ(Tool({"force-install", "oui"}).exit_status, 0);
  BreakOui();
  ASSERT_EQ(Tool({"force-install", "oui"}).exit_status, 1);
  std::istringstream lines(ReadFile("/var/lib/data_update/history.jsonl"));
  std::vector<Json::Value> entries;
  for (std::string line; std::getline(lines, line);) {
    entries.push_back(Parse(line));
  }
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0]["operation"], "update");
  EXPECT_EQ(entries[0]["from"], -1);
  EXPECT_EQ(entries[0]["to"], 1);
  EXPECT_EQ(entries[0]["scheduled"], false);
  EXPECT_GT(entries[0]["bytes"].asUInt64(), fs::file_size(publisher_.FullPackage("a", 1)));
  EXPECT_EQ(entries[1]["operation"], "force-install");
  EXPECT_EQ(entries[1]["from"], 1);
  EXPECT_EQ(entries[1]["outcome"], "installed");
  EXPECT_EQ(entries[2]["outcome"], "failed");
  EXPECT_EQ(entries[2]["to"], 1);
  EXPECT_EQ(entries[2]["message"], OuiMessage());
  EXPECT_EQ(entries[2]["reason"], "http-status");
  EXPECT_EQ(entries[2]["http_status"], 404);
  EXPECT_THAT(entries[2]["explanation"].asString(), StartsWith("404 Not Found from "));
  EXPECT_FALSE(entries[1].isMember("reason"));
}

TEST_F(TolmdbudKeepGoingTest, WithoutAVolumeTheStatusIsTwelve) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  const std::vector<std::vector<std::string>> commands = {{"update", "oui"},
                                                          {"update", "--all"},
                                                          {"update", "--all", "--keep-going"},
                                                          {"fix", "oui"},
                                                          {"fix", "--all"},
                                                          {"update", "--all", "--scheduled"},
                                                          {"fix", "--all", "--keep-going"},
                                                          {"force-install", "oui"}};
  for (const std::vector<std::string>& command : commands) {
    const CommandResult result = Tool(command);
    EXPECT_EQ(result.exit_status, 12) << ::testing::PrintToString(command);
    EXPECT_THAT(result.err, HasSubstr("no volume is chosen, nothing was done; "));
  }
  EXPECT_EQ(Tool({"update", "unknown", "oui"}).exit_status, 1);
  EXPECT_TRUE(publisher_.Server().Requests().empty());
}

TEST_F(TolmdbudKeepGoingTest, WithoutAnyScheduledDatabaseAVolumeIsNotMissed) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  WriteFile(
      "/usr/share/data_update/databases.conf",
      R"({"oui": {"format_version": "1", "install_dest": "%VOLUME%", "auto_update": false}})");
  const CommandResult result = Tool({"update", "--all"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out + result.err, "");
}

TEST_F(TolmdbudKeepGoingTest, QuietRunSaysFailuresOnly) {
  BreakOui();
  const CommandResult result = Tool({"update", "--all", "--keep-going", "--quiet"});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, OuiFailure());
}

}  // namespace
}  // namespace tolm::testing
