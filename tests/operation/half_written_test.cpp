#include "operation/half_written.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <syslog.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/server_config.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::SyslogCapture;
using testing::WriteFile;

const std::string kState = "/var/lib/data_update/";
const std::vector<std::string> kFiles = {std::string(paths::kDatabaseOverrides) + ".new",
                                         std::string(paths::kTrustState) + ".new",
                                         std::string(paths::kHistory) + ".new",
                                         kState + "geo/installed.json.new",
                                         kState + "geo/verified.json.new",
                                         kState + "oui/installed.json.new",
                                         kState + "oui/verified.json.new"};
constexpr const char* kLocks[] = {paths::kOperatorLock, paths::kFreshInfoLock, paths::kConfigLock,
                                  paths::kNotesLock};

class HalfWrittenTest : public ::testing::Test {
 protected:
  HalfWrittenTest() {
    WriteFile(paths::kDatabaseDefaults, R"({"geo": {}, "oui": {}})");
    for (const char* lock : kLocks) {
      WriteFile(lock, "");
    }
    for (const std::string& file : kFiles) {
      WriteFile(file, "half");
    }
    SyslogCapture::Clear();
  }
};

TEST_F(HalfWrittenTest, IsRemovedAndLoggedAndNothingElseIs) {
  WriteFile(kState + "oui/installed.json", "whole");
  WriteFile(kState + "other/installed.json.new", "another's");
  RemoveHalfWritten(ServerConfig());
  for (const std::string& file : kFiles) {
    EXPECT_FALSE(fs::exists(file)) << file;
  }
  EXPECT_TRUE(fs::exists(kState + "oui/installed.json"));
  EXPECT_TRUE(fs::exists(kState + "other/installed.json.new"));
  const std::vector<std::string> lines = SyslogCapture::TextsWithoutPlace(LOG_WARNING);
  ASSERT_EQ(lines.size(), kFiles.size());
  EXPECT_EQ(lines[0], "removed the half-written " + kFiles[0]);
}

TEST_F(HalfWrittenTest, StaysWhileAnyLockIsHeld) {
  for (const char* lock : kLocks) {
    const testing::UniqueDescriptor held(open(lock, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(held.Get(), LOCK_EX | LOCK_NB), 0);
    RemoveHalfWritten(ServerConfig());
    for (const std::string& file : kFiles) {
      EXPECT_TRUE(fs::exists(file)) << file << ", " << lock;
    }
  }
}

}  // namespace
}  // namespace tolm::operation
