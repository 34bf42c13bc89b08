#include "operation/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using std::chrono::milliseconds;

ProgressView Download(std::uint64_t bytes, std::optional<std::uint64_t> total) {
  return {"vendors",
          {StepKind::kDownload, "/v/@tmp/data_update/vendors_v7", "http://h/x"},
          milliseconds(2000),
          bytes,
          total};
}

TEST(ProgressLineTest, DownloadShowsPercentBytesAndRate) {
  EXPECT_EQ(ProgressLine(Download(12300000, 27100000), 79),
            "vendors: downloading  45%  12.3 of 27.1 MB  6.2 MB/s");
  EXPECT_EQ(ProgressLine(Download(500, 2000), 79),
            "vendors: downloading  25%  0.5 of 2.0 kB  250 B/s");
}

TEST(ProgressLineTest, WithoutAKnownSizeThereIsNoPercent) {
  EXPECT_EQ(ProgressLine(Download(12300000, std::nullopt), 79),
            "vendors: downloading  12.3 MB  6.2 MB/s");
  EXPECT_EQ(ProgressLine(Download(0, std::nullopt), 79), "vendors: downloading  0 B  0 B/s");
  EXPECT_EQ(ProgressLine(Download(0, 0), 79), "vendors: downloading  0 of 0 B  0 B/s");
}

TEST(ProgressLineTest, MoreThanWasStatedIsNotMoreThanAllOfIt) {
  EXPECT_EQ(ProgressLine(Download(3000, 2000), 79),
            "vendors: downloading  100%  3.0 of 2.0 kB  1.5 kB/s");
}

TEST(ProgressLineTest, DownloadThatGoesOnSaysFromWhereAndItsOwnRate) {
  ProgressView view = Download(12300000, 27100000);
  view.bytes_before = 12000000;
  EXPECT_EQ(ProgressLine(view, 79),
            "vendors: downloading from 12.0 MB  45%  12.3 of 27.1 MB  150 kB/s");
  EXPECT_EQ(ProgressLine(view, 40), "vendors  45%  12.3 of 27.1 MB  150 kB/s");
}

TEST(ProgressLineTest, RateIsNotShownAtOnce) {
  ProgressView view = Download(1000, 2000);
  view.passed = milliseconds(100);
  EXPECT_EQ(ProgressLine(view, 79), "vendors: downloading  50%  1.0 of 2.0 kB");
  view.passed = milliseconds(499);
  EXPECT_EQ(ProgressLine(view, 79), "vendors: downloading  50%  1.0 of 2.0 kB");
  view.passed = milliseconds(500);
  EXPECT_EQ(ProgressLine(view, 79), "vendors: downloading  50%  1.0 of 2.0 kB  2.0 kB/s");
}

TEST(ProgressLineTest, NothingMoreThanThereWasIsARateOfNothing) {
  for (const std::uint64_t bytes : {std::uint64_t{999}, std::uint64_t{1000}}) {
    ProgressView view = Download(bytes, std::nullopt);
    view.bytes_before = 1000;
    view.passed = milliseconds(1000);
    EXPECT_EQ(ProgressLine(view, 79), "vendors: downloading from 1.0 kB  " +
                                          std::string(bytes == 999 ? "999 B" : "1.0 kB") +
                                          "  0 B/s");
  }
}

TEST(ProgressLineTest, SecondHasAThousandMilliseconds) {
  ProgressView view = Download(9995, std::nullopt);
  view.passed = milliseconds(10000);
  EXPECT_EQ(ProgressLine(view, 79), "vendors: downloading  10.0 kB  999 B/s");
  view.step.kind = StepKind::kVerify;
  view.passed = milliseconds(7000);
  EXPECT_EQ(ProgressLine(view, 79), "vendors: verifying  7 s");
}

TEST(ProgressLineTest, OtherStepsShowTheirTime) {
  ProgressView view{"vendors", {StepKind::kVerify}, milliseconds(3900), 0, {}};
  EXPECT_EQ(ProgressLine(view, 79), "vendors: verifying  3 s");
}

TEST(ProgressLineTest, SignalIsAnsweredWhileAnInstallationIsFinished) {
  ProgressView view{"vendors", {StepKind::kInstall}, milliseconds(3900), 0, {}};
  view.ending = true;
  EXPECT_EQ(ProgressLine(view, 79), "vendors: installing, then ending  3 s");
  EXPECT_EQ(ProgressLine(view, 30), "installing, then ending");
}

TEST(ProgressLineTest, FitsAnyWidth) {
  const std::vector<std::pair<std::size_t, std::string>> lines = {
      {52, "vendors: downloading  45%  12.3 of 27.1 MB  6.2 MB/s"},
      {39, "vendors  45%  12.3 of 27.1 MB  6.2 MB/s"},
      {38, "vendors: downloading  45%  6.2 MB/s"},
      {34, "vendors: downloading  45%"},
      {24, "downloading  45%"},
      {12, "downloading"},
      {5, "downl"},
      {0, ""}};
  for (const auto& [columns, line] : lines) {
    EXPECT_EQ(ProgressLine(Download(12300000, 27100000), columns), line);
  }
  ProgressView view{std::string(100, 'n'), {StepKind::kInstall}, milliseconds(0), 0, {}};
  for (std::size_t columns = 0; columns < 120; ++columns) {
    EXPECT_LE(ProgressLine(view, columns).size(), columns);
  }
}

