// The installed program, from outside.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <sstream>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/wait.h"
#include "tests/vcdiff/delta_builder.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using vcdiff::Adler32;
using vcdiff::BigEndian;
using vcdiff::CodeOfAdd;
using vcdiff::CodeOfCopy;
using vcdiff::CodeOfRun;
using vcdiff::Delta;
using vcdiff::HeaderParts;
using vcdiff::Integer;
using vcdiff::WindowParts;

constexpr char kProgram[] = "/usr/tolm/sbin/tolmdbudvcdiff";
constexpr char kSource[] = "0123456789";
constexpr char kTarget[] = "345!67";

// Makes kTarget of kSource.
WindowParts Window() {
  WindowParts window;
  window.indicator = 1 | 4;
  window.segment_size = 10;
  window.target_size = 6;
  window.data = "!";
  window.instructions =
      CodeOfCopy(0) + Integer(3) + CodeOfAdd() + Integer(1) + CodeOfCopy(0) + Integer(2);
  window.addresses = Integer(3) + Integer(6);
  window.checksum = BigEndian(Adler32(kTarget));
  return window;
}

class TolmdbudvcdiffTest : public ::testing::Test {
 protected:
  TolmdbudvcdiffTest() {
    WriteFile(Path("source"), kSource);
    WriteFile(Path("delta"), Delta(Window()).Encoded());
  }

  fs::path Path(const std::string& name) const { return directory_.Path() / name; }

  CommandOptions Options() const { return {{"LC_ALL=C"}, directory_.Path(), ""}; }

  CommandResult Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kProgram);
    return RunCommand(arguments, Options());
  }

  CommandResult Shell(const std::string& command) const {
    return RunCommand({"/bin/sh", "-c", command}, Options());
  }

  // One line of the program's own.
  static void ExpectOneLine(const CommandResult& result, const std::string& part) {
    EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbudvcdiff: "), HasSubstr(part), EndsWith("\n")));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }

  void SpoilDelta() const {
    WindowParts window = Window();
    window.checksum = BigEndian(1);
    WriteFile(Path("delta"), Delta(window).Encoded());
  }

  // A delta that keeps the program busy for a while, with an output of a few megabytes.
  void MakeLongDelta() const {
    WindowParts window;
    window.indicator = 1;
    window.segment_size = 1;
    window.segment_position = 900000;
    window.target_size = 1;
    window.instructions = CodeOfCopy(0) + Integer(1);
    window.addresses = Integer(0);
    const std::string one = vcdiff::WindowFields(window).Encoded();
    std::string delta = vcdiff::Header().Encoded();
    for (int i = 0; i < 3000000; ++i) {
      delta += one;
    }
    WriteFile(Path("delta"), delta);
    WriteFile(Path("source"), std::string(1000000, 's'));
  }

  // Starts decoding and stops it in the middle.
  RunningCommand StartAndStop() const {
    RunningCommand command({kProgram, "decode", "source", "output", "delta"}, Options());
    EXPECT_TRUE(WaitUntil([&] {
      const std::vector<std::string> names = ListTree(directory_.Path());
      return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        return name.rfind(".vcdiff-", 0) == 0 && fs::file_size(Path(name)) > 0;
      });
    }));
    command.Process().Signal(SIGSTOP);
    return command;
  }

  TemporaryDirectory directory_;
};

// ---- decode

TEST_F(TolmdbudvcdiffTest, DecodeMakesTheOutputAndSaysNothing) {
  const CommandResult result = Run({"decode", "source", "output", "delta"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(ReadFile(Path("output")), kTarget);
  EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "output", "source"));
}

TEST_F(TolmdbudvcdiffTest, OutputHasThePermissionBitsOfTheSource) {
  for (const mode_t mode : {0600U, 0644U, 0755U, 0444U}) {
    ASSERT_EQ(chmod(Path("source").c_str(), mode), 0);
    ASSERT_EQ(Run({"decode", "source", "output", "delta"}).exit_status, 0);
    struct stat status;
    ASSERT_EQ(stat(Path("output").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, mode);
  }
}

TEST_F(TolmdbudvcdiffTest, ExistingOutputIsReplacedByANewFile) {
  WriteFile(Path("output"), "old and longer than the new one");
  fs::create_hard_link(Path("output"), Path("other name"));
  EXPECT_EQ(Run({"decode", "source", "output", "delta"}).exit_status, 0);
  EXPECT_EQ(ReadFile(Path("output")), kTarget);
  EXPECT_EQ(ReadFile(Path("other name")), "old and longer than the new one");
}

TEST_F(TolmdbudvcdiffTest, OutputMayBeTheSource) {
  EXPECT_EQ(Run({"decode", "source", "source", "delta"}).exit_status, 0);
  EXPECT_EQ(ReadFile(Path("source")), kTarget);
}

TEST_F(TolmdbudvcdiffTest, FailureLeavesNoOutput) {
  SpoilDelta();
  const CommandResult result = Run({"decode", "source", "output", "delta"});
  EXPECT_EQ(result.exit_status, 1);
  ExpectOneLine(result, "delta: offset 14: Adler-32 checksum: value 1, expected ");
  EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "source"));
}

