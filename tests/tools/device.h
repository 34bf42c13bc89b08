#ifndef TOLM_TESTS_TOOLS_DEVICE_H_
#define TOLM_TESTS_TOOLS_DEVICE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/publisher.h"

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
CommandResult Tool(const std::vector<std::string>& arguments);

/// Whether an exclusive lock could be had at this moment.
bool IsFree(const std::string& lock_file);

/// What update and check say, without when a cached answer was asked for.
std::string WithoutAge(const std::string& out);

int CountLines(const std::string& text);

/// A configured device and its publisher: one database "oui" on the volume with versions 1 (full)
/// and 2 (full, and a delta from 1), of which 1 is offered.
class DeviceTest : public ::testing::Test {
 protected:
  DeviceTest();
  ~DeviceTest() override;
  void SetUp() override;

  void InstallFirst();
  void ExpectNothingLeft();
  // A failed update to version 2 says so in one line and changes nothing. The library's words for
  // it, as they would stand on such a line, are in the history.
  void ExpectRefusedUpdate(const ::testing::Matcher<std::string>& message);

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
