// Attacks on the installed tool: by an ordinary account of the machine, by a server, and by the
// caller's own carelessness.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "tests/operation/three_versions.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/killed_run.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/sanitized.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kDescriptionPath[] = "/database_info/1";
constexpr char kCachedDescription[] = "/var/cache/data_update/database_info.json";
constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";
constexpr char kTemporary[] = "/volume1/@tmp/data_update";
constexpr fs::perms kStickyForAll = fs::perms::all | fs::perms::sticky_bit;
// Far more than any of it takes, and less than a lock is waited for.
constexpr std::chrono::seconds kHangLimit{60};

template <typename Row>
std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

/// The tool's result; one that hangs is ended and fails the test.
CommandResult EndOf(RunningCommand& tool) {
  if (!WaitUntil([&] { return !tool.Process().IsRunning(); }, kHangLimit)) {
    ADD_FAILURE() << "it hangs";
    tool.Process().Signal(SIGKILL);
  }
  return tool.Wait();
}

/// Root's own, of no other rights than those of its owner over what others may write.
void ExpectOwnedByRootAlone(const fs::path& directory) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    struct stat status {};
    ASSERT_EQ(lstat(entry.path().c_str(), &status), 0) << entry.path();
    EXPECT_EQ(status.st_uid, 0u) << entry.path();
    EXPECT_EQ(status.st_mode & (S_ISUID | S_ISGID | S_ISVTX), 0u) << entry.path();
    EXPECT_EQ(status.st_mode & (S_IWGRP | S_IWOTH), 0u) << entry.path();
  }
}

/// Refused in one line that says of what component, and what to do about it.
void ExpectRefusedWithAdvice(const CommandResult& result, const std::string& component) {
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbud: "), HasSubstr(component),
                                ContainsRegex("[^a-z](chmod|rm) ")));
  EXPECT_EQ(CountLines(result.err), 1) << result.err;
}

class AccountTest : public DeviceTest {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << kNoOrdinaryAccount;
    }
    DeviceTest::SetUp();
    InstallFirst();
  }

  /// The present description, sent when the server is told to release it.
  void HoldDescriptionBack() {
    HttpServer& server = publisher_.Server();
    server.Hang(kDescriptionPath, RunCommand({"wget", "-qO-", server.Url(kDescriptionPath)}).out);
    asked_before_ = server.RequestCount(kDescriptionPath);
  }
  /// False when it has ended instead.
  bool AsksTheServer(RunningCommand& tool) {
    EXPECT_TRUE(WaitUntil([&] {
      return publisher_.Server().RequestCount(kDescriptionPath) > asked_before_ ||
             !tool.Process().IsRunning();
    }));
    return tool.Process().IsRunning();
  }
  static bool WaitsForReaders(RunningCommand& tool) {
    EXPECT_TRUE(WaitUntil(
        [&] { return HasOpen(tool.Process().Pid(), kUsingLock) || !tool.Process().IsRunning(); }));
    return tool.Process().IsRunning();
  }

 private:
  std::size_t asked_before_ = 0;
};

// ---- What is unpacked is swapped ----

struct Opening {
  std::string name;
  std::function<void()> arrange;
};

std::string NameOfOpening(const ::testing::TestParamInfo<std::tuple<Opening, bool>>& info) {
  return std::get<Opening>(info.param).name + (std::get<bool>(info.param) ? "ByDelta" : "InFull");
}

const Opening kOpenings[] = {
    {"VolumeIsForAll", [] { fs::permissions("/volume1", fs::perms::all); }},
    {"TemporaryIsForAllAndSticky",
     [] {
       fs::create_directory("/volume1/@tmp");
       fs::permissions("/volume1/@tmp", kStickyForAll);
     }},
};

