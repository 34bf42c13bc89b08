#include "dataupdate/file_lock.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/src/thrown.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"
#include "tolm/exec.h"

namespace tolm::dataupdate {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tolm::testing::EventChannel;
using tolm::testing::ForkedChild;
using tolm::testing::ReadFile;
using tolm::testing::ScopedMount;
using tolm::testing::SyslogCapture;
using tolm::testing::UniqueDescriptor;
using tolm::testing::WriteFile;

namespace fs = std::filesystem;

constexpr char kPath[] = "/run/data_update/some.lock";

static_assert(!std::is_polymorphic_v<FileLock>);
static_assert(!std::is_copy_constructible_v<FileLock> && !std::is_move_constructible_v<FileLock>);
static_assert(!std::is_copy_assignable_v<FileLock> && !std::is_move_assignable_v<FileLock>);
static_assert(std::is_nothrow_destructible_v<FileLock>);

/// The descriptors of this process that are open on a path.
std::vector<int> DescriptorsOn(const fs::path& path) {
  std::vector<int> descriptors;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) == path) {
      descriptors.push_back(std::stoi(entry.path().filename()));
    }
  }
  return descriptors;
}

/// Another process that holds the lock until it is told to end, or is ended.
ForkedChild Holder(const std::string& path) {
  return ForkedChild([path](EventChannel& parent) {
    const FileLock lock(path, 0);
    parent.Send("held");
    parent.Receive();
    return 0;
  });
}

mode_t ModeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

TEST(FileLockTest, FreeFileIsLockedAtOnce) {
  const FileLock lock(kPath, 0);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kPath));
}

TEST(FileLockTest, EndOfTheLockIsLogged) {
  { const FileLock lock(kPath, 0); }
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kPath,
                          std::string("Release lock on file: ") + kPath));
  EXPECT_EQ(SyslogCapture::Lines().size(), 2U);
}

TEST(FileLockTest, LogLinesNameTheirSource) {
  { const FileLock lock(kPath, 0); }
  for (const auto& line : SyslogCapture::Lines()) {
    EXPECT_EQ(line.format.rfind("%s:%d ", 0), 0U) << line.format;
    EXPECT_THAT(line.text, ::testing::MatchesRegex("file_lock:[0-9]+ .*"));
  }
}

TEST(FileLockTest, SecondHolderInTheSameProcessIsRefused) {
  const FileLock lock(kPath, 0);
  EXPECT_EQ(ErrorOf([] { FileLock second(kPath, 0); }),
            Thrown{std::string("Fail to lock ") + kPath});
}

TEST(FileLockTest, SecondHolderInAnotherProcessIsRefused) {
  ForkedChild holder = Holder(kPath);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  EXPECT_EQ(ErrorOf([] { FileLock second(kPath, 0); }),
            Thrown{std::string("Fail to lock ") + kPath});
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(FileLockTest, LockCanBeTakenAgainAfterItsEnd) {
  { const FileLock lock(kPath, 0); }
  { const FileLock lock(kPath, 0); }
  ForkedChild holder = Holder(kPath);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  holder.Channel().Send("end");
  EXPECT_EQ(holder.Process().Wait(), 0);
  const FileLock lock(kPath, 0);
}

TEST(FileLockTest, LocksOnDifferentFilesAreIndependent) {
  const FileLock one("/run/data_update/one.lock", 0);
  const FileLock two("/run/data_update/two.lock", 0);
  EXPECT_EQ(SyslogCapture::Texts(LOG_INFO).size(), 2U);
}

TEST(FileLockTest, WaiterGetsTheLockWhenTheHolderEnds) {
  ForkedChild holder = Holder(kPath);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  ForkedChild waiter([](EventChannel& parent) {
    parent.Send("waiting");
    const FileLock lock(kPath, 600);
    parent.Send("locked");
    parent.Receive();
    return 0;
  });
  ASSERT_EQ(waiter.Channel().Receive(), "waiting");
  holder.Channel().Send("end");
  EXPECT_EQ(waiter.Channel().Receive(), "locked");
  EXPECT_EQ(ErrorOf([] { FileLock third(kPath, 0); }),
            Thrown{std::string("Fail to lock ") + kPath});
}

TEST(FileLockTest, ThreadsTakeTurns) {
  std::atomic<int> inside = 0;  // Atomic for the thread sanitizer, which does not know flock.
  std::atomic<int> turns = 0;
  const auto take_turns = [&] {
    for (int i = 0; i < 5; ++i) {
      const FileLock lock(kPath, 600);
      EXPECT_EQ(++inside, 1);
      ++turns;
      --inside;
    }
  };
  std::thread other(take_turns);
  take_turns();
  other.join();
  EXPECT_EQ(turns, 10);
}

TEST(FileLockTest, KilledHolderFreesTheLock) {
  ForkedChild holder = Holder(kPath);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  holder.Process().Signal(SIGKILL);
  EXPECT_EQ(holder.Process().Wait(), 128 + SIGKILL);
  const FileLock lock(kPath, 0);
}

// The descriptor is not close-on-exec; a program that outlives its killed starter must not keep it.
TEST(FileLockTest, KilledHoldersProgramDoesNotKeepTheLock) {
  ASSERT_EQ(mkfifo("/tmp/started", 0600), 0);
  ForkedChild holder([](EventChannel&) {
    const FileLock lock(kPath, 0);
    return TLIBCExecl("/bin/sh", 0, "-c", "echo $$ > /tmp/started; exec sleep 1000",
                      static_cast<const char*>(nullptr));
  });
  pid_t program = 0;
  std::ifstream("/tmp/started") >> program;  // Waits until the program runs.
  ASSERT_GT(program, 0);
  holder.Process().Signal(SIGKILL);
  holder.Process().Wait();
  EXPECT_NO_THROW({ const FileLock lock(kPath, 0); });
  EXPECT_EQ(kill(program, SIGKILL), 0) << "the program should still have been running";
}

TEST(FileLockTest, KilledHoldersForkedChildKeepsTheLock) {
  ForkedChild holder([](EventChannel& parent) {
    const FileLock lock(kPath, 0);
    ForkedChild child([](EventChannel&) { return pause(); });
    parent.Send(std::to_string(child.Process().Pid()));
    return pause();
  });
  const pid_t child = std::stoi(holder.Channel().Receive().value());
  holder.Process().Signal(SIGKILL);
  holder.Process().Wait();
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 0); }), Thrown{std::string("Fail to lock ") + kPath});
  ASSERT_EQ(kill(child, SIGKILL), 0);
  const FileLock lock(kPath, 60);
}

