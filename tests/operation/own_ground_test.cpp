#include "operation/own_ground.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/write_rights.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/syslog_capture.h"

namespace {

bool shows_fat = false;
std::string failing;  // No look at this path succeeds, as on a disk that is out of order.
bool is_always_late = false;
int late = 0;
constexpr int kPatience = 100000;
int exchange_error = 0;           // Unless it is 0, no two names are exchanged, because of this.
std::function<void()> meanwhile;  // Happens once, before a directory is made.
int gone_again = 0;               // As often what was in the way of a new directory is gone again.

}  // namespace

// When a test wants that, what is to be exchanged has always just gone, and is there again.
int renameat2(int from_directory, const char* from, int to_directory, const char* to,
              unsigned flags) noexcept {
  if (is_always_late && ++late < kPatience) {
    errno = ENOENT;
    return -1;
  }
  if (exchange_error != 0) {
    errno = exchange_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat2, from_directory, from, to_directory, to, flags));
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  if (const std::function<void()> action = std::exchange(meanwhile, nullptr)) {
    action();
  }
  if (gone_again > 0 && std::string(name) == "data_update") {
    --gone_again;
    errno = EEXIST;
    return -1;
  }
  return static_cast<int>(syscall(SYS_mkdirat, directory, name, mode));
}

int stat(const char* path, struct stat* status) noexcept {
  if (path == failing) {
    errno = EIO;
    return -1;
  }
  return fstatat(AT_FDCWD, path, status, 0);
}

// Every file system looks like FAT when a test wants that.
int fstatfs(int fd, struct statfs* status) noexcept {
  const long result = syscall(SYS_fstatfs, fd, status);
  if (shows_fat && result == 0) {
    status->f_type = 0x4d44;
  }
  return static_cast<int>(result);
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::ThrowsMessage;
using tolm::testing::CallAsOrdinaryAccount;
using tolm::testing::HasOrdinaryAccount;
using tolm::testing::kOrdinaryAccount;
using tolm::testing::ListTree;
using tolm::testing::ReadFile;
using tolm::testing::ScopedMount;
using tolm::testing::SyslogCapture;
using tolm::testing::WriteFile;

constexpr char kVolume[] = "/volume1";
constexpr char kTmp[] = "/volume1/@tmp";
constexpr char kTemporary[] = "/volume1/@tmp/data_update";
constexpr char kInstalled[] = "/volume1/@database/autoupdate/oui";
constexpr char kOnRoot[] = "/var/db/oui";
constexpr char kSettings[] = "/usr/tolm/etc/data_update/operation.conf";

void MakeDirectory(const std::string& path, mode_t mode, uid_t owner = 0) {
  fs::create_directories(path);
  ASSERT_EQ(chown(path.c_str(), owner, owner), 0) << path;
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void MakeLink(const std::string& path, const std::string& target) {
  fs::create_directories(fs::path(path).parent_path());
  fs::create_symlink(target, path);
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

bool IsRootsPrivate(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & 07777) == 0700;
}

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// What the library's own making of the directory comes to.
void MakeAsTheLibrary(const OwnGround& ground, const std::string& path) {
  ground.Explaining([&] { dataupdate::IOUtils().TolmMkdir(path); });
}

std::string RefusalOf(const std::string& volume, const std::string& directory) {
  try {
    const OwnGround ground(volume, directory);
    return "";
  } catch (const ForeignGround& error) {
    return error.what();
  }
}

class OwnGroundTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
    }
  }
};

// ---- What is refused ----

