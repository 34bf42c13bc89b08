// The installed publisher on a disk that fails once: whatever it reads, looks at, writes or closes
// in the repository gives EIO, what is served stays in order, and the same command completes it.

#include <iostream>
#include <map>

#include "tests/support/killed_run.h"
#include "tests/support/moments.h"
#include "tests/support/noise.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;

class PublisherBadDiskTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    MustRelease(Version(1));
    MustRelease(Version(2));
    fs::remove_all(source_);
    MakeTree(source_, Version(3));
    old_ = ReadFile(InPublic("database_info/1"));
    fs::copy(repo_, kKept, fs::copy_options::recursive);
  }

  static Tree Version(char number) {
    Tree tree = {{"d/" + std::to_string(number), "only here"}, {"f", Noise(20000)}};
    tree["f"][100] = number;
    return tree;
  }

  static void Restore() {
    fs::remove_all(repo_);
    fs::copy(kKept, repo_, fs::copy_options::recursive);
  }

  // Runs the command again and again, each time with another of its calls failing. Gives each end
  // to `look`, which says what it was; prints how often.
  template <typename Look>
  static void FailEverywhere(const std::vector<std::string>& command, Look look) {
    Restore();
    const std::vector<std::string> calls = TraceDiskUse(command, {repo_});
    constexpr std::size_t kFew = 14;
    ASSERT_GT(calls.size(), kFew);
    const std::size_t count = Moments(kFew, calls.size());
    std::map<std::string, int> ends;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t number = 1 + i * (calls.size() - 1) / (count - 1);
      Restore();
      const BrokenRun run = RunOnBadDisk(command, {repo_}, number);
      if (run.failed.empty()) {
        ++ends["had fewer calls"];
        continue;
      }
      SCOPED_TRACE("EIO at call " + std::to_string(number) + ": " + run.failed +
                   "\nout: " + run.result.out + "\nerr: " + run.result.err);
      ++ends[look(run)];
    }
    EXPECT_LT(ends["had fewer calls"], static_cast<int>(count / 4));
    std::cout << command[1] << ", EIO once at " << count << " of " << calls.size() << " calls:";
    for (const auto& [end, times] : ends) {
      std::cout << ' ' << times << ' ' << end << ';';
    }
    std::cout << '\n';
  }

  // `is_after` tells whether the description is the one after the command.
  template <typename IsAfter>
  void Change(const std::vector<std::string>& command, IsAfter is_after) {
    FailEverywhere(command, [&](const BrokenRun& run) {
      const bool is_done = is_after();
      if (run.result.exit_status == 0) {
        EXPECT_TRUE(is_done);
      } else {
        EXPECT_EQ(run.result.exit_status, 1);
        EXPECT_THAT(run.result.err, HasSubstr("tolmdbpub: "));
        EXPECT_THAT(run.result.err, AnyOf(HasSubstr(" /"), HasSubstr("[/"), HasSubstr("\"/"),
                                          HasSubstr("Input/output error")));
        EXPECT_TRUE(is_done || ReadFile(InPublic("database_info/1")) == old_);
      }
      const CommandResult check = Pub({"check", repo_});
      EXPECT_EQ(check.exit_status, 0) << check.err;
      const CommandResult again = RunCommand(command);
      EXPECT_EQ(again.exit_status, 0) << again.err;
      EXPECT_TRUE(is_after());
      ExpectInOrder();
      EXPECT_TRUE(ListTree(repo_ / "state/work").empty());
      EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
      return run.result.exit_status == 0 ? "were done"
             : is_done                   ? "had done it"
                                         : "changed nothing";
    });
  }

  static std::string OfferedVersion() {
    return Description()["db_list"]["oui"]["data_version"].asString();
  }

  static constexpr char kKept[] = "/tmp/kept";
  std::string old_;
};

TEST_F(PublisherBadDiskTest, ReleaseIsDoneOrNot) {
  Change({kPub, "release", repo_, "oui", source_}, [] { return OfferedVersion() == "1000003"; });
}

TEST_F(PublisherBadDiskTest, PruneIsDoneOrNot) {
  const std::vector<std::string> command = {kPub,     "prune", repo_,     "oui",
                                            "--keep", "1",     "--grace", "0"};
  ASSERT_EQ(RunCommand(command).exit_status, 0);
  const std::vector<std::string> after = OfferedDeltas();
  Change(command, [&after] { return OfferedDeltas() == after; });
}

TEST_F(PublisherBadDiskTest, RefreshIsDoneOrNot) {
  Change({kPub, "refresh", repo_},
         [this] { return ReadFile(InPublic("database_info/1")) != old_; });
}

// A repository is not said to be in order by whoever has not read all of it.
TEST_F(PublisherBadDiskTest, CheckSaysWhatItCouldNotRead) {
  FailEverywhere({kPub, "check", repo_}, [](const BrokenRun& run) {
    const std::string path = run.failed.substr(run.failed.find(' ') + 1);
    const bool reads = run.failed.rfind("read", 0) == 0 || run.failed.rfind("pread", 0) == 0;
    if (reads && path.rfind(InPublic("").string(), 0) == 0) {
      EXPECT_NE(run.result.exit_status, 0);
    }
    if (run.result.exit_status != 0) {
      EXPECT_THAT(run.result.exit_status, AnyOf(1, 3));
      EXPECT_NE(run.result.err, "");
    }
    ExpectInOrder();
    return run.result.exit_status == 0 ? "saw all" : "failed";
  });
}

}  // namespace
}  // namespace tolm::testing
