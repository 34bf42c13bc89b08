// The installed program, from outside.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "package/layout.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kProgram[] = "/usr/bin/tolmdbpub";

class TolmdbpubTest : public ::testing::Test {
 protected:
  CommandResult Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kProgram);
    return RunCommand(arguments, {{"LC_ALL=C"}, directory_.Path(), ""});
  }
  CommandResult Pack(const std::string& package = "oui_v7") const {
    return Run({"pack", "source", package, "--name", "oui", "--kind", "full", "--version", "7",
                "--key", "keys/signing.key", "--cert", "keys/signing.pem"});
  }
  void MakeKeys() const { ASSERT_EQ(Run({"keygen", "keys", "--no-passphrase"}).exit_status, 0); }
  void MakeSource() const {
    MakeTree(directory_.Path() / "source", {{"a.txt", "hello"}, {"sub/gr\xc3\xbcn", "1"}});
  }

  // One line of the program's own.
  static void ExpectOneLine(const CommandResult& result, const std::string& part) {
    EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbpub: "), HasSubstr(part), EndsWith("\n")));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }

  TemporaryDirectory directory_;
};

TEST_F(TolmdbpubTest, KeygenPackAndInspectWorkTogether) {
  MakeKeys();
  MakeSource();
  const CommandResult pack = Pack();
  EXPECT_EQ(pack.exit_status, 0);
  EXPECT_EQ(pack.err, "") << "progress is for terminals only";
  EXPECT_EQ(pack.out, "");
  const CommandResult unchecked = Run({"inspect", "oui_v7"});
  EXPECT_EQ(unchecked.exit_status, 0);
  EXPECT_THAT(unchecked.out, HasSubstr("NOT CHECKED against a trusted root"));
  EXPECT_THAT(unchecked.out, HasSubstr("sub/gr\xc3\xbcn\n"));
  const CommandResult checked = Run({"inspect", "oui_v7", "--keyring", "keys/root.pem"});
  EXPECT_EQ(checked.exit_status, 0) << checked.err;
  EXPECT_THAT(checked.out, HasSubstr("verified against the keyring"));
}

TEST_F(TolmdbpubTest, PackageIsCheckedByHandWithStandardTools) {
  MakeKeys();
  MakeSource();
  ASSERT_EQ(Pack().exit_status, 0);
  const std::string script =
      "set -e\n"
      "size=$(stat -c %s oui_v7)\n"
      "signature=$((0x$(tail -c 16 oui_v7 | head -c 8 | od -An -v -tx1 | tr -d ' \\n')))\n"
      "payload=$((size - 16 - signature))\n"
      "head -c $payload oui_v7 > payload\n"
      "tail -c +$((payload + 1)) oui_v7 | head -c $signature > signature.der\n"
      "openssl cms -verify -binary -inform DER -in signature.der -content payload"
      " -CAfile keys/root.pem -purpose any -out checked\n"
      "cmp payload checked\n"
      "zstd -dc payload | tar -tf - 2>/dev/null | head -n 1\n";
  const CommandResult result = RunCommand({"sh", "-c", script}, {{}, directory_.Path(), ""});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, ".tolmpkg\n");
}

TEST_F(TolmdbpubTest, WrongUsageIsExitCodeTwo) {
  const std::vector<std::string> good = {"pack",   "source", "p",         "--name", "oui",
                                         "--kind", "full",   "--version", "7",      "--key",
                                         "k",      "--cert", "c"};
  const auto with = [&](const std::string& option, const std::string& value) {
    std::vector<std::string> changed = good;
    *(std::find(changed.begin(), changed.end(), option) + 1) = value;
    return changed;
  };
  struct Row {
    std::vector<std::string> arguments;
    const char* named;
  };
  const Row rows[] = {{{}, "subcommand"},
                      {{"unwrap"}, "unwrap"},
                      {{"keygen"}, "DIR"},
                      {{"keygen", "a", "b"}, "b"},
                      {{"pack", "source", "p"}, "--name"},
                      {with("--name", "a/b"), "--name"},
                      {with("--name", ""), "--name"},
                      {with("--kind", "huge"), "--kind"},
                      {with("--version", "-1"), "--version"},
                      {with("--version", "2147483648"), "--version"},
                      {with("--version", "seven"), "--version"},
                      {{"inspect"}, "PACKAGE"},
                      {{"inspect", "p", "--crl", "x"}, "--keyring"}};
  for (const Row& row : rows) {
    const CommandResult result = Run(row.arguments);
    EXPECT_EQ(result.exit_status, 2) << row.named;
    ExpectOneLine(result, row.named);
    EXPECT_EQ(result.out, "");
  }
}

