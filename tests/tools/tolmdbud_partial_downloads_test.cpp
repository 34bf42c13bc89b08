// The installed tool and lines that break: a download that ended early goes on where it stopped,
// and nothing wrong comes of it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/killed_run.h"
#include "tests/support/mounts.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/preload.h"
#include "tests/support/wait.h"
#include "tests/tools/breaking_line.h"
#include "tests/tools/signed_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kFull[] = "packages/oui_v2";
constexpr std::size_t kContentBytes = 2000000;
constexpr std::uint64_t kBreakAfter = 200000;
const fs::path kPartials = "/volume1/@database/partial-downloads";
const fs::path kPrefix = kVolumePrefix / "oui";
constexpr char kHistoryFile[] = "/var/lib/data_update/history.jsonl";
constexpr char kOperatorSettings[] = "/usr/tolm/etc/data_update/operation.conf";

std::string Noise(std::size_t size, unsigned seed) {
  std::mt19937 engine(seed);
  std::string text(size, '\0');
  for (char& c : text) {
    c = static_cast<char>(engine());
  }
  return text;
}

template <typename Info>
std::string NameOfRow(const Info& info) {
  return info.param.name;
}

class PartialDownloadsTest : public ::testing::Test {
 protected:
  PartialDownloadsTest() : files_{{"a.bin", Noise(kContentBytes, 1)}} {
    // wget waits longer with each of its attempts.
    WriteFile("/tmp/wgetrc", "waitretry = 0\n");
    package_ = server_.Package("full", 2, files_);
    offered_ = server_.Offered(kFull, package_);
    server_.Describe(2, offered_);
  }

  BreakingLine Line(const LineTraits& traits, const std::string& rest = "") {
    return Line(package_, traits, rest);
  }
  BreakingLine Line(const std::string& content, const LineTraits& traits,
                    const std::string& rest = "") {
    return BreakingLine(server_.Server(), std::string("/") + kFull, content, traits, rest);
  }

  /// Waits pass at once.
  static CommandOptions Impatient() {
    CommandOptions options;
    options.environment = Preload(TOLM_SKIPPED_WAITS_LIBRARY);
    options.environment.emplace_back("WGETRC=/tmp/wgetrc");
    return options;
  }
  static CommandResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), kTool);
    return RunCommand(arguments, Impatient());
  }
  static CommandResult Update() { return Run({"update", "oui"}); }

  void ExpectInstalled() {
    EXPECT_TRUE(ReadTree(kPrefix) == files_);
    EXPECT_EQ(InstalledVersion("oui"), "2");
    ExpectNothingKept();
  }
  static void ExpectNothingKept() {
    EXPECT_FALSE(fs::exists(kPartials));
    EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  }

  fs::path Kept() const { return kPartials / offered_.sha384; }

  /// A run that leaves so many bytes behind.
  void LeaveBehind(std::uint64_t bytes) {
    fs::create_directories(kPartials);
    ASSERT_EQ(chmod(kPartials.c_str(), 0700), 0);
    WriteFile(Kept(), package_.substr(0, bytes));
    ASSERT_EQ(chmod(Kept().c_str(), 0600), 0);
  }

  /// What the last line of the history says was downloaded.
  static std::uint64_t RecordedBytes() {
    const std::string history = ReadFile(kHistoryFile);
    Json::Value entry;
    Json::Reader().parse(history.substr(history.rfind('\n', history.size() - 2) + 1), entry);
    return entry["bytes"].asUInt64();
  }

  SignedServer server_;
  Tree files_;
  std::string package_;
  offer::PackageOffer offered_;
};

