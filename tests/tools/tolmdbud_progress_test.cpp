// What the installed tool shows on a terminal while it works.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/noise.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"
#include "tests/tools/terminal.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kEraseBroken[] = "\r\033[J";
constexpr char kPackagePath[] = "/packages/oui_v1";
const fs::path kPlugins = "/usr/tolm/lib/plugins/database_autoupdate/version_change";

constexpr std::size_t kLargeBytes = 1 << 20;

class TolmdbudProgressTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    publisher_.PackFull("oui", 1, {{"large", Noise(kLargeBytes)}});
    package_bytes_ = fs::file_size(publisher_.FullPackage("oui", 1));
  }

  HttpServer& Server() { return publisher_.Server(); }

  // The package stops after three of its five parts until Server().Release().
  void StopOnTheWay() {
    HttpAnswer slow;
    slow.body_file = publisher_.FullPackage("oui", 1);
    slow.pause_at = package_bytes_ * 3 / 5 + 1;
    Server().SetAnswer(kPackagePath, slow);
  }

  void StateSize() {
    Server().SetBody("/database_info/1",
                     R"({"deprecated": false, "db_list": {"oui": {"data_version": "1",
                        "last_fetch_time": 1, "download_link": ")" +
                         Server().Url(kPackagePath) + R"(", "file_size": )" +
                         std::to_string(package_bytes_) + R"(, "diff_files": {}}}})");
  }

  [[nodiscard]] static bool WaitToShow(const TerminalCommand& command, const std::string& text) {
    return WaitUntil([&] { return command.Output().find(text) != std::string::npos; });
  }

  std::uint64_t package_bytes_ = 0;
};

// The whole texts that were written over each other.
std::vector<std::string> Frames(const std::string& output) {
  const std::string erase = "\r\033[";  // And a letter.
  std::vector<std::string> frames;
  std::size_t begin = output.find(erase);
  while (begin != std::string::npos) {
    begin += erase.size() + 1;
    const std::size_t end = output.find('\r', begin);
    if (end == std::string::npos) {
      break;
    }
    frames.push_back(output.substr(begin, end - begin));
    begin = output.find(erase, end);
  }
  return frames;
}

TEST_F(TolmdbudProgressTest, DownloadIsShownByPercentBytesAndRateAndIsGoneInTheEnd) {
  StateSize();
  StopOnTheWay();
  TerminalCommand update({kTool, "update", "oui"}, 80);
  ASSERT_TRUE(WaitToShow(update, "oui: downloading  60%  "));
  ASSERT_TRUE(WaitToShow(update, " kB/s"));
  Server().Release();
  EXPECT_EQ(update.Wait(), 0);
  EXPECT_THAT(Screen(update.Output()), ElementsAre("oui: updated to 1", ""));
}

TEST_F(TolmdbudProgressTest, SizeThatNobodyStatesGivesNoPercent) {
  StopOnTheWay();
  TerminalCommand update({kTool, "update", "oui"}, 80);
  ASSERT_TRUE(WaitToShow(update, " kB/s"));
  Server().Release();
  EXPECT_EQ(update.Wait(), 0);
  EXPECT_THAT(update.Output(), AllOf(HasSubstr("oui: downloading  "), Not(HasSubstr("%"))));
}

TEST_F(TolmdbudProgressTest, DescriptionAndHooksAreSteps) {
  WriteFile(kPlugins / "plugin", "#!/bin/sh\n[ $ACTION = post ] || read line < /tmp/gate\n");
  fs::permissions(kPlugins / "plugin", fs::perms::owner_all);
  ASSERT_EQ(mkfifo("/tmp/gate", 0600), 0);
  Server().Hang("/database_info/1",
                R"({"deprecated": false, "db_list": {"oui": {"data_version": "1",
      "last_fetch_time": 1, "download_link": ")" +
                    Server().Url(kPackagePath) + R"(", "diff_files": {}}}})");
  TerminalCommand update({kTool, "update", "oui"}, 80);
  ASSERT_TRUE(WaitToShow(update, "oui: fetching the description  0 B"));
  Server().Release();
  ASSERT_TRUE(WaitToShow(update, "oui: running hooks  0 s"));
  WriteFile("/tmp/gate", "go on\n");
  EXPECT_EQ(update.Wait(), 0);
  EXPECT_THAT(Screen(update.Output()), ElementsAre("oui: updated to 1", ""));
}

