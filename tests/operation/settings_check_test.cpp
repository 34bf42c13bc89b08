#include "operation/settings_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Effect = SettingsProblem::Effect;

// Whether the library's defaults are enough, one value is passed over, or nothing is done.
std::vector<std::pair<std::string, Effect>> Problems() {
  std::vector<std::pair<std::string, Effect>> problems;
  for (const SettingsProblem& problem : CheckSettingsFiles()) {
    problems.emplace_back(problem.Line(), problem.effect);
  }
  return problems;
}

std::string In(const char* file, const std::string& problem) {
  return std::string(file) + ": " + problem;
}

class SettingsCheckTest : public ::testing::Test {
 protected:
  SettingsCheckTest() {
    for (const char* file :
         {paths::kServiceDefaults, paths::kServiceOverrides, paths::kDatabaseDefaults,
          paths::kDatabaseOverrides, paths::kOperationSettings, paths::kVolumePatterns}) {
      std::filesystem::remove(file);
    }
  }
};

TEST_F(SettingsCheckTest, MissingFilesAreSound) {
  EXPECT_THAT(Problems(), IsEmpty());
  EXPECT_NO_THROW(RequireSoundSettings());
}

TEST_F(SettingsCheckTest, EmptyOverridesLeaveTheDefaultsAndEmptyDefaultsNothing) {
  testing::WriteFile(paths::kServiceOverrides, "");
  testing::WriteFile(paths::kDatabaseDefaults, "");
  EXPECT_THAT(Problems(),
              ElementsAre(Pair(In(paths::kServiceOverrides, "is empty; the defaults count"),
                               Effect::kOneValue),
                          Pair(In(paths::kDatabaseDefaults, "is empty"), Effect::kNothingIsDone)));
  EXPECT_THAT([] { RequireSoundSettings(); },
              ::testing::ThrowsMessage<DamagedSettings>(
                  In(paths::kDatabaseDefaults, "is empty; nothing was done")));
}

TEST_F(SettingsCheckTest, DamagedOrUnreadableOverridesAreNotTakenForEmptyOnes) {
  testing::WriteFile(paths::kServiceOverrides, "[]");
  std::filesystem::create_directories(
      std::filesystem::path(paths::kDatabaseOverrides).parent_path());
  std::filesystem::create_symlink("/proc/self/mem", paths::kDatabaseOverrides);
  EXPECT_THAT(Problems(),
              ElementsAre(Pair(In(paths::kServiceOverrides, "holds no JSON object"),
                               Effect::kNothingIsDone),
                          Pair(In(paths::kDatabaseOverrides, "cannot be read: Input/output error"),
                               Effect::kNothingIsDone)));
}

TEST_F(SettingsCheckTest, WrongDefaultsMatterWhereNothingRightOverridesThem) {
  testing::WriteFile(paths::kServiceDefaults, R"({"config": {"download_scheme": 1, "db_netloc": 2,
      "db_ver": 3, "cur_volume": 4, "require_signed_description": "yes"}})");
  testing::WriteFile(paths::kServiceOverrides, R"({"config": {"download_scheme": "https",
      "db_netloc": 7, "cur_volume": "/volume1", "require_signed_description": null}})");
  const auto wrong = [](const std::string& key, const std::string& right) {
    return Pair(In(paths::kServiceDefaults, "config." + key + " must be " + right),
                Effect::kNothingIsDone);
  };
  EXPECT_THAT(Problems(),
              ElementsAre(Pair(In(paths::kServiceOverrides,
                                  "config.db_netloc must be a string; the default counts"),
                               Effect::kOneValue),
                          wrong("db_netloc", "a string"), wrong("db_ver", "a string"),
                          wrong("require_signed_description", "true or false")));
}

