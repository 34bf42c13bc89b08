// The page of a repository, by the installed program.

#include <filesystem>

#include "tests/report/page_problems.h"
#include "tests/support/mounts.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class PageCommandTest : public RepositoryTest {
 protected:
  const fs::path pages_ = "/tmp/pages/here";
  const fs::path page_ = pages_ / "index.html";
};

TEST_F(PageCommandTest, RepositoryIsShownAndNothingElseIsWritten) {
  MustRelease({{"a.txt", "one"}});
  MustRelease({{"a.txt", "two"}});
  const Tree before = ReadTree(repo_);
  const CommandResult result = Pub({"page", repo_, pages_});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, page_.string() + " is written\n");
  EXPECT_EQ(PageProblems(page_), "");
  const std::string page = ReadFile(page_);
  EXPECT_THAT(page, HasSubstr("1000002"));
  EXPECT_THAT(page, HasSubstr("Signed for repository"));
  EXPECT_THAT(page, HasSubstr("signs packages"));
  EXPECT_THAT(page, Not(HasSubstr(repo_.string()))) << "nothing of this machine";
  EXPECT_THAT(page, Not(HasSubstr(keys_.string())));
  EXPECT_EQ(ReadTree(repo_), before);
  EXPECT_THAT(ListTree(pages_), ElementsAre("index.html"));
}

TEST_F(PageCommandTest, NoPageBelongsIntoTheRepository) {
  for (const fs::path& place : {repo_ / "public", repo_, repo_ / "state/../public/new"}) {
    const CommandResult result = Pub({"page", repo_, place});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, HasSubstr("is within the repository")) << place;
  }
  EXPECT_FALSE(fs::exists(repo_ / "public/new"));
}

TEST_F(PageCommandTest, NorDoesANewDirectoryThatIsNamedFromWithinIt) {
  const CommandResult result =
      RunCommand({"/bin/sh", "-c", "cd " + repo_.string() + " && exec tolmdbpub page . new"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("new is within the repository ."));
  EXPECT_FALSE(fs::exists(repo_ / "new"));
  EXPECT_EQ(Pub({"page", repo_, ""}).exit_status, 2);
}

TEST_F(PageCommandTest, UnreadableRepositoryLeavesThePageBefore) {
  ASSERT_EQ(Pub({"page", repo_, pages_}).exit_status, 0);
  const std::string before = ReadFile(page_);
  WriteFile(repo_ / "state/catalog.json", "{");
  const CommandResult result = Pub({"page", repo_, pages_});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("catalog.json"));
  EXPECT_EQ(ReadFile(page_), before);
  EXPECT_THAT(Pub({"page", "/tmp/none", pages_}).err, HasSubstr("/tmp/none: no repository"));
}

TEST_F(PageCommandTest, FullDiskIsTold) {
  MustRelease({{"a.txt", "one"}});
  const ScopedMount mount = ScopedMount::Tmpfs(pages_, 4096);
  const CommandResult result = Pub({"page", repo_, pages_});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("No space left on device"));
  EXPECT_TRUE(ListTree(pages_).empty());
}

}  // namespace
}  // namespace tolm::testing
