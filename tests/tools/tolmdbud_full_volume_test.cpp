// The installed tool on file systems that are full or fill up: whatever step finds no space, the
// operation says so, leaves no wrong files that pass for right ones, and can be done when there is
// space again.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iostream>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/operation/versioned_device.h"
#include "tests/support/killed_run.h"
#include "tests/support/moments.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using Commands = std::vector<std::vector<std::string>>;

constexpr char kVolume[] = "/volume1";
constexpr char kRecords[] = "/var/lib/data_update";
constexpr char kCache[] = "/var/cache/data_update";
constexpr char kFiller[] = "/volume1/filler";
constexpr char kUpdated[] = "oui: updated to 70003\n";
constexpr char kRepaired[] = "oui: repaired with 70003\n";
constexpr char kForced[] = "oui: force-installed 70000\n";
const std::vector<std::string> kUpdate = {"update", "oui"};
const std::vector<std::string> kFix = {"fix", "oui"};
const std::vector<std::string> kForce = {"force-install", "oui", "--version", "70000"};

// What an operation left behind.
enum class Left { kNothingChanged, kCutShort, kDone };

struct Snapshot {
  Tree files;
  std::string record;

  bool operator==(const Snapshot& other) const {
    return files == other.files && record == other.record;
  }
};

class FullTest : public VersionedDeviceTest {
 protected:
  using VersionedDeviceTest::VersionedDeviceTest;

  void Damage() {
    Install(kNew);
    WriteFile(prefix_ / "a.bin", "damaged");
    fs::remove(prefix_ / "keep/3");
  }

  Snapshot Take() const {
    return {fs::exists(prefix_) ? ReadTree(prefix_) : Tree(),
            fs::exists(version_file_) ? ReadFile(version_file_) : ""};
  }

  bool HasOtherVersion() const {
    const Tree now = Take().files;
    Tree both = into_nothing_ ? Tree() : new_;
    both.insert(other_.begin(), other_.end());
    return now == both && InstalledVersion("oui") == std::to_string(kOther);
  }

  // Without the line that says why all of it is installed again.
  static std::string WithoutReason(const std::string& err) {
    const std::string reason =
        "tolmdbud: oui: a.bin has another size; the database is installed "
        "in full\n";
    return err.rfind(reason, 0) == 0 ? err.substr(reason.size()) : err;
  }

  // But for that line, and the one that says that a delta found no room where the full package did.
  static std::string WithoutNotes(const std::string& err) {
    return std::regex_replace(WithoutReason(err),
                              std::regex("tolmdbud: oui delta [^\\n]*; the full package was taken, "
                                         "[0-9.]+ k?B\n"),
                              "");
  }

  // One line that names the step or the file.
  static void ExpectClearFailure(const CommandResult& result) {
    const std::string failure = WithoutReason(result.err);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(CountLines(failure), 1) << failure;
    EXPECT_THAT(failure, StartsWith("tolmdbud: oui"));
    EXPECT_THAT(
        failure,
        AnyOf(HasSubstr("no room on /"), HasSubstr("the download does not fit on its disk"),
              HasSubstr(" cannot be made"), HasSubstr("Fail to make /volume1/@tmp"),
              HasSubstr("Fail open lock file /run/"), HasSubstr("Fail to full update: "),
              HasSubstr("Fail to diff update: "), HasSubstr("Fail to force install: "),
              HasSubstr("Fail to open /var/lib/data_update/"), HasSubstr("Fail to sync /"),
              HasSubstr("Fail to sync the file system of /"), HasSubstr("Fail to write: /var/lib/"),
              HasSubstr("Fail to write /var/lib/data_update/"),
              HasSubstr("Fail to make /run/data_update/"), HasSubstr("; make room there\n")));
  }

  // Either the right files are there, or nobody says so, and what is there is the old or is marked.
  Left ExpectSafe(const CommandResult& result, const Snapshot& before, const std::string& says) {
    EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
    const bool done = says == kForced ? HasOtherVersion() : HasNewVersion();
    if (result.exit_status == 0) {
      EXPECT_EQ(result.out, says);
      EXPECT_EQ(WithoutNotes(result.err), "");
      EXPECT_TRUE(done) << ::testing::PrintToString(ListTree(prefix_));
      EXPECT_FALSE(fs::exists(mark_));
      return Left::kDone;
    }
    ExpectClearFailure(result);
    if (Take() == before) {
      return Left::kNothingChanged;
    }
    EXPECT_TRUE(done || fs::exists(mark_)) << ::testing::PrintToString(ListTree(prefix_));
    return done ? Left::kDone : Left::kCutShort;
  }