TEST_F(TolmdbudvcdiffTest, FailureKeepsAnOlderOutput) {
  SpoilDelta();
  WriteFile(Path("output"), "old");
  EXPECT_EQ(Run({"decode", "source", "output", "delta"}).exit_status, 1);
  EXPECT_EQ(ReadFile(Path("output")), "old");
  EXPECT_EQ(Run({"decode", "source", "source", "delta"}).exit_status, 1);
  EXPECT_EQ(ReadFile(Path("source")), kSource);
}

TEST_F(TolmdbudvcdiffTest, WindowsMayCopyFromTheOutput) {
  WindowParts again;
  again.indicator = 2 | 4;
  again.segment_size = 4;
  again.segment_position = 1;
  again.target_size = 4;
  again.instructions = CodeOfCopy(0) + Integer(4);
  again.addresses = Integer(0);
  again.checksum = BigEndian(Adler32("45!6"));
  WriteFile(Path("delta"), Delta({}, {Window(), again}).Encoded());
  ASSERT_EQ(Run({"decode", "source", "output", "delta"}).exit_status, 0);
  EXPECT_EQ(ReadFile(Path("output")), std::string(kTarget) + "45!6");
  EXPECT_EQ(Run({"verify", "source", "delta"}).exit_status, 0);
}

TEST_F(TolmdbudvcdiffTest, DeltaOfTheCommonEncoderIsDecoded) {
  std::string content;
  for (std::int64_t i = 0; i < 300000; ++i) {
    content += std::to_string(i * 7919) + '\n';
  }
  WriteFile(Path("before"), content);
  content.replace(1000000, 20, "changed");
  content.insert(500, std::string(100000, '-'));
  WriteFile(Path("after"), content);
  ASSERT_EQ(RunCommand({"xdelta3", "-e", "-f", "-q", "-s", "before", "after", "delta"}, Options())
                .exit_status,
            0);
  ASSERT_EQ(Run({"decode", "before", "output", "delta"}).exit_status, 0);
  EXPECT_TRUE(ReadFile(Path("output")) == content);
}

// ---- What cuts it short.

TEST_F(TolmdbudvcdiffTest, SignalThatEndsItRemovesTheTemporaryFile) {
  MakeLongDelta();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    RunningCommand command = StartAndStop();
    command.Process().Signal(signal);
    command.Process().Signal(SIGCONT);
    EXPECT_EQ(command.Wait().exit_status, 128 + signal);
    EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "source"));
  }
}

TEST_F(TolmdbudvcdiffTest, SourceThatShrinksIsAnError) {
  MakeLongDelta();
  RunningCommand command = StartAndStop();
  fs::resize_file(Path("source"), 0);
  command.Process().Signal(SIGCONT);
  const CommandResult result = command.Wait();
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "source or delta: became shorter while it was read");
  EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "source"));
}

TEST_F(TolmdbudvcdiffTest, DeltaThatShrinksIsAnError) {
  MakeLongDelta();
  RunningCommand command = StartAndStop();
  fs::resize_file(Path("delta"), 0);
  command.Process().Signal(SIGCONT);
  const CommandResult result = command.Wait();
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "source or delta: became shorter while it was read");
  EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "source"));
}

TEST_F(TolmdbudvcdiffTest, FullDiskIsAnIoFailure) {
  const ScopedMount small = ScopedMount::Tmpfs(Path("small"), 4096);
  WindowParts window;
  window.target_size = 100000;
  window.data = "x";
  window.instructions = CodeOfRun() + Integer(100000);
  WriteFile(Path("delta"), Delta(window).Encoded());
  const CommandResult result = Run({"decode", "source", "small/output", "delta"});
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "small/output: cannot write it: No space left on device");
  EXPECT_THAT(ListTree(Path("small")), IsEmpty());
}

TEST_F(TolmdbudvcdiffTest, FileSizeLimitIsAnIoFailure) {
  WindowParts window;
  window.target_size = 100000;
  window.data = "x";
  window.instructions = CodeOfRun() + Integer(100000);
  WriteFile(Path("delta"), Delta(window).Encoded());
  const CommandResult result =
      Shell(std::string("ulimit -f 8; exec ") + kProgram + " decode source output delta");
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "output: cannot write it: File too large");
  EXPECT_FALSE(fs::exists(Path("output")));
}