struct Row {
  std::string name;
  std::function<void()> arrange;
  std::string directory;
  std::string refusal;  // empty: accepted
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class GroundTableTest : public OwnGroundTest, public ::testing::WithParamInterface<Row> {};

TEST_P(GroundTableTest, IsJudgedAndLeftAsItWas) {
  GetParam().arrange();
  const std::vector<std::string> before = ListTree(kVolume);
  EXPECT_EQ(RefusalOf(kVolume, GetParam().directory), GetParam().refusal);
  EXPECT_EQ(ListTree(kVolume), before);
}

const Row kRows[] = {
    {"NothingIsThereYet", [] {}, kInstalled, ""},
    {"AllIsRoots",
     [] {
       MakeDirectory(kTemporary, 0755);
       MakeDirectory(kInstalled, 0755);
     },
     kInstalled, ""},
    {"TemporaryDirectoryIsShared", [] { MakeDirectory(kTmp, 01777); }, kInstalled, ""},
    {"VolumeIsShared", [] { MakeDirectory(kVolume, 01777); }, kInstalled, ""},
    {"VolumeIsWritable", [] { MakeDirectory(kVolume, 0777); }, kInstalled,
     "/volume1 can be written by everybody; nothing was done (chmod go-w /volume1)"},
    {"VolumeIsWritableByAGroup",
     [] {
       MakeDirectory(kVolume, 0775);
       ASSERT_EQ(chown(kVolume, 0, 7), 0);
     },
     kInstalled, "/volume1 can be written by group 7; nothing was done (chmod go-w /volume1)"},
    {"VolumeIsSomebodys", [] { MakeDirectory(kVolume, 0755, 1000); }, kInstalled,
     "/volume1 belongs to user 1000; nothing was done (chown root /volume1)"},
    {"SharedVolumeIsSomebodys", [] { MakeDirectory(kVolume, 01777, 1000); }, kInstalled,
     "/volume1 belongs to user 1000; nothing was done (chown root /volume1)"},
    {"TmpIsSomebodys", [] { MakeDirectory(kTmp, 0755, 1000); }, kInstalled,
     "/volume1/@tmp belongs to user 1000; nothing was done (rm -r /volume1/@tmp, or chown root "
     "/volume1/@tmp)"},
    {"TmpIsWritable", [] { MakeDirectory(kTmp, 0777); }, kInstalled,
     "/volume1/@tmp can be written by everybody; nothing was done (chmod go-w /volume1/@tmp)"},
    {"TmpIsALink", [] { MakeLink(kTmp, "/tmp"); }, kInstalled,
     "/volume1/@tmp is a link; nothing was done (rm /volume1/@tmp)"},
    {"TmpIsAFile", [] { WriteFile(kTmp, ""); }, kInstalled,
     "/volume1/@tmp is no directory; nothing was done (rm /volume1/@tmp)"},
    {"SharedTmpOnASharedVolume",
     [] {
       MakeDirectory(kTmp, 01777);
       MakeDirectory(kVolume, 01777);
     },
     kInstalled,
     "/volume1/@tmp can be written by everybody; nothing was done (chmod go-w /volume1/@tmp)"},
    {"TemporaryIsSomebodys",
     [] {
       MakeDirectory(kTmp, 01777);
       MakeDirectory(kTemporary, 0700, 1000);
     },
     kInstalled,
     "/volume1/@tmp/data_update belongs to user 1000; nothing was done (rm -r "
     "/volume1/@tmp/data_update, or chown root /volume1/@tmp/data_update)"},
    {"TemporaryIsALink",
     [] {
       MakeDirectory(kTmp, 01777);
       MakeLink(kTemporary, "/tmp");
     },
     kInstalled,
     "/volume1/@tmp/data_update is a link; nothing was done (rm /volume1/@tmp/data_update)"},
    {"TemporaryIsShared", [] { MakeDirectory(kTemporary, 01777); }, kInstalled,
     "/volume1/@tmp/data_update can be written by everybody; nothing was done (chmod go-w "
     "/volume1/@tmp/data_update)"},
    {"TemporaryIsSomebodysOnASharedVolume",
     [] {
       MakeDirectory(kTmp, 0755);
       MakeDirectory(kTemporary, 0700, 1000);
       MakeDirectory(kVolume, 01777);
     },
     kInstalled,
     "/volume1/@tmp/data_update belongs to user 1000; nothing was done (rm -r "
     "/volume1/@tmp/data_update, or chown root /volume1/@tmp/data_update)"},
    {"DatabasesAreSomebodys", [] { MakeDirectory("/volume1/@database", 0755, 1000); }, kInstalled,
     "/volume1/@database belongs to user 1000; nothing was done (rm -r /volume1/@database, or "
     "chown root /volume1/@database)"},
    {"AutoupdateIsALink", [] { MakeLink("/volume1/@database/autoupdate", "/tmp"); }, kInstalled,
     "/volume1/@database/autoupdate is a link; nothing was done (rm "
     "/volume1/@database/autoupdate)"},
    {"DatabaseIsWritable", [] { MakeDirectory(kInstalled, 0777); }, kInstalled,
     "/volume1/@database/autoupdate/oui can be written by everybody; nothing was done (chmod go-w "
     "/volume1/@database/autoupdate/oui)"},
    {"DatabaseIsShared", [] { MakeDirectory(kInstalled, 01777); }, kInstalled,
     "/volume1/@database/autoupdate/oui can be written by everybody; nothing was done (chmod go-w "
     "/volume1/@database/autoupdate/oui)"},
    {"DatabaseIsALink", [] { MakeLink(kInstalled, "/tmp"); }, kInstalled,
     "/volume1/@database/autoupdate/oui is a link; nothing was done (rm "
     "/volume1/@database/autoupdate/oui)"},
    {"OnRootNothingIsThereYet", [] {}, kOnRoot, ""},
    {"OnRootTheSystemsLinkIsFollowed",
     [] {
       MakeDirectory("/var/data/db/oui", 0755);
       MakeLink("/var/db", "data/../data/db");
     },
     kOnRoot, ""},
    {"OnRootTheWayBehindTheLinkCounts",
     [] {
       MakeDirectory("/var/data/db", 0777);
       MakeLink("/var/db", "/var/data/db");
     },
     kOnRoot,
     "/var/data/db can be written by everybody; nothing was done (chmod go-w /var/data/db)"},
    {"OnRootSomebodysLinkIsRefused",
     [] {
       MakeLink("/var/db", "/var/data");
       ASSERT_EQ(lchown("/var/db", 1000, 1000), 0);
     },
     kOnRoot, "/var/db is a link; nothing was done (rm /var/db)"},
    {"OnRootTheDatabaseIsNoLink", [] { MakeLink(kOnRoot, "/tmp"); }, kOnRoot,
     "/var/db/oui is a link; nothing was done (rm /var/db/oui)"},
    {"OnRootTheDatabaseIsSomebodys", [] { MakeDirectory(kOnRoot, 0755, 1000); }, kOnRoot,
     "/var/db/oui belongs to user 1000; nothing was done (rm -r /var/db/oui, or chown root "
     "/var/db/oui)"},
};
INSTANTIATE_TEST_SUITE_P(, GroundTableTest, ::testing::ValuesIn(kRows), NameOf);

// ---- File systems without owners ----

class OwnerlessTest : public OwnGroundTest {
 protected:
  void SetUp() override {
    OwnGroundTest::SetUp();
    shows_fat = true;
  }
};

TEST_F(OwnerlessTest, IsRefusedUnlessTheOperatorNamesTheVolume) {
  EXPECT_EQ(RefusalOf(kVolume, kInstalled),
            std::string("/volume1: its file system keeps no owners; nothing was done "
                        "(ownerless_volumes in ") +
                kSettings + " accepts a volume by its name)");
  WriteFile(kSettings, R"({"ownerless_volumes": ["/volume2"]})");
  EXPECT_NE(RefusalOf(kVolume, kInstalled), "");
  WriteFile(kSettings, R"({"ownerless_volumes": ["/volume1/"]})");
  EXPECT_EQ(RefusalOf(kVolume, kInstalled), "");
}

TEST_F(OwnerlessTest, OfAnAcceptedOneOwnersAndModesSayNothingAndLinksAreRefused) {
  WriteFile(kSettings, R"({"ownerless_volumes": ["/volume1"]})");
  MakeDirectory(kVolume, 0777, 1000);
  MakeDirectory(kTmp, 0777, 1000);
  EXPECT_EQ(RefusalOf(kVolume, kInstalled), "");
  MakeLink(kInstalled, "/tmp");
  EXPECT_THAT(RefusalOf(kVolume, kInstalled), HasSubstr("oui is a link"));
}

TEST_F(OwnerlessTest, OfAnAcceptedOneWhatIsInstalledKeepsItsModes) {
  WriteFile(kSettings, R"({"ownerless_volumes": ["/volume1"]})");
  for (const std::string installed : {kInstalled, kOnRoot}) {
    WriteFile(installed + "/a", "a");
    ASSERT_EQ(chmod((installed + "/a").c_str(), 0666), 0);
    OwnGround(kVolume, installed).CloseInstallation();
  }
  EXPECT_EQ(ModeOf(std::string(kInstalled) + "/a"), 0666U);
  EXPECT_EQ(ModeOf(std::string(kOnRoot) + "/a"), 0644U) << "there they say who may write";
}

// ---- What was made and not used ----

TEST(MadeDirectoriesTest, HoldsWhatWasMadeAndNothingElseInItsPlace) {
  const std::string path = "/volume1/made";
  MakeDirectory(path, 0755);
  MakeDirectory("/volume1/other", 0755);
  MadeDirectories made;
  made.Add(base::TrustedDirectory(path, base::Owners::kTrusted));
  EXPECT_TRUE(made.Holds(path));
  EXPECT_FALSE(made.Holds("/volume1/other"));
  EXPECT_FALSE(made.Holds("/volume1/none"));
  fs::rename(path, "/volume1/elsewhere");
  EXPECT_FALSE(made.Holds("/volume1/elsewhere"));
  MakeDirectory(path, 0755);
  EXPECT_FALSE(made.Holds(path));
}

// ---- Which paths are an operation's ----

TEST_F(OwnGroundTest, ItsPathsAreTheTwoDirectoriesAndWhatIsBelow) {
  const OwnGround ground(kVolume, kInstalled);
  const std::string temporary = kTemporary;
  const std::string installed = kInstalled;
  for (const std::string below : {"", "/", "/a", "/a/b"}) {
    EXPECT_TRUE(ground.IsTemporary(temporary + below)) << below;
    EXPECT_TRUE(ground.IsInstallation(installed + below)) << below;
    EXPECT_FALSE(ground.IsTemporary(installed + below)) << below;
    EXPECT_FALSE(ground.IsInstallation(temporary + below)) << below;
    EXPECT_FALSE(ground.IsTemporary("/mnt" + temporary + below)) << below;
  }
  for (const char* const beside : {"/volume1", "/volume1/@tmp", "/volume1/@tmp/data_updates"}) {
    EXPECT_FALSE(ground.IsTemporary(beside)) << beside;
  }
}

// ---- While it is there ----

TEST_F(OwnGroundTest, WhereOthersMayMakeItTheTemporaryDirectoryIsMadeAtOnceAndGoesAgain) {
  MakeDirectory(kTmp, 01777);
  {
    const OwnGround ground(kVolume, kInstalled);
    EXPECT_TRUE(IsRootsPrivate(kTemporary));
  }
  EXPECT_FALSE(fs::exists(kTemporary));
}

TEST_F(OwnGroundTest, OnASharedVolumeEveryDirectoryIsMadeAtOnce) {
  MakeDirectory(kVolume, 01777);
  {
    const OwnGround ground(kVolume, kInstalled);
    EXPECT_EQ(ModeOf(kTmp), 0755U);
    EXPECT_EQ(ModeOf("/volume1/@database"), 0755U);
  }
  EXPECT_TRUE(fs::is_empty(kVolume));
}

TEST_F(OwnGroundTest, WhatIsUsedStays) {
  MakeDirectory(kVolume, 01777);
  {
    OwnGround ground(kVolume, kInstalled);
    ASSERT_TRUE(ground.Make(kInstalled));
  }
  EXPECT_TRUE(fs::is_directory(kInstalled));
  EXPECT_FALSE(fs::exists(kTmp));
}

TEST_F(OwnGroundTest, DirectoriesGetTheirModesWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    const mode_t before = umask(mask);
    OwnGround ground(kVolume, kInstalled);
    EXPECT_TRUE(ground.Make(std::string(kTemporary) + "/oui_sum/deep"));
    EXPECT_TRUE(ground.Make(kInstalled));
    umask(before);
    EXPECT_EQ(ModeOf(kTmp), 0755U);
    EXPECT_EQ(ModeOf(kTemporary), 0700U);
    EXPECT_EQ(ModeOf(std::string(kTemporary) + "/oui_sum/deep"), 0755U);
    EXPECT_EQ(ModeOf(kInstalled), 0755U);
    fs::remove_all(kTmp);
    fs::remove_all("/volume1/@database");
  }
}