  bool into_nothing_ = false;  // A forced installation finds no files there.

  // When there is space again.
  void ExpectRecovery(const Commands& commands) {
    for (const std::vector<std::string>& command : commands) {
      const CommandResult result = Tool(command);
      EXPECT_EQ(result.exit_status, 0) << command.front() << ": " << result.err;
    }
    ExpectNewVersion();
  }
};

// The calls of the tool itself fail; what it starts does its work.
class ShortageTest : public FullTest {
 protected:
  struct Operation {
    std::vector<std::string> arguments;
    std::string says;
    Commands recovery;
  };

  static Operation Update() { return {kUpdate, kUpdated, {kUpdate}}; }
  static Operation Fix() { return {kFix, kRepaired, {kFix, kUpdate}}; }
  static Operation ForceInstall() { return {kForce, kForced, {kUpdate}}; }

  // Tries the operation with every kind of shortage below the directory, each time from the state
  // that is installed now.
  void FillEverywhere(const std::string& directory, const Operation& operation) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), operation.arguments.begin(), operation.arguments.end());
    Keep();
    Restore();
    const std::vector<std::string> calls = TraceSpaceUse(command, directory);
    ASSERT_FALSE(calls.empty());
    const std::size_t step = MomentStep(calls.size());
    for (const std::size_t count : {kForEver, std::size_t{1}}) {
      std::map<Left, int> ends;
      // The last call is one of them for ever, its neighbour once.
      const std::size_t last = calls.size() - (count == 1 && step > 1 ? 1 : 0);
      for (std::size_t first = (last - 1) % step + 1; first <= last; first += step) {
        SCOPED_TRACE((count == 1 ? "no space at call " : "no space from call ") +
                     std::to_string(first) + ": " + calls[first - 1]);
        Restore();
        const Snapshot before = Take();
        const CommandResult result = RunInShortage(command, {directory, first, count});
        const Left left = ExpectSafe(result, before, operation.says);
        if (count == kForEver && first <= CallsBeforeInstallation(calls)) {
          EXPECT_EQ(left, Left::kNothingChanged);
          EXPECT_FALSE(fs::exists(mark_)) << "with nothing to recover from";
        }
        ++ends[left];
        ExpectRecovery(operation.recovery);
      }
      std::cout << "full below " << directory << (count == 1 ? " at" : " from") << " the calls of "
                << calls.size() << ": " << ends[Left::kNothingChanged] << " changed nothing, "
                << ends[Left::kCutShort] << " were cut short, " << ends[Left::kDone]
                << " were done\n";
    }
  }

 private:
  std::size_t CallsBeforeInstallation(const std::vector<std::string>& calls) const {
    const auto installs = [this](const std::string& call) {
      return call.find(' ' + prefix_.string() + '/') != std::string::npos ||
             call.find(version_file_) != std::string::npos || call.rfind("syncfs", 0) == 0;
    };
    return static_cast<std::size_t>(std::find_if(calls.begin(), calls.end(), installs) -
                                    calls.begin());
  }
};

TEST_F(ShortageTest, VolumeDuringAnUpdateByDeltas) {
  Install(kOld);
  OfferNewByDeltas();
  FillEverywhere(kVolume, Update());
}

TEST_F(ShortageTest, VolumeDuringAnUpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  FillEverywhere(kVolume, Update());
}

TEST_F(ShortageTest, VolumeDuringAFix) {
  Damage();
  FillEverywhere(kVolume, Fix());
}

TEST_F(ShortageTest, VolumeDuringAForcedInstallation) {
  Install(kNew);
  FillEverywhere(kVolume, ForceInstall());
}

// Of packages that are read once, members come into a directory of their own first.
class ShortageAtOnceTest : public ShortageTest {
 protected:
  void SetUp() override {
    publisher_.SetCompression("xz");
    ShortageTest::SetUp();
  }

