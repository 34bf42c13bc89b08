#include "publish/refresh.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "publish/signed_description.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

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

}  // namespace
}  // namespace tolm::testing