constexpr char kMakeFirst[] = "mkdir -p /volume1/@tmp/data_update";
// As much of it as it may rename makes room for a tree of the account's own.
constexpr char kSwap[] = R"(
cd /volume1/@tmp || exit 1
mv data_update aside && mkdir data_update
for tree in oui_full oui_sum; do
  mv data_update/$tree data_update/aside_$tree
  mkdir -p data_update/$tree/sub
  for file in a.txt sub/b.txt _a_txt; do
    echo foreign >data_update/$tree/$file
    chmod 4755 data_update/$tree/$file
  done
done)";

/// In full it is a repair that installs: an update would try deltas first, and remove the account's
/// directory when it gives them up.
class SwappedUnpackedFilesTest : public AccountTest,
                                 public ::testing::WithParamInterface<std::tuple<Opening, bool>> {};

TEST_P(SwappedUnpackedFilesTest, AreNeverInstalled) {
  const auto& [opening, by_delta] = GetParam();
  fs::remove_all("/volume1/@tmp");
  opening.arrange();
  RunAsOrdinaryAccount(kMakeFirst);
  if (!by_delta) {
    WriteFile(prefix_ / "a.txt", "damaged");
  }
  const Tree before = ReadTree(prefix_);
  publisher_.Offer("oui", 2, {2});
  HoldDescriptionBack();
  UniqueDescriptor reader(open(kUsingLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), 0);

  RunningCommand tool({kTool, by_delta ? "update" : "fix", "oui"});
  if (AsksTheServer(tool)) {
    RunAsOrdinaryAccount(kMakeFirst);  // Once more, when what was left there has been removed.
    publisher_.Server().Release();
  }
  if (WaitsForReaders(tool)) {
    RunAsOrdinaryAccount(kSwap);
  }
  reader.Close();
  const CommandResult result = EndOf(tool);

  ExpectOwnedByRootAlone("/volume1/@database");
  if (result.exit_status == 0) {
    EXPECT_EQ(ReadTree(prefix_), second_);
    EXPECT_EQ(InstalledVersion("oui"), "2");
  } else {
    ExpectRefusedWithAdvice(result, "/volume1");
    EXPECT_EQ(ReadTree(prefix_), before);
    EXPECT_EQ(InstalledVersion("oui"), "1");
  }
}

INSTANTIATE_TEST_SUITE_P(Attacks, SwappedUnpackedFilesTest,
                         ::testing::Combine(::testing::ValuesIn(kOpenings), ::testing::Bool()),
                         NameOfOpening);

// ---- Links on the way ----

const fs::path kOutside = "/tmp/outside";
const Tree kPrecious = {{"a.txt", "precious"}, {"data_update/", ""}, {"data_update/kept", "kept"}};

struct Way {
  std::string name;
  fs::path link;
  fs::path target;
};

struct Command {
  std::string name;
  std::vector<std::string> arguments;
  int offered;
};

std::string NameOfWay(const ::testing::TestParamInfo<std::tuple<Way, Command>>& info) {
  return std::get<Way>(info.param).name + "On" + std::get<Command>(info.param).name;
}

class LinksOnTheWayTest : public DeviceTest,
                          public ::testing::WithParamInterface<std::tuple<Way, Command>> {
 protected:
  /// What is noted of every run is none of it.
  static Tree TreesBehind() {
    Tree state = ReadTree("/var/lib");
    state.erase("data_update/history.jsonl");
    state.erase("data_update/cooldown.json");
    for (const auto& [name, content] : ReadTree(kOutside)) {
      state["outside/" + name] = content;
    }
    return state;
  }
};

TEST_P(LinksOnTheWayTest, AreNotFollowed) {
  const auto& [way, command] = GetParam();
  InstallFirst();
  WriteFile(prefix_ / "a.txt", "damaged");
  MakeTree(kOutside, kPrecious);
  fs::remove_all(way.link);
  fs::create_directory_symlink(way.target, way.link);
  publisher_.Offer("oui", command.offered);
  const Tree before = TreesBehind();
  const CommandResult result = Tool(command.arguments);
  EXPECT_EQ(result.exit_status, 1) << result.out;
  EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbud: "), HasSubstr(way.link.string())));
  EXPECT_EQ(CountLines(result.err), 1) << result.err;
  EXPECT_EQ(TreesBehind(), before);
  EXPECT_TRUE(fs::is_symlink(way.link));
}