  void FillVolume(const Operation& operation) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), operation.arguments.begin(), operation.arguments.end());
    Keep();
    Restore();
    const std::vector<std::string> calls = TraceSpaceUse(command, kVolume);
    ASSERT_TRUE(std::any_of(calls.begin(), calls.end(), [](const std::string& call) {
      return call.find("-staging/") != std::string::npos;
    })) << ::testing::PrintToString(calls);
    Restore();
    FillEverywhere(kVolume, operation);
  }
};

TEST_F(ShortageAtOnceTest, VolumeDuringAnUpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  FillVolume(Update());
}

TEST_F(ShortageAtOnceTest, VolumeDuringAForcedInstallationIntoNothing) {
  Clear();
  fs::create_directories("/volume1/@database");
  fs::create_directories(kRecords);
  OfferNewInFull();
  into_nothing_ = true;
  FillVolume(ForceInstall());
}

TEST_F(ShortageTest, RecordsDuringAnUpdateByDeltas) {
  Install(kOld);
  OfferNewByDeltas();
  FillEverywhere(kRecords, Update());
}

TEST_F(ShortageTest, RecordsDuringAFix) {
  Damage();
  FillEverywhere(kRecords, Fix());
}

TEST_F(ShortageTest, RecordsDuringAForcedInstallation) {
  Install(kNew);
  FillEverywhere(kRecords, ForceInstall());
}

TEST_F(ShortageTest, CacheDuringAnUpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  fs::remove_all(kCache);
  FillEverywhere("/var/cache", Update());
}

TEST_F(ShortageTest, LocksDuringAnUpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  FillEverywhere("/run", Update());
}

// What programs on this machine send to the system log.
class SystemLog {
 public:
  SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (bind(socket_.Get(), Address(), sizeof kAddress) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot receive the system log");
    }
    reader_ = std::thread(&SystemLog::Read, this);
  }
  ~SystemLog() {
    shutdown(socket_.Get(), SHUT_RD);
    reader_.join();
  }
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

  // Everything since the last call. Who has logged it must have ended.
  std::string Take() {
    const std::string end = "end of what was asked for";
    EXPECT_GT(sendto(socket_.Get(), end.data(), end.size(), 0, Address(), sizeof kAddress), 0);
    EXPECT_TRUE(WaitUntil([&] { return Text().find(end) != std::string::npos; }));
    const std::lock_guard<std::mutex> guard(mutex_);
    return std::exchange(text_, {});
  }

 private:
  static constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};
  static const sockaddr* Address() { return reinterpret_cast<const sockaddr*>(&kAddress); }

  std::string Text() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return text_;
  }

  void Read() {
    std::array<char, 8192> message;
    for (ssize_t size; (size = recv(socket_.Get(), message.data(), message.size(), 0)) > 0;) {
      const std::lock_guard<std::mutex> guard(mutex_);
      text_.append(message.data(), static_cast<std::size_t>(size)) += '\n';
    }
  }

  const UniqueDescriptor socket_;
  std::mutex mutex_;
  std::string text_;
  std::thread reader_;
};

