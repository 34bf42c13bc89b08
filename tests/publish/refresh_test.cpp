#include "publish/refresh.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "package/error.h"
#include "publish/signed_description.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace {

// While a test wants that: changes of owner and mode as they were asked for, with their paths. The
// first are not carried out, since few may, and both fail for paths that hold something.
bool are_watched = false;
std::vector<std::pair<std::string, std::string>> changes;
const char* kept_owner = "nothing";
const char* kept_mode = "nothing";

// Why the work directory may not be written to; 0: as it is.
int work_error = 0;

std::string Octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", static_cast<unsigned>(mode));
  return text;
}

}  // namespace

int chown(const char* path, uid_t owner, gid_t group) noexcept {
  if (!are_watched) {
    return static_cast<int>(syscall(SYS_fchownat, AT_FDCWD, path, owner, group, 0));
  }
  changes.emplace_back(path, (owner == static_cast<uid_t>(-1) ? "group " : "owner and group ") +
                                 std::to_string(group));
  errno = EPERM;
  return std::strstr(path, kept_owner) != nullptr ? -1 : 0;
}

int chmod(const char* path, mode_t mode) noexcept {
  if (are_watched) {
    changes.emplace_back(path, "mode " + Octal(mode));
    errno = EROFS;
    if (std::strstr(path, kept_mode) != nullptr) {
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

int faccessat(int directory, const char* path, int mode, int /*flags*/) noexcept {
  if (work_error != 0 && std::strstr(path, "/state/work") != nullptr) {
    errno = work_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_faccessat, directory, path, mode));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::RefreshDescription;
using ::testing::HasSubstr;

class RefreshTest : public ReleaseFixture {
 protected:
  static publish::Database OneRelease() {
    publish::Database database;
    database.releases.resize(1);
    database.releases[0].version = 1;
    database.releases[0].full.size_bytes = 7;
    database.releases[0].no_delta_reason = "first";
    return database;
  }
  publish::Settings Settings() const {
    return publish::LoadSettings(Path("repo/state/settings.json"));
  }
  offer::Offer Served() const {
    const auto offer =
        ServedOffer(publish::RepositoryPaths(Path("repo")), Settings(), std::time(nullptr));
    EXPECT_TRUE(offer) << "devices would refuse it";
    return offer.value_or(offer::Offer());
  }
  mode_t ModeOf(const std::string& name) const {
    struct stat status {};
    EXPECT_EQ(::stat(Path(name).c_str(), &status), 0) << name;
    return status.st_mode % 010000;
  }
  void Share(const std::string& group) const {
    ShareForRefresh(publish::RepositoryPaths(Path("repo")), Settings(), group);
  }

  const std::time_t now_ = std::time(nullptr);
  const std::string own_group_ = std::to_string(::getegid());
};

TEST_F(RefreshTest, DescriptionIsSignedAnewAndNothingElseChanged) {
  InitRepository(NewSignedRepository(now_), now_);
  PutReleases("oui", OneRelease());
  PutReleases("geo", OneRelease());
  const std::uint64_t counter = Served().counter;
  const Tree state = ReadTree(Path("repo/state"));
  constexpr std::int64_t kDaySeconds = 86400;
  const publish::RefreshReport report = RefreshDescription(Path("repo"), now_ + 100);
  EXPECT_EQ(report.databases, 2u);
  EXPECT_EQ(report.expires, now_ + 100 + 14 * kDaySeconds);
  const offer::Offer served = Served();
  EXPECT_EQ(served.expires, report.expires);
  EXPECT_EQ(served.issued, now_ + 100);
  EXPECT_GT(served.counter, counter);
  EXPECT_EQ(served.databases.size(), 2u);
  EXPECT_EQ(ReadTree(Path("repo/state")), state);
}

TEST_F(RefreshTest, NewRepositoryIsSharedBeforeItIsThere) {
  publish::InitRequest request = NewSignedRepository(now_);
  request.refresh_group = "no such group";
  EXPECT_THROW(InitRepository(request, now_), publish::Error);
  EXPECT_FALSE(fs::exists(Path("repo")));
  request.refresh_group = own_group_;
  InitRepository(request, now_);
  EXPECT_TRUE(fs::is_directory(Path("repo/state/refresh")));
  EXPECT_EQ(ModeOf("repo/public/database_info"), 02775u);
}

TEST_F(RefreshTest, StateThatIsOlderThanWhatIsServedIsNotSigned) {
  InitRepository(NewSignedRepository(now_), now_);
  WriteFile(Path("repo/public/packages/oui/oui_v9"), "published");
  const std::string before = ReadFile(Path("repo/public/database_info/1"));
  ExpectError([&] { RefreshDescription(Path("repo"), now_ + 100); },
              HasSubstr("the catalog does not name it"));
  EXPECT_EQ(ReadFile(Path("repo/public/database_info/1")), before);
}

TEST_F(RefreshTest, WhereDescriptionsAreNotSignedThereIsNothingToRefreshOrToShare) {
  InitRepository(NewRepository(now_), now_);
  const std::string text = Path("repo") +
                           ": its descriptions are not signed; \"tolmdbpub upgrade " +
                           Path("repo") + " --root-key KEY\" begins with it";
  ExpectError([&] { RefreshDescription(Path("repo"), now_); }, text);
  ExpectError([&] { Share(own_group_); }, text);
}

TEST_F(RefreshTest, GroupGetsWhatRefreshingNeedsAndNothingElse) {
  ::umask(022);
  InitRepository(NewSignedRepository(now_), now_);
  fs::permissions(Path("keys"), fs::perms(0700));
  fs::permissions(Path("repo"), fs::perms(0740));
  fs::permissions(Path("repo/state"), fs::perms(0711));
  Share(own_group_);
  for (const auto& [name, mode] :
       std::map<std::string, mode_t>{{"keys", 0710},
                                     {"repo", 0750},
                                     {"repo/state", 0711},
                                     {"repo/public", 0755},
                                     {"repo/state/work", 0755},
                                     {"repo/state/refresh", 02770},
                                     {"repo/state/lock", 0660},
                                     {"repo/public/packages", 0755},
                                     {"repo/public/database_info", 02775},
                                     {"repo/public/database_info/1", 0644},
                                     {"repo/state/settings.json", 0644},
                                     {"keys/info.key", 0640},
                                     {"keys/info.pem", 0644},
                                     {"keys/signing.key", 0600},
                                     {"keys/root.key", 0600}}) {
    EXPECT_EQ(ModeOf(name), mode) << name;
  }
  RefreshDescription(Path("repo"), now_ + 1);
  EXPECT_EQ(ModeOf("repo/public/database_info/1"), 0644U);
}

TEST_F(RefreshTest, GroupIsAskedForByANameOrANumber) {
  InitRepository(NewSignedRepository(now_), now_);
  for (const std::string group : {"", "no such group", "0x", "x0", "-1", "99999999999", " 0"}) {
    ExpectError([&] { Share(group); }, "there is no group \"" + group + '"');
  }
  EXPECT_FALSE(fs::exists(Path("repo/state/refresh")));
}

TEST_F(RefreshTest, WhoMayNotWriteToTheWorkDirectoryWritesWhereTheGroupMay) {
  InitRepository(NewSignedRepository(now_), now_);
  Share(own_group_);
  const auto refresh = [this](int error) {
    work_error = error;
    try {
      RefreshDescription(Path("repo"), now_ + 1);
    } catch (...) {
      work_error = 0;
      throw;
    }
    work_error = 0;
  };
  // What is in the way shows where it would be written to.
  WriteFile(Path("repo/state/refresh/refreshed/in the way"), "");
  EXPECT_NO_THROW(refresh(0));
  fs::remove_all(Path("repo/state/refresh/refreshed"));
  WriteFile(Path("repo/state/work/refreshed/in the way"), "");
  EXPECT_ANY_THROW(refresh(0));
  for (const int error : std::initializer_list<int>{EACCES, EPERM, EROFS, ENOENT}) {
    EXPECT_NO_THROW(refresh(error)) << error;
  }
  try {
    refresh(EIO);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), package::Code::kRead);
    EXPECT_EQ(error.errno_value(), EIO);
    EXPECT_THAT(error.what(), HasSubstr(Path("repo/state/work")));
  }
}

TEST_F(RefreshTest, WhatAnEndedRefreshHasLeftIsNotWrittenThrough) {
  InitRepository(NewSignedRepository(now_), now_);
  WriteFile(Path("mine"), "mine");
  fs::create_symlink(Path("mine"), Path("repo/state/work/refreshed"));
  const std::string before = ReadFile(Path("repo/public/database_info/1"));
  RefreshDescription(Path("repo"), now_ + 1);
  EXPECT_EQ(ReadFile(Path("mine")), "mine");
  EXPECT_FALSE(fs::is_symlink(Path("repo/public/database_info/1")));
  EXPECT_NE(ReadFile(Path("repo/public/database_info/1")), before);
}

TEST_F(RefreshTest, FileThatIsNotThereIsNoReasonNotToShareTheRest) {
  InitRepository(NewSignedRepository(now_), now_);
  publish::Settings settings = Settings();
  settings.root_path = "../gone/root.pem";
  ShareForRefresh(publish::RepositoryPaths(Path("repo")), settings, own_group_);
  EXPECT_EQ(ModeOf("keys/info.key"), 0640u);
}

class OtherGroupTest : public RefreshTest {
 protected:
  OtherGroupTest() {
    ::umask(022);
    InitRepository(NewSignedRepository(now_), now_);
    fs::permissions(Path("keys"), fs::perms(0700));
  }
  ~OtherGroupTest() override { are_watched = false; }

  // What was asked for to share it with a group that nobody is in.
  std::vector<std::string> Changes() const {
    changes.clear();
    are_watched = true;
    try {
      Share(other_group_);
    } catch (...) {
      are_watched = false;
      throw;
    }
    are_watched = false;
    std::vector<std::string> lines;
    for (const auto& [path, change] : changes) {
      lines.push_back(fs::path(path).lexically_normal().lexically_relative(Path("")).string() +
                      ": " + change);
    }
    return lines;
  }

  void ExpectError(int error, const std::string& path) const {
    try {
      Changes();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const package::Error& thrown) {
      EXPECT_EQ(thrown.errno_value(), error) << thrown.what();
      EXPECT_THAT(thrown.what(), HasSubstr(path));
    }
  }

  const std::string other_group_ = std::to_string(::getegid() + 4321);
};

// A file may lose some of its mode with its group.
TEST_F(OtherGroupTest, GetsFilesBeforeTheirModeIsSetAndTheOwnerStays) {
  const std::string group = "group " + other_group_;
  EXPECT_THAT(Changes(), ::testing::ElementsAre(
                             "keys: " + group, "keys: mode 710", "repo/state/lock: " + group,
                             "repo/state/lock: mode 660", "repo/state/refresh: " + group,
                             "repo/state/refresh: mode 2770", "repo/public/database_info: " + group,
                             "repo/public/database_info: mode 2775", "keys/info.key: " + group,
                             "keys/info.key: mode 640"));
  EXPECT_EQ(ModeOf("keys/info.key"), 0640u);
  Share(own_group_);
  EXPECT_THAT(Changes(), ::testing::Not(::testing::Contains(HasSubstr("mode"))))
      << "set to what it is";
}

TEST_F(OtherGroupTest, WhatCannotBeGivenToItIsNamed) {
  kept_owner = "/state/lock";
  ExpectError(EPERM, Path("repo/state/lock"));
  kept_owner = "nothing";
  kept_mode = "/database_info";
  ExpectError(EROFS, Path("repo/public/database_info"));
  kept_mode = "nothing";
}

}  // namespace
}  // namespace tolm::testing
