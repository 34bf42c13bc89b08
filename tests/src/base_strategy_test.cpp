#include <gmock/gmock.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <limits>
#include <optional>

#include "dataupdate/strategy.h"
#include "tests/src/engine_support.h"
#include "tests/src/strategy_support.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"

namespace {

struct FileSystemSize {
  fsblkcnt_t capacity;
  fsblkcnt_t available;
};

// What every file system looks like to the library.
std::optional<FileSystemSize> file_system_size;
int statvfs_errno = 0;

}  // namespace

#pragma GCC visibility push(default)
extern "C" int statvfs64(const char*, struct statvfs64* info) {
  if (statvfs_errno != 0 || !file_system_size) {
    errno = statvfs_errno;
    return -1;
  }
  *info = {};
  info->f_bsize = info->f_frsize = 1;
  info->f_blocks = file_system_size->capacity;
  info->f_bfree = info->f_bavail = file_system_size->available;
  return 0;
}
#pragma GCC visibility pop

namespace tolm::testing {
namespace {

using dataupdate::BaseStrategy;
using dataupdate::DiffStrategy;
using dataupdate::ForceInstallByLink;
using dataupdate::FullStrategy;
using dataupdate::ModifyInfo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The helpers that strategies share.
struct Helpers : BaseStrategy {
  using BaseStrategy::_CheckDigest;
  using BaseStrategy::_ExtractTarballTo;
  using BaseStrategy::_IsSpaceEnough;
};

constexpr char kEmptyDigest[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b";

TEST(BaseStrategyTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<BaseStrategy>);
  ExpectSlotsOfAStrategy<BaseStrategy>();
}

TEST(BaseStrategyTest, HasNoData) {
  EXPECT_EQ(sizeof(BaseStrategy), sizeof(void*));
}

TEST(BaseStrategyTest, OperationsOfTheBaseDoNothing) {
  const FakePlatform platform;
  BaseStrategy strategy;
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
  EXPECT_THAT(platform.Story(), IsEmpty());
}

TEST(BaseStrategyTest, ModifyInfoStartsUndecided) {
  const ModifyInfo info;
  EXPECT_EQ(info.operation, 0);
  EXPECT_EQ(info.source_path, "");
  EXPECT_EQ(sizeof info.operation, 4U);
}

TEST(BaseStrategyTest, DigestMustBeExactlyTheFiles) {
  WriteFile("/tmp/f", "content");
  const std::string digest = Sha384Hex("/tmp/f");
  std::string upper = digest;
  for (char& c : upper) {
    c = static_cast<char>(std::toupper(c));
  }
  EXPECT_TRUE(Helpers::_CheckDigest("/tmp/f", digest));
  EXPECT_FALSE(Helpers::_CheckDigest("/tmp/f", upper));
  EXPECT_FALSE(Helpers::_CheckDigest("/tmp/f", digest.substr(1)));
  EXPECT_FALSE(Helpers::_CheckDigest("/tmp/f", digest + " "));
  EXPECT_FALSE(Helpers::_CheckDigest("/tmp/f", ""));
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(BaseStrategyTest, DigestOfAFileThatCannotBeOpenedIsThatOfNoData) {
  EXPECT_TRUE(Helpers::_CheckDigest("/tmp/missing", kEmptyDigest));
  EXPECT_FALSE(std::filesystem::exists("/tmp/missing"));

  WriteFile("/tmp/sealed/f", "content");
  const ScopedMount mount = ScopedMount::Bind("/tmp/sealed", "/tmp/sealed");
  mount.MakeReadOnly();  // It is opened for writing, too.
  EXPECT_TRUE(Helpers::_CheckDigest("/tmp/sealed/f", kEmptyDigest));
}

TEST(BaseStrategyTest, MoreThanFivePerCentMustStayFree) {
  struct Row {
    const char* name;
    FileSystemSize size;
    long long delta;
    bool enough;
  };
  constexpr fsblkcnt_t kTerabyte = 1000000000000;
  const Row rows[] = {
      {"51 of 1000", {1000, 40}, 11, true},
      {"exactly five per cent", {1000, 40}, 10, false},
      {"nothing freed", {1000, 51}, 0, true},
      {"growing within the limit", {1000, 100}, -49, true},
      {"growing to the limit", {1000, 100}, -50, false},
      {"growing beyond what is free", {1000, 100}, -200, false},
      {"large sizes", {20 * kTerabyte, kTerabyte}, 1, true},
      {"large sizes at the limit", {20 * kTerabyte, kTerabyte}, 0, false},
      {"no capacity and nothing free", {0, 0}, 0, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    file_system_size = row.size;
    EXPECT_EQ(Helpers::_IsSpaceEnough("/tmp", row.delta), row.enough);
  }
}

TEST(BaseStrategyTest, SpaceRuleSaysItsFiguresAtDebugLevel) {
  file_system_size = FileSystemSize{5000000000, 40};
  EXPECT_FALSE(Helpers::_IsSpaceEnough("/tmp", -7));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_DEBUG),
              ElementsAre("capacity: 5000000000", "available: 40", "delta: -7"));
  ASSERT_EQ(SyslogCapture::Lines().size(), 3U);
  EXPECT_EQ(SyslogCapture::Lines()[0].format, "%s:%d capacity: %ju");
  EXPECT_EQ(SyslogCapture::Lines()[1].format, "%s:%d available: %jd");
  EXPECT_EQ(SyslogCapture::Lines()[2].format, "%s:%d delta: %jd");
  EXPECT_THAT(SyslogCapture::Lines()[0].text, ::testing::StartsWith("strategy:"));
}

TEST(BaseStrategyTest, SpaceThatCannotBeFoundOutIsAnError) {
  statvfs_errno = EIO;
  EXPECT_EQ(UpdateErrorOf([] { Helpers::_IsSpaceEnough("/tmp", 0); }),
            "Fail to get available space");
  EXPECT_EQ(UpdateErrorOf([] { Helpers::_IsSpaceEnough("/missing", 0); }),
            "Invalid filesystem to testing space");
}

TEST(BaseStrategyTest, PackageIsOpenedAndUnpackedWhole) {
  FakePlatform platform;
  platform.OfferPackage("http://h/p", {{"a", "1"}, {"d/b", "2"}});
  WriteFile("/tmp/p", "package of http://h/p");
  std::filesystem::create_directory("/tmp/dest");
  Helpers::_ExtractTarballTo("/tmp/p", "/tmp/dest");
  EXPECT_EQ(ReadTree("/tmp/dest"), (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}}));
  EXPECT_THAT(platform.Calls(), ElementsAre("open /tmp/p", "extract to /tmp/dest"));
}