TEST_F(TolmdbudvcdiffTest, ReadOnlyDirectoryIsAnIoFailure) {
  const ScopedMount small = ScopedMount::Tmpfs(Path("small"), 4096);
  small.MakeReadOnly();
  const CommandResult result = Run({"decode", "source", "small/output", "delta"});
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "small/output: cannot make a temporary file for it: Read-only file system");
}

// ---- Exit codes.

struct Refused {
  const char* name;
  std::vector<std::string> arguments;
  int exit_status;
  const char* message;
};

class RefusalTest : public TolmdbudvcdiffTest, public ::testing::WithParamInterface<Refused> {};

TEST_P(RefusalTest, ExitsWithOneLine) {
  WriteFile(Path("bad"), "this is no delta");
  WriteFile(Path("short"), "012345678");
  fs::create_directory(Path("directory"));
  const CommandResult result = Run(GetParam().arguments);
  EXPECT_EQ(result.exit_status, GetParam().exit_status);
  ExpectOneLine(result, GetParam().message);
  EXPECT_FALSE(fs::exists(Path("output")));
}

INSTANTIATE_TEST_SUITE_P(
    All, RefusalTest,
    ::testing::Values(
        Refused{"NoCommand", {}, 2, "no command"},
        Refused{"UnknownCommand", {"encode", "a", "b"}, 2, "no such command: encode"},
        Refused{"TooFewFiles", {"decode", "source", "output"}, 2, "decode takes 3 files"},
        Refused{"TooManyFiles",
                {"decode", "source", "output", "delta", "x"},
                2,
                "decode takes 3 files"},
        Refused{"VerifyWithoutDelta", {"verify", "source"}, 2, "verify takes 2 files"},
        Refused{"InfoWithoutDelta", {"info"}, 2, "info takes 1 files"},
        Refused{"UnknownOption",
                {"decode", "--fast", "source", "output", "delta"},
                2,
                "wrong option --fast"},
        Refused{"OptionWithoutValue", {"decode", "--max-window"}, 2, "wrong option --max-window"},
        Refused{
            "ValueThatIsNoNumber", {"info", "--max-window", "1k", "delta"}, 2, "not a number: 1k"},
        Refused{"NegativeValue", {"info", "--max-window", "-1", "delta"}, 2, "not a number: -1"},
        Refused{"ValueTooLarge",
                {"info", "--max-window", "18446744073709551616", "delta"},
                2,
                "not a number: 18446744073709551616"},
        Refused{"JsonForDecode",
                {"decode", "--json", "source", "output", "delta"},
                2,
                "--json is for info only"},
        Refused{"NoDelta",
                {"decode", "source", "output", "bad"},
                1,
                "bad: offset 0: Header1: value 116, expected 214"},
        Refused{"InfoOfNoDelta", {"info", "bad"}, 1, "bad: offset 0: Header1"},
        Refused{"WrongSource",
                {"decode", "short", "output", "delta"},
                1,
                "delta: offset 6: End of the source segment: value 10, limit 9"},
        Refused{"VerifyWithWrongSource",
                {"verify", "delta", "delta"},
                1,
                "delta: offset 14: Adler-32 checksum"},
        Refused{"Limit",
                {"decode", "--max-window=5", "source", "output", "delta"},
                1,
                "Size of the target window: value 6, limit 5"},
        Refused{"LimitOfTheTarget",
                {"verify", "--max-target", "5", "source", "delta"},
                1,
                "Size of the whole target: value 6, limit 5"},
        Refused{"MissingSource",
                {"decode", "none", "output", "delta"},
                3,
                "none: cannot open it: No such file or directory"},
        Refused{"MissingDelta",
                {"decode", "source", "output", "none"},
                3,
                "none: cannot open it: No such file or directory"},
        Refused{"SourceIsADirectory",
                {"decode", "directory", "output", "delta"},
                3,
                "directory: not a regular file"},
        Refused{"OutputIsADirectory",
                {"decode", "source", "directory", "delta"},
                3,
                "directory: exists and is not a regular file"},
        Refused{"OutputInNoDirectory",
                {"decode", "source", "none/output", "delta"},
                3,
                "none/output: cannot make a temporary file for it"}),
    [](const auto& row) { return row.param.name; });

TEST_F(TolmdbudvcdiffTest, HelpShowsTheExitCodes) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--help"}, {"-h"}, {"decode", "--help"}}) {
    const CommandResult result = Run(arguments);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.out, AllOf(HasSubstr("decode [OPTION...] SOURCE OUTPUT DELTA"),
                                  HasSubstr("Exit status: 0")));
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(TolmdbudvcdiffTest, FileNamesMayBeginWithADashAfterTwoDashes) {
  WriteFile(Path("-d"), ReadFile(Path("delta")));
  EXPECT_EQ(Run({"decode", "--", "source", "-out", "-d"}).exit_status, 0);
  EXPECT_EQ(ReadFile(Path("-out")), kTarget);
}

