// The installed publisher on a disk that fails once: whatever it reads, looks at, writes or closes
// in the repository, or in the store that it pushes to, gives EIO. What is served is a whole
// release, the one before or the new one, and the same command completes it.

#include <algorithm>
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
using ::testing::StartsWith;
using Command = std::vector<std::string>;
using Directories = std::vector<std::string>;

class PublisherBadDiskTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    MustRelease(Version(1));
    MustRelease(Version(2));
    fs::remove_all(source_);
    MakeTree(source_, Version(3));
    Keep();
  }

  static Tree Version(char number) {
    Tree tree = {{"d/" + std::to_string(number), "only here"}, {"f", Noise(20000)}};
    tree["f"][100] = number;
    return tree;
  }

  static void Keep() {
    fs::remove_all(kKept);
    fs::create_directories(kKept);
    for (const fs::path& place : {repo_, store_}) {
      if (fs::exists(place)) {
        fs::copy(place, kKept / place.filename(), fs::copy_options::recursive);
      }
    }
  }

  static void Restore() {
    for (const fs::path& place : {repo_, store_}) {
      fs::remove_all(place);
      if (fs::exists(kKept / place.filename())) {
        fs::copy(kKept / place.filename(), place, fs::copy_options::recursive);
      }
    }
  }

  // Runs the command again and again, each time with another of its calls failing. Gives each end
  // to `look`, which says what it was; prints how often.
  template <typename Look>
  static void FailEverywhere(const Command& command, std::size_t few, Look look) {
    const Directories disks = {repo_, store_};
    Restore();
    const std::vector<std::string> calls = TraceDiskUse(command, disks);
    ASSERT_GT(calls.size(), few);
    const std::size_t count = Moments(few, calls.size());
    std::map<std::string, int> ends;
    for (std::size_t i = FirstMoment() - 1; i < count; ++i) {
      const std::size_t number = 1 + i * (calls.size() - 1) / (count - 1);
      TellProgress(number, calls.size());
      Restore();
      const BrokenRun run = RunOnBadDisk(command, disks, number);
      if (run.failed.empty()) {
        ++ends["had fewer calls"];
        continue;
      }
      SCOPED_TRACE("EIO at call " + std::to_string(number) + ": " + run.failed +
                   "\nout: " + run.result.out + "\nerr: " + run.result.err);
      ++ends[look(run)];
    }
    EXPECT_LE(ends["had fewer calls"], static_cast<int>(count / 4));
    std::cout << command[1] << ", EIO once at " << count << " of " << calls.size() << " calls:";
    for (const auto& [end, times] : ends) {
      std::cout << ' ' << times << ' ' << end << ';';
    }
    std::cout << '\n';
  }

  // Says what failed with what, on a last line of the program's own.
  static void ExpectClearFailure(const CommandResult& result) {
    EXPECT_EQ(result.exit_status, 1);
    const std::size_t begin = result.err.rfind('\n', result.err.size() - 2) + 1;
    const std::string line = result.err.substr(begin);
    EXPECT_THAT(line, StartsWith("tolmdbpub: "));
    EXPECT_THAT(line, AnyOf(HasSubstr(" /"), HasSubstr("[/"), HasSubstr("\"/")));
    EXPECT_THAT(line, HasSubstr("Input/output error"));
  }

  // `is_after` tells whether what is served is what it is after the command.
  template <typename IsAfter>
  void Change(const Command& command, IsAfter is_after) {
    const std::string old = ReadFile(InPublic("database_info/1"));
    FailEverywhere(command, kFew, [&](const BrokenRun& run) {
      const bool is_done = is_after();
      if (run.result.exit_status == 0) {
        EXPECT_TRUE(is_done);
      } else {
        ExpectClearFailure(run.result);
        EXPECT_TRUE(is_done || ReadFile(InPublic("database_info/1")) == old);
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

  static bool IsBelow(const Tree& part, const Tree& whole) {
    return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
  }

  static std::string OfferedVersion() {
    return Description()["db_list"]["oui"]["data_version"].asString();
  }

  static constexpr std::size_t kFew = 4;
  inline static const fs::path kKept = "/tmp/kept";
  inline static const fs::path store_ = "/tmp/store";
};

TEST_F(PublisherBadDiskTest, Release) {
  Change({kPub, "release", repo_, "oui", source_}, [] { return OfferedVersion() == "1000003"; });
}

// What is packed is named by the tree's path, and what is written by the package's.
TEST_F(PublisherBadDiskTest, PartsOfAPackageThatADiskDoesNotGiveOrTakeAreNamed) {
  const Command command = {kPub, "release", repo_, "oui", source_};
  const fs::path work = repo_ / "state/work";
  struct Row {
    fs::path directory;
    std::string call;
  };
  const Row rows[] = {{work / "delta", "openat64"},
                      {work / "delta", "fstatat64"},
                      {work / "delta", "pread64"},
                      {work / "delta", "readdir64"},
                      {work, "unlink"},
                      {work, "write"},
                      {work, "ftruncate64"},
                      {source_, "openat64"},
                      {source_, "fstatat64"},
                      {source_, "readdir64"}};
  // A release packs by two threads: only the calls of one name have the same numbers each time.
  for (const Row& row : rows) {
    const BadDisk disk({row.directory}, row.call);
    Restore();
    const std::vector<std::string> calls = TraceDiskUse(command, disk);
    ASSERT_FALSE(calls.empty()) << row.call << ' ' << row.directory;
    Restore();
    const BrokenRun run = RunOnBadDisk(command, disk, calls.size());
    SCOPED_TRACE(run.failed + "\nout: " + run.result.out + "\nerr: " + run.result.err);
    EXPECT_NE(run.failed, "");
    ExpectClearFailure(run.result);
  }
}

TEST_F(PublisherBadDiskTest, Prune) {
  MustRelease(Version(3));
  Keep();
  const Command command = {kPub, "prune", repo_, "oui", "--keep", "1", "--grace", "0"};
  ASSERT_EQ(OfferedDeltas().size(), 2u);
  Change(command, [] { return OfferedDeltas().size() == 1; });
}

TEST_F(PublisherBadDiskTest, Resign) {
  Change({kPub, "resign", repo_, "--force"}, [] {
    const std::string link = Description()["db_list"]["oui"]["download_link"].asString();
    return link.find("/packages/") == std::string::npos;
  });
}

TEST_F(PublisherBadDiskTest, Refresh) {
  const std::string old = ReadFile(InPublic("database_info/1"));
  Change({kPub, "refresh", repo_}, [&old] { return ReadFile(InPublic("database_info/1")) != old; });
}

// Where an account may that may do less is written by that account alone.
TEST_F(PublisherBadDiskTest, RefreshGoesNowhereElseWhereADiskDoesNotAnswer) {
  const Command command = {kPub, "refresh", repo_};
  const BadDisk disk({repo_}, "faccessat");
  const std::vector<std::string> calls = TraceDiskUse(command, disk);
  const std::string asking = "faccessat " + (repo_ / "state/work").string();
  const auto found = std::find(calls.begin(), calls.end(), asking);
  ASSERT_NE(found, calls.end());
  Restore();
  const BrokenRun run =
      RunOnBadDisk(command, disk, static_cast<std::size_t>(found - calls.begin()) + 1);
  ASSERT_EQ(run.failed, asking);
  ExpectClearFailure(run.result);
}

// Whoever takes the description from the store finds what it names.
TEST_F(PublisherBadDiskTest, Push) {
  const Command command = {kPub, "push", repo_, store_};
  ASSERT_EQ(RunCommand(command).exit_status, 0);
  const Tree before = ReadTree(store_);
  MustRelease(Version(3));
  Keep();
  const Tree after = ReadTree(InPublic(""));
  FailEverywhere(command, kFew, [&](const BrokenRun& run) {
    const Tree now = ReadTree(store_);
    const bool is_done = IsBelow(after, now);
    if (run.result.exit_status == 0) {
      EXPECT_TRUE(is_done);
    } else {
      ExpectClearFailure(run.result);
      EXPECT_TRUE(is_done || IsBelow(before, now)) << ::testing::PrintToString(ListTree(store_));
    }
    EXPECT_EQ(ReadTree(InPublic("")), after);
    const CommandResult again = RunCommand(command);
    EXPECT_EQ(again.exit_status, 0) << again.err;
    EXPECT_TRUE(IsBelow(after, ReadTree(store_)));
    const CommandResult check = Pub({"check", repo_, "--remote", store_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
    return run.result.exit_status == 0 ? "were done" : is_done ? "had done it" : "were not done";
  });
}

// What a disk does not tell is not called missing.
TEST_F(PublisherBadDiskTest, PushSaysThatADiskDoesNotAnswer) {
  const Command command = {kPub, "push", repo_, store_};
  const fs::path pushed = repo_ / "state/pushed";
  const std::vector<std::pair<fs::path, std::string>> rows = {
      {repo_ / "public/packages", "stat"}, {pushed, "stat"}, {pushed, "mkdir"}};
  std::size_t tried = 0;
  for (const auto& [directory, name] : rows) {
    const BadDisk disk({directory}, name);
    Restore();
    const std::vector<std::string> calls = TraceDiskUse(command, disk);
    for (std::size_t i = 0; i < calls.size(); ++i) {
      if (calls[i].find("/packages") == std::string::npos) {
        continue;
      }
      Restore();
      const BrokenRun run = RunOnBadDisk(command, disk, i + 1);
      SCOPED_TRACE(run.failed + "\nerr: " + run.result.err);
      EXPECT_EQ(run.failed, calls[i]);
      ExpectClearFailure(run.result);
      ++tried;
    }
  }
  EXPECT_GE(tried, 3u);
}

// A repository is not said to be in order by whoever has not read all of it.
TEST_F(PublisherBadDiskTest, CheckSaysWhatItCouldNotRead) {
  for (const char* name : {"packages/oui/oui_v1000001", "packages/oui/oui_d1000002"}) {
    Restore();
    fs::remove(InPublic(name));
    fs::create_symlink("/proc/self/mem", InPublic(name));  // Nothing is at its beginning.
    const CommandResult check = Pub({"check", repo_});
    EXPECT_NE(check.exit_status, 0) << check.out;
    EXPECT_THAT(check.err, HasSubstr(name));
    EXPECT_THAT(check.err, HasSubstr("Input/output error"));
  }
}

}  // namespace
}  // namespace tolm::testing
