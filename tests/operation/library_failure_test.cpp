#include "operation/library_failure.h"

#include <gtest/gtest.h>

#include <string>

#include "base/paths.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

struct Row {
  std::string name;
  std::string message;
  std::string reason;
  std::string text;
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class LibraryFailureTest : public ::testing::TestWithParam<Row> {};

TEST_P(LibraryFailureTest, IsToldInWordsForPeople) {
  testing::WriteFile(paths::kDatabaseDefaults, R"({"oui": {}})");
  const auto failure = FailureIn(GetParam().message);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, GetParam().reason);
  EXPECT_EQ(failure->text, GetParam().text);
}

const Row kRows[] = {
    {"DatabaseThatIsNotConfigured", "Project geo not supported", reasons::kUnknownDatabase,
     "there is no such database"},
    {"FileThatADiskDoesNotGiveToItsEnd", "Fail during reading for SHA digest", reasons::kOther,
     "an installed file cannot be read to its end"},
    {"DirectoryThatADiskDoesNotGive", "Input/output error", reasons::kOther,
     "a directory cannot be read: Input/output error"},
    {"DirectoryThatADiskDoesNotGiveToAnUpdate", "Fail to update: Input/output error",
     reasons::kOther, "Fail to update: a directory cannot be read: Input/output error"},
    {"DirectoryThatADiskDoesNotGiveToAnInstallation", "Fail to install: Input/output error",
     reasons::kOther, "Fail to install: a directory cannot be read: Input/output error"},
    {"VolumeThatIsFull", "write /volume1/x: No space left on device", reasons::kNoRoom,
     "write /volume1/x: No space left on device"},
    {"DescriptionThatIsNoJson", "Fail to decode: /var/cache/data_update/database_info.json",
     reasons::kDescriptionDamaged, "the description of the server is no JSON"},
    {"DescriptionThatIsRefused",
     "Fail to decode: /var/cache/data_update/database_info.json (too deep)",
     reasons::kDescriptionDamaged, "the description of the server is refused: too deep"},
    {"AnotherFileThatIsDamaged", "Fail to decode: /tmp/x", reasons::kOther, "/tmp/x is damaged"},
    {"AnotherMissingFile", "File not exist: /tmp/x", reasons::kOther, "/tmp/x is missing"},
};
INSTANTIATE_TEST_SUITE_P(Texts, LibraryFailureTest, ::testing::ValuesIn(kRows), NameOf);

TEST(LibraryFailureTextTest, WhatSaysNoMoreIsLeftAsItIs) {
  EXPECT_FALSE(FailureIn("anything else"));
  EXPECT_FALSE(FailureIn("Input/output error while waiting"));
  EXPECT_FALSE(FailureIn("Project geo"));
}

class LibraryPlaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::WriteFile(paths::kServiceDefaults, R"({"config": {"cur_volume": "/volume1"}})");
  }

  static std::string LineFor(const std::string& message) {
    const std::optional<Failure> failure = FailureIn(message);
    return failure ? LineOf("oui", *failure) : "nothing";
  }
};

constexpr char kDisk[] = "; does a disk fail? \"dmesg\" tells";

TEST_F(LibraryPlaceTest, PlaceOfUnpackingIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: a directory for unpacking in /volume1/@tmp/data_update cannot be opened") +
      kDisk;
  EXPECT_EQ(LineFor("Failed to extract package at tolmarchive_init"), said);
  EXPECT_EQ(LineFor("Fail to force install: Failed to extract package at tolmarchive_init"), said);
}

TEST_F(LibraryPlaceTest, VolumeWhoseRoomCannotBeSeenIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: whether there is room on /volume1 cannot be seen") + kDisk;
  EXPECT_EQ(LineFor("Invalid filesystem to testing space"), said);
  EXPECT_EQ(LineFor("Fail to get available space"), said);
}

}  // namespace
}  // namespace tolm::operation