TEST_F(PartialDownloadsTest, LineThatBreaksEveryTenthOfAPackageBringsItInOneRun) {
  const BreakingLine line = Line({kBreakAfter});
  const CommandResult result = Run({"update", "oui", "--verbose"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(line.SentBytes(), package_.size());
  EXPECT_THAT(result.err, AllOf(HasSubstr(" has broken off at 600 kB of 2.0 MB"),
                                HasSubstr("the download goes on there")));
  ExpectInstalled();
}

TEST_F(PartialDownloadsTest, WhatOneRunHasReceivedTheNextGoesOnWith) {
  Line({1500000, 1, Ranges::kForbidden});
  EXPECT_EQ(Update().exit_status, 1);
  ASSERT_TRUE(fs::exists(Kept()));
  EXPECT_TRUE(ReadFile(Kept()) == package_.substr(0, 1500000));
  EXPECT_GT(RecordedBytes(), 1500000u);
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  const BreakingLine line = Line({});
  const CommandResult result = Run({"update", "oui", "--verbose"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(line.SentBytes(), package_.size() - 1500000);
  EXPECT_THAT(result.err,
              AllOf(HasSubstr("going on with http://127.0.0.1:"), HasSubstr(" at 1.5 MB of 2.0 MB"),
                    HasSubstr(", 2.0 MB, 506 kB of them in this run")));
  EXPECT_LT(RecordedBytes(), 600000u);
  ExpectInstalled();
}

TEST_F(PartialDownloadsTest, NobodyElseLooksAtWhatIsKept) {
  Line({1500000, 1, Ranges::kForbidden});
  EXPECT_EQ(Update().exit_status, 1);
  struct stat status;
  ASSERT_EQ(stat(kPartials.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(Kept().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(status.st_nlink, 1u);
}

TEST_F(PartialDownloadsTest, NothingIsKeptOfWhatNoSignedDescriptionNames) {
  const std::string other = "packages/oui_v1";
  BreakingLine(server_.Server(), '/' + other, package_, {1000});
  EXPECT_EQ(Run({"force-install", "oui", "--version", "1"}).exit_status, 1);
  ExpectNothingKept();
}

TEST_F(PartialDownloadsTest, SignalKeepsWhatWasReceived) {
  LineTraits traits{1500000};
  traits.hangs = true;
  Line(traits);
  RunningCommand tool({kTool, "update", "oui"}, Impatient());
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(Kept()) && fs::file_size(Kept()) == 1500000; }));
  tool.Process().Signal(SIGTERM);
  EXPECT_EQ(tool.Wait().exit_status, 128 + SIGTERM);
  EXPECT_TRUE(ReadFile(Kept()) == package_.substr(0, 1500000));
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.SentBytes(), package_.size() - 1500000);
  ExpectInstalled();
}

// wget lives on and goes on writing.
TEST_F(PartialDownloadsTest, KillKeepsWhatWasReceivedAndNobodyWritesTwiceIntoIt) {
  LineTraits traits{1000000};
  traits.hangs = true;
  Line(traits);
  RunningCommand tool({kTool, "update", "oui"}, Impatient());
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(Kept()) && fs::file_size(Kept()) == 1000000; }));
  tool.Process().Signal(SIGKILL);
  EXPECT_EQ(tool.Wait().exit_status, 128 + SIGKILL);
  LineTraits slow{500000, 1};
  slow.hangs = true;
  const BreakingLine line = Line(slow);
  RunningCommand next({kTool, "update", "oui"}, Impatient());
  ASSERT_TRUE(WaitUntil([&] { return fs::file_size(Kept()) == 1500000; }));
  server_.Server().Release();  // The first one's answer, too.
  const CommandResult result = next.Wait();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  // Half a package for each of the two, or a little more.
  EXPECT_LT(line.SentBytes(), package_.size() + 500000);
  ExpectInstalled();
}

TEST_F(PartialDownloadsTest, WhatIsWholeIsNotAskedForAgain) {
  LeaveBehind(package_.size());
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.Requests(), 0);
  ExpectInstalled();
}

TEST_F(PartialDownloadsTest, PackageThatIsRefusedIsNotKept) {
  Line(Noise(package_.size(), 5), {});
  EXPECT_EQ(Update().exit_status, 1);
  ExpectNothingKept();
}

TEST_F(PartialDownloadsTest, LongerPackageEndsAtItsBoundAndIsNotKept) {
  LeaveBehind(1000000);
  const BreakingLine line = Line(package_ + Noise(1000000, 5), {});
  const CommandResult result = Update();
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr(" bytes that the signed description says"));
  EXPECT_EQ(line.Requests(), 2);
  ExpectNothingKept();
}