TEST_F(OwnGroundTest, TheLibrarysDirectoriesAreMadeThroughIt) {
  const mode_t before = umask(0);
  {
    const OwnGround ground(kVolume, kOnRoot);
    dataupdate::IOUtils().TolmMkdir(kTemporary);
    dataupdate::IOUtils().TolmMkdir(kOnRoot);
  }
  dataupdate::IOUtils().TolmMkdir("/volume1/elsewhere");
  umask(before);
  EXPECT_EQ(ModeOf(kTemporary), 0700U);
  EXPECT_EQ(ModeOf(kOnRoot), 0755U);
  EXPECT_EQ(ModeOf("/volume1/elsewhere"), 0777U);
}

// ---- A volume that is drawn out meanwhile ----

class VanishingVolumeTest : public ::testing::Test {
 protected:
  ScopedMount volume_ = ScopedMount::Tmpfs(kVolume, 1 << 20);
};

TEST_F(VanishingVolumeTest, NothingIsMadeBelowItsMountPoint) {
  OwnGround ground(kVolume, kInstalled);
  ASSERT_TRUE(ground.Make(kTemporary));
  volume_.Unmount();
  EXPECT_FALSE(ground.Make(kTemporary));
  EXPECT_FALSE(ground.Make(kInstalled));
  EXPECT_THROW(EnterPartials(kVolume, true), dataupdate::UpdateError);
  EXPECT_TRUE(fs::is_empty(kVolume));
}

