// What the installed tool does on file systems whose listings do not tell directories from files,
// where the library would not enter sub-directories.

#include "operation/directory_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "operation/server_config.h"
#include "tests/support/mounts.h"
#include "tests/support/preload.h"
#include "tests/tools/device.h"
#include "tolm/volume.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
constexpr char kVolumePatterns[] = "/usr/tolm/etc/volumes.conf";

std::string RefusalOf(const std::string& directory) {
  return directory +
         ": the file system does not tell directories from files when it lists them; no database "
         "can be kept there\n";
}

class DirectoryTypesTest : public DeviceTest {
 protected:
  static CommandResult ToolWhereUntyped(const std::string& below,
                                        const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    CommandOptions options;
    options.environment = Preload(TOLM_UNTYPED_LISTINGS_LIBRARY);
    options.environment.push_back("TOLM_TEST_UNTYPED=" + below);
    return RunCommand(command, options);
  }

  // The chosen volume is the default one; none is chosen when the overrides say so.
  static void ChooseNone() { WriteFile(kOverrides, R"({"config": {"cur_volume": ""}})"); }
};

TEST_F(DirectoryTypesTest, EveryOperationRefusesSuchAVolumeAndChangesNothing) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  for (const char* command : {"update", "fix", "force-install"}) {
    SCOPED_TRACE(command);
    const CommandResult result = ToolWhereUntyped("/volume1", {command, "oui"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "tolmdbud: oui: " + RefusalOf("/volume1"));
    EXPECT_EQ(ReadTree(prefix_), first_);
    EXPECT_EQ(InstalledVersion("oui"), "1");
    ExpectNothingLeft();
  }
  EXPECT_THAT(ReadFile("/var/lib/data_update/history.jsonl"), HasSubstr("does not tell"));
}

TEST_F(DirectoryTypesTest, FileSystemOfTheInstalledFilesIsLookedAt) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  const ScopedMount own = ScopedMount::Tmpfs(kVolumePrefix, 1 << 20);
  const CommandResult result = ToolWhereUntyped(kVolumePrefix, {"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  // The database's own directory is not there yet.
  EXPECT_EQ(result.err, "tolmdbud: oui: " + RefusalOf(kVolumePrefix));
}

TEST_F(DirectoryTypesTest, DatabaseOnTheRootFileSystemIsLookedAt) {
  ConfigureDevice(publisher_, {{"oui", kOnRootFs}});
  const CommandResult result = ToolWhereUntyped("/var", {"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr(RefusalOf("/var")));
  EXPECT_FALSE(fs::exists("/var/db/oui"));
  EXPECT_EQ(ToolWhereUntyped("/none", {"update", "oui"}).out, "oui: updated to 1\n");
  EXPECT_EQ(ReadTree("/var/db/oui"), first_);
}

TEST_F(DirectoryTypesTest, VerificationRefusesSuchAVolume) {
  InstallFirst();
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"verify", "oui"}, {"verify", "oui", "--package"}}) {
    const CommandResult result = ToolWhereUntyped("/volume1", command);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "tolmdbud: oui: " + RefusalOf("/volume1"));
  }
}

TEST_F(DirectoryTypesTest, InitRefusesSuchAVolumeThatIsChosen) {
  const CommandResult result = ToolWhereUntyped("/volume1", {"init"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: " + RefusalOf("/volume1"));
}

TEST_F(DirectoryTypesTest, InitPassesOverSuchAVolume) {
  ChooseNone();
  const CommandResult result = ToolWhereUntyped("/volume1", {"init"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "volume: /volume2\n");
}

TEST_F(DirectoryTypesTest, InitSaysWhyTheOnlyVolumeIsNotChosen) {
  ChooseNone();
  WriteFile(kVolumePatterns, "/volume1\n");
  const CommandResult result = ToolWhereUntyped("/volume1", {"init"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: " + RefusalOf("/volume1"));
  EXPECT_THAT(ReadFile(kOverrides), Not(HasSubstr("/volume")));
  EXPECT_FALSE(fs::exists(kVolumePrefix));
}

TEST_F(DirectoryTypesTest, DatabasesAreNotMovedToSuchAVolume) {
  InstallFirst();
  WriteFile(kVolumePatterns, "/volume1\n/volume2\n");
  const CommandResult result = ToolWhereUntyped("/volume2", {"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "volume: none (was /volume1)\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(DirectoryTypesTest, SuchAVolumeIsShownAsUnsuitableAndNotChosenWhenItIsMounted) {
  ChooseNone();
  EXPECT_THAT(ToolWhereUntyped("/volume1", {"volume", "show"}).out,
              HasSubstr("/volume1  not suitable"));
  const CommandResult result = ToolWhereUntyped("/volume1", {"volume", "mounted", "/volume1"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: " + RefusalOf("/volume1"));
  EXPECT_EQ(Tool({"volume", "mounted", "/volume1"}).out, "volume: /volume1 (was none)\n");
}

TEST_F(DirectoryTypesTest, WhatCannotBeListedHasNothingAgainstItButIsNoSuitableVolume) {
  EXPECT_TRUE(operation::ListsTypes("/volume1"));
  EXPECT_TRUE(operation::ListsTypes("/volume1/missing"));
  const operation::TypedVolumes volumes(std::make_shared<operation::ServerConfig>());
  for (const std::string place : {"/volume1", "/volume1/missing"}) {
    TOLMMountVolInfo record{nullptr, "", 1, 1, 1, UINT64_MAX};
    place.copy(record.mount_path, sizeof record.mount_path - 1);
    EXPECT_EQ(volumes.IsSuitable(&record, 0), place == "/volume1");
  }
}

TEST_F(DirectoryTypesTest, WhatKeepsTheDatabasesFromAVolumeIsAlsoItsGround) {
  EXPECT_NO_THROW(operation::RequireKeepsDatabases("/volume1"));
  fs::create_directories("/volume1/@database");
  ASSERT_EQ(chown("/volume1/@database", 7, 7), 0);
  try {
    operation::RequireKeepsDatabases("/volume1");
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("/volume1/@database belongs to user 7"));
  }
}

}  // namespace
}  // namespace tolm::testing
