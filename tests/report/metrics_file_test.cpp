#include "report/metrics_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

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
}  // namespace tolm::report
