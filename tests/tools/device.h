#ifndef TOLM_TESTS_TOOLS_DEVICE_H_
#define TOLM_TESTS_TOOLS_DEVICE_H_

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/publisher.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

inline constexpr char kTool[] = "/usr/bin/tolmdbud";
inline constexpr char kOnVolume[] = "%VOLUME%";
inline constexpr char kOnRootFs[] = "%ROOTFS%";
inline const std::filesystem::path kVolumePrefix = "/volume1/@database/autoupdate";

// What a line about a description that is none ends with.
inline const std::string kRightServer =
    "; is that the right server (db_netloc in /usr/share/data_update/data_update.conf)? The "
    "publisher's \"tolmdbpub check\" tells what it has\n";

/// Runs the installed tolmdbud to its end.
inline CommandResult Tool(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {kTool};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunCommand(command);
}

/// Whether an exclusive lock could be had at this moment.
inline bool IsFree(const std::string& lock_file) {
  const UniqueDescriptor file(open(lock_file.c_str(), O_RDONLY | O_CLOEXEC));
  return file.Get() >= 0 && flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
}

/// What update and check say, without when a cached answer was asked for.
inline std::string WithoutAge(const std::string& out) {
  return std::regex_replace(
      out, std::regex(" as of [^(]*\\(asked [^)]* ago; --refresh asks now\\)"), "");
}

inline int CountLines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

/// A configured device and its publisher: one database "oui" on the volume with versions 1 (full)
/// and 2 (full, and a delta from 1), of which 1 is offered.
class DeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    publisher_.PackFull("oui", 1, first_);
    publisher_.PackFull("oui", 2, second_);
    publisher_.PackDelta("oui", 2,
                         R"({"/a.txt": {"operation": "create", "input_file": "a"},
                             "/gone.txt": {"operation": "delete"}})",
                         {{"a", "two"}});
    publisher_.Offer("oui", 1);
  }

  void InstallFirst() {
    const CommandResult result = Tool({"update", "oui"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    ASSERT_EQ(ReadTree(prefix_), first_);
  }

  void ExpectNothingLeft() {
    EXPECT_FALSE(std::filesystem::exists("/volume1/@tmp/data_update"));
    EXPECT_FALSE(std::filesystem::exists(mark_));
    EXPECT_TRUE(IsFree("/run/data_update/update_any.lock"));
    EXPECT_TRUE(IsFree("/run/data_update/update_oui.lock"));
    EXPECT_TRUE(IsFree("/run/data_update/fresh_info.lock"));
    EXPECT_TRUE(IsFree("/run/data_update/operator.lock"));
  }

  // A failed update to version 2 says so in one line and changes nothing. The library's words for
  // it, as they would stand on such a line, are in the history.
  void ExpectRefusedUpdate(const ::testing::Matcher<std::string>& message) {
    const Tree before = ReadTree(prefix_);
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, ::testing::StartsWith("tolmdbud: oui"));
    EXPECT_THAT("tolmdbud: oui: " + LastMessage() + "\n", message);
    EXPECT_EQ(CountLines(result.err), 1);
    EXPECT_EQ(ReadTree(prefix_), before);
    EXPECT_EQ(InstalledVersion("oui"), "1");
    ExpectNothingLeft();
  }

  const std::filesystem::path prefix_ = kVolumePrefix / "oui";
  const std::filesystem::path version_file_ = "/var/lib/data_update/oui/version.json";
  const std::filesystem::path aside_ = "/var/lib/data_update/oui/version.json.aside";
  const std::filesystem::path mark_ = "/var/lib/data_update/oui/recovery.mark";
  const Tree first_ = {{"a.txt", "one"}, {"gone.txt", "x"}, {"sub/", ""}, {"sub/b.txt", "b"}};
  const Tree second_ = {{"a.txt", "two"}, {"sub/", ""}, {"sub/b.txt", "b"}};
  Publisher publisher_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_DEVICE_H_