// ---- verify and info

TEST_F(TolmdbudvcdiffTest, VerifyWritesNothing) {
  const CommandResult result = Run({"verify", "source", "delta"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "target 6 bytes, windows 1, with checksum 1\n");
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(ListTree(directory_.Path()), UnorderedElementsAre("delta", "source"));
}

TEST_F(TolmdbudvcdiffTest, InfoDescribesADelta) {
  const CommandResult result = Run({"info", "delta"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out,
            "delta: 27 bytes\n"
            "version: 0\n"
            "secondary compressor: none\n"
            "code table: default, near cache 4, same cache 3\n"
            "application header: none\n"
            "windows: 1, target 6 bytes\n"
            "ADD: 1 (1 bytes), RUN: 0 (0 bytes), COPY from segment: 2 (5 bytes), COPY from window: "
            "0 (0 bytes)\n"
            "window 0 at 5: target 0+6, segment source 0+10, data 1, instructions 6, addresses 2, "
            "checksum 0x0416012b\n"
            "  ADD: 1 (1 bytes), RUN: 0 (0 bytes), COPY from segment: 2 (5 bytes), COPY from "
            "window: 0 (0 bytes)\n");
}

TEST_F(TolmdbudvcdiffTest, InfoAsJsonIsOneObject) {
  HeaderParts header;
  header.application = std::string("a\"b\\c\x01\xff");
  WriteFile(Path("delta"), Delta(header, {Window()}).Encoded());
  const CommandResult result = Run({"info", "--json", "delta"});
  EXPECT_EQ(result.exit_status, 0);
  Json::Value info;
  std::string errors;
  std::istringstream in(result.out);
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &info, &errors)) << errors;
  EXPECT_EQ(info["file"], "delta");
  EXPECT_EQ(info["size_bytes"], 35);
  EXPECT_EQ(info["version"], "0");
  EXPECT_TRUE(info["secondary_compressor"].isNull());
  EXPECT_EQ(info["code_table"]["near"], 4);
  EXPECT_EQ(info["application_header"], "a\"b\\c\x01\xc3\xbf");
  EXPECT_EQ(info["target_bytes"], 6);
  EXPECT_EQ(info["instructions"]["add"]["count"], 1);
  EXPECT_EQ(info["instructions"]["copy_from_segment"]["bytes"], 5);
  ASSERT_EQ(info["windows"].size(), 1U);
  EXPECT_EQ(info["windows"][0]["segment"], "source");
  EXPECT_EQ(info["windows"][0]["adler32"], "0x0416012b");
  EXPECT_EQ(info["windows"][0]["addresses"]["length"], 2);
}

TEST_F(TolmdbudvcdiffTest, InfoTellsWindowsWithoutSegmentApart) {
  WindowParts plain;
  plain.target_size = 2;
  plain.data = "ab";
  plain.instructions = CodeOfAdd() + Integer(2);
  WriteFile(Path("delta"), Delta(HeaderParts(), {plain, Window(), plain}).Encoded());
  std::istringstream in(Run({"info", "--json", "delta"}).out);
  Json::Value info;
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &info, nullptr));
  ASSERT_EQ(info["windows"].size(), 3U);
  EXPECT_EQ(info["windows"][1]["segment_size"], 10);
  for (const Json::ArrayIndex i : std::initializer_list<Json::ArrayIndex>{0, 2}) {
    EXPECT_EQ(info["windows"][i]["segment"], "none") << i;
    EXPECT_EQ(info["windows"][i]["segment_position"], 0) << i;
    EXPECT_EQ(info["windows"][i]["segment_size"], 0) << i;
  }
}

TEST_F(TolmdbudvcdiffTest, OutputThatCannotBeWrittenIsAnIoFailure) {
  const CommandResult result = Shell(std::string(kProgram) + " info delta >/dev/full");
  EXPECT_EQ(result.exit_status, 3);
  ExpectOneLine(result, "standard output: cannot write it: No space left on device");
}

TEST_F(TolmdbudvcdiffTest, NeedsNoOtherProgramAndNoPublishersLibrary) {
  const CommandResult result = RunCommand({"ldd", kProgram});
  ASSERT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.out, AllOf(HasSubstr("liblzma"), HasSubstr("libdeflate")));
  for (const char* library : {"libcrypto", "libarchive", "libboost", "libjsoncpp", "libtolm"}) {
    EXPECT_EQ(result.out.find(library), std::string::npos) << library;
  }
}

}  // namespace
}  // namespace tolm::testing