TEST_F(SettingsCheckTest, WrongValuesOfADatabaseAreToldWithWhatCountsInstead) {
  testing::WriteFile(paths::kDatabaseDefaults, R"({"oui": {"format_version": 1, "install_dest": 2,
      "min_rsv_space_inbytes": -1, "auto_update": "no"}, "hidden": 5})");
  const auto wrong = [](const std::string& what, Effect effect) {
    return Pair(In(paths::kDatabaseDefaults, what), effect);
  };
  EXPECT_THAT(
      Problems(),
      ElementsAre(
          wrong("hidden must be an object", Effect::kNothingIsDone),
          wrong("oui.format_version must be a string", Effect::kNothingIsDone),
          wrong("oui.install_dest must be a string", Effect::kOneValue),
          wrong("oui.min_rsv_space_inbytes must be a whole number up to 4294967295; it "
                "counts as 0",
                Effect::kOneValue),
          wrong("oui.auto_update must be true or false; it counts as true", Effect::kOneValue)));
}

TEST_F(SettingsCheckTest, NamesThatAreNoDatabasesAreTold) {
  testing::WriteFile(paths::kDatabaseDefaults,
                     R"({"": {}, "..": {}, "a/b": {}, "oui": {}, "oui\u0000": {}, "w\u0007": {}})");
  const auto wrong = [](const std::string& name, const std::string& why) {
    return Pair(In(paths::kDatabaseDefaults, '"' + name + "\" cannot be a database's: " + why),
                Effect::kOneValue);
  };
  const std::string kText = "a name is UTF-8 text without control characters";
  EXPECT_THAT(Problems(), ElementsAre(wrong("", "a name has 1 to 200 bytes"),
                                      wrong("..", "a name must not be \".\" or \"..\""),
                                      wrong("a/b", "a name holds no \"/\""),
                                      wrong("oui\\x00", kText), wrong("w\\x07", kText)));
}

TEST_F(SettingsCheckTest, DatabasesThatTheOverridesDoNotListAreNotLookedAt) {
  testing::WriteFile(paths::kDatabaseDefaults, R"({"hidden": 5, "oui": {"auto_update": 1}})");
  testing::WriteFile(paths::kDatabaseOverrides, R"({"oui": 7})");
  EXPECT_THAT(
      Problems(),
      ElementsAre(Pair(In(paths::kDatabaseOverrides, "oui must be an object; the defaults count"),
                       Effect::kOneValue),
                  Pair(In(paths::kDatabaseDefaults,
                          "oui.auto_update must be true or false; it counts as true"),
                       Effect::kOneValue)));
  testing::WriteFile(paths::kDatabaseOverrides, R"({"oui": {"auto_update": false}})");
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(SettingsCheckTest, OperatorsFileIsNamedOnce) {
  testing::WriteFile(paths::kOperationSettings, R"({"readers": 1})");
  EXPECT_THAT(Problems(), ElementsAre(Pair(In(paths::kOperationSettings, "readers is no setting"),
                                           Effect::kNothingIsDone)));
  testing::WriteFile(paths::kServiceDefaults,
                     R"({"config": {"download_scheme": "https", "db_netloc": "s.example",
                                    "db_ver": "1"}})");
  testing::WriteFile(paths::kOperationSettings, R"({"mirrors": ["http://m.example"]})");
  EXPECT_EQ(Problems().size(), 1u) << "a mirror that is asked less securely than the server";
}

TEST_F(SettingsCheckTest, PatternsOfVolumesAreToldByTheirLines) {
  testing::WriteFile(paths::kVolumePatterns,
                     "/volume[0-9]*\n\n \t\r\n# a remark\n  # one more\nvolume1\n \t/media/*\n"
                     "  media\n");
  const auto wrong = [](const std::string& line) {
    return Pair(In(paths::kVolumePatterns,
                   line + ": the pattern matches no volume, since it does not begin with /"),
                Effect::kOneValue);
  };
  EXPECT_THAT(Problems(), ElementsAre(wrong("line 6"), wrong("line 8")));
  std::filesystem::remove(paths::kVolumePatterns);
  std::filesystem::create_directory(paths::kVolumePatterns);
  EXPECT_THAT(Problems(), ElementsAre(Pair(In(paths::kVolumePatterns, "is no regular file"),
                                           Effect::kNothingIsDone)));
}

}  // namespace
}  // namespace tolm::operation