// What CMakeLists.txt says.
std::string VersionOfTheProject() {
  const std::string text = ReadFile(TOLM_TEST_SOURCE_DIR "/CMakeLists.txt");
  std::smatch found;
  EXPECT_TRUE(std::regex_search(text, found, std::regex("VERSION ([0-9]+(\\.[0-9]+)+) LANGUAGES")));
  return found[1];
}

TEST_F(TolmdbpubTest, EveryToolPrintsTheVersionOfTheProject) {
  for (const std::string program :
       {"/usr/bin/tolmdbpub", "/usr/bin/tolmdbud", "/usr/tolm/sbin/tolmdbudvcdiff"}) {
    const CommandResult result = RunCommand({program, "--version"}, {{"LC_ALL=C"}, "", ""});
    EXPECT_EQ(result.exit_status, 0) << program;
    const std::string name = fs::path(program).filename();
    EXPECT_EQ(result.out, name + ' ' + VersionOfTheProject() + '\n');
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(TolmdbpubTest, HelpSaysTheExitCodes) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--help"}, {"keygen", "--help"}, {"pack", "--help"}, {"inspect", "--help"}}) {
    const CommandResult result = Run(arguments);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.out, HasSubstr("Exit codes: 0 success, 1 failure, 2 wrong usage."));
  }
}

TEST_F(TolmdbpubTest, FailuresSayWhatWasWrongWithWhat) {
  MakeKeys();
  const CommandResult again = Run({"keygen", "keys", "--no-passphrase"});
  EXPECT_EQ(again.exit_status, 1);
  ExpectOneLine(again, "keys/root.key: File exists");
  const CommandResult no_source = Pack();
  EXPECT_EQ(no_source.exit_status, 1);
  ExpectOneLine(no_source, "source: No such file or directory");
  MakeSource();
  ASSERT_EQ(::mkfifo((directory_.Path() / "source/sub/pipe").c_str(), 0600), 0);
  const CommandResult fifo = Pack();
  EXPECT_EQ(fifo.exit_status, 1);
  ExpectOneLine(fifo, "sub/pipe: neither file, directory nor symbolic link");
  const CommandResult missing = Run({"inspect", "nothing"});
  EXPECT_EQ(missing.exit_status, 1);
  ExpectOneLine(missing, "nothing: No such file or directory");
}

TEST_F(TolmdbpubTest, SourceWithTheFormatsOwnNameIsNotPacked) {
  MakeKeys();
  MakeSource();
  WriteFile(directory_.Path() / "source/.tolmpkg", "{}");
  const CommandResult result = Pack();
  EXPECT_EQ(result.exit_status, 1);
  ExpectOneLine(result, ".tolmpkg");
  EXPECT_FALSE(fs::exists(directory_.Path() / "oui_v7"));
}

TEST_F(TolmdbpubTest, ForeignKeyringIsAFailure) {
  MakeKeys();
  MakeSource();
  ASSERT_EQ(Pack().exit_status, 0);
  ASSERT_EQ(Run({"keygen", "others", "--no-passphrase"}).exit_status, 0);
  const CommandResult result = Run({"inspect", "oui_v7", "--keyring", "others/root.pem"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  ExpectOneLine(result, "the signer's certificate is refused");
}

TEST_F(TolmdbpubTest, OutputThatCannotBeWrittenIsAFailure) {
  MakeKeys();
  MakeSource();
  ASSERT_EQ(Pack().exit_status, 0);
  for (const char* arguments : {"inspect oui_v7", "--help", "--version", "list --help"}) {
    const CommandResult result =
        RunCommand({"sh", "-c", std::string(kProgram) + ' ' + arguments + " > /dev/full"},
                   {{}, directory_.Path(), ""});
    EXPECT_EQ(result.exit_status, 1) << arguments;
    ExpectOneLine(result, "standard output");
  }
}

}  // namespace
}  // namespace tolm::testing