TEST_F(TolmdbudProgressTest, LineFitsTheTerminalAlsoWhenThatBecomesNarrower) {
  StateSize();
  StopOnTheWay();
  TerminalCommand update({kTool, "update", "oui"}, 80);
  ASSERT_TRUE(WaitToShow(update, " kB/s"));
  const std::size_t wide = Frames(update.Output()).back().size();
  EXPECT_GT(wide, 40u);
  EXPECT_LT(wide, 80u);
  EXPECT_THAT(update.Output(), Not(HasSubstr(kEraseBroken)));
  update.Resize(40);
  ASSERT_TRUE(WaitUntil([&] { return Frames(update.Output()).back().size() < 40; }));
  EXPECT_THAT(Frames(update.Output()).back(), StartsWith("oui  60%  "));
  // The line may have been broken in two.
  EXPECT_THAT(update.Output(), HasSubstr(kEraseBroken));
  update.Resize(12);
  ASSERT_TRUE(WaitUntil([&] { return Frames(update.Output()).back() == "downloading"; }));
  Server().Release();
  EXPECT_EQ(update.Wait(), 0);
}

TEST_F(TolmdbudProgressTest, FailureStandsAloneOnTheScreen) {
  StateSize();
  StopOnTheWay();
  TerminalCommand update({kTool, "update", "oui"}, 80, {"TERM=xterm", "NO_COLOR=1"});
  ASSERT_TRUE(WaitToShow(update, "60%"));
  WriteFile(publisher_.FullPackage("oui", 1), "");
  Server().SetAnswer(kPackagePath, HttpAnswer());
  Server().Release();
  EXPECT_EQ(update.Wait(), 1);
  // Without colours: the screen knows none.
  EXPECT_THAT(Screen(update.Output()),
              ElementsAre(StartsWith("tolmdbud: oui 1: not a package, or cut short"), ""));
}

TEST_F(TolmdbudProgressTest, InterruptionAtTheTerminalEndsIt) {
  StateSize();
  StopOnTheWay();
  TerminalCommand update({kTool, "update", "oui"}, 80, {"TERM=xterm", "NO_COLOR=1"});
  ASSERT_TRUE(WaitToShow(update, "60%"));
  update.Type("\x03");
  EXPECT_EQ(update.Wait(), 128 + SIGINT);
  const std::vector<std::string> screen = Screen(update.Output());
  EXPECT_EQ(screen[screen.size() - 2], "tolmdbud: oui: interrupted");
  ExpectNothingLeft();
}

TEST_F(TolmdbudProgressTest, WaitForAnotherOperationIsShownAndEndsAtOnce) {
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  const UniqueDescriptor other(open("/run/data_update/operator.lock", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
  TerminalCommand update({kTool, "update", "oui"}, 80);
  ASSERT_TRUE(WaitToShow(update, "oui: waiting for another operation  0 s"));
  update.Type("\x03");
  EXPECT_EQ(update.Wait(), 128 + SIGINT);
}

TEST_F(TolmdbudProgressTest, TerminalThatCannotEraseGetsLines) {
  StateSize();
  for (const char* terminal : {"TERM=dumb", "TERM"}) {
    fs::remove_all("/var/lib/data_update/oui");
    fs::remove_all("/var/cache/data_update");
    TerminalCommand update({kTool, "update", "oui"}, 80, {terminal});
    EXPECT_EQ(update.Wait(), 0);
    EXPECT_THAT(Screen(update.Output()),
                ElementsAre("oui: fetching the description", "oui: downloading", "oui: verifying",
                            "oui: unpacking", "oui: preparing", "oui: running hooks",
                            "oui: installing", "oui: running hooks", "oui: updated to 1", ""));
  }
}

TEST_F(TolmdbudProgressTest, NothingIsShownWhereNobodyWantsIt) {
  StateSize();
  StopOnTheWay();
  for (const char* option : {"--quiet", "--verbose", "-vv"}) {
    const std::size_t seen = Server().RequestCount(kPackagePath);
    TerminalCommand update({kTool, "update", "oui", option}, 80);
    ASSERT_TRUE(Server().WaitForRequest(kPackagePath, seen + 1));
    Server().Release();
    update.Wait();
    EXPECT_THAT(update.Output(), Not(HasSubstr("downloading"))) << option;
    EXPECT_THAT(update.Output(), Not(HasSubstr("\033[K"))) << option;
    fs::remove_all("/var/lib/data_update/oui");
  }
  RunningCommand piped({kTool, "update", "oui"}, {{"TERM=xterm"}, "", ""});
  ASSERT_TRUE(Server().WaitForRequest(kPackagePath, 4));
  Server().Release();
  const CommandResult result = piped.Wait();
  EXPECT_EQ(result.out, "oui: updated to 1\n");
  EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace tolm::testing
