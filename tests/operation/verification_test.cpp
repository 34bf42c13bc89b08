#include "operation/verification.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/installed_record.h"
#include "operation/installed_tree.h"
#include "operation/interrupt.h"
#include "operation/last_verification.h"
#include "operation/lock_holder.h"
#include "operation/run.h"
#include "operation/settings_check.h"
#include "tests/support/files.h"
#include "tests/support/journal_socket.h"
#include "tests/support/later_clock.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace {

std::function<void()> while_waiting;  // Runs once, in place of the first rest between two looks.

}  // namespace

#pragma GCC visibility push(default)
int usleep(useconds_t microseconds) {
  if (while_waiting) {
    std::exchange(while_waiting, nullptr)();
    return 0;
  }
  using Call = int(useconds_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "usleep"));
  return real(microseconds);
}
#pragma GCC visibility pop

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using testing::JournalEntry;
using testing::WriteFile;

const fs::path kInstalled = "/var/db/oui";
const fs::path kState = "/var/lib/data_update/oui";
constexpr char kDatabaseLock[] = "/run/data_update/update_oui.lock";
constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

void Configure(const std::string& destination, const std::string& volume = "/volume1") {
  WriteFile(paths::kDatabaseDefaults,
            R"({"oui": {"format_version": "1", "install_dest": ")" + destination + "\"}}");
  WriteFile(paths::kServiceDefaults,
            R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1", "db_ver": "1",
                           "cur_volume": ")" +
                volume + "\"}}");
}

void WriteVersion(int version, const std::string& files = "{}") {
  WriteFile(kState / "version.json", R"({"data_version": ")" + std::to_string(version) +
                                         R"(", "last_fetch_time": 1700000000, "file_statuses": )" +
                                         files + "}");
}

void RecordInstalledFiles() {
  const InstalledTree tree = LookAt(kInstalled);
  InstalledRecord record{7, VersionFileDigest("oui"), tree.fingerprint, {}};
  for (const TreeFile& file : tree.files) {
    record.files[file.name] = {file, DigestOf(kInstalled, file, [] {})};
  }
  WriteRecord("oui", record);
}

// Returns when that is known here.
void Terminate() {
  ASSERT_EQ(kill(getpid(), SIGTERM), 0);
  ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
}

testing::UniqueDescriptor Hold(const char* lock_file) {
  testing::UniqueDescriptor lock(open(lock_file, O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
  return lock;
}

// Something happens while a database is looked at of which nothing but version.json is recorded.
class DisturbedInfo : public RecordingInfoGetter {
 public:
  using RecordingInfoGetter::RecordingInfoGetter;

  dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& name) const override {
    if (disturb) {
      disturb();
    }
    return RecordingInfoGetter::GetDatabaseStatus(name);
  }

  std::function<void()> disturb;
};

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

class VerificationTest : public ::testing::Test {
 protected:
  VerificationTest() {
    Configure("%ROOTFS%");
    service_.info = info_;
  }
  ~VerificationTest() override { tolm::testing::passed_seconds = 0; }

  void Install() {
    testing::MakeTree(kInstalled, {{"a", "one"}, {"b", "two"}, {"link -> a", ""}, {"sub/c", "3"}});
    WriteVersion(7);
    RecordInstalledFiles();
  }

  Verification Verify() const { return VerifyRecorded(service_, "oui"); }

  Service service_ = BuildService([](const std::string&) {});
  const std::shared_ptr<DisturbedInfo> info_ =
      std::make_shared<DisturbedInfo>(std::make_shared<dataupdate::IOUtils>(), service_.config);
};

TEST_F(VerificationTest, SaysOfEveryRecordedFileWhatIsAmissAndRemembersIt) {
  Install();
  WriteFile(kInstalled / "a", "ONE");
  fs::remove(kInstalled / "b");
  fs::remove(kInstalled / "link");
  ASSERT_EQ(chmod((kInstalled / "sub/c").c_str(), 04755), 0);
  WriteFile(kInstalled / "more", "");
  const testing::JournalSocket journal;
  const Verification result = Verify();
  EXPECT_EQ(result.version, 7);
  EXPECT_FALSE(result.cut_short);
  EXPECT_EQ(result.checked_files, 3u);
  EXPECT_EQ(result.installed_files, 4u);
  EXPECT_EQ(result.not_compared, 0u);
  EXPECT_TRUE(result.foreign.empty());
  std::map<std::string, std::string> damaged;
  for (const DamagedFile& file : result.damaged) {
    damaged[file.file] = file.problem;
  }
  EXPECT_EQ(damaged,
            (std::map<std::string, std::string>{{"a", "content differs"},
                                                {"b", "missing"},
                                                {"sub/c", "has the mode 4755 in place of 644"}}));
  ASSERT_TRUE(LookForVerification("oui"));
  EXPECT_EQ(LookForVerification("oui")->checked_files, 3u);
  EXPECT_EQ(LookForVerification("oui")->damaged_files, 3u);
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].at("TOLMDBUD_DAMAGED_FILES"), "3");
}