const Way kWays[] = {
    {"DatabaseDirectory", kVolumePrefix / "oui", kOutside},
    {"TemporaryParent", "/volume1/@tmp", "/var/lib"},
    {"TemporaryDirectory", kTemporary, kOutside},
};
const Command kCommands[] = {
    {"Update", {"update", "oui"}, 2},
    {"Fix", {"fix", "oui"}, 2},
    {"ForceInstall", {"force-install", "oui"}, 2},
    {"VerifyPackage", {"verify", "oui", "--package"}, 1},
};
INSTANTIATE_TEST_SUITE_P(Attacks, LinksOnTheWayTest,
                         ::testing::Combine(::testing::ValuesIn(kWays),
                                            ::testing::ValuesIn(kCommands)),
                         NameOfWay);

// ---- Locks ----

const std::vector<std::string> kLocks = {"operator",   "update_any", "update_oui",
                                         "fresh_info", "config",     "notes"};

class LocksTest : public AccountTest {
 protected:
  void SetUp() override {
    AccountTest::SetUp();
    if (!IsSkipped()) {
      ASSERT_EQ(Tool({"init"}).exit_status, 0);
    }
  }

  /// The account's process: it says which it has and keeps them until its end.
  static std::vector<std::string> HoldAll() {
    std::vector<std::string> command = {"/bin/bash", "-c", R"(
for lock; do
  { exec {held}<"/run/data_update/$lock.lock" && flock -n "$held"; } 2>/dev/null && echo "$lock"
done
echo all
exec sleep infinity)",
                                        "holder"};
    command.insert(command.end(), kLocks.begin(), kLocks.end());
    return AsOrdinaryAccount(command);
  }

  /// Waits until the account has what it can have, and returns that.
  static std::string HeldBy(RunningCommand& holder) {
    EXPECT_TRUE(WaitUntil([&] { return holder.Out().find("all\n") != std::string::npos; }));
    return holder.Out();
  }

  void ExpectUpdatedAtOnce() {
    publisher_.Offer("oui", 2);
    RunningCommand tool({kTool, "update", "oui"});
    const CommandResult result = EndOf(tool);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(ReadTree(prefix_), second_);
  }
};

TEST_F(LocksTest, NoAccountCanHoldThem) {
  EXPECT_EQ(RunAsOrdinaryAccount(std::string("flock -n -s ") + kUsingLock + " true && flock -n " +
                                 kUsingLock + " true")
                .exit_status,
            0);
  RunningCommand holder(HoldAll());
  ASSERT_EQ(HeldBy(holder), "all\n");
  ExpectUpdatedAtOnce();
}

TEST_F(LocksTest, ThoseLeftByAnEarlierVersionAndHeldByAnAccountHoldNothingUp) {
  for (const std::string& lock : kLocks) {
    const fs::path file = "/run/data_update/" + lock + ".lock";
    fs::remove(file);
    WriteFile(file, "");
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
  }
  RunningCommand holder(HoldAll());
  ASSERT_THAT(HeldBy(holder), StartsWith("operator\nupdate_any\n"));
  ExpectUpdatedAtOnce();
}

// ---- Steps back ----

struct StepBack {
  std::string name;
  bool with_mark;
  bool with_record;
  std::vector<std::string> command;
};

class RepairTest : public ThreeVersionsTest, public ::testing::WithParamInterface<StepBack> {};