TEST_F(PartialDownloadsTest, ServerThatNeverGoesOnAndBreaksOffFailsAsItDid) {
  const BreakingLine line = Line({kBreakAfter, INT32_MAX, Ranges::kIgnored});
  const CommandResult result = Update();
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr(" has broken the connection off"));
  EXPECT_LE(line.Requests(), 6) << "wget asks three times, and it is run once more";
  EXPECT_EQ(fs::file_size(Kept()), kBreakAfter);
}

TEST_F(PartialDownloadsTest, ServerThatFailsLosesNothingOfIt) {
  LeaveBehind(1500000);
  HttpAnswer broken;
  broken.status = 503;
  server_.Server().SetAnswer(std::string("/") + kFull, broken);
  EXPECT_THAT(Update().err, HasSubstr("503 Service Unavailable"));
  EXPECT_EQ(fs::file_size(Kept()), 1500000u);
}

// ---- Servers that do not go on ----

struct Server {
  std::string name;
  LineTraits traits;
  std::string rest_of;  ///< What the rest is taken from; empty for the package.
  std::string says;
  int most_requests = 2;  ///< wget asks three times where what is answered makes no sense to it.
};

class OtherServersTest : public PartialDownloadsTest,
                         public ::testing::WithParamInterface<Server> {};

TEST_P(OtherServersTest, CostOneDownload) {
  LeaveBehind(1500000);
  const Server& server = GetParam();
  const std::string rest = server.rest_of.empty() ? "" : Noise(package_.size(), 5);
  const BreakingLine line = Line(server.traits, rest);
  const CommandResult result = Run({"update", "oui", "--verbose"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_LE(line.Requests(), server.most_requests);
  EXPECT_THAT(result.err, HasSubstr(server.says));
  ExpectInstalled();
}

TEST_P(OtherServersTest, AreGoneOnWithWhereTheyBreakOffBesides) {
  LeaveBehind(200000);
  const Server& server = GetParam();
  LineTraits traits = server.traits;
  traits.break_after = 1900000;
  traits.breaks = 1;
  const std::string rest = server.rest_of.empty() ? "" : Noise(package_.size(), 5);
  Line(traits, rest);
  Update();
  EXPECT_EQ(Update().exit_status, 0);
  ExpectInstalled();
}

const Server kServers[] = {
    {"IgnoreRanges", {UINT64_MAX, 0, Ranges::kIgnored}, "", "2.0 MB"},
    {"RefuseThem", {UINT64_MAX, 0, Ranges::kForbidden}, "", " does not go on with what was"},
    {"SendAnotherRest",
     {UINT64_MAX, 0, Ranges::kElsewhere},
     "",
     " does not go on with what was",
     4},
    {"DoNotSayWhereItStands", {UINT64_MAX, 0, Ranges::kUnplaced}, "", " does not go on with", 4},
    {"SendPieces", {UINT64_MAX, 0, Ranges::kPieces}, "", " does not have the rest of what"},
    {"SayThereIsNoMore", {UINT64_MAX, 0, Ranges::kTooFar}, "", " does not have the rest of what"},
    {"HaveAnotherFile", {}, "noise", " does not have the rest of what was received before"},
};
INSTANTIATE_TEST_SUITE_P(Lines, OtherServersTest, ::testing::ValuesIn(kServers),
                         NameOfRow<::testing::TestParamInfo<Server>>);

// ---- Mirrors ----

class MirrorsTest : public PartialDownloadsTest {
 protected:
  MirrorsTest() {
    WriteFile(kOperatorSettings, R"({"mirrors": [")" + mirrors_[0].Url("") + R"(", ")" +
                                     mirrors_[1].Url("") + R"("]})");
  }
  BreakingLine Mirror(int number, const std::string& content, const LineTraits& traits = {}) {
    return BreakingLine(mirrors_[number], std::string("/") + kFull, content, traits);
  }

  HttpServer mirrors_[2];
};

TEST_F(MirrorsTest, GoOnWithWhatTheServerHasSent) {
  Line({1500000, 1, Ranges::kForbidden});
  // It does not go on, and gives less than there is.
  const BreakingLine first = Mirror(0, package_, {300000, INT32_MAX, Ranges::kForbidden});
  const BreakingLine second = Mirror(1, package_);
  const CommandResult result = Update();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(first.SentBytes(), 300000u);
  EXPECT_EQ(second.SentBytes(), package_.size() - 1500000);
  ExpectInstalled();
}

