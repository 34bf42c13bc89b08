#include "publish/release.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "publish/repository.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/files.h"

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

class StagedReleaseTest : public ReleaseFixture {
 protected:
  publish::ReleaseReport Make(const publish::ReleaseRequest& request, std::time_t now) const {
    return MakeRelease(
        request, now, [](const std::string&) {}, [](const publish::Step&) {});
  }

  const std::time_t now_ = std::time(nullptr);
};

// Hours after the command was given, when its packages are large.
TEST_F(StagedReleaseTest, RolloutStartsWhenTheReleaseIsReady) {
  const std::time_t given = now_ - 5000;
  InitRepository(NewSignedRepository(given), given);
  publish::ReleaseRequest request = NewRelease();
  Make(request, given);
  WriteFile(Path("tree/a.txt"), "b");
  request.stages = publish::ParseStages("10%/1h,100%");
  const publish::ReleaseReport report = Make(request, given + 1);
  ASSERT_TRUE(report.rollout) << "how it goes on is not told";
  EXPECT_GE(report.rollout->plan.start, now_);
}

}  // namespace
}  // namespace tolm::testing
