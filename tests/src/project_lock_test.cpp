#include "dataupdate/project_lock.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "dataupdate/file_lock.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/flock_calls.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::FakeTime;
using dataupdate::FileLock;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr char kLock[] = "/run/data_update/using_x.lock";
constexpr char kDatabases[] = "/usr/share/data_update/databases.conf";
constexpr int kShared = LOCK_SH | LOCK_NB;

class ProjectLockTest : public ::testing::Test {
 protected:
  ProjectLockTest() {
    WriteFile(kDatabases, R"({"x": {"install_dest": "%ROOTFS%"}, "y": {}})");
    WriteFile(kLock, "");
    flock_calls = FlockCalls();
  }

  // All lines are errors with their place in front; the texts behind it.
  static std::vector<std::string> Log() {
    std::vector<std::string> texts;
    for (const SyslogLine& line : SyslogCapture::Lines()) {
      EXPECT_EQ(line.priority, LOG_ERR);
      EXPECT_THAT(line.format, StartsWith("%s:%d "));
      EXPECT_THAT(line.text, MatchesRegex("project_lock:[0-9]+ .*"));
      texts.push_back(SyslogCapture::WithoutPlace(line.text));
    }
    return texts;
  }

  // The descriptors of this process that are open on the lock file.
  static std::size_t OpenLockFiles() {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      count += fs::read_symlink(entry.path(), gone) == kLock ? 1 : 0;
    }
    return count;
  }
};

// --- Taking the lock

TEST_F(ProjectLockTest, ReaderGetsADescriptorThatHoldsASharedLock) {
  const int fd = TOLMDBUDGetFileLock("x", 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)), kLock);
  EXPECT_THAT(flock_calls.operations, ElementsAre(kShared));
  EXPECT_THROW(FileLock(kLock, 0), dataupdate::UpdateError) << "an update has to wait";
  SyslogCapture::Clear();
  TOLMDBUDReleaseFileLock(fd);
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ProjectLockTest, FileIsOpenedForReadingOnly) {
  const int fd = TOLMDBUDGetFileLock("x", 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  TOLMDBUDReleaseFileLock(fd);
}

TEST_F(ProjectLockTest, TwoReadersHoldTheLockAtOnce) {
  const int one = TOLMDBUDGetFileLock("x", 0);
  const int two = TOLMDBUDGetFileLock("x", 0);
  EXPECT_GE(one, 0);
  EXPECT_GE(two, 0);
  EXPECT_NE(one, two);
  TOLMDBUDReleaseFileLock(one);
  EXPECT_THROW(FileLock(kLock, 0), dataupdate::UpdateError) << "the other one reads on";
  TOLMDBUDReleaseFileLock(two);
  EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ProjectLockTest, ReadersOfDifferentProcessesHoldTheLockAtOnce) {
  const auto read = [](EventChannel& parent) {
    const int fd = TOLMDBUDGetFileLock("x", 0);
    parent.Send(fd >= 0 ? "reading" : "refused");
    parent.Receive();
    TOLMDBUDReleaseFileLock(fd);
    return 0;
  };
  ForkedChild one(read);
  ForkedChild two(read);
  EXPECT_EQ(one.Channel().Receive(), "reading");
  EXPECT_EQ(two.Channel().Receive(), "reading");
  const int own = TOLMDBUDGetFileLock("x", 0);
  EXPECT_GE(own, 0);
  TOLMDBUDReleaseFileLock(own);
}

TEST_F(ProjectLockTest, KilledReaderFreesTheLock) {
  ForkedChild reader([](EventChannel& parent) {
    const int fd = TOLMDBUDGetFileLock("x", 0);
    parent.Send(fd >= 0 ? "reading" : "refused");
    parent.Receive();
    return 0;
  });
  ASSERT_EQ(reader.Channel().Receive(), "reading");
  EXPECT_THROW(FileLock(kLock, 0), dataupdate::UpdateError);
  reader.Process().Signal(SIGKILL);
  reader.Process().Wait();
  EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ProjectLockTest, DatabasesHaveLocksOfTheirOwn) {
  WriteFile("/run/data_update/using_y.lock", "");
  const HeldLock update("/run/data_update/using_y.lock", LOCK_EX);
  const int fd = TOLMDBUDGetFileLock("x", 0);
  EXPECT_GE(fd, 0);
  TOLMDBUDReleaseFileLock(fd);
  EXPECT_EQ(TOLMDBUDGetFileLock("y", 0), -1);
}

TEST_F(ProjectLockTest, DatabaseOfTheOverridesIsSupported) {
  WriteFile("/usr/tolm/etc/data_update/databases.conf", R"({"z": {}})");
  WriteFile("/run/data_update/using_z.lock", "");
  const int fd = TOLMDBUDGetFileLock("z", 0);
  EXPECT_GE(fd, 0);
  TOLMDBUDReleaseFileLock(fd);
}

// --- No lock to take

TEST_F(ProjectLockTest, MissingLockFileIsNotMade) {
  fs::remove(kLock);
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 10), -2);
  EXPECT_THAT(Log(), ElementsAre(std::string("Failed to open lock file: ") + kLock));
  EXPECT_FALSE(fs::exists(kLock));
  EXPECT_THAT(flock_calls.operations, IsEmpty());
}