TEST_F(MirrorsTest, HostileOneCostsTheNextOneDownload) {
  const std::string wrong = Noise(package_.size(), 5);
  for (const std::uint64_t sent : {std::uint64_t{1900000}, UINT64_MAX}) {
    SCOPED_TRACE(sent);
    Mirror(0, wrong, {sent, INT32_MAX, Ranges::kForbidden});
    const BreakingLine good = Mirror(1, package_);
    const CommandResult result = Update();
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_LE(good.Requests(), 2);
    EXPECT_LE(good.SentBytes(), 2 * package_.size() - std::min(sent, package_.size()));
    ExpectInstalled();
    fs::remove_all(kPrefix);
    fs::remove_all("/var/lib/data_update/oui");
  }
}

TEST_F(MirrorsTest, WhatAHostileOneHasLeftCostsTheServerOneDownloadInTheNextRun) {
  Mirror(0, Noise(package_.size(), 5), {1900000, INT32_MAX, Ranges::kForbidden});
  EXPECT_EQ(Update().exit_status, 1);
  EXPECT_EQ(fs::file_size(Kept()), 1900000u);
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_LE(line.Requests(), 2);
  ExpectInstalled();
}

// ---- What is found in the directory ----

struct Plant {
  std::string name;
  std::function<void(const fs::path& kept, const std::string& package)> plant;
  bool is_gone_on_with = false;
};

class PlantedTest : public PartialDownloadsTest, public ::testing::WithParamInterface<Plant> {};

// Whatever it is, the package is installed, and what lies elsewhere is as it was.
TEST_P(PlantedTest, GivesNothing) {
  fs::create_directories(kPartials);
  ASSERT_EQ(chmod(kPartials.c_str(), 0700), 0);
  WriteFile("/tmp/elsewhere", package_.substr(0, 1000000));
  GetParam().plant(Kept(), package_);
  const BreakingLine line = Line({});
  const CommandResult result = Update();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_TRUE(ReadTree(kPrefix) == files_);
  EXPECT_TRUE(ReadFile("/tmp/elsewhere") == package_.substr(0, 1000000));
  EXPECT_EQ(fs::status("/tmp/elsewhere").permissions(), fs::perms(0644));
  EXPECT_EQ(line.SentBytes() < package_.size(), GetParam().is_gone_on_with);
  ExpectNothingKept();
}

void WriteOwn(const fs::path& file, const std::string& content, mode_t mode = 0600) {
  WriteFile(file, content);
  ASSERT_EQ(chmod(file.c_str(), mode), 0);
}

const Plant kPlants[] = {
    {"OwnFile",
     [](const fs::path& kept, const std::string& package) {
       WriteOwn(kept, package.substr(0, 1000000));
     },
     true},
    {"SymbolicLink",
     [](const fs::path& kept, const std::string&) { fs::create_symlink("/tmp/elsewhere", kept); }},
    {"HardLink",
     [](const fs::path& kept, const std::string&) {
       // tmpfs has no links to other file systems.
       WriteOwn("/volume1/other", "x");
       fs::create_hard_link("/volume1/other", kept);
     }},
    {"Fifo",
     [](const fs::path& kept, const std::string&) { ASSERT_EQ(mkfifo(kept.c_str(), 0600), 0); }},
    {"FileThatOthersWrite",
     [](const fs::path& kept, const std::string& package) {
       WriteOwn(kept, package.substr(0, 1000000), 0666);
     }},
    {"LongerOne",
     [](const fs::path& kept, const std::string& package) { WriteOwn(kept, package + "more"); }},
    {"WrongOneOfTheRightSize",
     [](const fs::path& kept, const std::string& package) {
       WriteOwn(kept, Noise(package.size(), 7));
     }},
    {"TailOfZeros",
     [](const fs::path& kept, const std::string& package) {
       WriteOwn(kept, package.substr(0, 900000) + std::string(100000, '\0'));
     }},
    {"PartOfAnotherPackage",
     [](const fs::path& kept, const std::string&) { WriteOwn(kept, Noise(1000000, 7)); }},
    {"OtherNames",
     [](const fs::path& kept, const std::string& package) {
       WriteOwn(kept.parent_path() / "x", package);
       WriteOwn(kept.parent_path() / std::string(96, 'a'), package);
       fs::create_symlink("/tmp/elsewhere", kept.parent_path() / std::string(96, 'b'));
     }},
};
INSTANTIATE_TEST_SUITE_P(Partials, PlantedTest, ::testing::ValuesIn(kPlants),
                         NameOfRow<::testing::TestParamInfo<Plant>>);

