#include "operation/survey.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <exception>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "operation/installed_record.h"
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

const std::string kState = "/var/lib/data_update/oui/";

void RecordVersion(int version) {
  InstalledRecord record;
  record.version = version;
  record.version_file = VersionFileDigest("oui");
  WriteRecord("oui", record);
}

TEST(ExamineDetailsTest, StateOfTheRecordIsTold) {
  using Record = Details::Record;
  EXPECT_EQ(ExamineDetails("oui").record, Record::kNone);
  testing::WriteFile(kState + "version.json", "{}");
  RecordVersion(7);
  EXPECT_EQ(ExamineDetails("oui").record, Record::kCurrent);
  testing::WriteFile(kState + "version.json", "{ }");
  EXPECT_EQ(ExamineDetails("oui").record, Record::kOutdated);
  testing::WriteFile(kState + "installed.json", "{");
  EXPECT_EQ(ExamineDetails("oui").record, Record::kDamaged);
  std::filesystem::remove(kState + "installed.json");
  std::filesystem::create_symlink("/proc/self/mem", kState + "installed.json");
  EXPECT_EQ(ExamineDetails("oui").record, Record::kDamaged) << "it cannot be read";
}

class SurveyOfADatabaseTest : public ::testing::Test {
 protected:
  SurveyOfADatabaseTest() {
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"},
                           "root": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume9"}})");
  }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(SurveyOfADatabaseTest, VersionIsTheRecordsWhereThatIsCurrent) {
  EXPECT_EQ(RecordedVersion(service_, "oui"), kNeverInstalled);
  testing::WriteFile(kState + "version.json",
                     R"({"data_version": "3", "last_fetch_time": 1, "file_status": {}})");
  EXPECT_EQ(RecordedVersion(service_, "oui"), 3);
  RecordVersion(7);
  EXPECT_EQ(RecordedVersion(service_, "oui"), 7);
}

TEST_F(SurveyOfADatabaseTest, MarkAndMissingVolumeAreTold) {
  const Installed nothing = ExamineInstalled(service_, "oui");
  EXPECT_EQ(nothing.version, kNeverInstalled);
  EXPECT_FALSE(nothing.cut_short);
  EXPECT_EQ(nothing.volume, "/volume9");
  EXPECT_TRUE(nothing.volume_missing);
  testing::WriteFile(kState + "recovery.mark", "");
  EXPECT_TRUE(ExamineInstalled(service_, "oui").cut_short);
  const Installed on_root = ExamineInstalled(service_, "root");
  EXPECT_FALSE(on_root.cut_short);
  EXPECT_EQ(on_root.volume, "");
  EXPECT_FALSE(on_root.volume_missing);
  EXPECT_THROW(ExamineInstalled(service_, "other"), std::exception);
}

TEST_F(SurveyOfADatabaseTest, NoOperationRunsWithoutALockOrWithOneThatNobodyHolds) {
  EXPECT_FALSE(IsOperationRunning(service_, ""));
  EXPECT_FALSE(IsOperationRunning(service_, "oui"));
  testing::WriteFile(paths::kUpdateAnyLock, "");
  EXPECT_FALSE(IsOperationRunning(service_, ""));
  EXPECT_THROW(IsOperationRunning(service_, "other"), std::exception);
}

}  // namespace
}  // namespace tolm::operation