TEST(ProgressLineTest, NameDoesNothingToATerminal) {
  ProgressView view{"a\x1b[2J\n\xc3\xa4", {StepKind::kInstall}, milliseconds(0), 0, {}};
  EXPECT_EQ(ProgressLine(view, 79), "a?[2J???: installing  0 s");
  view.database = " !}~\x7f";
  EXPECT_EQ(ProgressLine(view, 79), " !}~?: installing  0 s");
}

TEST(StepTextTest, EveryStepHasWords) {
  const std::vector<std::pair<Step, std::string>> texts = {
      {{StepKind::kWait}, "waiting for another operation"},
      {{StepKind::kDownload, "/var/cache/data_update/database_info.json"},
       "fetching the description"},
      {{StepKind::kDownload, "/v/oui_v2"}, "downloading"},
      {{StepKind::kDownload, "/v/oui_debug"}, "downloading"},
      {{StepKind::kDownload, "/v/oui_d20"}, "downloading a delta"},
      {{StepKind::kDownload, "/v/with_d_v2"}, "downloading"},
      {{StepKind::kDownload, "/v/oui_d"}, "downloading"},
      {{StepKind::kDownload, "/v/oui_dx2"}, "downloading"},
      {{StepKind::kDownload, "/v/oui_d2x"}, "downloading"},
      {{StepKind::kDownload, "/v/_d2"}, "downloading a delta"},
      {{StepKind::kVerify, "/v/oui_v2"}, "verifying"},
      {{StepKind::kUnpack, "/v/oui_v2"}, "unpacking"},
      {{StepKind::kPrepare, "/v/oui_v2"}, "preparing"},
      {{StepKind::kPrepare, "/v/oui_d2"}, "patching"},
      {{StepKind::kPatch}, "patching"},
      {{StepKind::kPreHooks}, "running hooks"},
      {{StepKind::kInstall}, "installing"},
      {{StepKind::kPostHooks}, "running hooks"}};
  for (const auto& [step, text] : texts) {
    EXPECT_EQ(StepText(step), text);
  }
}

// Standard error is a terminal for as long as this exists.
class TerminalOfErrors {
 public:
  explicit TerminalOfErrors(unsigned short columns = 80) {
    int end = -1;
    const winsize size{24, columns, 0, 0};
    EXPECT_EQ(openpty(&terminal_, &end, nullptr, nullptr, &size), 0);
    before_ = dup(STDERR_FILENO);
    dup2(end, STDERR_FILENO);
    close(end);
    setenv("TERM", "xterm", 1);
  }
  ~TerminalOfErrors() {
    dup2(before_, STDERR_FILENO);
    close(before_);
    close(terminal_);
  }
  TerminalOfErrors(const TerminalOfErrors&) = delete;
  TerminalOfErrors& operator=(const TerminalOfErrors&) = delete;