TEST_F(PartialDownloadsTest, HardLinkElsewhereStaysAsItWas) {
  LeaveBehind(1000000);
  fs::create_hard_link(Kept(), "/volume1/other");
  Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_TRUE(ReadFile("/volume1/other") == package_.substr(0, 1000000));
  ExpectInstalled();
}

TEST_F(PartialDownloadsTest, DirectoryThatIsALinkIsNotUsed) {
  fs::create_directories("/tmp/theirs");
  WriteFile("/tmp/theirs" / Kept().filename(), package_.substr(0, 1000));
  fs::create_directories(kPartials.parent_path());
  fs::create_directory_symlink("/tmp/theirs", kPartials);
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.SentBytes(), package_.size());
  EXPECT_EQ(fs::file_size("/tmp/theirs" / Kept().filename()), 1000u);
}

TEST_F(PartialDownloadsTest, DirectoryOfSomebodyElseIsNotUsed) {
  if (!HasOrdinaryAccount()) {
    GTEST_SKIP() << kNoOrdinaryAccount;
  }
  LeaveBehind(1000);
  ASSERT_EQ(chown(kPartials.c_str(), kOrdinaryAccount, kOrdinaryAccount), 0);
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.SentBytes(), package_.size());
  EXPECT_EQ(fs::file_size(Kept()), 1000u);
}

TEST_F(PartialDownloadsTest, FileOfSomebodyElseIsNotUsed) {
  if (!HasOrdinaryAccount()) {
    GTEST_SKIP() << kNoOrdinaryAccount;
  }
  LeaveBehind(1000000);
  ASSERT_EQ(chown(Kept().c_str(), kOrdinaryAccount, kOrdinaryAccount), 0);
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.SentBytes(), package_.size());
  ExpectInstalled();
}

// ---- How much is kept, and for how long ----

TEST_F(PartialDownloadsTest, WhatNoDescriptionNamesAnyMoreGoesWhenTheNextOperationBegins) {
  LeaveBehind(1000);
  Line({});
  EXPECT_EQ(Update().exit_status, 0);
  LeaveBehind(1000);
  const std::string third = server_.Package("full", 3, files_);
  server_.Serve("packages/oui_v3", third);
  server_.Describe(3, server_.Offered("packages/oui_v3", third));
  EXPECT_EQ(Run({"check"}).exit_status, 10);
  EXPECT_TRUE(fs::exists(Kept())) << "a look is no operation";
  EXPECT_EQ(Update().exit_status, 0);
  ExpectNothingKept();
}

TEST_F(PartialDownloadsTest, WhatHasNotGrownForAWeekGoes) {
  for (const bool is_old : {false, true}) {
    LeaveBehind(1000000);
    constexpr std::time_t kWeek = 7 * 24 * 3600;
    const std::time_t at = std::time(nullptr) - kWeek + (is_old ? -60 : 60);
    const timespec times[] = {{at, 0}, {at, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, Kept().c_str(), times, 0), 0);
    const BreakingLine line = Line({});
    EXPECT_EQ(Update().exit_status, 0);
    EXPECT_EQ(line.SentBytes() == package_.size(), is_old);
    fs::remove_all(kPrefix);
    fs::remove_all("/var/lib/data_update/oui");
  }
}

