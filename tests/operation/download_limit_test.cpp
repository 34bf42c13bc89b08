#include "operation/download_limit.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::ScopedMount;

constexpr std::uint64_t kMebibyte = 1 << 20;

rlimit Get(__rlimit_resource resource) {
  rlimit limit{};
  EXPECT_EQ(getrlimit(resource, &limit), 0);
  return limit;
}

TEST(DownloadLimitTest, FivePerCentOfAFileSystemStayFree) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 20 * kMebibyte);
  const auto empty = LimitFor("/volume1/package");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->bytes, 19 * kMebibyte);
  EXPECT_THAT(empty->reason, HasSubstr("19922944 bytes"));
  EXPECT_THAT(empty->reason, HasSubstr("/volume1"));
  EXPECT_TRUE(empty->is_room);
  testing::WriteFile("/volume1/filler", std::string(4 * kMebibyte, 'x'));
  EXPECT_EQ(LimitFor("/volume1/package")->bytes, 15 * kMebibyte);
}

TEST(DownloadLimitTest, WhatIsThereAlreadyOfTheFileTakesNoRoom) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 20 * kMebibyte);
  testing::WriteFile("/volume1/kept", std::string(4 * kMebibyte, 'x'));
  EXPECT_EQ(LimitFor("/volume1/package", std::nullopt, 4 * kMebibyte)->bytes, 19 * kMebibyte);
  EXPECT_EQ(LimitFor("/volume1/package", 5 * kMebibyte, 4 * kMebibyte)->bytes, 5 * kMebibyte);
}

TEST(DownloadLimitTest, NothingIsLeftWhereLessThanFivePerCentAreFree) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 20 * kMebibyte);
  testing::WriteFile("/volume1/filler", std::string(39 * kMebibyte / 2, 'x'));
  EXPECT_EQ(LimitFor("/volume1/package")->bytes, 0u);
}

TEST(DownloadLimitTest, DescriptionIsBoundedBesides) {
  constexpr char kDescription[] = "/var/cache/data_update/database_info.json";
  const ScopedMount large = ScopedMount::Tmpfs("/var/cache/data_update", 400 * kMebibyte);
  EXPECT_EQ(LimitFor(kDescription)->bytes, 4 * kMebibyte);
  EXPECT_EQ(LimitFor("/var/cache/data_update/other")->bytes, 380 * kMebibyte);
  const ScopedMount small = ScopedMount::Tmpfs("/var/cache/data_update", 2 * kMebibyte);
  EXPECT_LT(LimitFor(kDescription)->bytes, 2 * kMebibyte);
}

TEST(DownloadLimitTest, ExactSizeIsTheLimitWhereThereIsRoomForIt) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 20 * kMebibyte);
  EXPECT_EQ(LimitFor("/volume1/package", 1000)->bytes, 1000u);
  EXPECT_THAT(LimitFor("/volume1/package", 1000)->reason,
              HasSubstr("1000 bytes that the signed description says"));
  EXPECT_FALSE(LimitFor("/volume1/package", 1000)->is_room);
  EXPECT_EQ(LimitFor("/volume1/package", 20 * kMebibyte)->bytes, 19 * kMebibyte);
  EXPECT_TRUE(LimitFor("/volume1/package", 19 * kMebibyte + 1)->is_room);
  EXPECT_FALSE(LimitFor("/volume1/package", 19 * kMebibyte)->is_room) << "what fits is no matter "
                                                                         "of room";
}

TEST(DownloadLimitTest, DirectoryThatIsNotThereHasNoLimit) {
  EXPECT_FALSE(LimitFor("/volume1/missing/package"));
}

TEST(FileSizeLimitTest, CountsWhileItExists) {
  const rlimit largest = Get(RLIMIT_CORE);
  const rlimit some{std::min<rlim_t>(4096, largest.rlim_max), largest.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_CORE, &some), 0);
  const rlimit file_size = Get(RLIMIT_FSIZE);
  const rlimit core = Get(RLIMIT_CORE);
  {
    const FileSizeLimit limit(4096);
    EXPECT_EQ(Get(RLIMIT_FSIZE).rlim_cur, 4096u);
    EXPECT_EQ(Get(RLIMIT_CORE).rlim_cur, 0u);
  }
  EXPECT_EQ(Get(RLIMIT_FSIZE).rlim_cur, file_size.rlim_cur);
  EXPECT_EQ(Get(RLIMIT_FSIZE).rlim_max, file_size.rlim_max);
  EXPECT_EQ(Get(RLIMIT_CORE).rlim_cur, core.rlim_cur);
  EXPECT_EQ(Get(RLIMIT_CORE).rlim_max, core.rlim_max);
}

TEST(FileSizeLimitTest, SmallerOneStays) {
  const FileSizeLimit small(1000);
  const FileSizeLimit large(4096);
  EXPECT_EQ(Get(RLIMIT_FSIZE).rlim_cur, 1000u);
}

TEST(FileSizeLimitTest, ProgramThatIsStartedIsEndedByIt) {
  const FileSizeLimit limit(4096);
  const testing::CommandResult result = testing::RunCommand(
      {"dd", "if=/dev/zero", "of=/tmp/large", "bs=4096", "count=2", "status=none"});
  EXPECT_EQ(result.exit_status, 128 + SIGXFSZ);
  EXPECT_EQ(fs::file_size("/tmp/large"), 4096u);
}

TEST(FileSizeLimitTest, ThisProcessGetsAnErrorAndLivesOn) {
  IgnoreFileSizeSignal();
  const FileSizeLimit limit(4096);
  const testing::UniqueDescriptor file(open("/tmp/large", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  const std::string page(4096, 'x');
  EXPECT_EQ(write(file.Get(), page.data(), page.size()), 4096);
  EXPECT_EQ(write(file.Get(), page.data(), page.size()), -1);
  EXPECT_EQ(errno, EFBIG);
}

}  // namespace
}  // namespace tolm::operation
