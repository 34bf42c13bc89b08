// Programs that come to libtolmoperation by different roads: its functions stand before the
// platform's where that works, and where it cannot work the program hears of it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/preload.h"

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::Not;
using ::testing::StartsWith;

// wget's exit status in words is known to who stands before the platform only.
const char kWatched[] = " (the server is not reached or breaks off)\n";

struct Row {
  std::string name;
  std::vector<std::string> command;
  bool works;
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class LoadingTest : public ::testing::Test {
 protected:
  // A server that is nobody's: the description cannot be had.
  void SetUp() override {
    WriteFile("/usr/share/data_update/data_update.conf",
              R"({"config": {"cur_volume": "/volume1", "download_scheme": "http",
                             "db_netloc": "127.0.0.1:1", "db_ver": "v1"}})");
    WriteFile("/usr/share/data_update/databases.conf", R"({"x": {"format_version": "1"}})");
  }
};

class LoadingRoads : public LoadingTest, public ::testing::WithParamInterface<Row> {};

TEST_P(LoadingRoads, DownloadIsWatchedOrNothingBegins) {
  const CommandResult result = RunCommand(GetParam().command);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  if (GetParam().works) {
    EXPECT_THAT(result.out, AllOf(StartsWith("built\n"), HasSubstr(kWatched)));
  } else {
    EXPECT_THAT(result.out,
                AllOf(StartsWith("libtolmplatform is found before libtolmoperation in this "
                                 "process, so downloads would have no bounds: "),
                      Not(HasSubstr("built"))));
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, LoadingRoads,
    ::testing::Values(
        Row{"LinkedFirst", {TOLM_LINKED_FIRST}, true},
        Row{"LinkedAfterTheLibrary", {TOLM_LINKED_AFTER_LIBRARY}, true},
        Row{"LinkedAfterThePlatform", {TOLM_LINKED_AFTER_PLATFORM}, false},
        Row{"LoadedByAPlugin", {TOLM_LOADER, TOLM_PLUGIN}, true},
        Row{"LoadedByItself", {TOLM_LOADER, TOLM_OPERATION_LIBRARY, TOLM_PLUGIN}, true},
        Row{"LoadedAfterTheLibrary", {TOLM_LOADER, TOLM_LIBRARY, TOLM_PLUGIN}, false},
        Row{"LoadedIntoAProgramWithThePlatform", {TOLM_LOADER_WITH_PLATFORM, TOLM_PLUGIN}, false}),
    NameOf);

TEST_F(LoadingTest, FunctionsOfAnotherBeforeThatPassOnAreNoObstacle) {
  CommandOptions options;
  options.environment = Preload(TOLM_BYSTANDER);
  const CommandResult result = RunCommand({TOLM_LINKED_FIRST}, options);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, AllOf(StartsWith("built\n"), HasSubstr(kWatched)));
}

// The order in which the dynamic linker takes the libraries is what the rows say.
TEST(LoadingOrderTest, ProgramsAreLinkedAsTheirNamesSay) {
  const auto order = [](const char* program) {
    CommandOptions options;
    options.environment = {"LD_TRACE_LOADED_OBJECTS=1"};
    const std::string out = RunCommand({program}, options).out;
    std::vector<std::size_t> positions;
    for (const char* library : {"libtolmoperation", "libtolmdbud", "libtolmplatform"}) {
      positions.push_back(out.find(library));
    }
    return positions;
  };
  const auto first = order(TOLM_LINKED_FIRST);
  EXPECT_LT(first[0], first[1]);
  EXPECT_LT(first[1], first[2]);
  const auto after_library = order(TOLM_LINKED_AFTER_LIBRARY);
  EXPECT_LT(after_library[1], after_library[0]);
  EXPECT_LT(after_library[0], after_library[2]);
  const auto after_platform = order(TOLM_LINKED_AFTER_PLATFORM);
  EXPECT_LT(after_platform[2], after_platform[0]);
}

}  // namespace
}  // namespace tolm::testing
