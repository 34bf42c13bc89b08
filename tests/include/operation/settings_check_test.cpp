#include "operation/settings_check.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::testing {
void MakeDevice();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

using Effect = SettingsProblem::Effect;

TEST(OperationHeaderTest, SettingsCheckIsUsableAlone) {
  testing::MakeDevice();
  EXPECT_TRUE(CheckSettingsFiles().empty());
  EXPECT_NO_THROW(RequireSoundSettings());
  const std::string directory = "/usr/tolm/etc/data_update/";
  std::filesystem::create_directories(directory);
  std::ofstream(directory + "data_update.conf") << "{\"config\": {}\n";
  std::ofstream(directory + "databases.conf") << R"({"x": {"min_rsv_space_inbytes": -1}})";
  std::ofstream(directory + "databases.conf.aside") << "{";
  std::ofstream(directory + "databases.conf.aside.2") << "{";
  std::vector<std::pair<std::string, Effect>> seen;
  for (const SettingsProblem& problem : CheckSettingsFiles()) {
    seen.emplace_back(problem.Line(), problem.effect);
  }
  const std::string aside =
      " was set aside because it could not be used; its settings do not count: repair and rename "
      "it, or remove it";
  const std::string unsound =
      directory + "data_update.conf: line 2, column 1: Missing ',' or '}' in object declaration";
  EXPECT_EQ(seen,
            (std::vector<std::pair<std::string, Effect>>{
                {unsound, Effect::kNothingIsDone},
                {directory + "databases.conf.aside:" + aside, Effect::kSetAside},
                {directory + "databases.conf.aside.2:" + aside, Effect::kSetAside},
                {directory + "databases.conf: x.min_rsv_space_inbytes must be a whole number up to "
                             "4294967295; the default counts",
                 Effect::kOneValue}}));
  try {
    RequireSoundSettings();
    FAIL() << "nothing is thrown";
  } catch (const DamagedSettings& error) {
    EXPECT_EQ(error.what(), unsound + "; nothing was done");
  }
}

}  // namespace
}  // namespace tolm::operation
