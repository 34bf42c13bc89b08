#include "publish/prune.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "package/error.h"
#include "publish/files.h"
#include "publish/key_generator.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

bool keeps_packages = false;

}  // namespace

// A disk that lets no package be removed, when a test wants that.
int unlink(const char* path) noexcept {
  if (keeps_packages && std::strstr(path, "/packages/") != nullptr) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::RepositoryChange;
using ::testing::ElementsAre;

constexpr std::time_t kNow = 1800000000;
constexpr char kOld[] = "packages/oui/oui_v1000001";
constexpr char kNew[] = "packages/oui/oui_v1000002";

// Two releases, of packages that are none.
class PruneTest : public ::testing::Test {
 protected:
  PruneTest() {
    publish::GenerateKeys(directory_.Path() / "keys", kNow);
    publish::InitRequest request;
    request.repository = root_;
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = directory_.Path() / "keys/signing.key";
    request.settings.certificate_path = directory_.Path() / "keys/signing.pem";
    InitRepository(request, kNow);
    RepositoryChange change(root_, [](const std::string&) {});
    change.Begin("test");
    Release(change, 1000001, kOld);
    Release(change, 1000002, kNew);
    change.Commit();
  }
  ~PruneTest() override { keeps_packages = false; }

  static void Release(RepositoryChange& change, int version, const std::string& path) {
    const std::string work = change.paths().Work() + "/package";
    WriteFile(work, "package");
    publish::Release release;
    release.version = version;
    release.released = kNow - 86400;
    release.full = {path, 7, publish::Sha384OfText("package")};
    release.no_delta_reason = "none";
    change.Publish(work, release.full);
    change.catalog.databases["oui"].releases.push_back(release);
  }

  publish::PruneReport PruneAll() {
    return publish::Prune({root_, "oui", 1, 0}, kNow, [](const std::string&) {});
  }

  TemporaryDirectory directory_;
  const fs::path root_ = directory_.Path() / "repo";
};

TEST_F(PruneTest, OldReleaseAndItsPackageGo) {
  const publish::PruneReport report = PruneAll();
  EXPECT_THAT(report.versions, ElementsAre(1000001));
  EXPECT_THAT(report.removed, ElementsAre(kOld));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kNew));
}

TEST_F(PruneTest, WhatIsCutShortIsCompletedByTheNextCommand) {
  keeps_packages = true;
  EXPECT_THROW(PruneAll(), package::Error);
  keeps_packages = false;
  ASSERT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kOld, kNew));
  std::vector<std::string> notes;
  const RepositoryChange next(root_, [&](const std::string& note) { notes.push_back(note); });
  EXPECT_THAT(notes, ElementsAre("an earlier command was interrupted: prune of oui",
                                 std::string("removed ") + kOld + ", which it had not released"));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kNew));
}

}  // namespace
}  // namespace tolm::testing
