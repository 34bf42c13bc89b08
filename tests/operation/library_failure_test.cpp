#include "operation/library_failure.h"

#include <gtest/gtest.h>

#include <string>

#include "base/paths.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using testing::WriteFile;

class LibraryFailureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(paths::kServiceDefaults, R"({"config": {"cur_volume": "/volume1"}})");
  }

  static std::string LineFor(const std::string& message) {
    const std::optional<Failure> failure = FailureIn(message);
    return failure ? LineOf("oui", *failure) : "nothing";
  }
};

constexpr char kDisk[] = "; does a disk fail? \"dmesg\" tells";

TEST_F(LibraryFailureTest, PlaceOfUnpackingIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: a directory for unpacking in /volume1/@tmp/data_update cannot be opened") +
      kDisk;
  EXPECT_EQ(LineFor("Failed to extract package at tolmarchive_init"), said);
  EXPECT_EQ(LineFor("Fail to force install: Failed to extract package at tolmarchive_init"), said);
}

TEST_F(LibraryFailureTest, VolumeWhoseRoomCannotBeSeenIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: whether there is room on /volume1 cannot be seen") + kDisk;
  EXPECT_EQ(LineFor("Invalid filesystem to testing space"), said);
  EXPECT_EQ(LineFor("Fail to get available space"), said);
}

}  // namespace
}  // namespace tolm::operation
