#include "report/metrics_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <utility>

#include "tests/support/files.h"

namespace tolm::report {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using testing::ReadFile;
using testing::WriteFile;

class MetricsFileTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(kDirectory); }

  static constexpr char kDirectory[] = "/tmp/textfiles";
  static constexpr char kFile[] = "/tmp/textfiles/a.prom";
};

TEST_F(MetricsFileTest, IsForEverybodyToReadWhateverTheUmask) {
  const mode_t before = umask(077);
  WriteMetricsFile(kFile, "one\n");
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(ReadFile(kFile), "one\n");
}

TEST_F(MetricsFileTest, TakesThePlaceOfTheFormerOneAtOnce) {
  WriteFile(kFile, "former\n");
  fs::create_hard_link(kFile, "/tmp/opened");  // As a reader that has it open.
  WriteMetricsFile(kFile, "present\n");
  EXPECT_EQ(ReadFile(kFile), "present\n");
  EXPECT_EQ(ReadFile("/tmp/opened"), "former\n");
  EXPECT_THAT(testing::ListTree(kDirectory), ElementsAre("a.prom"));
}

TEST_F(MetricsFileTest, LinkInItsWayIsNotFollowed) {
  WriteFile("/tmp/precious", "stays\n");
  fs::create_symlink("/tmp/precious", std::string(kFile) + ".new");
  WriteMetricsFile(kFile, "present\n");
  EXPECT_EQ(ReadFile("/tmp/precious"), "stays\n");
  EXPECT_EQ(ReadFile(kFile), "present\n");
}

TEST_F(MetricsFileTest, WhatIsNoRegularFileStays) {
  WriteFile("/tmp/precious", "stays\n");
  fs::create_symlink("/tmp/precious", kFile);
  ASSERT_EQ(mkfifo("/tmp/textfiles/pipe", 0600), 0);
  for (const char* place : {kFile, "/tmp/textfiles/pipe"}) {
    try {
      WriteMetricsFile(place, "text\n");
      FAIL() << place;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), std::string(place) + " is no regular file, and stays as it is");
    }
  }
  EXPECT_TRUE(fs::is_symlink(kFile));
  EXPECT_TRUE(fs::is_fifo("/tmp/textfiles/pipe"));
  EXPECT_EQ(ReadFile("/tmp/precious"), "stays\n");
}

// What another program does once this one has written.
std::function<void()> g_meanwhile;

TEST_F(MetricsFileTest, AnotherProgramsHalfIsNotPutInPlace) {
  WriteFile(kFile, "former\n");
  g_meanwhile = [] {
    const std::string staging = std::string(kFile) + ".new";
    fs::remove(staging);
    WriteFile(staging, "hal");
  };
  try {
    WriteMetricsFile(kFile, "present\n");
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "another program writes " + std::string(kFile) + " at the same time");
  }
  EXPECT_EQ(ReadFile(kFile), "former\n");
}

TEST_F(MetricsFileTest, MissingDirectoryIsNamed) {
  try {
    WriteMetricsFile("/tmp/none/a.prom", "text\n");
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "there is no directory /tmp/none for /tmp/none/a.prom");
  }
  EXPECT_FALSE(fs::exists("/tmp/none"));
}

}  // namespace

// In place of the C library's.
extern "C" int fchmod(int descriptor, mode_t mode) noexcept {
  if (const auto meanwhile = std::exchange(g_meanwhile, nullptr)) {
    meanwhile();
  }
  return static_cast<int>(syscall(SYS_fchmod, descriptor, mode));
}

}  // namespace tolm::report