TEST_P(RepairTest, NeverStepsBack) {
  const StepBack& row = GetParam();
  Install(kNewest);
  WriteFile(prefix_ / "notes.txt", "damaged");
  if (row.with_mark) {
    WriteFile(mark_, "");
  }
  if (!row.with_record) {
    fs::remove(version_file_);
  }
  publisher_.Offer("oui", kMiddle);
  const Tree before = ReadTree(prefix_);
  const CommandResult result = Tool(row.command);
  EXPECT_EQ(result.exit_status, 1) << result.out;
  EXPECT_THAT(result.err,
              AllOf(HasSubstr(std::to_string(kNewest)), HasSubstr(std::to_string(kMiddle))));
  EXPECT_TRUE(ReadTree(prefix_) == before);
  EXPECT_NE(InstalledVersion("oui"), std::to_string(kMiddle));

  publisher_.Offer("oui", kNewest);
  EXPECT_EQ(Tool(row.command).exit_status, 0);
  EXPECT_TRUE(ReadTree(prefix_) == FilesOf(kNewest));
}

const StepBack kStepsBack[] = {
    {"Fix", false, true, {"fix", "oui"}},
    {"FixAfterACut", true, true, {"fix", "oui"}},
    {"UpdateAfterACut", true, true, {"update", "oui"}},
    {"FixWithoutARecord", false, false, {"fix", "oui"}},
    {"UpdateWithoutARecord", false, false, {"update", "oui"}},
    {"UpdateAfterACutWithoutARecord", true, false, {"update", "oui"}},
};
INSTANTIATE_TEST_SUITE_P(Attacks, RepairTest, ::testing::ValuesIn(kStepsBack), NameOf<StepBack>);

// ---- What a server says ----

class ServerTest : public DeviceTest {
 protected:
  static std::string Description(const std::string& version, const std::string& link,
                                 const std::string& delta_link = "") {
    Json::Value document;
    document["deprecated"] = false;
    Json::Value& record = document["db_list"]["oui"];
    record["last_fetch_time"] = 1700000000;
    record["data_version"] = version;
    record["download_link"] = link;
    record["diff_files"] = Json::Value(Json::objectValue);
    if (!delta_link.empty()) {
      record["diff_files"][version]["download_link"] = delta_link;
      record["diff_files"][version]["file_size"] = 100;
    }
    return document.toStyledString();
  }
  void Describe(const std::string& document) {
    publisher_.Server().SetBody(kDescriptionPath, document);
    fs::remove(kCachedDescription);
  }
};

TEST_F(ServerTest, SealDecidesTheForcedVersion) {
  publisher_.Offer("oui", 2);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  const std::string record = ReadFile(version_file_);
  const std::string old_package = publisher_.Server().Url("/packages/oui_v1");
  Describe(Description("2147483647", old_package));
  const CommandResult result = Tool({"force-install", "oui"});
  EXPECT_EQ(result.exit_status, 1) << result.out;
  EXPECT_EQ(CountLines(result.err), 1) << result.err;
  EXPECT_EQ(ReadFile(version_file_), record);
  EXPECT_EQ(ReadTree(prefix_), second_);
  Describe(Description("1", old_package));
  EXPECT_EQ(Tool({"force-install", "oui"}).exit_status, 0);
  EXPECT_EQ(InstalledVersion("oui"), "1");
}

struct Huge {
  std::string name;
  std::function<std::string()> document;
};

std::string ManyZeros(std::size_t bytes) {
  std::string document = "[0";
  while (document.size() + 3 < bytes) {
    document += ",0";
  }
  return document + "]";
}

class HugeDescriptionTest : public ServerTest, public ::testing::WithParamInterface<Huge> {};

TEST_P(HugeDescriptionTest, IsNotParsedAndNotKept) {
  InstallFirst();
  Describe(GetParam().document());
  const MeasuredRun run = Measure({kTool, "update", "oui"}, 1);
  if (!kSanitized) {
    EXPECT_LT(run.peak_bytes, 128u << 20);
  }
  EXPECT_EQ(CountLines(run.result.err), 1) << run.result.err;
  EXPECT_EQ(ReadTree(prefix_), first_);
  // It is not asked for anew only because it is old.
  publisher_.Server().SetBody(kDescriptionPath,
                              Description("2", publisher_.Server().Url("/packages/oui_v2")));
  const CommandResult next = Tool({"update", "oui"});
  EXPECT_EQ(next.exit_status, 0) << next.err;
  EXPECT_EQ(ReadTree(prefix_), second_);
}