// That the handle is released on every path is checked by the fake.
TEST(BaseStrategyTest, EachFailureOfUnpackingHasItsMessage) {
  struct Row {
    const char* message;
    bool init_fails;
    std::uint32_t open_error;
    std::uint32_t extract_error;
  };
  const Row rows[] = {
      {"Failed to extract package at tolmarchive_init", true, 0, 0},
      {"tolmarchive_open /tmp/p failed, ret: 18", false, 18, 0},
      {"tolmarchive_open /tmp/p failed, ret: 4294967295", false, 4294967295, 0},
      {"tolmarchive_extract /tmp/p failed, ret: 32", false, 0, 32},
  };
  WriteFile("/tmp/p", "package of http://h/p");
  std::filesystem::create_directory("/tmp/dest");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    FakePlatform platform;
    platform.OfferPackage("http://h/p", {{"a", "1"}, {"b", "2"}});
    platform.archive_init_fails = row.init_fails;
    platform.archive_open_error = row.open_error;
    platform.archive_extract_error = row.extract_error;
    EXPECT_EQ(UpdateErrorOf([] { Helpers::_ExtractTarballTo("/tmp/p", "/tmp/dest"); }),
              row.message);
  }
}

TEST(BaseStrategyTest, PackagePathIsShownAsItIs) {
  FakePlatform platform;
  WriteFile("/tmp/100%s %1%", "no package");
  EXPECT_EQ(UpdateErrorOf([] { Helpers::_ExtractTarballTo("/tmp/100%s %1%", "/tmp"); }),
            "tolmarchive_open /tmp/100%s %1% failed, ret: 5");
}

}  // namespace
}  // namespace tolm::testing
