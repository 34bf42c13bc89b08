#include "publish/push_snapshot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "publish/rollout.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace {

using Status = struct stat;

std::string unreadable;

}  // namespace

#pragma GCC visibility push(default)  // The standard library calls it, by this name.
extern "C" int LookAt(const char* path, Status* status) noexcept __asm__("stat");
// Before the C library's: a disk that does not answer.
int LookAt(const char* path, Status* status) noexcept {
  if (path == unreadable) {
    errno = EIO;
    return -1;
  }
  return ::fstatat(AT_FDCWD, path, status, 0);
}
#pragma GCC visibility pop

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;

constexpr char kOne[] = "packages/oui/oui_v1000001";
constexpr char kDelta[] = "packages/oui/oui_d1000002";
constexpr char kTwo[] = "packages/oui/oui_v1000002";

/// A repository with two releases and the delta between them.
class PushSnapshotTest : public ReleaseFixture {
 protected:
  PushSnapshotTest() {
    InitRepository(NewRepository(), kNow);
    publish::ReleaseRequest request = NewRelease();
    WriteFile(Path("tree/filler"), Noise(10000, 7));
    MakeRelease(request, kNow, note_, [](const publish::Step&) {});
    WriteFile(Path("tree/a.txt"), "b");
    MakeRelease(request, kNow + 1, note_, [](const publish::Step&) {});
    notes_.clear();
  }

  publish::PushSnapshot Take(const std::string& directory = "") {
    return TakeSnapshot(paths_, publish::LoadSettings(paths_.SettingsFile()), directory, note_);
  }
  std::string InPublic(const std::string& path) const { return paths_.InPublic(path); }
  std::string Hint() const { return "; \"tolmdbpub check " + paths_.Root() + "\" says more"; }

  const publish::RepositoryPaths paths_{Path("repo")};
  std::vector<std::string> notes_;
  const publish::Notes note_ = [this](const std::string& note) { notes_.push_back(note); };
};

TEST_F(PushSnapshotTest, EverythingThatIsServedGetsASecondName) {
  fs::create_directory(Path("taken"));
  const publish::PushSnapshot snapshot = Take(Path("taken"));
  EXPECT_EQ(snapshot.description_path, "database_info/1");
  EXPECT_EQ(snapshot.description, ReadFile(InPublic("database_info/1")));
  EXPECT_THAT(snapshot.packages, ElementsAre(Key(kDelta), Key(kOne), Key(kTwo)));
  for (const char* path : {kDelta, kOne, kTwo}) {
    EXPECT_TRUE(fs::equivalent(InPublic(path), Path("taken") + '/' + path)) << path;
    EXPECT_EQ(snapshot.packages.at(path).sha384, Sha384Hex(InPublic(path)));
  }
  EXPECT_THAT(notes_, IsEmpty());
  const Tree before = ReadTree(Path(""));
  EXPECT_EQ(Take().packages.size(), 3u);
  EXPECT_EQ(ReadTree(Path("")), before) << "without a directory nothing is made";
}

TEST_F(PushSnapshotTest, FullPackagesAndDeltasAreNamedByTheDescription) {
  std::vector<std::string> links;
  for (const publish::OfferedPackage& package :
       publish::PackagesNamedIn(ReadFile(InPublic("database_info/1")), "here")) {
    links.push_back(package.link);
  }
  EXPECT_THAT(links, ElementsAre("http://example.org/" + std::string(kTwo),
                                 "http://example.org/" + std::string(kDelta)));
}