std::uint64_t FreeBytes(const char* directory) {
  struct statvfs status = {};
  EXPECT_EQ(statvfs(directory, &status), 0);
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

// Takes all the space but so much, through a file below the directory.
void LeaveFree(const std::string& directory, std::uint64_t bytes) {
  const std::string filler = directory + "/filler";
  fs::remove(filler);
  const UniqueDescriptor file(open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::uint64_t free_bytes = FreeBytes(directory.c_str());
  ASSERT_GE(free_bytes, bytes);
  if (free_bytes > bytes) {
    ASSERT_EQ(posix_fallocate(file.Get(), 0, static_cast<off_t>(free_bytes - bytes)), 0);
  }
  ASSERT_EQ(FreeBytes(directory.c_str()), bytes);
}

// A volume that is really full. Its files are many and tiny, so that they take much more room than
// their sizes promise: the checks before the steps do not catch every shortage.
class FullVolumeTest : public FullTest {
 protected:
  static constexpr std::uint64_t kVolumeBytes = 16 << 20;
  static constexpr std::uint64_t kPage = 4096;

  // Less is left alone by downloads.
  static constexpr std::uint64_t kReserve = kVolumeBytes / 20 / kPage * kPage;

  FullVolumeTest()
      : FullTest({1 << 20, 4, 500}), volume_(ScopedMount::Tmpfs(kVolume, kVolumeBytes)) {
    // All takes more than the reserve; what is unpacked into place takes more than it promises.
    other_["other/large"] = std::string(1000000, 'l');
    other_["other/tiny/"] = "";
    for (int i = 0; i < 400; ++i) {
      other_["other/tiny/" + std::to_string(i)] = "t";
    }
  }

  void SetUp() override {
    FullTest::SetUp();
    Install(kOld);
  }

  // Runs the command from the present state with every amount of free space, from the least on.
  void Sweep(std::uint64_t least, std::uint64_t step, int points,
             const std::vector<std::string>& arguments, const std::string& says) {
    Keep();
    for (int i = 0; i < points; ++i) {
      const std::uint64_t free_bytes = least + step * static_cast<unsigned>(i);
      SCOPED_TRACE(std::to_string(free_bytes) + " bytes are free");
      Restore();
      LeaveFree(kVolume, free_bytes);
      const Snapshot before = Take();
      log_.Take();
      const CommandResult result = Tool(arguments);
      const Left left = ExpectSafe(result, before, says);
      Count(result, left);
      fs::remove(kFiller);
      ExpectRecovery({kUpdate});
    }
    for (const auto& [what, count] : steps_) {
      std::cout << count << " times: " << what << '\n';
    }
  }

  // Where the runs of Sweep() ended, and where their deltas did.
  std::vector<std::string> Steps() const {
    std::vector<std::string> steps;
    for (const auto& [step, count] : steps_) {
      steps.push_back(step);
    }
    return steps;
  }

 private:
  static std::string StepOf(const std::string& message) {
    const std::vector<std::pair<std::string, std::string>> steps = {
        {"Fail to force install", "unpacking into place"},
        {"Fail to full update", "installing"},
        {"Fail to diff update", "installing the patched files"},
        {"Disk space is too low", "the reserve"},
        {"Fail to wget url", "download"},
        {"tolmarchive_extract", "unpacking"},
        {"Fail to copy from " + prefix_of_installed_, "making a work copy"},
        {"Fail to copy from", "copying"},
        {"Fail to apply vcdiff", "decoding"},
        {"Fail apply sql cmd", "SQL"}};
    for (const auto& [part, step] : steps) {
      if (message.find(part) != std::string::npos) {
        return step;
      }
    }
    return "unknown: " + message;
  }

  void Count(const CommandResult& result, Left left) {
    const std::string log = log_.Take();
    const std::size_t at = log.find("try full update: ");
    if (at != std::string::npos && log.find("No sufficient diff patched") == std::string::npos) {
      ++steps_["deltas: " + StepOf(log.substr(at, log.find('\n', at) - at))];
    }
    const std::string end = left == Left::kNothingChanged ? ", nothing changed"
                            : left == Left::kCutShort     ? ", cut short"
                                                          : "";
    ++steps_[(result.exit_status == 0 ? "done" : StepOf(LastMessage())) + end];
  }

  inline static const std::string prefix_of_installed_ = kVolumePrefix / "oui";
  const ScopedMount volume_;
  SystemLog log_;
  std::map<std::string, int> steps_;
};

TEST_F(FullVolumeTest, UpdateByDeltasWithAnyFreeSpace) {
  OfferNewByDeltas();
  Sweep(0, 32 * kPage, 60, kUpdate, kUpdated);
  EXPECT_THAT(Steps(),
              IsSupersetOf({"deltas: download", "deltas: unpacking", "deltas: making a work copy",
                            "deltas: decoding", "deltas: copying", "download, nothing changed",
                            "unpacking, nothing changed", "the reserve, nothing changed",
                            "installing, cut short", "done"}));
}

TEST_F(FullVolumeTest, UpdateInFullWithAnyFreeSpace) {
  OfferNewInFull();
  const int points = static_cast<int>(Moments(30, 60));
  Sweep(0, 60 * 32 * kPage / static_cast<unsigned>(points), points, kUpdate, kUpdated);
  EXPECT_THAT(Steps(), UnorderedElementsAre(
                           "download, nothing changed", "unpacking, nothing changed",
                           "the reserve, nothing changed", "installing, cut short", "done"));
}

TEST_F(FullVolumeTest, ForcedInstallationWithAnyFreeSpace) {
  Install(kNew);
  Sweep(kReserve - kPage, 32 * kPage, 18, kForce, kForced);
  EXPECT_THAT(Steps(), UnorderedElementsAre("download, nothing changed",
                                            "unpacking into place, nothing changed",
                                            "unpacking into place, cut short", "done"));
}

class VanishingSpaceTest;

// When the space goes away, and what is left then.
struct Vanishing {
  std::string name;
  void (VanishingSpaceTest::*arrange)();
  std::vector<std::string> arguments;
  std::string says;  // When the operation succeeds all the same.
  Left left;
};

class VanishingSpaceTest : public FullVolumeTest, public ::testing::WithParamInterface<Vanishing> {
 public:
  void BeforeTheFirstDelta() {
    OfferNewByDeltas();
    FillAtRequestOf(publisher_.DeltaPackage("oui", kBetween));
  }
  void BeforeTheSecondDelta() {
    OfferNewByDeltas();
    FillAtRequestOf(publisher_.DeltaPackage("oui", kNew));
  }
  void BeforeTheFullPackage() {
    OfferNewInFull();
    FillAtRequestOf(publisher_.FullPackage("oui", kNew));
  }
  void BeforeTheDecoder() {
    OfferNewByDeltas();
    WrapDecoder(std::string(kFill) + "; " + kDecode);
  }
  void AfterTheDecoder() {
    OfferNewByDeltas();
    WrapDecoder(std::string(kDecode) + " && { " + kFill + "; exit 0; }");
  }
  void BeforeTheChangeByDeltas() {
    OfferNewByDeltas();
    InstallPlugin("pre");
  }
  void BeforeTheChangeInFull() {
    OfferNewInFull();
    InstallPlugin("pre");
  }
  void BeforeTheRepair() {
    Damage();
    InstallPlugin("pre");
  }
  void AfterTheChange() {
    OfferNewInFull();
    InstallPlugin("post");
  }
  void BeforeTheForcedPackage() {
    Install(kNew);
    FillAtRequestOf(publisher_.FullPackage("oui", kOther));
  }

 protected:
  void GiveSpaceBack() {
    fs::remove(kFiller);
    fs::remove(kPlugins / "fill");
    if (fs::exists(kTrueDecoder)) {
      InstallProgram(kDecoder, kDecode);
    }
    if (!spoilt_.empty()) {
      publisher_.Server().Reset(spoilt_);
    }
  }

 private:
  static constexpr char kFill[] = "cat /dev/zero >/volume1/filler 2>/tmp/full";
  static constexpr char kTrueDecoder[] = "/tmp/decoder";
  static constexpr char kDecode[] = R"(/tmp/decoder "$@")";
  static constexpr char kDecoder[] = "/usr/tolm/sbin/tolmdbudvcdiff";

  void FillAtRequestOf(const fs::path& package) {
    spoilt_ = Publisher::PathOf(package);
    HttpAnswer answer;
    answer.body_file = package;
    publisher_.Server().SetHandler(spoilt_, [answer](const HttpRequest&) {
      LeaveFree(kVolume, 0);
      return answer;
    });
  }

  static void WrapDecoder(const std::string& script) {
    fs::copy_file(kDecoder, kTrueDecoder);
    InstallProgram(kDecoder, script);
  }

  static void InstallPlugin(const std::string& action) {
    InstallProgram(kPlugins / "fill", "[ $1 = " + action + " ] && " + kFill + "; exit 0");
  }

  static void InstallProgram(const fs::path& path, const std::string& script) {
    fs::remove(path);
    WriteFile(path, "#!/bin/sh\n" + script + "\n");
    fs::permissions(path, fs::perms::owner_all);
  }

  std::string spoilt_;
};

TEST_P(VanishingSpaceTest, IsSurvived) {
  (this->*GetParam().arrange)();
  const Snapshot before = Take();
  const CommandResult result = Tool(GetParam().arguments);
  EXPECT_TRUE(fs::exists(kFiller)) << "nothing took the space away";
  EXPECT_EQ(ExpectSafe(result, before, GetParam().says), GetParam().left) << result.err;
  GiveSpaceBack();
  if (GetParam().left == Left::kCutShort) {
    EXPECT_THAT(Tool(kFix).err, HasSubstr("an earlier operation was cut short"));
  }
  ExpectRecovery({kUpdate});
}

INSTANTIATE_TEST_SUITE_P(
    Moments, VanishingSpaceTest,
    ::testing::Values(Vanishing{"BeforeTheFirstDelta", &VanishingSpaceTest::BeforeTheFirstDelta,
                                kUpdate, kUpdated, Left::kNothingChanged},
                      Vanishing{"BeforeTheSecondDelta", &VanishingSpaceTest::BeforeTheSecondDelta,
                                kUpdate, kUpdated, Left::kNothingChanged},
                      Vanishing{"BeforeTheFullPackage", &VanishingSpaceTest::BeforeTheFullPackage,
                                kUpdate, kUpdated, Left::kNothingChanged},
                      Vanishing{"BeforeTheDecoder", &VanishingSpaceTest::BeforeTheDecoder, kUpdate,
                                kUpdated, Left::kNothingChanged},
                      Vanishing{"AfterTheDecoder", &VanishingSpaceTest::AfterTheDecoder, kUpdate,
                                kUpdated, Left::kNothingChanged},
                      Vanishing{"BeforeTheChangeByDeltas",
                                &VanishingSpaceTest::BeforeTheChangeByDeltas, kUpdate, kUpdated,
                                Left::kCutShort},
                      Vanishing{"BeforeTheChangeInFull", &VanishingSpaceTest::BeforeTheChangeInFull,
                                kUpdate, kUpdated, Left::kCutShort},
                      Vanishing{"BeforeTheRepair", &VanishingSpaceTest::BeforeTheRepair, kFix,
                                kRepaired, Left::kCutShort},
                      Vanishing{"AfterTheChange", &VanishingSpaceTest::AfterTheChange, kUpdate,
                                kUpdated, Left::kDone},
                      Vanishing{"BeforeTheForcedPackage",
                                &VanishingSpaceTest::BeforeTheForcedPackage, kForce, kForced,
                                Left::kNothingChanged}),
    [](const auto& row) { return row.param.name; });

// The file systems of the records and of the description are full.
class FullStateTest : public FullTest {
 protected:
  // Full by itself: where the attempt cannot be written down there would be no update at all.
  static constexpr char kDatabaseRecords[] = "/var/lib/data_update/oui";
  static constexpr std::uint64_t kPage = 4096;

  // So many files of one byte make a record of more than a page.
  FullStateTest() : FullTest({10000, 4, 40}) {}

  // An empty file system of so many pages in place of the directory.
  static ScopedMount MountAt(const std::string& directory, std::uint64_t pages) {
    fs::remove_all(directory);
    return ScopedMount::Tmpfs(directory, pages * kPage);
  }

  // The same with what the directory holds.
  static ScopedMount MountUnder(const std::string& directory, std::uint64_t pages) {
    const TemporaryDirectory kept;
    fs::create_directories(directory);
    fs::copy(directory, kept.Path(), fs::copy_options::recursive);
    ScopedMount mounted = MountAt(directory, pages);
    fs::copy(kept.Path(), directory, fs::copy_options::recursive);
    return mounted;
  }

  // From now on no file can be made.
  static void TakeAllNames(const std::string& directory) {
    struct statvfs status = {};
    ASSERT_EQ(statvfs(directory.c_str(), &status), 0);
    const std::string limit = "nr_inodes=" + std::to_string(status.f_files - status.f_ffree);
    ASSERT_EQ(mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT, limit.c_str()), 0);
  }
  static void GiveNamesBack(const std::string& directory) {
    ASSERT_EQ(mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT, "nr_inodes=1000"), 0);
  }

  void ExpectFailure(const std::vector<std::string>& arguments, Left left,
                     const std::string& says) {
    const Snapshot before = Take();
    const CommandResult result = Tool(arguments);
    EXPECT_EQ(ExpectSafe(result, before, kUpdated), left);
    EXPECT_THAT(result.err, HasSubstr(says));
  }

  // What was not recorded is not said to be installed; then it is installed again and recorded.
  void UpdateWithoutSpaceForTheRecord() {
    const ScopedMount records = MountUnder(kDatabaseRecords, 16);
    LeaveFree(kDatabaseRecords, 0);
    ExpectFailure(kUpdate, Left::kCutShort,
                  "Fail to write: /var/lib/data_update/oui/version.json\n");
    EXPECT_EQ(ReadTree(prefix_), new_);
    EXPECT_NE(InstalledVersion("oui"), std::to_string(kNew));
    fs::remove(kDatabaseRecords + std::string("/filler"));
    ExpectRecovery({kUpdate});
  }
};