// It was there when the operation was asked for.
TEST_F(VanishingVolumeTest, WhatIsBelowItsMountPointIsNoGround) {
  const fs::path left = "/volume9";
  fs::create_directory(left);
  EXPECT_THROW(OwnGround(left, left / "@database/autoupdate/oui"), dataupdate::UpdateError);
  EXPECT_TRUE(fs::is_empty(left));
  fs::remove_all(left);
}

TEST(MissingVolumeTest, HasGone) {
  ScopedMount volume = ScopedMount::Tmpfs("/volume7", 1 << 20);
  const OwnGround ground("/volume7", kOnRoot);
  EXPECT_NO_THROW(ground.RequireVolume());
  volume.Unmount();
  fs::remove("/volume7");
  EXPECT_THAT([&] { ground.RequireVolume(); }, ThrowsMessage<dataupdate::UpdateError>(
                                                   "the volume /volume7 has gone away meanwhile"));
  WriteFile("/volume7", "a file");
  EXPECT_THAT(
      [] { OwnGround("/volume7/below", kOnRoot); },
      ThrowsMessage<dataupdate::UpdateError>("the volume /volume7/below has gone away meanwhile"));
}

TEST_F(VanishingVolumeTest, OperationSaysThatItHasGone) {
  const OwnGround ground(kVolume, kInstalled);
  volume_.Unmount();
  try {
    ground.Explaining([] { dataupdate::IOUtils().TolmMkdir(kTemporary); });
    FAIL() << "the directory was made";
  } catch (const dataupdate::UpdateError& error) {
    EXPECT_THAT(error.what(), HasSubstr("the volume /volume1 has gone away meanwhile"));
    EXPECT_EQ(FailureOf(error).reason, reasons::kNoVolume);
  }
}