const Huge kHuge[] = {
    {"SixteenMebibytes", [] { return ManyZeros(16 << 20); }},
    {"ThreeMebibytes", [] { return ManyZeros(3 << 20); }},
    {"ThreeMebibytesWithoutAnEnd",
     [] {
       std::string document = ManyZeros(3 << 20);
       document.pop_back();
       return document;
     }},
    {"AThousandLevels", [] { return std::string(1000, '[') + std::string(1000, ']'); }},
};
INSTANTIATE_TEST_SUITE_P(Attacks, HugeDescriptionTest, ::testing::ValuesIn(kHuge), NameOf<Huge>);

TEST_F(ServerTest, HugeDescriptionInTheCacheIsNotParsedAndNotKept) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  WriteFile(kCachedDescription, ManyZeros(16 << 20));
  const MeasuredRun run = Measure({kTool, "update", "oui"});
  if (!kSanitized) {
    EXPECT_LT(run.peak_bytes, 128u << 20);
  }
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(ServerTest, CacheFromTheFutureIsNotBelieved) {
  InstallFirst();
  const std::string old = ReadFile(kCachedDescription);
  publisher_.Offer("oui", 2);
  WriteFile(kCachedDescription, old);
  fs::last_write_time(kCachedDescription,
                      fs::file_time_type::clock::now() + std::chrono::hours(24 * 3650));
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.out, "oui: updated to 2\n") << result.err;
  EXPECT_EQ(ReadTree(prefix_), second_);
}

// ---- What is installed is not what was installed ----

/// To another content, of the same size and time or not.
void Alter(const fs::path& file, bool same_size) {
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  if (!same_size) {
    WriteFile(file, "longer than it was");
    return;
  }
  ChangeByte(file, 0);
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

std::string NameOfSize(const ::testing::TestParamInfo<bool>& info) {
  return info.param ? "OfTheSameSizeAndTime" : "OfAnotherSize";
}

class AlteredFileTest : public DeviceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(AlteredFileTest, IsNoticedBeforeADelta) {
  InstallFirst();
  Alter(prefix_ / "sub/b.txt", GetParam());
  publisher_.Offer("oui", 2, {2});
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 0) << update.err;
  if (ReadTree(prefix_) != second_) {
    const CommandResult verify = Tool({"verify", "oui"});
    EXPECT_EQ(verify.exit_status, 11) << verify.out;
    EXPECT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  }
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_EQ(Tool({"verify", "oui"}).out, "oui: intact, checked 2 of 2 files\n");
}

INSTANTIATE_TEST_SUITE_P(Attacks, AlteredFileTest, ::testing::Bool(), NameOfSize);

class InstalledFilesTest : public DeviceTest {};

TEST_F(InstalledFilesTest, AllAreCheckedAfterADelta) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  ASSERT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 0u);
  EXPECT_EQ(Tool({"verify", "oui"}).out, "oui: intact, checked 2 of 2 files\n");
  WriteFile(prefix_ / "sub/b.txt", "x");
  const CommandResult verify = Tool({"verify", "oui"});
  EXPECT_EQ(verify.exit_status, 11);
  EXPECT_THAT(verify.out, HasSubstr("sub/b.txt: content differs"));
}

struct Missing {
  std::string name;
  bool with_directory;
  std::vector<std::string> command;
};

class MissingFilesTest : public DeviceTest, public ::testing::WithParamInterface<Missing> {};

TEST_P(MissingFilesTest, AreInstalledAgain) {
  InstallFirst();
  fs::remove_all(prefix_);
  if (!GetParam().with_directory) {
    fs::create_directory(prefix_);
  }
  const CommandResult result = Tool(GetParam().command);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  ASSERT_TRUE(fs::exists(prefix_));
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1");
}

