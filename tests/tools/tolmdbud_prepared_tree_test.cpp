// What an account, a plug-in or somebody who had the volume before has left among the installed
// files, and what comes of it.

#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/human_text.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

class PreparedTreeTest : public DeviceTest {
 protected:
  void OfferSecondWith(const std::string& key) {
    publisher_.PackDelta("oui", 2,
                         R"({")" + key + R"(": {"operation": "create", "input_file": "a"}})",
                         {{"a", "two"}});
    publisher_.Offer("oui", 2, {2});
  }

  static mode_t ModeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  // Everything that is made in the directory may be written by account 1000.
  static bool GiveDefaultList(const fs::path& directory) {
    struct Entry {
      std::uint16_t tag;
      std::uint16_t rights;
      std::uint32_t id;
    };
    constexpr std::uint32_t kNobody = 0xffffffff;
    const std::array<Entry, 5> entries = {
        {{1, 7, kNobody}, {2, 7, 1000}, {4, 5, kNobody}, {16, 7, kNobody}, {32, 5, kNobody}}};
    constexpr std::uint32_t kVersion = 2;
    std::array<char, sizeof kVersion + sizeof entries> value;
    std::memcpy(value.data(), &kVersion, sizeof kVersion);
    std::memcpy(value.data() + sizeof kVersion, entries.data(), sizeof entries);
    return setxattr(directory.c_str(), "system.posix_acl_default", value.data(), value.size(), 0) ==
           0;
  }
};

TEST_F(PreparedTreeTest, LinkAboveAFileOfADeltaIsNotFollowed) {
  InstallFirst();
  MakeTree("/tmp/outside", {{"x", "precious"}});
  fs::create_symlink("/tmp/outside", prefix_ / "new");
  OfferSecondWith("/new/x");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err,
            "tolmdbud: oui: new is a link; the full package is installed in place of deltas\n"
            "tolmdbud: oui delta 2: the installed files cannot be patched by it, the system log "
            "says why; the full package was taken, " +
                base::HumanSize(fs::file_size(publisher_.FullPackage("oui", 2))) + "\n");
  EXPECT_EQ(ReadFile("/tmp/outside/x"), "precious");
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(PreparedTreeTest, DefaultListOfTheVolumeGivesNobodyRights) {
  if (!GiveDefaultList("/volume1")) {
    GTEST_SKIP() << "the file system keeps no lists";
  }
  InstallFirst();
  for (const auto& entry : fs::recursive_directory_iterator("/volume1/@database")) {
    EXPECT_EQ(ModeOf(entry.path()) & 022, 0u) << entry.path();
    if (entry.path().string().rfind(prefix_.string(), 0) == 0) {
      EXPECT_LT(getxattr(entry.path().c_str(), "system.posix_acl_default", nullptr, 0), 1)
          << entry.path();
    }
  }
}

TEST_F(PreparedTreeTest, ListThatAppearsLaterIsRemovedBeforeAnythingIsMade) {
  InstallFirst();
  if (!GiveDefaultList(prefix_)) {
    GTEST_SKIP() << "the file system keeps no lists";
  }
  OfferSecondWith("/made/x");
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  EXPECT_EQ(ModeOf(prefix_ / "made"), 0755u);
  EXPECT_LT(getxattr(prefix_.c_str(), "system.posix_acl_default", nullptr, 0), 1);
}

TEST_F(PreparedTreeTest, ModeThatAPluginGivesCostsNoDownload) {
  const fs::path plugins = "/usr/tolm/lib/plugins/database_autoupdate/version_change";
  fs::create_directories(plugins);
  WriteFile(plugins / "open", "#!/bin/sh\nchmod 664 " + (prefix_ / "a.txt").string() + "\n");
  ASSERT_EQ(chmod((plugins / "open").c_str(), 0755), 0);
  InstallFirst();
  EXPECT_EQ(ModeOf(prefix_ / "a.txt"), 0644u);
  ASSERT_EQ(chmod((prefix_ / "sub/b.txt").c_str(), 0640), 0);
  EXPECT_EQ(WithoutAge(Tool({"update", "oui"}).out), "oui: up to date\n");
  EXPECT_EQ(Tool({"verify"}).exit_status, 0);
  EXPECT_EQ(ModeOf(prefix_ / "sub/b.txt"), 0640u);
}

TEST_F(PreparedTreeTest, LinkInTheStateIsNotFollowed) {
  fs::create_directories("/var/lib/data_update");
  MakeTree("/root/secret", {{"version.json", "precious"}});
  fs::create_symlink("/root/secret", "/var/lib/data_update/oui");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err,
            "tolmdbud: oui: /var/lib/data_update/oui is a link; nothing was done (rm "
            "/var/lib/data_update/oui)\n");
  EXPECT_EQ(ReadTree("/root/secret"), (Tree{{"version.json", "precious"}}));
}

}  // namespace
}  // namespace tolm::testing