TEST_F(ProjectLockTest, MissingDirectoryIsNotMade) {
  fs::remove_all("/run/data_update");
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 0), -2);
  EXPECT_FALSE(fs::exists("/run/data_update"));
}

TEST_F(ProjectLockTest, LockFileThatCannotBeOpenedIsSaid) {
  fs::remove(kLock);
  fs::create_symlink("using_x.lock", kLock);  // Leads to itself.
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 0), -2);
  EXPECT_THAT(Log(), ElementsAre(std::string("Failed to open lock file: ") + kLock));
}

struct UnsupportedRow {
  const char* name;
  const char* database;
  const char* settings;  // Null: no file.
  const char* reason;
};

class ProjectLockUnsupportedTest : public ProjectLockTest,
                                   public ::testing::WithParamInterface<UnsupportedRow> {};

TEST_P(ProjectLockUnsupportedTest, IsRefusedAlthoughALockFileExists) {
  const std::string name = GetParam().database;
  const std::string lock = "/run/data_update/using_" + name + ".lock";
  WriteFile(lock, "");
  fs::remove(kDatabases);
  if (GetParam().settings != nullptr) {
    WriteFile(kDatabases, GetParam().settings);
  }
  EXPECT_EQ(TOLMDBUDGetFileLock(name.c_str(), 10), -2);
  EXPECT_THAT(Log(), ElementsAre(std::string("Failed to check supported: ") + GetParam().reason,
                                 "[" + name + "] is not supported, skip getting lock"));
  EXPECT_THAT(flock_calls.operations, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, ProjectLockUnsupportedTest,
    ::testing::Values(UnsupportedRow{"UnknownDatabase", "z", R"({"x": {}})",
                                     "Project z not supported"},
                      UnsupportedRow{"EmptyName", "", R"({"x": {}})", "Project  not supported"},
                      UnsupportedRow{"NameWithPlaceholders", "%s%n", R"({"x": {}})",
                                     "Project %s%n not supported"},
                      UnsupportedRow{"NoDatabase", "x", "{}", "Project x not supported"},
                      UnsupportedRow{"NoSettings", "x", nullptr,
                                     "File not exist: /usr/share/data_update/databases.conf"},
                      UnsupportedRow{"UnreadableSettings", "x", "{",
                                     "Fail to decode: /usr/share/data_update/databases.conf"}),
    [](const auto& row) { return row.param.name; });

// --- Waiting

TEST_F(ProjectLockTest, TimeoutZeroDuringAnUpdateIsExactlyOneAttempt) {
  const HeldLock update(kLock, LOCK_EX);
  flock_calls = FlockCalls();
  const FakeTime time;
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 0), -1);
  EXPECT_THAT(flock_calls.operations, ElementsAre(kShared));
  EXPECT_THAT(time.Sleeps(), IsEmpty());
  EXPECT_THAT(Log(), ElementsAre("Get file lock timeout."));
  EXPECT_EQ(OpenLockFiles(), 1U) << "only the update's own is left";
}

TEST_F(ProjectLockTest, TenMinutesAreSixThousandPausesOf100Milliseconds) {
  const HeldLock update(kLock, LOCK_EX);
  flock_calls = FlockCalls();
  const FakeTime time;
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 600), -1);
  EXPECT_EQ(flock_calls.operations.size(), 6001U);
  EXPECT_THAT(flock_calls.operations, Each(kShared));
  EXPECT_EQ(time.Sleeps().size(), 6000U);
  EXPECT_THAT(time.Sleeps(), Each(100000U));
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_THAT(Log(), ElementsAre("Get file lock timeout."));
  EXPECT_EQ(OpenLockFiles(), 1U);
}

TEST_F(ProjectLockTest, ReaderGetsTheLockWhenTheUpdateEnds) {
  HeldLock update(kLock, LOCK_EX);
  flock_calls = FlockCalls();
  FakeTime time;
  time.on_sleep = [&] {
    if (time.Sleeps().size() == 20) {  // At the deadline itself one more attempt is made.
      update.Release();
    }
  };
  const int fd = TOLMDBUDGetFileLock("x", 2);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(flock_calls.operations.size(), 21U);
  EXPECT_THAT(Log(), IsEmpty());
  TOLMDBUDReleaseFileLock(fd);
}