TEST_F(PushSnapshotTest, WhatTheDescriptionNamesMustBeThereWithItsSize) {
  for (const char* path : {kDelta, kTwo}) {
    const std::string wrong = InPublic(path) +
                              ": the description names it, and it is not there as it was released" +
                              Hint();
    const std::string content = ReadFile(InPublic(path));
    WriteFile(InPublic(path), content + 'x');
    ExpectError([&] { Take(); }, wrong);
    fs::remove(InPublic(path));
    ExpectError([&] { Take(); }, wrong);
    fs::create_directory(InPublic(path));
    ExpectError([&] { Take(); }, wrong);
    fs::remove(InPublic(path));
    fs::create_symlink(InPublic(path), InPublic(path));
    ExpectError([&] { Take(); }, wrong);
    fs::remove(InPublic(path));
    WriteFile(InPublic(path), content);
    const std::string description = ReadFile(InPublic("database_info/1"));
    const std::string size = "\"file_size\":" + std::to_string(content.size());
    ReplaceInFile(InPublic("database_info/1"), size, size + '0');
    ExpectError([&] { Take(); }, wrong);
    WriteFile(InPublic("database_info/1"), description);
    ReplaceInFile(InPublic("database_info/1"), size,
                  "\"file_size\":" + std::to_string(content.size() + 1));
    WriteFile(InPublic(path), content + 'x');
    ExpectError([&] { Take(); }, wrong);
    WriteFile(InPublic("database_info/1"), description);
    WriteFile(InPublic(path), content);
    unreadable = InPublic(path);
    ExpectError([&] { Take(); }, InPublic(path) + ": cannot be looked at: Input/output error");
    unreadable.clear();
  }
  EXPECT_NO_THROW(Take());
  const std::string directory = fs::path(InPublic(kTwo)).parent_path();
  fs::rename(directory, directory + ".away");
  WriteFile(directory, "no directory");
  ExpectError([&] { Take(); },
              InPublic(kTwo) +
                  ": the description names it, and it is not there as it was released" + Hint());
}

TEST_F(PushSnapshotTest, PackageThatTheCatalogDoesNotNameIsNoReleaseOfIt) {
  WriteFile(InPublic("packages/oui/oui_v1000003"), "published");
  ExpectError([&] { Take(); }, ::testing::HasSubstr(InPublic("packages/oui/oui_v1000003") +
                                                    ": exists, and the catalog does not name it"));
}

TEST_F(PushSnapshotTest, WhatItDoesNotNameMayBeMissingAndThatIsSaid) {
  fs::create_directory(Path("taken"));
  fs::remove(InPublic(kOne));
  const publish::PushSnapshot snapshot = Take(Path("taken"));
  EXPECT_THAT(notes_, ElementsAre(InPublic(kOne) + ": is not there, and is not brought over"));
  EXPECT_THAT(snapshot.packages, ElementsAre(Key(kDelta), Key(kTwo)));
  EXPECT_FALSE(fs::exists(Path("taken") + '/' + kOne));
}

TEST_F(PushSnapshotTest, DescriptionLeadsOnlyToWhatWasReleasedHere) {
  ReplaceInFile(InPublic("database_info/1"), "oui_v1000002", "oui_v1000009");
  ExpectError([&] { Take(); },
              paths_.Root() +
                  ": the description leads to http://example.org/packages/oui/oui_v1000009, which "
                  "this repository has not released" +
                  Hint());
  fs::remove(InPublic("database_info/1"));
  ExpectError([&] { Take(); }, InPublic("database_info/1") + ": there is no description");
}

TEST_F(PushSnapshotTest, UnfinishedCommandIsToBeFinishedBefore) {
  WriteFile(paths_.State() + "/unfinished", "release of oui 1000003");
  ExpectError([&] { Take(); },
              paths_.Root() +
                  ": an earlier command was interrupted (release of oui 1000003); give it again, "
                  "or another one that changes something, before what is served goes elsewhere");
}

TEST_F(PushSnapshotTest, PackagesOfAStagedReleaseAreNamedToo) {
  const std::time_t now = std::time(nullptr);  // Certificates are judged by the machine's clock.
  fs::remove_all(Path("repo"));
  fs::remove_all(Path("keys"));
  InitRepository(NewSignedRepository(now), now);
  publish::ReleaseRequest request = NewRelease();
  MakeRelease(request, now, note_, [](const publish::Step&) {});
  WriteFile(Path("tree/a.txt"), "c");
  request.stages = publish::ParseStages("1%/6h,100%");
  MakeRelease(request, now + 1, note_, [](const publish::Step&) {});
  std::vector<std::string> links;
  for (const publish::OfferedPackage& package :
       publish::PackagesNamedIn(ReadFile(InPublic("database_info/1")), "here")) {
    links.push_back(package.link);
  }
  EXPECT_THAT(links, ElementsAre("http://example.org/" + std::string(kOne),
                                 "http://example.org/" + std::string(kTwo),
                                 "http://example.org/" + std::string(kDelta)));
}

}  // namespace
}  // namespace tolm::testing
