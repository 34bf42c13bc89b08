#include "operation/survey.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/installed_record.h"
#include "operation/interrupt.h"
#include "operation/lock_files.h"
#include "operation/settings_check.h"
#include "operation/trust_state.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

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
    {"MissingLastDeltaTakesTheFullPackage", 3, 5, {{4, 1}}, Road::kFullPackage, 1, 5'000'000'000},
    {"EmptyDeltaIsOfAKnownSize", 4, 5, {{5, 0}}, Road::kDeltas, 1, 0},
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
  std::string refusal;
  try {
    service_.config->CheckSupported("other");
  } catch (const dataupdate::UpdateError& error) {
    refusal = error.what();
  }
  EXPECT_THAT([this] { ExamineInstalled(service_, "other"); },
              ::testing::ThrowsMessage<dataupdate::UpdateError>(refusal));
}

TEST_F(SurveyOfADatabaseTest, NoOperationRunsWithoutALockOrWithOneThatNobodyHolds) {
  EXPECT_FALSE(IsOperationRunning(service_, ""));
  EXPECT_FALSE(IsOperationRunning(service_, "oui"));
  EXPECT_FALSE(std::filesystem::exists(paths::kLockDirectory)) << "it was only asked";
  testing::WriteFile(paths::kUpdateAnyLock, "");
  EXPECT_FALSE(IsOperationRunning(service_, ""));
  EXPECT_THROW(IsOperationRunning(service_, "other"), std::exception);
}

// ---- The description ----

// Version 7 is offered, in a description that is not signed.
class CachedDescriptionTest : public SurveyOfADatabaseTest {
 protected:
  static void Cache(const timespec& written) {
    testing::WriteFile(paths::kDatabaseInfo,
                       R"({"deprecated": false, "db_list": {"oui": {"data_version": "7",
                            "last_fetch_time": 70, "download_link": "http://127.0.0.1:1/7",
                            "file_size": 700, "diff_files": {}}}})");
    const timespec times[] = {written, written};
    ASSERT_EQ(utimensat(AT_FDCWD, paths::kDatabaseInfo, times, 0), 0);
  }
  static void SetMode(const std::string& path, mode_t mode) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  const timespec now_{0, UTIME_NOW};
  const timespec long_ago_{1700000000, 0};
};

TEST_F(CachedDescriptionTest, OffersWhatItSays) {
  Cache(long_ago_);
  const std::optional<Description> description = Description::FromCache(service_);
  ASSERT_TRUE(description);
  EXPECT_EQ(description->downloaded_at(), 1700000000);
  const Offer offer = description->OfferOf("oui");
  EXPECT_EQ(offer.version, 7);
  EXPECT_EQ(offer.full_package_bytes, 700U);
  EXPECT_FALSE(offer.replaces_higher);
  EXPECT_FALSE(description->Signature());
  EXPECT_FALSE(SignatureOfOffers());
  DropCachedDescription();
  EXPECT_FALSE(Description::FromCache(service_));
  EXPECT_FALSE(std::filesystem::exists(paths::kDatabaseInfo));
}

TEST_F(CachedDescriptionTest, UnsignedOneReplacesNothingHigher) {
  Cache(now_);
  NoteSuperseded("oui", {5, 9});
  ASSERT_TRUE(LookForAuthorized("oui"));
  const std::optional<Description> description = Description::FromCache(service_);
  ASSERT_TRUE(description);
  EXPECT_FALSE(description->OfferOf("oui").replaces_higher);
}

TEST_F(CachedDescriptionTest, WhoeverFetchesItClosesTheCacheToOthers) {
  Cache(now_);
  SetMode(paths::kDatabaseInfo, 0666);
  SetMode(paths::kCacheDirectory, 0777);
  EXPECT_EQ(Description::Fetch(service_).OfferOf("oui").version, 7);
  EXPECT_EQ(ModeOf(paths::kCacheDirectory), 0755U);
  EXPECT_EQ(ModeOf(paths::kDatabaseInfo), 0644U);
}

TEST_F(CachedDescriptionTest, NothingIsFetchedWithDamagedSettings) {
  Cache(now_);
  testing::WriteFile(paths::kDatabaseOverrides, "{");
  EXPECT_THROW(Description::Fetch(service_), DamagedSettings);
}

TEST_F(CachedDescriptionTest, AccountThatMayNotAskIsToldWhatIsYoung) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  MakeLockFiles(*service_.config);
  const auto fetched = [this] {
    return tolm::testing::CallAsOrdinaryAccount([this] {
      try {
        return Description::Fetch(service_).OfferOf("oui").version;
      } catch (const std::exception&) {
        return 1;
      }
    });
  };
  EXPECT_EQ(fetched(), 1) << "there is none";
  Cache(now_);
  EXPECT_EQ(fetched(), 7);
  Cache(long_ago_);
  EXPECT_EQ(fetched(), 1);
}

// The library's own wait knows no signals.
TEST_F(CachedDescriptionTest, SignalEndsTheWaitForWhoeverAsksTheServer) {
  const Interrupt interrupt;
  Cache(now_);
  MakeLockFiles(*service_.config);
  const tolm::testing::UniqueDescriptor other(open(paths::kFreshInfoLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
  kill(getpid(), SIGTERM);
  ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
  EXPECT_THROW(Description::Fetch(service_), Interrupted);
}

}  // namespace
}  // namespace tolm::operation
