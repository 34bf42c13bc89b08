#include "publish/release.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace tolm::testing {
namespace {

using publish::Load;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;

publish::Release ReleaseOf(int version, std::uint64_t delta_bytes) {
  publish::Release release;
  release.version = version;
  if (delta_bytes > 0) {
    release.delta = publish::DeltaRecord{{"d", delta_bytes, "d"}, {}, 0};
  }
  return release;
}

auto IsLoad(int version, bool withdrawn, std::uint64_t deltas, std::uint64_t bytes) {
  return AllOf(Field(&Load::version, version), Field(&Load::withdrawn, withdrawn),
               Field(&Load::deltas, deltas), Field(&Load::bytes, bytes));
}

TEST(LoadsTest, EachVersionLoadsTheDeltasFromThereOn) {
  publish::Database database;
  database.releases = {ReleaseOf(1, 0), ReleaseOf(2, 10), ReleaseOf(3, 200)};
  database.releases[1].withdrawn = 7;
  EXPECT_THAT(publish::LoadsOf(database),
              ElementsAre(IsLoad(2, true, 1, 200), IsLoad(1, false, 2, 210)));
  EXPECT_THAT(publish::LoadsTo(database, 2), ElementsAre(IsLoad(1, false, 1, 10)));
  EXPECT_THAT(publish::LoadsTo(database, 1), IsEmpty());
}

}  // namespace
}  // namespace tolm::testing