const Missing kMissing[] = {
    {"ByUpdate", false, {"update", "oui"}},
    {"ByScheduledUpdate", false, {"update", "--all", "--scheduled"}},
    {"ByUpdateWithTheirDirectory", true, {"update", "oui"}},
};
INSTANTIATE_TEST_SUITE_P(Attacks, MissingFilesTest, ::testing::ValuesIn(kMissing), NameOf<Missing>);

// ---- The caller's umask ----

class CallersUmaskTest : public DeviceTest {
 protected:
  /// Everything from the first start to an update by a delta.
  void InstallUnder(const std::string& umask) {
    const std::string under = "umask " + umask + "; exec ";
    for (const char* command : {"tolmdbud init", "tolmdbud update oui"}) {
      ASSERT_EQ(RunCommand({"/bin/sh", "-c", under + command}).exit_status, 0);
    }
    publisher_.Offer("oui", 2, {2});
    ASSERT_EQ(RunCommand({"/bin/sh", "-c", under + "tolmdbud update oui"}).exit_status, 0);
    ASSERT_EQ(ReadTree(prefix_), second_);
  }
};

TEST_F(CallersUmaskTest, LetsNobodyElseWrite) {
  InstallUnder("000");
  for (const fs::path directory : {"/var/lib/data_update", "/var/cache/data_update",
                                   "/run/data_update", "/volume1/@database", "/volume1/@tmp"}) {
    struct stat status {};
    ASSERT_EQ(lstat(directory.c_str(), &status), 0) << directory;
    EXPECT_EQ(status.st_mode & (S_IWGRP | S_IWOTH), 0u) << directory;
    ExpectOwnedByRootAlone(directory);
  }
}

TEST_F(CallersUmaskTest, KeepsNoReaderOut) {
  if (!HasOrdinaryAccount()) {
    GTEST_SKIP() << kNoOrdinaryAccount;
  }
  InstallUnder("077");
  const CommandResult files = RunAsOrdinaryAccount("cat " + (prefix_ / "a.txt").string() + " " +
                                                   (prefix_ / "sub/b.txt").string());
  EXPECT_EQ(files.out, "twob") << files.err;
  const CommandResult record = RunAsOrdinaryAccount("cat " + version_file_.string());
  EXPECT_THAT(record.out, HasSubstr("\"data_version\" : \"2\"")) << record.err;
  const CommandResult lock =
      RunAsOrdinaryAccount(std::string("flock -n -s ") + kUsingLock + " echo had");
  EXPECT_EQ(lock.out, "had\n") << lock.err;
}

// ---- Links to the machine itself ----

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// A network that has nothing but this machine: its loopback addresses, IPv6's included, and one
/// that is local to a link. Made before anything listens.
class OwnNetwork {
 public:
  OwnNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
      Fail("unshare");
    }
    const UniqueDescriptor socket_for_requests(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    if (ioctl(socket_for_requests.Get(), SIOCSIFFLAGS, &request) != 0) {
      Fail("bring the loopback interface up");
    }
    std::strcpy(request.ifr_name, "lo:1");
    auto* address = reinterpret_cast<sockaddr_in*>(&request.ifr_addr);
    *address = {};
    address->sin_family = AF_INET;
    inet_pton(AF_INET, "169.254.1.1", &address->sin_addr);
    if (ioctl(socket_for_requests.Get(), SIOCSIFADDR, &request) != 0) {
      Fail("add an address");
    }
  }
};

/// A service of the machine that is none of the tool's business. It listens on all addresses, and
/// it never answers.
class Bystander {
 public:
  Bystander() : listener_(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_.Get(), generic, size) != 0 || listen(listener_.Get(), SOMAXCONN) != 0 ||
        getsockname(listener_.Get(), generic, &size) != 0) {
      Fail("listen on all addresses");
    }
    port_ = std::to_string(ntohs(address.sin6_port));
  }

  const std::string& Port() const { return port_; }
  /// Since the last time that this was asked.
  bool WasConnectedTo() const {
    return UniqueDescriptor(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)).Get() >= 0;
  }

 private:
  UniqueDescriptor listener_;
  std::string port_;
};