// Which is no reason to look for the cable.
TEST_F(VanishingVolumeTest, DiskThatFailsHasNotGone) {
  const auto says_why = ::testing::ThrowsMessage<dataupdate::UpdateError>(
      HasSubstr("Fail to examine /volume1: Input/output error"));
  const OwnGround ground(kVolume, kInstalled);
  failing = kVolume;
  EXPECT_THAT([&] { ground.RequireVolume(); }, says_why);
  EXPECT_THAT([&] { OwnGround(kVolume, kInstalled); }, says_why);
  failing.clear();
  EXPECT_NO_THROW(ground.RequireVolume());
}

TEST_F(VanishingVolumeTest, WhatIsInstalledElsewhereNeedsItNoMore) {
  OwnGround ground(kVolume, kOnRoot);
  volume_.Unmount();
  EXPECT_TRUE(ground.Make(kOnRoot));
  EXPECT_NO_THROW(ground.RequireInstallation());
}

TEST_F(VanishingVolumeTest, AnotherOneInItsPlaceIsNotTheSame) {
  OwnGround ground(kVolume, kInstalled);
  ASSERT_NO_THROW(ground.RequireInstallation());
  const ScopedMount other = ScopedMount::Tmpfs(kVolume, 1 << 20);
  EXPECT_FALSE(ground.Make(kInstalled));
  EXPECT_THROW(ground.RequireInstallation(), dataupdate::UpdateError);
}

TEST_F(OwnGroundTest, SomebodysDirectoryIsPutAsideAndTheCallFails) {
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);  // As a strategy does it at its end.
  WriteFile("/root/precious", "kept");
  ASSERT_EQ(CallAsOrdinaryAccount([] {
              fs::create_directory(kTemporary);
              fs::create_symlink("/root", fs::path(kTemporary) / "oui_sum");
              return 0;
            }),
            0);
  EXPECT_THROW(ground.Explaining([] { dataupdate::IOUtils().TolmMkdir(kTemporary); }),
               dataupdate::UpdateError);
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
  EXPECT_TRUE(fs::is_empty(kTemporary)) << "nothing of somebody else's for the library to remove";
  EXPECT_EQ(ReadFile("/root/precious"), "kept");
  const std::vector<std::string> names = NamesIn(kTmp);
  ASSERT_THAT(names, ElementsAre(MatchesRegex("\\.data_update-[0-9a-f]{32}"), "data_update"))
      << "what was put aside is its owner's";
  EXPECT_NE(names[0].substr(13, 16), names[0].substr(29)) << "nobody guesses it";
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ElementsAre("What stood in the way was put aside as /volume1/@tmp/" + names[0]));
}

TEST_F(OwnGroundTest, ItIsSaidWhoseDirectoryItWas) {
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  MakeDirectory(kTemporary, 0755, kOrdinaryAccount);
  try {
    ground.Explaining([] { dataupdate::IOUtils().TolmMkdir(kTemporary); });
    FAIL();
  } catch (const dataupdate::UpdateError& error) {
    EXPECT_THAT(error.what(), HasSubstr("Fail to create dir /volume1/@tmp/data_update: "
                                        "/volume1/@tmp/data_update belongs to user 1000"));
  }
  EXPECT_THAT(NamesIn(kTmp), ElementsAre("data_update")) << "an empty one is not kept";
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING), IsEmpty());
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              ::testing::Contains("/volume1/@tmp/data_update belongs to user 1000 (rm -r "
                                  "/volume1/@tmp/data_update, or chown root "
                                  "/volume1/@tmp/data_update)"));
}

