#include "publish/passphrase.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include "package/error.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::ReadPassphrase;

class PassphraseTest : public ::testing::Test {
 protected:
  std::string Read(const std::string& content) const {
    WriteFile(file_, content);
    return ReadPassphrase(file_);
  }

  TemporaryDirectory directory_;
  const std::string file_ = directory_.Path() / "file";
};

TEST_F(PassphraseTest, IsTheFirstLineOfTheFileWhateverEndsIt) {
  EXPECT_EQ(Read("one pass phrase"), "one pass phrase");
  EXPECT_EQ(Read("one pass phrase\n"), "one pass phrase");
  EXPECT_EQ(Read("one pass phrase\r\nand more\r\n"), "one pass phrase");
  EXPECT_EQ(Read("\rone\r\r\n"), "\rone\r") << "one carriage return ends a line";
  EXPECT_EQ(Read(" x \n\n"), " x ");
}

TEST_F(PassphraseTest, HasOneToAThousandBytes) {
  EXPECT_EQ(Read("x"), "x");
  EXPECT_EQ(Read(std::string(1000, 'x') + "\r\n"), std::string(1000, 'x'));
  for (const std::string& content : {std::string(), std::string("\n"), std::string("\r\n"),
                                     std::string("\nx"), std::string(1001, 'x')}) {
    ExpectError([&] { Read(content); },
                file_ + ": its first line is no pass phrase of 1 to 1000 bytes");
  }
}

TEST_F(PassphraseTest, ComesFromTheStandardInputWhereTheFileIsADash) {
  std::istringstream input("one pass phrase\nthe rest\n");
  std::streambuf* const before = std::cin.rdbuf(input.rdbuf());
  const std::string read = ReadPassphrase("-");
  std::cin.rdbuf(before);
  EXPECT_EQ(read, "one pass phrase");
  std::string rest;
  std::getline(input, rest);
  EXPECT_EQ(rest, "the rest") << "is left to whoever reads on";
}

TEST_F(PassphraseTest, FileThatCannotBeReadIsNamed) {
  const std::string none = directory_.Path() / "none";
  try {
    ReadPassphrase(none);
    ADD_FAILURE() << "was read";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), package::Code::kRead);
    EXPECT_EQ(error.what(), none + ": No such file or directory");
  }
}

}  // namespace
}  // namespace tolm::testing