TEST_F(VerificationTest, EveryFileIsReadOnce) {
  constexpr int kFiles = 200;
  for (int i = 0; i < kFiles; ++i) {
    WriteFile(kInstalled / std::to_string(i), "content");
  }
  WriteVersion(7);
  RecordInstalledFiles();
  const testing::UniqueDescriptor watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(watch.Get(), kInstalled.c_str(), IN_OPEN), 0);
  EXPECT_TRUE(Verify().IsIntact());
  std::map<std::string, int> openings;
  alignas(inotify_event) char events[64 << 10];
  const ssize_t size = read(watch.Get(), events, sizeof events);
  for (const char* at = events; at < events + size;) {
    const auto* const event = reinterpret_cast<const inotify_event*>(at);
    if (event->len > 0) {
      ++openings[event->name];
    }
    at += sizeof *event + event->len;
  }
  EXPECT_EQ(openings.size(), std::size_t{kFiles});
  for (const auto& [name, times] : openings) {
    EXPECT_EQ(times, 1) << name;
  }
}

TEST_F(VerificationTest, NothingIsSaidOfWhatIsNotInstalled) {
  testing::MakeTree(kInstalled, {{"stray", "x"}});
  for (const auto verify : {VerifyRecorded, VerifyAgainstPackage}) {
    const Verification result = verify(service_, "oui");
    EXPECT_EQ(result.version, kNeverInstalled);
    EXPECT_EQ(result.checked_files, 0u);
    EXPECT_EQ(result.installed_files, 0u);
    EXPECT_EQ(result.not_compared, 0u);
    EXPECT_TRUE(result.IsIntact());
    EXPECT_FALSE(LookForVerification("oui"));
    EXPECT_TRUE(fs::exists("/run/data_update/using_oui.lock")) << "readers need it";
    fs::remove_all(paths::kLockDirectory);
  }
}

TEST_F(VerificationTest, NeedsSoundSettingsAConfiguredNameAndTheVolume) {
  for (const auto verify : {VerifyRecorded, VerifyAgainstPackage}) {
    EXPECT_EQ(ErrorOf([&] { verify(service_, "nope"); }), "Project nope not supported");
    Configure("%VOLUME%", "/volume7");
    EXPECT_THROW(verify(service_, "oui"), NoVolume);
    WriteFile(kOverrides, "{");
    EXPECT_THROW(verify(service_, "oui"), DamagedSettings);
    fs::remove(kOverrides);
    Configure("%ROOTFS%");
  }
}

TEST_F(VerificationTest, HoldsTheLocksOfAnOperation) {
  WriteVersion(7);
  std::vector<std::string> held;
  info_->disturb = [&] {
    for (const char* lock : {paths::kOperatorLock, paths::kUpdateAnyLock, kDatabaseLock}) {
      if (IsHeld(lock)) {
        held.emplace_back(lock);
      }
    }
  };
  Verify();
  EXPECT_THAT(held, ElementsAre(paths::kOperatorLock, paths::kUpdateAnyLock, kDatabaseLock));
  EXPECT_FALSE(IsHeld(paths::kOperatorLock));
}