TEST_F(OwnGroundTest, WhereNamesAreNotExchangedWhatIsInTheWayGoesAsideAllTheSame) {
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  MakeDirectory(kTemporary, 0755, kOrdinaryAccount);
  WriteFile(std::string(kTemporary) + "/theirs", "kept");
  exchange_error = EINVAL;
  EXPECT_TRUE(ground.Make(kTemporary));
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
  EXPECT_TRUE(fs::is_empty(kTemporary));
  const std::vector<std::string> names = NamesIn(kTmp);
  ASSERT_THAT(names, ElementsAre(MatchesRegex("\\.data_update-[0-9a-f]{32}"), "data_update"));
  EXPECT_EQ(ReadFile(fs::path(kTmp) / names[0] / "theirs"), "kept");
}

TEST_F(OwnGroundTest, WhatCannotBePutAsideStays) {
  MakeDirectory(kTmp, 01777);
  const OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  MakeDirectory(kTemporary, 0755, kOrdinaryAccount);
  WriteFile(std::string(kTemporary) + "/theirs", "kept");
  exchange_error = EPERM;
  EXPECT_THAT([&] { MakeAsTheLibrary(ground, kTemporary); },
              ThrowsMessage<dataupdate::UpdateError>(
                  HasSubstr("Fail to replace /volume1/@tmp/data_update: Operation not permitted")));
  EXPECT_THAT(ListTree(kTmp), ElementsAre("data_update/", "data_update/theirs"));
}

TEST_F(OwnGroundTest, WhatIsInTheWayAndGoesAgainIsNoObstacle) {
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  gone_again = 2;
  EXPECT_TRUE(ground.Make(kTemporary));
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
  fs::remove(kTemporary);
  gone_again = kPatience;
  EXPECT_FALSE(ground.Make(kTemporary));
  EXPECT_GT(gone_again, 0) << "it would never have ended";
}

TEST_F(OwnGroundTest, SharedDirectoryInThePlaceOfTheTemporaryOneIsReplaced) {
  OwnGround ground(kVolume, kInstalled);
  MakeDirectory(kTemporary, 01777);
  EXPECT_FALSE(ground.Make(kTemporary));
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
}

TEST_F(OwnGroundTest, WhatHasBecomeOfTheInstallDirectoryMeanwhileIsJudged) {
  const OwnGround ground(kVolume, kInstalled);
  MakeLink("/volume1/@database", "/tmp");
  EXPECT_THAT([&] { MakeAsTheLibrary(ground, kInstalled); },
              ThrowsMessage<dataupdate::UpdateError>(HasSubstr("/volume1/@database is a link")));
  EXPECT_FALSE(fs::exists("/tmp/autoupdate"));
  fs::remove("/volume1/@database");
  MakeDirectory(kInstalled, 01777);
  EXPECT_THAT([&] { MakeAsTheLibrary(ground, kInstalled); },
              ThrowsMessage<dataupdate::UpdateError>(HasSubstr("can be written by everybody")));
}

TEST_F(OwnGroundTest, SomebodysLinkIsReplaced) {
  fs::create_directory("/elsewhere");
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  ASSERT_EQ(CallAsOrdinaryAccount([] {
              fs::create_symlink("/elsewhere", kTemporary);
              return 0;
            }),
            0);
  EXPECT_FALSE(ground.Make(std::string(kTemporary) + "/oui_sum"));
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
  EXPECT_TRUE(fs::is_empty("/elsewhere"));
  EXPECT_THAT(NamesIn(kTmp), ElementsAre("data_update")) << "a link is not kept";
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING), IsEmpty());
}

TEST_F(OwnGroundTest, WhoeverIsFasterGainsNothing) {
  MakeDirectory(kTmp, 01777);
  WriteFile("/root/precious", "kept");
  OwnGround ground(kVolume, kInstalled);
  auto account = tolm::testing::ForkOrdinaryAccount([](tolm::testing::EventChannel& parent) {
    parent.Send("begins");
    for (unsigned turn = 0;; ++turn) {
      if (turn % 2 == 0) {
        mkdir(kTemporary, 0777);
        rename(kTemporary, "/volume1/@tmp/mine");
        rmdir("/volume1/@tmp/mine");
      } else if (symlink("/root", kTemporary) == 0) {
        unlink(kTemporary);
      }
    }
    return 0;
  });
  ASSERT_EQ(account.Channel().Receive(), "begins");
  int refused = 0;
  for (int turn = 0; turn < 2000; ++turn) {
    refused += ground.Make(std::string(kTemporary) + "/oui_full") ? 0 : 1;
    ASSERT_TRUE(IsRootsPrivate(kTemporary)) << turn;
    fs::remove_all(kTemporary);
  }
  account.Process().Signal(SIGKILL);
  EXPECT_LT(refused, 2000) << "not always";
  EXPECT_EQ(ReadFile("/root/precious"), "kept");
}

