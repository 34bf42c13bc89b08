#include "operation/trust_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "operation/service.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

const std::filesystem::path kState = "/var/lib/data_update/trust.json";
const std::filesystem::path kAside = "/var/lib/data_update/trust.json.aside";

TEST(TrustStateTest, DatabaseHasNoFloorBeforeItIsInstalled) {
  EXPECT_EQ(FloorOf("oui"), kNeverInstalled);
  EXPECT_FALSE(std::filesystem::exists(kState));
}

TEST(TrustStateTest, FloorIsRaisedAndNotLoweredByWhatIsInstalled) {
  RaiseFloor("oui", 5);
  RaiseFloor("oui", 3);
  RaiseFloor("geo", 2);
  EXPECT_EQ(FloorOf("oui"), 5);
  EXPECT_EQ(FloorOf("geo"), 2);
  SetFloor("oui", 4);
  EXPECT_EQ(FloorOf("oui"), 4);
  EXPECT_EQ(FloorOf("geo"), 2);
}

TEST(TrustStateTest, FileIsForRootAlone) {
  SetFloor("oui", 1);
  struct stat status;
  ASSERT_EQ(stat(kState.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST(TrustStateTest, DamagedFileIsSetAside) {
  for (const char* damaged :
       {"{", "[]", R"({"format": 2, "databases": {}})", R"({"format": 1, "databases": []})",
        R"({"format": 1, "databases": {"oui": 5}})",
        R"({"format": 1, "databases": {"oui": {"floor": "5"}}})"}) {
    testing::WriteFile(kState, damaged);
    std::filesystem::remove(kAside);
    EXPECT_EQ(LookForFloor("oui"), std::nullopt) << damaged;
    EXPECT_FALSE(std::filesystem::exists(kAside)) << "a look changes nothing";
    EXPECT_EQ(FloorOf("oui"), kNeverInstalled) << damaged;
    EXPECT_EQ(testing::ReadFile(kAside), damaged);
  }
}

}  // namespace
}  // namespace tolm::operation