TEST(FileLockTest, EndOfTheLockIsItsEndInForkedChildrenToo) {
  auto lock = std::make_unique<FileLock>(kPath, 0);
  ForkedChild child([](EventChannel& parent) {
    parent.Receive();
    return 0;
  });
  lock.reset();
  EXPECT_NO_THROW({ const FileLock again(kPath, 0); });
  EXPECT_TRUE(child.Process().IsRunning());
}

TEST(FileLockTest, ReaderWithASharedLockIsWaitedFor) {
  fs::create_directories("/run/data_update");
  UniqueDescriptor reader(open(kPath, O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), 0);
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 0); }), Thrown{std::string("Fail to lock ") + kPath});
  ASSERT_EQ(flock(reader.Get(), LOCK_UN), 0);
  const FileLock lock(kPath, 0);
  EXPECT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST(FileLockTest, FileStaysBehindAndEmpty) {
  { const FileLock lock(kPath, 0); }
  EXPECT_EQ(ReadFile(kPath), "");
}

TEST(FileLockTest, ExistingFileKeepsItsContentAndMode) {
  WriteFile(kPath, "something");
  fs::permissions(kPath, fs::perms::owner_read);
  { const FileLock lock(kPath, 0); }
  EXPECT_EQ(ReadFile(kPath), "something");
  EXPECT_EQ(ModeOf(kPath), 0400U);
}

TEST(FileLockTest, FileIsOpenedForReadingWithItsOwnMode) {
  umask(0);
  const FileLock lock(kPath, 0);
  EXPECT_EQ(ModeOf(kPath), 0644U);
  const std::vector<int> descriptors = DescriptorsOn(kPath);
  ASSERT_EQ(descriptors.size(), 1U);
  EXPECT_EQ(fcntl(descriptors[0], F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST(FileLockTest, DescriptorIsClosedWithTheLock) {
  { const FileLock lock(kPath, 0); }
  EXPECT_THAT(DescriptorsOn(kPath), IsEmpty());
}

TEST(FileLockTest, DescriptorIsClosedAfterARefusal) {
  ForkedChild holder = Holder(kPath);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  EXPECT_THROW(FileLock(kPath, 0), UpdateError);
  EXPECT_THAT(DescriptorsOn(kPath), IsEmpty());
}

TEST(FileLockTest, MissingParentsAreMadeWithTheProcessesMask) {
  umask(027);
  const FileLock lock("/run/a/b/c.lock", 0);
  EXPECT_EQ(ModeOf("/run/a"), 0750U);
  EXPECT_EQ(ModeOf("/run/a/b"), 0750U);
  EXPECT_EQ(ModeOf("/run/a/b/c.lock"), 0640U);
}

TEST(FileLockTest, MakeDirMakesWhatIsAboveThePath) {
  FileLock::MakeDir("/run/a/b/c.lock");
  EXPECT_TRUE(fs::is_directory("/run/a/b"));
  EXPECT_FALSE(fs::exists("/run/a/b/c.lock"));
  EXPECT_NO_THROW(FileLock::MakeDir("/run/a/b/c.lock"));
}

TEST(FileLockTest, ParentThatCannotBeMadeIsReportedWithTheSystemsText) {
  WriteFile("/run/file", "");
  std::string reason;
  try {
    boost::filesystem::create_directories("/run/file/sub");
  } catch (const boost::filesystem::filesystem_error& error) {
    reason = error.what();
  }
  ASSERT_NE(reason, "");
  EXPECT_EQ(ErrorOf([] { FileLock lock("/run/file/sub/a.lock", 0); }),
            Thrown{"Fail to create dir " + reason});
  EXPECT_EQ(ErrorOf([] { FileLock::MakeDir("/run/file/sub/a.lock"); }),
            Thrown{"Fail to create dir " + reason});
}

TEST(FileLockTest, ReadOnlyParentIsReportedAsADirectoryFailure) {
  const ScopedMount mount = ScopedMount::ReadOnly("/run");
  const Thrown thrown = ErrorOf([] { FileLock lock(kPath, 0); });
  EXPECT_EQ(thrown.message.rfind("Fail to create dir ", 0), 0U) << thrown;
  EXPECT_NE(thrown.message.find("/run/data_update"), std::string::npos) << thrown;
}

TEST(FileLockTest, FileThatCannotBeOpenedIsReported) {
  fs::create_directories(kPath);
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 0); }),
            Thrown{std::string("Fail open lock file ") + kPath});
}

TEST(FileLockTest, FileThatCannotBeCreatedIsReported) {
  fs::create_directories("/run/data_update");
  const ScopedMount mount = ScopedMount::ReadOnly("/run/data_update");
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 600); }),
            Thrown{std::string("Fail open lock file ") + kPath});
}

}  // namespace
}  // namespace tolm::dataupdate