TEST_F(FullStateTest, FirstRecordThatFindsNoSpace) {
  Clear();
  OfferNewInFull();
  UpdateWithoutSpaceForTheRecord();
}

TEST_F(FullStateTest, RecordThatGrowsAndFindsNoSpace) {
  Clear();
  Install(kOld);
  OfferNewInFull();
  UpdateWithoutSpaceForTheRecord();
}

TEST_F(FullStateTest, RecordOfDeltasThatFindsNoSpace) {
  Clear();
  Install(kOld);
  OfferNewByDeltas();
  UpdateWithoutSpaceForTheRecord();
}

TEST_F(FullStateTest, NoNameForTheRecoveryMark) {
  Clear();
  const ScopedMount records = MountAt(kRecords, 16);
  Install(kOld);
  OfferNewInFull();
  TakeAllNames(kRecords);
  ExpectFailure(kUpdate, Left::kNothingChanged,
                "Fail to open /var/lib/data_update/oui/recovery.mark: No space left on device");
  GiveNamesBack(kRecords);
  ExpectRecovery({kUpdate});
}

TEST_F(FullStateTest, NoNameForTheDirectoryOfTheRecords) {
  Clear();
  const ScopedMount records = MountAt(kRecords, 16);
  OfferNewInFull();
  TakeAllNames(kRecords);
  ExpectFailure(kUpdate, Left::kNothingChanged, " /var/lib/data_update/oui cannot be made\n");
  GiveNamesBack(kRecords);
  ExpectRecovery({kUpdate});
}