TEST_F(ProjectLockTest, SlowSleepStillLeavesOneAttemptAfterIt) {
  const HeldLock update(kLock, LOCK_EX);
  flock_calls = FlockCalls();
  FakeTime time;
  time.step = std::chrono::hours(1);
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 2), -1);
  EXPECT_EQ(flock_calls.operations.size(), 2U);
}

TEST_F(ProjectLockTest, LongestTimeoutIsKeptInFull) {
  const HeldLock update(kLock, LOCK_EX);
  FakeTime time;
  time.step = std::chrono::seconds(2147483647);
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 4294967295U), -1);
  EXPECT_EQ(time.Sleeps().size(), 3U) << "4294967295 s are more than twice 2147483647 s";
}

TEST_F(ProjectLockTest, TimeIsTakenBeforeTheSettingsAreRead) {
  const FakeTime time;
  EXPECT_EQ(TOLMDBUDGetFileLock("z", 600), -2);
  EXPECT_EQ(time.ClockReadings(), 1U) << "also when there is nothing to wait for";
}

TEST_F(ProjectLockTest, EveryFailureOfTheSystemIsTriedAgain) {
  for (const int failure : {EWOULDBLOCK, EINTR, ENOLCK, EINVAL}) {
    flock_calls = FlockCalls();
    flock_calls.attempts_to_fail = 3;
    flock_calls.failure = failure;
    const FakeTime time;
    const int fd = TOLMDBUDGetFileLock("x", 1);
    EXPECT_GE(fd, 0) << failure;
    EXPECT_EQ(time.Sleeps().size(), 3U) << failure;
    TOLMDBUDReleaseFileLock(fd);
  }
}

TEST_F(ProjectLockTest, WaitingReaderOfAnotherProcessReadsAfterTheUpdate) {
  ForkedChild reader([](EventChannel& parent) {
    parent.Receive();
    parent.Send("waiting");
    const int fd = TOLMDBUDGetFileLock("x", 600);
    parent.Send(fd >= 0 ? "reading" : "refused");
    parent.Receive();
    TOLMDBUDReleaseFileLock(fd);
    return 0;
  });
  HeldLock update(kLock, LOCK_EX);  // Not before the fork: the child would hold it as well.
  reader.Channel().Send("go");
  ASSERT_EQ(reader.Channel().Receive(), "waiting");
  update.Release();
  EXPECT_EQ(reader.Channel().Receive(), "reading");
  EXPECT_THROW(FileLock(kLock, 0), dataupdate::UpdateError);
}

// --- Releasing

TEST_F(ProjectLockTest, ReleaseUnlocksAndCloses) {
  const int fd = TOLMDBUDGetFileLock("x", 0);
  ASSERT_GE(fd, 0);
  flock_calls = FlockCalls();
  TOLMDBUDReleaseFileLock(fd);
  EXPECT_THAT(flock_calls.operations, ElementsAre(LOCK_UN));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(OpenLockFiles(), 0U);
}