TEST_F(OwnGroundTest, WhoeverIsAlwaysFasterIsGivenUp) {
  MakeDirectory(kTmp, 01777);
  OwnGround ground(kVolume, kInstalled);
  fs::remove(kTemporary);
  MakeDirectory(kTemporary, 0755, kOrdinaryAccount);
  is_always_late = true;
  EXPECT_THAT([&] { MakeAsTheLibrary(ground, kTemporary); },
              ThrowsMessage<dataupdate::UpdateError>(HasSubstr("belongs to user 1000")));
  EXPECT_LT(late, kPatience) << "it would never have ended";
  EXPECT_THAT(NamesIn(kTmp), ElementsAre("data_update")) << "nothing of the attempts is left";
}

TEST_F(OwnGroundTest, WhereNothingIsLeftNothingIsRemoved) {
  OwnGround ground(kVolume, kInstalled);
  EXPECT_FALSE(ground.RemoveLeftOvers());
  EXPECT_FALSE(fs::exists(kTmp));
}

TEST_F(OwnGroundTest, LeftOversGoAndNobodyElseTakesTheirPlace) {
  MakeDirectory(kTmp, 01777);
  WriteFile(std::string(kTemporary) + "/oui_v1", "left");
  OwnGround ground(kVolume, kInstalled);
  EXPECT_TRUE(ground.RemoveLeftOvers());
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
  EXPECT_TRUE(fs::is_empty(kTemporary));
  EXPECT_FALSE(ground.RemoveLeftOvers()) << "what it has made is no left-over";
}

TEST_F(OwnGroundTest, WhoeverIsFasterWhenLeftOversGoIsPutAside) {
  MakeDirectory(kTmp, 01777);
  WriteFile(std::string(kTemporary) + "/oui_v1", "left");
  OwnGround ground(kVolume, kInstalled);
  meanwhile = [] {
    mkdir(kTemporary, 0755);
    ASSERT_EQ(chown(kTemporary, kOrdinaryAccount, kOrdinaryAccount), 0);
  };
  EXPECT_THROW(ground.RemoveLeftOvers(), ForeignGround);
  EXPECT_TRUE(IsRootsPrivate(kTemporary));
}

// ---- What is installed ----

TEST_F(OwnGroundTest, WhatPackagesLeftOpenIsClosed) {
  const std::string installed = kInstalled;
  MakeDirectory(installed + "/sub/deep", 0777);
  MakeDirectory(installed + "/sub", 0775);
  WriteFile(installed + "/sub/a", "a");
  ASSERT_EQ(chmod((installed + "/sub/a").c_str(), 0666), 0);
  WriteFile("/root/elsewhere", "");
  ASSERT_EQ(chmod("/root/elsewhere", 0666), 0);
  MakeLink(installed + "/sub/link", "/root/elsewhere");
  OwnGround(kVolume, kInstalled).CloseInstallation();
  EXPECT_EQ(ModeOf(installed + "/sub"), 0755U);
  EXPECT_EQ(ModeOf(installed + "/sub/deep"), 0755U);
  EXPECT_EQ(ModeOf(installed + "/sub/a"), 0644U);
  EXPECT_EQ(ModeOf("/root/elsewhere"), 0666U);
}

TEST_F(OwnGroundTest, SomebodysDirectoryAmongTheInstalledFilesIsRefused) {
  const std::string installed = kInstalled;
  MakeDirectory(installed + "/open", 0777);
  MakeDirectory(installed + "/open/theirs", 0755, kOrdinaryAccount);
  std::string refusal;
  try {
    OwnGround(kVolume, kInstalled).CloseInstallation();
  } catch (const ForeignGround& error) {
    refusal = error.what();
  }
  EXPECT_EQ(refusal, installed + "/open/theirs belongs to user 1000; nothing was done (rm -r " +
                         installed + "/open/theirs, or chown root " + installed + "/open/theirs)");
  EXPECT_EQ(ModeOf(installed + "/open"), 0777U);
}

// ---- Volumes ----

