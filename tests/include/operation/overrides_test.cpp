#include "operation/overrides.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::testing {
void MakeDevice();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, OverridesIsUsableAlone) {
  testing::MakeDevice();
  EXPECT_TRUE(ExamineOverrides().Lines().empty());
  std::filesystem::create_directories("/usr/tolm/etc/data_update");
  std::ofstream("/usr/tolm/etc/data_update/databases.conf") << R"({"y": {}})";
  std::ofstream("/usr/tolm/etc/data_update/data_update.conf") << "{";
  const OverrideProblems problems = ExamineOverrides();
  EXPECT_EQ(problems.hidden_databases, std::vector<std::string>{"x"});
  EXPECT_EQ(problems.damaged_files,
            std::vector<std::string>{"/usr/tolm/etc/data_update/data_update.conf"});
  EXPECT_EQ(problems.Lines().size(), 2U);
}

}  // namespace
}  // namespace tolm::operation
