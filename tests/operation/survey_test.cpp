#include "operation/survey.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using dataupdate::DiffInfo;
using Road = UpdatePlan::Road;

constexpr int kLargest = std::numeric_limits<int>::max();

struct Row {
  std::string name;
  int installed;
  int offered;
  std::map<int, int> deltas;  ///< Version to size.
  Road road;
  int packages;
  std::optional<std::uint64_t> bytes;
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class PlanUpdateTest : public ::testing::TestWithParam<Row> {};

TEST_P(PlanUpdateTest, IsWhatTheLibraryWouldDownload) {
  constexpr std::uint64_t kFullBytes = 5'000'000'000;
  const Row& row = GetParam();
  std::map<int, DiffInfo> deltas;
  for (const auto& [version, size] : row.deltas) {
    deltas.emplace(version, DiffInfo("http://h/d", size));
  }
  const UpdatePlan plan = PlanUpdate(row.installed, row.offered, deltas, kFullBytes);
  EXPECT_EQ(plan.road, row.road);
  EXPECT_EQ(plan.packages, row.packages);
  EXPECT_EQ(plan.bytes, row.bytes);
}

const Row kRows[] = {
    {"UpToDate", 5, 5, {}, Road::kNothing, 0, 0},
    {"NewerThanOffered", 6, 5, {{6, 1}}, Road::kNothing, 0, 0},
    {"OneDelta", 4, 5, {{5, 10}}, Road::kDeltas, 1, 10},
    {"OnlyTheNeededDeltas", 3, 5, {{2, 1}, {3, 2}, {4, 4}, {5, 8}, {6, 16}}, Road::kDeltas, 2, 12},
    {"SumBeyondAnInt", 3, 5, {{4, kLargest}, {5, kLargest}}, Road::kDeltas, 2, 2ULL * kLargest},
    {"ImpossibleSizeIsUnknown", 3, 5, {{4, 1}, {5, -1}}, Road::kDeltas, 2, std::nullopt},
    {"GapTakesTheFullPackage", 3, 5, {{3, 1}, {5, 1}}, Road::kFullPackage, 1, 5'000'000'000},
    {"NoDeltas", 4, 5, {}, Road::kFullPackage, 1, 5'000'000'000},
    {"NeverInstalled", -1, 5, {{4, 1}, {5, 1}}, Road::kFullPackage, 1, 5'000'000'000},
    {"NeverInstalledButAllDeltas", -1, 1, {{0, 1}, {1, 2}}, Road::kDeltas, 2, 3},
    {"LargestVersion", kLargest - 1, kLargest, {{kLargest, 7}}, Road::kDeltas, 1, 7},
};
INSTANTIATE_TEST_SUITE_P(, PlanUpdateTest, ::testing::ValuesIn(kRows), NameOf);

TEST(PlanUpdateSizeTest, FullPackageOfUnknownSizeHasNone) {
  EXPECT_EQ(PlanUpdate(4, 5, {}, std::nullopt).bytes, std::nullopt);
}

TEST(LastAskedTest, IsWhenTheCachedDescriptionWasWritten) {
  EXPECT_FALSE(LastAsked());
  testing::WriteFile(paths::kDatabaseInfo, "{}");
  const timespec written[] = {{1700000000, 0}, {1700000000, 999999999}};
  ASSERT_EQ(utimensat(AT_FDCWD, paths::kDatabaseInfo, written, 0), 0);
  ASSERT_TRUE(LastAsked());
  EXPECT_EQ(LastAsked()->at, 1700000000);
}

}  // namespace
}  // namespace tolm::operation
