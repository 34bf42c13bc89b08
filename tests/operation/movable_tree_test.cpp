#include "operation/movable_tree.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "base/file.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

// After so many entries a listing fails; never when negative.
int the_listing_ends_after = -1;

constexpr char kMain[] = "/volume1/@database/autoupdate";
const std::string kOui = std::string(kMain) + "/oui";

struct Row {
  std::string name;
  std::function<void()> arrange;
  std::string objection;
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

void Link(const std::string& target) {
  fs::create_symlink(target, kOui + "/sub/link");
}

void SetMode(const std::string& path, mode_t mode) {
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void Give(const std::string& path) {
  ASSERT_EQ(lchown(path.c_str(), 1000, 1000), 0) << path;
}

class MovableTreeTest : public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (!tolm::testing::HasOrdinaryAccount()) {
      GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
    }
    tolm::testing::MakeTree(kOui, {{"a.txt", "a"}, {"sub/b.txt", "b"}});
  }
};

TEST_P(MovableTreeTest, IsMovedAsItIsOrNotAtAll) {
  GetParam().arrange();
  EXPECT_EQ(WhyNotMovable("/volume1"), GetParam().objection);
}

const Row kRows[] = {
    {"AllIsRoots", [] {}, ""},
    {"NothingThere", [] { fs::remove_all("/volume1/@database"); }, ""},
    {"LinkBesideIt", [] { Link("b.txt"); }, ""},
    {"LinkInTheDatabasesOwnDirectory", [] { fs::create_symlink("a.txt", kOui + "/link"); }, ""},
    {"LinkOutOfTheDatabasesOwnDirectory", [] { fs::create_symlink("../x", kOui + "/link"); },
     kOui + "/link leads out of its database's directory"},
    {"LinkWithinTheDatabase", [] { Link("../a.txt"); }, ""},
    {"LinkOutOfTheDatabase", [] { Link("../../other/a.txt"); },
     kOui + "/sub/link leads out of its database's directory"},
    {"LinkThatMayLeadOut", [] { Link("x/../b.txt"); },
     kOui + "/sub/link leads out of its database's directory"},
    {"AbsoluteLink", [] { Link("/etc/passwd"); },
     kOui + "/sub/link leads out of its database's directory"},
    {"DatabaseIsALink", [] { fs::create_symlink("oui", std::string(kMain) + "/other"); },
     std::string(kMain) + "/other leads out of its database's directory"},
    {"WritableFile", [] { SetMode(kOui + "/a.txt", 0666); },
     kOui + "/a.txt can be written by others"},
    {"WritableDirectory", [] { SetMode(kOui + "/sub", 0775); },
     kOui + "/sub can be written by others"},
    {"SetIdFile", [] { SetMode(kOui + "/a.txt", 04755); },
     kOui + "/a.txt runs with its owner's rights"},
    {"SetGroupIdFile", [] { SetMode(kOui + "/a.txt", 02755); },
     kOui + "/a.txt runs with its owner's rights"},
    {"SetIdDirectory", [] { SetMode(kOui + "/sub", 02755); }, ""},
    {"FileOfSomebodys", [] { Give(kOui + "/sub/b.txt"); },
     kOui + "/sub/b.txt belongs to user 1000"},
    {"DeviceNode",
     [] { ASSERT_EQ(mknod((kOui + "/sub/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0); },
     kOui + "/sub/null is neither file, directory nor link"},
    {"WayIsSomebodys", [] { Give("/volume1/@database"); },
     "/volume1/@database belongs to user 1000 (rm -r /volume1/@database, or chown root "
     "/volume1/@database)"},
    {"VolumeIsWritable", [] { SetMode("/volume1", 0777); },
     "/volume1 can be written by everybody (chmod go-w /volume1)"},
};
INSTANTIATE_TEST_SUITE_P(, MovableTreeTest, ::testing::ValuesIn(kRows), NameOf);

TEST(MovableTreeOnABadDiskTest, DirectoryThatCannotBeReadIsNamed) {
  tolm::testing::MakeTree(kOui, {{"a.txt", "a"}, {"sub/b.txt", "b"}});
  for (int entries = 0; entries < 5; ++entries) {
    the_listing_ends_after = entries;
    try {
      const std::string objection = WhyNotMovable("/volume1");
      ADD_FAILURE() << entries << ": " << objection;
    } catch (const base::FileError& error) {
      EXPECT_EQ(error.code(), std::errc::io_error);
      EXPECT_THAT(error.what(), ::testing::HasSubstr(kMain));
    }
  }
  the_listing_ends_after = -1;
  EXPECT_EQ(WhyNotMovable("/volume1"), "");
}

}  // namespace
}  // namespace tolm::operation

#pragma GCC visibility push(default)
// Before the C library's, by the name that the standard library calls.
#if defined(__LP64__)
extern "C" dirent* EndingListing(DIR* directory) __asm__("readdir");
#else
extern "C" dirent* EndingListing(DIR* directory) __asm__("readdir64");
#endif
dirent* EndingListing(DIR* directory) {
  using Call = dirent*(DIR*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "readdir64"));
  int& entries_left = tolm::operation::the_listing_ends_after;
  if (entries_left == 0) {
    errno = EIO;
    return nullptr;
  }
  entries_left -= entries_left > 0 ? 1 : 0;
  return real(directory);
}
#pragma GCC visibility pop