struct LocalLink {
  std::string name;
  std::string before_port;  ///< And after it a path.
  bool by_redirect;
};

std::string NameOfLocalLink(const ::testing::TestParamInfo<LocalLink>& info) {
  return info.param.name + (info.param.by_redirect ? "Redirected" : "Described");
}

class LocalServicesTest : private OwnNetwork, public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    InstallFirst();
    WriteFile("/tmp/wgetrc", "read_timeout = 1\ntries = 1\n");
  }

  static CommandResult Update() {
    RunningCommand tool({kTool, "update", "oui"}, {{"SYSTEM_WGETRC=/tmp/wgetrc"}, {}, ""});
    return EndOf(tool);
  }

  void ExpectRefusedUnasked() {
    const CommandResult result = Update();
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    EXPECT_FALSE(bystander_.WasConnectedTo());
    EXPECT_EQ(ReadTree(prefix_), first_);
  }

  /// Only such links are refused: the server itself has a loopback address.
  void ExpectUpdated() {
    const CommandResult result = Update();
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(ReadTree(prefix_), second_);
  }

  const Bystander bystander_;
};

class LinksToTheMachineItselfTest : public LocalServicesTest,
                                    public ::testing::WithParamInterface<LocalLink> {};

TEST_P(LinksToTheMachineItselfTest, AreNotFetched) {
  const std::string link = GetParam().before_port + bystander_.Port() + "/packages/oui_v2";
  const std::string server_link = publisher_.Server().Url("/packages/oui_v2");
  if (GetParam().by_redirect) {
    publisher_.Server().Redirect("/packages/oui_v2", link);
  }
  Describe(Description("2", GetParam().by_redirect ? server_link : link));
  ExpectRefusedUnasked();
  publisher_.Server().Reset("/packages/oui_v2");
  Describe(Description("2", server_link));
  ExpectUpdated();
}

TEST_F(LocalServicesTest, AreNotAskedForDeltas) {
  const std::string link = "http://127.0.0.1:" + bystander_.Port() + "/packages/oui_d2";
  Describe(Description("2", publisher_.Server().Url("/packages/oui_v2"), link));
  Update();
  EXPECT_FALSE(bystander_.WasConnectedTo());
}

TEST_F(LocalServicesTest, AreNotAskedForTheDescription) {
  publisher_.Server().Redirect(kDescriptionPath,
                               "http://127.0.0.1:" + bystander_.Port() + kDescriptionPath);
  fs::remove(kCachedDescription);
  ExpectRefusedUnasked();
  Describe(Description("2", publisher_.Server().Url("/packages/oui_v2")));
  ExpectUpdated();
}

std::vector<LocalLink> LocalLinks() {
  std::vector<LocalLink> links;
  for (const bool by_redirect : {false, true}) {
    links.push_back({"OtherPort", "http://127.0.0.1:", by_redirect});
    links.push_back({"OtherLoopbackAddress", "http://127.0.0.2:", by_redirect});
    links.push_back({"Localhost", "http://localhost:", by_redirect});
    links.push_back({"LoopbackOfIpv6", "http://[::1]:", by_redirect});
    links.push_back({"MappedLoopback", "http://[::ffff:127.0.0.1]:", by_redirect});
    links.push_back({"AddressAsANumber", "http://2130706433:", by_redirect});
    links.push_back({"AnyAddress", "http://0.0.0.0:", by_redirect});
    links.push_back({"LinkLocal", "http://169.254.1.1:", by_redirect});
    links.push_back({"Ftp", "ftp://127.0.0.1:", by_redirect});
  }
  return links;
}
INSTANTIATE_TEST_SUITE_P(Attacks, LinksToTheMachineItselfTest, ::testing::ValuesIn(LocalLinks()),
                         NameOfLocalLink);

}  // namespace
}  // namespace tolm::testing