TEST_F(PartialDownloadsTest, OfManyTheOldestGo) {
  constexpr int kMany = 10;
  std::map<int, offer::PackageOffer> deltas;
  fs::create_directories(kPartials);
  for (int i = 0; i < kMany; ++i) {
    // Of versions that no chain leads through.
    const std::string delta = Noise(100, static_cast<unsigned>(i) + 10);
    deltas[i + 100] = server_.Offered("packages/oui_d" + std::to_string(i), delta);
    const fs::path kept = kPartials / deltas[i + 100].sha384;
    WriteFile(kept, delta.substr(0, 50));
    ASSERT_EQ(chmod(kept.c_str(), 0600), 0);
    const timespec grown{std::time(nullptr) - 100 + i, 0};
    const timespec times[] = {grown, grown};
    ASSERT_EQ(utimensat(AT_FDCWD, kept.c_str(), times, 0), 0);
  }
  server_.Describe(2, offered_, deltas);
  Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(Update().exit_status, 0) << "an operation that downloads nothing";
  std::vector<bool> is_there;
  for (const auto& [version, delta] : deltas) {
    is_there.push_back(fs::exists(kPartials / delta.sha384));
  }
  EXPECT_THAT(is_there, ElementsAre(false, false, true, true, true, true, true, true, true, true));
}

// ---- Room ----

class RoomForOthersTest : public PartialDownloadsTest,
                          public ::testing::WithParamInterface<std::size_t> {
 protected:
  RoomForOthersTest() : volume_(ScopedMount::Tmpfs("/volume1", 9000000)) {}

  ScopedMount volume_;
};

TEST_P(RoomForOthersTest, IsMadeOfWhatIsKept) {
  const std::string other = Noise(GetParam(), 9);
  const offer::PackageOffer delta = server_.Offered("packages/oui_d100", other);
  server_.Describe(2, offered_, {{100, delta}});
  LeaveBehind(1000000);
  WriteFile(kPartials / delta.sha384, other.substr(0, other.size() - 1));
  ASSERT_EQ(chmod((kPartials / delta.sha384).c_str(), 0600), 0);
  const BreakingLine line = Line({});
  const CommandResult result = Update();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(line.SentBytes(), package_.size() - 1000000) << "its own counts as there";
  ExpectInstalled();
}

INSTANTIATE_TEST_SUITE_P(OfBytes, RoomForOthersTest, ::testing::Values(3500000, 6900000),
                         [](const ::testing::TestParamInfo<std::size_t>& row) {
                           return std::to_string(row.param);
                         });

TEST_F(PartialDownloadsTest, VolumeThatIsLeftKeepsNothing) {
  LeaveBehind(1000000);
  Tool({"init"});
  const CommandResult result = Run({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_FALSE(fs::exists(kPartials));
}

// ---- Kills ----

// At every call about what is kept, and at those around it.
TEST_F(PartialDownloadsTest, KilledWhereverItIsTheNextRunInstallsAndLeavesNothing) {
  const auto begin_with_part = [this] {
    fs::remove_all(kPartials);
    fs::remove_all(kPrefix);
    fs::remove_all("/var/lib/data_update/oui");
    LeaveBehind(1000000);
    Line({});
  };
  const std::vector<std::string> command = {kTool, "update", "oui"};
  begin_with_part();
  const std::vector<std::string> calls = TraceFileChanges(command);
  AdoptOrphans();
  std::size_t moments = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].find("partial-downloads") == std::string::npos &&
        calls[i].find(offered_.sha384) == std::string::npos) {
      continue;
    }
    ++moments;
    begin_with_part();
    EXPECT_EQ(RunUntilFileChange(command, i + 1).exit_status, 128 + SIGKILL) << calls[i];
    WaitForOrphans();
    const CommandResult result = Update();
    EXPECT_EQ(result.exit_status, 0) << calls[i] << result.err;
    ExpectInstalled();
  }
  EXPECT_GE(moments, 3u);
}

// ---- Settings of wget ----

TEST_F(PartialDownloadsTest, OperatorsSettingsOfWgetDoNotKeepADownloadFromGoingOn) {
  WriteFile("/tmp/wgetrc", "waitretry = 0\ncontinue = off\nuse_server_timestamps = on\n");
  Line({1500000, 1, Ranges::kForbidden});
  EXPECT_EQ(Update().exit_status, 1);
  const BreakingLine line = Line({});
  EXPECT_EQ(Update().exit_status, 0);
  EXPECT_EQ(line.SentBytes(), package_.size() - 1500000);
  ExpectInstalled();
}

}  // namespace
}  // namespace tolm::testing
