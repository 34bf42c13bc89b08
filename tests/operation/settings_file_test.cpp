#include "operation/settings_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

constexpr char kFile[] = "/tmp/settings.conf";

TEST(SettingsFileTest, SoundOneHasADocumentAndNoProblem) {
  testing::WriteFile(kFile, R"({"a": 1})");
  const SettingsFile file = LoadSettings(kFile);
  ASSERT_TRUE(file.document.has_value());
  EXPECT_EQ((*file.document)["a"], 1);
  EXPECT_EQ(file.problem, "");
}

TEST(SettingsFileTest, MissingOneHasNeither) {
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "");
}

TEST(SettingsFileTest, DamagedOneIsToldOnOneLineByItsFirstErrorAndThePlace) {
  testing::WriteFile(kFile, "{\"a\": 1\n\"b\": x}");
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "line 2, column 1: Missing ',' or '}' in object declaration");
  EXPECT_FALSE(file.is_unreadable);
}

TEST(SettingsFileTest, OneThatCannotBeReadIsNoDamagedOne) {
  std::filesystem::create_symlink("/proc/self/mem", kFile);  // Nothing is at its beginning.
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "cannot be read: Input/output error");
  EXPECT_TRUE(file.is_unreadable);
  EXPECT_EQ(ProblemOfFile(kFile), file.problem);
}

}  // namespace
}  // namespace tolm::operation