TEST_F(VerificationTest, SignalEndsItAlsoWhereNoFileIsThere) {
  WriteVersion(7, R"({"/a": {"sha384_digest": ")" + std::string(96, 'a') + "\"}}");
  ASSERT_EQ(Verify().damaged.size(), 1u);
  const Interrupt interrupt;
  info_->disturb = Terminate;
  EXPECT_THROW(Verify(), Interrupted);
}

// Of an account that may not take the locks.
class WatchedVerificationTest : public VerificationTest {
 protected:
  void SetUp() override {
    if (!testing::HasOrdinaryAccount()) {
      GTEST_SKIP() << testing::kNoOrdinaryAccount;
    }
    Install();
    Verify();  // The lock files are there from now on.
    fs::remove(kState / "installed.json");
    fs::remove(kState / "verified.json");
    info_->disturb = [&] { AsRoot(disturb_); };
    ASSERT_EQ(chmod(paths::kOperatorLock, 0600), 0);
  }
  void TearDown() override { EXPECT_EQ(setresuid(0, 0, 0), 0); }

  static void BecomeOrdinary() {
    constexpr uid_t kAccount = testing::kOrdinaryAccount;
    ASSERT_EQ(setresuid(kAccount, kAccount, 0), 0);
  }

  static void AsRoot(const std::function<void()>& action) {
    if (action) {
      ASSERT_EQ(setresuid(0, 0, 0), 0);
      action();
      BecomeOrdinary();
    }
  }

  std::string Refusal() const {
    return ErrorOf([&] { Verify(); });
  }

  std::function<void()> disturb_;
};

TEST_F(WatchedVerificationTest, LooksWithoutTheLocksAndRemembersNothing) {
  const testing::JournalSocket journal;
  ASSERT_EQ(chmod("/run/systemd/journal/socket", 0666), 0);
  WriteFile(kState / "recovery.mark", "");
  BecomeOrdinary();
  const Verification result = Verify();
  EXPECT_EQ(result.version, 7);
  EXPECT_TRUE(result.cut_short);
  EXPECT_EQ(result.not_compared, 4u);
  EXPECT_FALSE(fs::exists(kState / "verified.json"));
  EXPECT_EQ(journal.Entries().size(), 1u);
}

TEST_F(WatchedVerificationTest, OperationThatBeganMeanwhileMakesItWorthless) {
  testing::UniqueDescriptor lock;
  const std::map<std::string, std::function<void()>> operations = {
      {"HoldsALock", [&] { lock = Hold(kDatabaseLock); }},
      {"IsMarked", [] { WriteFile(kState / "recovery.mark", ""); }},
      {"HasInstalled", [] { WriteVersion(70); }},
      {"HasSetAside", [] { fs::rename(kState / "version.json", kState / "version.json.aside"); }},
  };
  BecomeOrdinary();
  EXPECT_EQ(Refusal(), "");
  for (const auto& [name, operation] : operations) {
    disturb_ = operation;
    EXPECT_EQ(Refusal(), "an operation has begun meanwhile; what was seen counts for nothing")
        << name;
    disturb_ = nullptr;
    lock = testing::UniqueDescriptor();
    AsRoot([] {
      fs::remove(kState / "recovery.mark");
      WriteVersion(7);
    });
  }
}

TEST_F(WatchedVerificationTest, WaitsForAnOperationUntilASignalOrForTenMinutes) {
  testing::UniqueDescriptor lock = Hold(paths::kUpdateAnyLock);
  BecomeOrdinary();
  while_waiting = [] { tolm::testing::passed_seconds += 601; };
  EXPECT_EQ(Refusal(), "an operation is running");
  while_waiting = [&] { lock = testing::UniqueDescriptor(); };
  EXPECT_EQ(Refusal(), "");
  EXPECT_FALSE(while_waiting) << "nothing was waited for";

  AsRoot([&] { lock = Hold(paths::kUpdateAnyLock); });
  const Interrupt interrupt;
  while_waiting = Terminate;
  EXPECT_THROW(Verify(), Interrupted);
}

}  // namespace
}  // namespace tolm::operation