TEST_F(ProjectLockTest, WhereStandardInputIsClosedItsNumberIsADescriptorAsAnyOther) {
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
  close(STDIN_FILENO);
  EXPECT_EQ(TOLMDBUDGetFileLock("x", 0), STDIN_FILENO);
  TOLMDBUDReleaseFileLock(STDIN_FILENO);
  EXPECT_EQ(OpenLockFiles(), 0U);
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(ProjectLockTest, DescriptorThatAChildInheritedDoesNotKeepTheLock) {
  const int fd = TOLMDBUDGetFileLock("x", 0);
  ASSERT_GE(fd, 0);
  ForkedChild child([](EventChannel& parent) {
    parent.Receive();
    return 0;
  });
  TOLMDBUDReleaseFileLock(fd);
  EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ProjectLockTest, ResultsOfFailedCallsAreIgnored) {
  for (const int result : {-1, -2, -2147483647 - 1}) {
    TOLMDBUDReleaseFileLock(result);
  }
  EXPECT_THAT(flock_calls.operations, IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ProjectLockTest, FailedUnlockIsSaidAndTheDescriptorClosedAnyway) {
  const int fd = TOLMDBUDGetFileLock("x", 0);
  ASSERT_GE(fd, 0);
  flock_calls.fail_unlock = true;
  TOLMDBUDReleaseFileLock(fd);
  flock_calls = FlockCalls();
  EXPECT_THAT(Log(), ElementsAre("Failed to release file lock"));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_NO_THROW(FileLock(kLock, 0)) << "closing frees the lock all the same";
}

// --- From other programs

// Runs a C program that takes the lock, says what it got, and releases it after a line of input.
std::string SaidBy(const std::string& program, const std::string& database) {
  const CommandResult result =
      RunCommand({std::string(TOLM_TEST_BIN_DIR) + "/" + program, database, "0"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  return result.out;
}

class ProjectLockProgramTest : public ProjectLockTest,
                               public ::testing::WithParamInterface<const char*> {};

TEST_P(ProjectLockProgramTest, TakesAndReleasesTheLock) {
  EXPECT_EQ(SaidBy(GetParam(), "x"), "locked\nreleased\n");
  const HeldLock reader(kLock, LOCK_SH);
  EXPECT_EQ(SaidBy(GetParam(), "x"), "locked\nreleased\n") << "beside another reader";
}

TEST_P(ProjectLockProgramTest, LearnsThatAnUpdateIsRunning) {
  const HeldLock update(kLock, LOCK_EX);
  EXPECT_EQ(SaidBy(GetParam(), "x"), "-1\n");
}

TEST_P(ProjectLockProgramTest, LearnsThatThereIsNoLock) {
  EXPECT_EQ(SaidBy(GetParam(), "y"), "-2\n");
  EXPECT_EQ(SaidBy(GetParam(), "z"), "-2\n");
}

// The first includes the header as C99 and is linked with the library; the second knows only the
// names and looks them up in the installed library.
INSTANTIATE_TEST_SUITE_P(Written, ProjectLockProgramTest,
                         ::testing::Values("tolm-reader-c99", "tolm-reader-dlsym"),
                         [](const auto& row) {
                           return std::string(row.param) == "tolm-reader-c99" ? "InC99"
                                                                              : "WithDlsym";
                         });

// --- Where a database is

struct Place {
  const char* name;
  const char* settings;  // of the service
  const char* database;
  int result;
  const char* directory;
};

void PrintTo(const Place& place, std::ostream* out) {
  *out << place.name;
}

class ProjectDirectoryTest : public ProjectLockTest, public ::testing::WithParamInterface<Place> {};

constexpr char kChosen[] = R"({"config": {"cur_volume": "/volume1"}})";
constexpr char kNoneChosen[] = R"({"config": {"cur_volume": ""}})";

TEST_P(ProjectDirectoryTest, IsToldWhereTheSettingsPutIt) {
  WriteFile(kDatabases, R"({"root": {"install_dest": "%ROOTFS%"}, "odd": {"install_dest": "/x"},
                            "vol": {"install_dest": "%VOLUME%"}, "none": {}})");
  WriteFile("/usr/share/data_update/data_update.conf", GetParam().settings);
  char path[4096] = "before";
  EXPECT_EQ(TOLMDBUDGetDirectory(GetParam().database, path, sizeof path), GetParam().result);
  EXPECT_STREQ(path, GetParam().directory);
  EXPECT_EQ(Log().empty(), GetParam().result != -2);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ProjectDirectoryTest,
    ::testing::Values(Place{"OnTheVolume", kChosen, "vol", 0, "/volume1/@database/autoupdate/vol"},
                      Place{"OnTheRootFileSystem", kNoneChosen, "root", 0, "/var/db/root"},
                      Place{"OnTheRootFileSystemWithoutSettings", "", "root", 0, "/var/db/root"},
                      Place{"NoVolumeChosen", kNoneChosen, "vol", -1, "before"},
                      Place{"NoVolumeSet", "{}", "vol", -1, "before"},
                      Place{"NotConfigured", kChosen, "other", -2, "before"},
                      Place{"NoName", kChosen, "", -2, "before"},
                      Place{"NoDestination", kChosen, "none", -2, "before"},
                      Place{"UnknownDestination", kChosen, "odd", -2, "before"}),
    [](const auto& row) { return row.param.name; });

TEST_F(ProjectLockTest, DirectoryIsToldWholeOrNotAtAll) {
  char path[4096] = "";
  ASSERT_EQ(TOLMDBUDGetDirectory("x", path, sizeof path), 0);
  const std::string directory = path;
  std::string small(directory.size(), '?');
  EXPECT_EQ(TOLMDBUDGetDirectory("x", small.data(), small.size()), -3);
  EXPECT_EQ(small, std::string(directory.size(), '?'));
  EXPECT_EQ(TOLMDBUDGetDirectory("x", nullptr, 0), -3);
  std::string enough(directory.size() + 2, '?');
  EXPECT_EQ(TOLMDBUDGetDirectory("x", enough.data(), directory.size() + 1), 0);
  EXPECT_EQ(enough, directory + '\0' + '?') << "its end, and nothing behind";
}

}  // namespace
}  // namespace tolm::testing