  /// What stands on it once that does; whatever stands there when nothing more comes for long.
  std::string ReadTo(const std::string& text) const {
    constexpr int kPatienceMilliseconds = 30000;
    std::string all;
    pollfd readable{terminal_, POLLIN, 0};
    while (all.find(text) == std::string::npos && poll(&readable, 1, kPatienceMilliseconds) == 1) {
      std::array<char, 4096> piece{};
      const ssize_t size = read(terminal_, piece.data(), piece.size());
      all.append(piece.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    return all;
  }

  /// What stands on it up to now, without what was read before.
  std::string ReadAll() const {
    const std::string end = "|end|";
    EXPECT_EQ(write(STDERR_FILENO, end.data(), end.size()), static_cast<ssize_t>(end.size()));
    const std::string all = ReadTo(end);
    return all.substr(0, all.find(end));
  }

  /// So much that a whole line with this text is in it, which is drawn again and again.
  std::string ReadLineWith(const std::string& text) const { return ReadTo(text) + ReadTo("\r"); }

 private:
  int terminal_ = -1;
  int before_ = -1;
};

TEST(ProgressTest, StepIsShownAndThenTheNextOneInItsPlace) {
  const TerminalOfErrors terminal;
  Progress progress(true);
  progress.Show("oui", {StepKind::kVerify}, std::nullopt);
  EXPECT_THAT(terminal.ReadTo("oui: verifying"), ::testing::HasSubstr("oui: verifying"));
  progress.Show("oui", {StepKind::kInstall}, std::nullopt);
  EXPECT_THAT(terminal.ReadTo("oui: installing"),
              ::testing::AllOf(::testing::HasSubstr("oui: installing"),
                               ::testing::Not(::testing::HasSubstr("\n"))));
}

TEST(ProgressTest, TerminalThatErasesNothingGetsALineForEachStep) {
  const TerminalOfErrors terminal;
  setenv("TERM", "dumb", 1);
  Progress progress(true);
  progress.Show("oui", {StepKind::kVerify}, std::nullopt);
  progress.Show("oui", {StepKind::kVerify}, std::nullopt);
  progress.Show("oui", {StepKind::kInstall}, std::nullopt);
  EXPECT_EQ(terminal.ReadTo("installing\r\n"), "oui: verifying\r\noui: installing\r\n");
}

constexpr char kErase[] = "\r\033[K";
const std::string kName23(23, 'n');

TEST(ProgressTest, LastColumnStaysFreeAndNoOtherAlsoWhereTheWidthIsNotKnown) {
  const std::string longest = std::string(80 - 1 - 16, 'n');
  for (const auto& [columns, name] :
       {std::pair<unsigned short, std::string>{40, kName23}, {80, longest}, {0, longest}}) {
    SCOPED_TRACE(columns);
    const TerminalOfErrors terminal(columns);
    Progress progress(true);
    progress.Show(name, {StepKind::kVerify}, std::nullopt);
    EXPECT_THAT(terminal.ReadLineWith("verifying"),
                ::testing::ContainsRegex("\r\033.K" + name + ": verifying  [0-9] s\r"));
    progress.Show(name + 'm', {StepKind::kVerify}, std::nullopt);
    EXPECT_THAT(terminal.ReadLineWith("nm: verifying"),
                ::testing::HasSubstr(kErase + name + "m: verifying\r"));
  }
}

TEST(ProgressTest, HiddenOneIsErasedOnceAndComesNotAgain) {
  for (const unsigned short columns : std::initializer_list<unsigned short>{80, 1}) {
    const TerminalOfErrors terminal(columns);
    Progress progress(true);
    progress.Show("oui", {StepKind::kVerify}, std::nullopt);
    const std::string shown = terminal.ReadLineWith(columns == 1 ? "" : "verifying");
    const std::string again = terminal.ReadLineWith(columns == 1 ? "" : "verifying");
    EXPECT_THAT(shown + again, ::testing::Not(::testing::HasSubstr("\033[J"))) << "same width";
    progress.Hide();
    progress.Hide();
    EXPECT_THAT(shown + again + terminal.ReadAll(),
                ::testing::EndsWith(std::string("\r") + kErase));
    poll(nullptr, 0, 250);  // It would be drawn twice meanwhile.
    EXPECT_EQ(terminal.ReadAll(), "");
  }
}

TEST(ProgressTest, NothingIsLeftOfItAtItsEnd) {
  const TerminalOfErrors terminal;
  std::string shown;
  {
    Progress progress(true);
    progress.Show("oui", {StepKind::kVerify}, std::nullopt);
    shown = terminal.ReadTo("verifying");
  }
  EXPECT_THAT(shown + terminal.ReadAll(), ::testing::EndsWith(std::string("\r") + kErase));
  {
    const Progress unused(true);
    poll(nullptr, 0, 50);  // It waits for something to show, and must hear of its end.
  }
  EXPECT_EQ(terminal.ReadAll(), "");
}

TEST(ProgressTest, WhoDoesNotWantItGetsNothing) {
  const TerminalOfErrors terminal;
  for (const char* name : {"dumb", "xterm"}) {
    setenv("TERM", name, 1);
    Progress progress(false);
    progress.Show("oui", {StepKind::kVerify}, std::nullopt);
    poll(nullptr, 0, 150);
  }
  EXPECT_EQ(terminal.ReadAll(), "");
}

TEST(ProgressTest, OnlyAPackageThatIsThereInPartSaysFromWhereItGoesOn) {
  const TerminalOfErrors terminal;
  const std::string package = "/tmp/oui_v7";
  const std::string description = "/var/cache/data_update/database_info.json";
  testing::WriteFile(package, std::string(1000, 'x'));
  testing::WriteFile(description, std::string(1000, 'x'));
  Progress progress(true);
  progress.Show("oui", {StepKind::kDownload, package, "http://h/x"}, std::nullopt);
  EXPECT_THAT(terminal.ReadLineWith("downloading"),
              ::testing::HasSubstr("oui: downloading from 1.0 kB  1.0 kB"));
  progress.Show("oui", {StepKind::kVerify, package}, std::nullopt);
  EXPECT_THAT(terminal.ReadLineWith("verifying"), ::testing::HasSubstr("oui: verifying  "));
  progress.Show("oui", {StepKind::kDownload, description, "http://h/y"}, std::nullopt);
  EXPECT_THAT(terminal.ReadLineWith("description"),
              ::testing::HasSubstr("oui: fetching the description  1.0 kB"));
}

}  // namespace
}  // namespace tolm::operation