TEST_F(FullStateTest, DescriptionThatFindsNoSpace) {
  Install(kOld);
  OfferNewInFull();
  const ScopedMount cache = MountAt(kCache, 4);
  LeaveFree(kCache, 0);
  ExpectFailure(kUpdate, Left::kNothingChanged, "no room on /var/cache/data_update: ");
  fs::remove(kCache + std::string("/filler"));
  ExpectRecovery({kUpdate});
}

TEST_F(FullStateTest, DescriptionOfWhichThereIsSpaceForAPart) {
  Install(kOld);
  OfferNewInFull();
  ASSERT_EQ(Tool({"status"}).exit_status, 0);
  const std::string description = ReadFile(kCache + std::string("/database_info.json"));
  publisher_.Server().SetBody("/database_info/1", std::string(3 * kPage, ' ') + description);
  const ScopedMount cache = MountAt(kCache, 5);
  LeaveFree(kCache, kPage);
  ExpectFailure(kUpdate, Left::kNothingChanged, "no room on /var/cache/data_update: ");
  EXPECT_FALSE(fs::exists(kCache + std::string("/database_info.json")));
  fs::remove(kCache + std::string("/filler"));
  ExpectRecovery({kUpdate});
}

TEST_F(FullStateTest, NoNameForTheDirectoryOfTheDescription) {
  Install(kOld);
  OfferNewInFull();
  const ScopedMount cache = MountAt("/var/cache", 16);
  TakeAllNames("/var/cache");
  ExpectFailure(kUpdate, Left::kNothingChanged, " /var/cache/data_update cannot be made\n");
  GiveNamesBack("/var/cache");
  ExpectRecovery({kUpdate});
}

}  // namespace
}  // namespace tolm::testing