TEST_F(OwnGroundTest, VolumeIsJudgedByWhatOfItsDirectoriesIsThere) {
  EXPECT_NO_THROW(RequireOwnVolume(kVolume));
  EXPECT_TRUE(fs::is_empty(kVolume));
  MakeOwnMainDirectory(kVolume);
  EXPECT_EQ(ModeOf("/volume1/@database/autoupdate"), 0755U);
  EXPECT_NO_THROW(RequireOwnVolume(kVolume));
  MakeDirectory("/volume1/@database/autoupdate", 01777);
  const auto is_open = ThrowsMessage<ForeignGround>(
      HasSubstr("/volume1/@database/autoupdate can be written by everybody"));
  EXPECT_THAT([] { RequireOwnVolume(kVolume); }, is_open);
  EXPECT_THAT([] { MakeOwnMainDirectory(kVolume); }, is_open);
  MakeDirectory("/volume1/@database/autoupdate", 0755);
  MakeDirectory(kTmp, 0755, kOrdinaryAccount);
  EXPECT_THAT([] { RequireOwnVolume(kVolume); },
              ThrowsMessage<ForeignGround>(HasSubstr("/volume1/@tmp belongs to user 1000")));
}

TEST_F(OwnGroundTest, DirectoryOfPartialDownloadsIsMadeOnDemandAndRootsAlone) {
  const std::string partials = "/volume1/@database/partial-downloads";
  EXPECT_FALSE(EnterPartials(kVolume, false));
  MakeDirectory("/volume1/@database", 0755);
  EXPECT_FALSE(EnterPartials(kVolume, false));
  const std::optional<PartialsDirectory> made = EnterPartials(kVolume, true);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->directory.path(), partials);
  EXPECT_TRUE(made->keeps_owners);
  EXPECT_TRUE(IsRootsPrivate(partials));
  MakeDirectory(partials, 0755);
  const std::optional<PartialsDirectory> entered = EnterPartials(kVolume, false);
  ASSERT_TRUE(entered);
  EXPECT_EQ(entered->directory.path(), partials);
  EXPECT_TRUE(IsRootsPrivate(partials));
  MakeDirectory(partials, 01777);
  EXPECT_THROW(EnterPartials(kVolume, false), ForeignGround);
  EXPECT_THROW(EnterPartials(kVolume, true), ForeignGround);
}

TEST_F(OwnerlessTest, DirectoryOfPartialDownloadsOfAnAcceptedOneKeepsNoOwners) {
  WriteFile(kSettings, R"({"ownerless_volumes": ["/volume1"]})");
  MakeDirectory("/volume1/@database/partial-downloads", 0755);
  const std::optional<PartialsDirectory> entered = EnterPartials(kVolume, true);
  ASSERT_TRUE(entered);
  EXPECT_FALSE(entered->keeps_owners);
  EXPECT_EQ(ModeOf("/volume1/@database/partial-downloads"), 0755U);
}

// ---- State directories ----

TEST_F(OwnGroundTest, StateThatOthersCouldWriteTheyCanNoLonger) {
  MakeDirectory("/var/lib/data_update", 0777);
  MakeDirectory("/var/lib/data_update/oui", 0777);
  MakeDirectory("/var/cache/data_update", 0777);
  for (const char* file :
       {"/var/lib/data_update/oui/version.json", "/var/cache/data_update/database_info.json"}) {
    WriteFile(file, "{}");
    ASSERT_EQ(chmod(file, 0666), 0);
  }
  SecureStateDirectories("oui");
  EXPECT_EQ(ModeOf("/var/lib/data_update"), 0755U);
  EXPECT_EQ(ModeOf("/var/lib/data_update/oui"), 0755U);
  EXPECT_EQ(ModeOf("/var/cache/data_update"), 0755U);
  EXPECT_EQ(ModeOf("/var/lib/data_update/oui/version.json"), 0644U);
  EXPECT_EQ(ModeOf("/var/cache/data_update/database_info.json"), 0644U);
}

TEST_F(OwnGroundTest, StateOfSomebodyElseIsRefused) {
  SecureStateDirectories("oui");
  MakeDirectory("/var/lib/data_update/oui", 0755);
  WriteFile("/var/lib/data_update/oui/version.json", "{}");
  ASSERT_EQ(chown("/var/lib/data_update/oui/version.json", 1000, 1000), 0);
  EXPECT_THROW(SecureStateDirectories("oui"), ForeignGround);
  ASSERT_EQ(chown("/var/lib/data_update/oui/version.json", 0, 0), 0);
  SecureStateDirectories("oui");
  MakeDirectory("/var/cache/data_update", 0755, 1000);
  EXPECT_THROW(SecureStateDirectories("oui"), ForeignGround);
}

}  // namespace
}  // namespace tolm::operation
