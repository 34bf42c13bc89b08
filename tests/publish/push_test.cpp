#include "publish/push.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include "publish/repository.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

/// A repository with a release of one file, and a folder as its store.
class PushStepsTest : public ReleaseFixture {
 protected:
  PushStepsTest() {
    InitRepository(NewRepository(), kNow);
    MakeRelease(
        NewRelease(), kNow, [](const std::string&) {},
        [this](const publish::Step& step) { released_.push_back(step); });
    std::filesystem::create_directory(Path("store"));
  }

  publish::PushReport Push() {
    publish::PushRequest request;
    request.repository = Path("repo");
    request.remote = Path("store");
    pushed_.clear();
    return publish::Push(
        request, kNow, [](const std::string&) {},
        [this](const publish::Step& step) { pushed_.push_back(step.what); });
  }

  std::vector<publish::Step> released_;
  std::vector<std::string> pushed_;
};

TEST_F(PushStepsTest, ListingTheStoreIsTheFirst) {
  EXPECT_THAT(Push().uploaded, ElementsAre("packages/oui/oui_v1000001"));
  ASSERT_THAT(pushed_, Not(IsEmpty()));
  EXPECT_EQ(pushed_.front(), "listing");
  EXPECT_THAT(Push().uploaded, IsEmpty());
  ASSERT_THAT(pushed_, Not(IsEmpty()));
  EXPECT_EQ(pushed_.front(), "listing");
}

TEST_F(PushStepsTest, HowMuchIsPackedIsNotKnownBefore) {
  std::vector<std::uint64_t> packed;
  std::vector<std::uint64_t> totals;
  for (const publish::Step& step : released_) {
    if (std::string(step.what) == "packing") {
      packed.push_back(step.done);
      totals.push_back(step.total);
    }
  }
  EXPECT_THAT(packed, ::testing::Contains(::testing::Gt(0u)));
  EXPECT_THAT(totals, AllOf(Not(IsEmpty()), Each(0u)));
}

}  // namespace
}  // namespace tolm::testing
