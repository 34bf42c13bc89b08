#include "package/staging_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/package/expect_code.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::StagingDirectory;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class StagingDirectoryTest : public ::testing::Test {
 protected:
  // Where what is prepared stands.
  fs::path Staged() const {
    for (const auto& entry : fs::directory_iterator(directory_.Path())) {
      if (StagingDirectory::IsName(entry.path().filename().string())) {
        return entry.path();
      }
    }
    return {};
  }

  const TemporaryDirectory directory_;
  const base::Descriptor fd_ = OpenDirectory(directory_.Path());
};

TEST_F(StagingDirectoryTest, WhatIsPreparedComesIntoPlace) {
  {
    const StagingDirectory staging(fd_.Get());
    WriteFile(Staged() / "a", "1");
    WriteFile(Staged() / "d/b", "2");
    staging.PutInPlace();
  }
  EXPECT_EQ(ReadTree(directory_.Path()), (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}}));
}

TEST_F(StagingDirectoryTest, WhatIsNotPutInPlaceGoes) {
  {
    const StagingDirectory staging(fd_.Get());
    WriteFile(Staged() / "d/b", "2");
  }
  EXPECT_TRUE(StagingDirectory::IsEmpty(fd_.Get()));
}

// Wherever in the order of moves that one comes.
TEST_F(StagingDirectoryTest, NothingComesIntoPlaceWhenOneCannot) {
  {
    const StagingDirectory staging(fd_.Get());
    for (const char* name : {"a", "b", "c", "d", "e"}) {
      WriteFile(Staged() / name, "new");
    }
    WriteFile(directory_.Path() / "c/other", "there");
    EXPECT_EQ(CodeOf([&] { staging.PutInPlace(); }), Code::kInTheWay);
  }
  EXPECT_EQ(ReadTree(directory_.Path()), (Tree{{"c/", ""}, {"c/other", "there"}}));
}

TEST_F(StagingDirectoryTest, WhatHindersAMoveIsTold) {
  struct Row {
    const char* what;
    const char* staged;
    const char* there;
    Code code;
  };
  for (const Row& row :
       {Row{"a file over a directory", "a", "a/b", Code::kInTheWay},
        Row{"a directory over a file", "a/b", "a", Code::kInTheWay},
        Row{"a directory over one that is not empty", "a/b", "a/c", Code::kInTheWay}}) {
    const StagingDirectory staging(fd_.Get());
    WriteFile(Staged() / row.staged, "new");
    WriteFile(directory_.Path() / row.there, "there");
    EXPECT_EQ(CodeOf([&] { staging.PutInPlace(); }), row.code) << row.what;
    EXPECT_EQ(ReadFile(directory_.Path() / row.there), "there") << row.what;
    fs::remove_all(directory_.Path() / "a");
  }
  const StagingDirectory staging(fd_.Get());
  fs::create_directory(Staged() / "a");
  const ScopedMount mount = ScopedMount::Tmpfs(directory_.Path() / "a", 4096);
  EXPECT_EQ(CodeOf([&] { staging.PutInPlace(); }), Code::kWrite) << "a directory over a mount";
}

TEST_F(StagingDirectoryTest, IsItsOwnersAlone) {
  ::umask(0);
  const StagingDirectory staging(fd_.Get());
  EXPECT_EQ(fs::status(Staged()).permissions(), fs::perms(0700));
}

TEST_F(StagingDirectoryTest, OnlyWhatNobodyUsesIsALeftOver) {
  WriteFile(directory_.Path() / ".tolmpkg-0-staging/a", "left over");
  const StagingDirectory staging(fd_.Get());
  WriteFile(Staged() / "a", "1");
  StagingDirectory::RemoveLeftOvers(fd_.Get());
  EXPECT_FALSE(fs::exists(directory_.Path() / ".tolmpkg-0-staging"));
  EXPECT_EQ(ReadFile(Staged() / "a"), "1");
}

// A mount below is what root cannot remove.
TEST_F(StagingDirectoryTest, WhatCannotBeRemovedIsToldOnce) {
  std::vector<std::string> told;
  const StagingDirectory::Notice notice = [&](const std::string& text) { told.push_back(text); };
  std::optional<ScopedMount> mount;
  fs::path staged;
  {
    const StagingDirectory staging(fd_.Get(), notice);
    staged = Staged();
    mount.emplace(ScopedMount::Tmpfs(staged / "d", 4096));
  }
  const std::string text = staged.filename().string() + " cannot be removed: ";
  EXPECT_THAT(told, ElementsAre(AllOf(StartsWith(text), HasSubstr("busy"))));
  StagingDirectory::RemoveLeftOvers(fd_.Get(), notice);
  EXPECT_THAT(told, ElementsAre(StartsWith(text), StartsWith(text)));
  mount.reset();
  StagingDirectory::RemoveLeftOvers(fd_.Get(), notice);
  EXPECT_EQ(told.size(), 2U);
  EXPECT_TRUE(StagingDirectory::IsEmpty(fd_.Get()));
}

TEST_F(StagingDirectoryTest, OtherNamesAreNoLeftOvers) {
  const Tree tree = {{".tolmpkg--staging/", ""}, {".tolmpkg-1-staging.x", "1"}, {".tolmpkg-1/", ""},
                     {".tolmpkg-staging/", ""},  {".tolmpkg-staging/a", "1"},   {"x-staging", "1"}};
  MakeTree(directory_.Path(), tree);
  StagingDirectory::RemoveLeftOvers(fd_.Get());
  EXPECT_EQ(ReadTree(directory_.Path()), tree);
}

}  // namespace
}  // namespace tolm::testing
