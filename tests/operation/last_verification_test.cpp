#include "operation/last_verification.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "operation/service.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::SyslogCapture;
using testing::WriteFile;

const fs::path kVersionFile = "/var/lib/data_update/oui/version.json";
const fs::path kVerified = "/var/lib/data_update/oui/verified.json";

Verification Found(int version) {
  return {version, false, 5, 6, {{"a", "missing"}, {"b", "missing"}}, {}, 0};
}

void Remember() {
  RememberVerification("oui", Found(7));
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

TEST(LastVerificationTest, IsWhatWasRememberedUntilSomethingIsInstalled) {
  WriteFile(kVersionFile, "{}");
  EXPECT_FALSE(LookForVerification("oui"));
  const std::time_t before = std::time(nullptr);
  Remember();
  const std::optional<LastVerification> last = LookForVerification("oui");
  ASSERT_TRUE(last);
  EXPECT_GE(last->at, before);
  EXPECT_LE(last->at, std::time(nullptr));
  EXPECT_EQ(last->checked_files, 5u);
  EXPECT_EQ(last->damaged_files, 2u);
  const fs::file_time_type time = fs::last_write_time(kVersionFile);
  fs::last_write_time(kVersionFile, time + std::chrono::nanoseconds(1));
  EXPECT_FALSE(LookForVerification("oui"));
  fs::last_write_time(kVersionFile, time);
  EXPECT_TRUE(LookForVerification("oui"));
}

TEST(LastVerificationTest, HasOneForm) {
  WriteFile(kVersionFile, "{}");
  struct stat status;
  ASSERT_EQ(stat(kVersionFile.c_str(), &status), 0);
  Remember();
  const std::optional<LastVerification> last = LookForVerification("oui");
  ASSERT_TRUE(last);
  EXPECT_EQ(ReadFile(kVerified),
            "{\n\t\"checked_files\" : 5,\n\t\"damaged_files\" : 2,\n\t\"format\" : 1,\n"
            "\t\"installation\" : \"" +
                std::to_string(status.st_mtim.tv_sec) + '.' +
                std::to_string(status.st_mtim.tv_nsec) +
                "\",\n\t\"time\" : " + std::to_string(last->at) + "\n}\n");
}

TEST(LastVerificationTest, NothingIsRememberedOfWhatIsNotInstalled) {
  RememberVerification("oui", Found(kNeverInstalled));
  EXPECT_FALSE(fs::exists(kVerified));
}

TEST(LastVerificationTest, OneOfAnotherFormIsNone) {
  Remember();  // No version.json: the installation has no time.
  const std::string good = ReadFile(kVerified);
  ASSERT_TRUE(LookForVerification("oui"));
  const std::string time = std::to_string(LookForVerification("oui")->at);
  for (const std::string& text :
       {Replaced(good, "\"format\" : 1", "\"format\" : 2"), Replaced(good, time, "true"),
        Replaced(good, "\"\"", "null"),
        Replaced(good, "\"checked_files\" : 5", "\"checked_files\" : true"),
        Replaced(good, "\"damaged_files\" : 2", "\"damaged_files\" : null"), good + "// comment",
        std::string("[]"), std::string("{"), std::string()}) {
    WriteFile(kVerified, text);
    EXPECT_FALSE(LookForVerification("oui")) << text;
  }
  WriteFile(kVerified, good);
  EXPECT_TRUE(LookForVerification("oui"));
}

TEST(LastVerificationTest, StateDirectoriesAreMadeSafe) {
  fs::create_directories(kVerified.parent_path());
  ASSERT_EQ(chmod(kVerified.parent_path().c_str(), 0777), 0);
  Remember();
  EXPECT_TRUE(LookForVerification("oui"));
  struct stat status;
  ASSERT_EQ(stat(kVerified.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST(LastVerificationTest, FailureToRememberIsAWarningAndNothingElse) {
  fs::create_directories(kVerified / "in-the-way");
  SyslogCapture::Clear();
  Remember();
  const std::vector<std::string> warnings = SyslogCapture::TextsWithoutPlace(LOG_WARNING);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_EQ(warnings[0].rfind("What was found is not remembered: ", 0), 0u) << warnings[0];
}

}  // namespace
}  // namespace tolm::operation
