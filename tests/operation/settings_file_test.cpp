#include "operation/settings_file.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace {

constexpr int kNoNumber = -1;
int reads_left = -1;  // Before they fail; below 0 for ever.
int read_error = 0;   // With this number, or without setting one.
int open_error = 0;   // Not 0: no file is opened.

}  // namespace

// A disk that gives what a test wants.
[[gnu::visibility("default")]] ssize_t read(int file, void* buffer, std::size_t size) {
  if (reads_left == 0) {
    errno = read_error == kNoNumber ? errno : read_error;
    return -1;
  }
  reads_left -= reads_left > 0 ? 1 : 0;
  return syscall(SYS_read, file, buffer, size);
}

[[gnu::visibility("default")]] FILE* fopen64(const char* path, const char* mode) {
  static auto* const open =
      reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
  if (open_error != 0) {
    errno = open_error;
    return nullptr;
  }
  return open(path, mode);
}

namespace tolm::operation {
namespace {

constexpr char kFile[] = "/tmp/settings.conf";

TEST(SettingsFileTest, SoundOneHasADocumentAndNoProblem) {
  testing::WriteFile(kFile, R"({"a": 1})");
  const SettingsFile file = LoadSettings(kFile);
  ASSERT_TRUE(file.document.has_value());
  EXPECT_EQ((*file.document)["a"], 1);
  EXPECT_EQ(file.problem, "");
}

TEST(SettingsFileTest, MissingOneHasNeither) {
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "");
}

TEST(SettingsFileTest, DamagedOneIsToldOnOneLineByItsFirstErrorAndThePlace) {
  testing::WriteFile(kFile, "{\"a\": 1\n\"b\": x}");
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "line 2, column 1: Missing ',' or '}' in object declaration");
  EXPECT_FALSE(file.is_unreadable);
}

TEST(SettingsFileTest, OneThatCannotBeReadIsNoDamagedOne) {
  std::filesystem::create_symlink("/proc/self/mem", kFile);  // Nothing is at its beginning.
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "cannot be read: Input/output error");
  EXPECT_TRUE(file.is_unreadable);
  EXPECT_EQ(ProblemOfFile(kFile), file.problem);
}

class UnreadableSettingsTest : public ::testing::Test {
 protected:
  UnreadableSettingsTest() { testing::WriteFile(kFile, R"({"a": 1})"); }
  ~UnreadableSettingsTest() override {
    reads_left = -1;
    open_error = 0;
  }

  static std::string ProblemWithReadError(int number) {
    reads_left = 0;
    read_error = number;
    const std::string problem = ProblemOfFile(kFile);
    reads_left = -1;
    return problem;
  }
  static std::string ProblemWithOpenError(int number) {
    open_error = number;
    const std::string problem = ProblemOfFile(kFile);
    open_error = 0;
    return problem;
  }
};

TEST_F(UnreadableSettingsTest, ErrorIsTheSystemsOwnAndAnyIsOne) {
  EXPECT_EQ(ProblemWithReadError(ESTALE), "cannot be read: Stale file handle");
  EXPECT_EQ(ProblemWithReadError(EPERM), "cannot be read: Operation not permitted");
  EXPECT_EQ(ProblemWithReadError(kNoNumber), "cannot be read: Input/output error");
  EXPECT_EQ(ProblemWithOpenError(EACCES), "cannot be read: Permission denied");
  EXPECT_EQ(ProblemWithOpenError(EPERM), "cannot be read: Operation not permitted");
  EXPECT_EQ(ProblemOfFile(kFile), "");
}

TEST_F(UnreadableSettingsTest, DiskThatFailsTheSecondTimeLeavesNoDamagedFile) {
  read_error = EIO;
  reads_left = 2;  // What is in the file, and its end.
  const SettingsFile file = LoadSettings(kFile);
  EXPECT_FALSE(file.document.has_value());
  EXPECT_EQ(file.problem, "cannot be read: Input/output error");
  EXPECT_TRUE(file.is_unreadable);
}

TEST_F(UnreadableSettingsTest, DiskIsBlamedForNothingElse) {
  using dataupdate::UpdateError;
  const UpdateError failed("Fail to read: x", UpdateError::kGeneral);
  EXPECT_EQ(DiskProblem(kFile, failed), "cannot be read: Input/output error") << "it did once";
  EXPECT_EQ(DiskProblem(kFile, UpdateError("Fail to read: x", UpdateError::kFileNotExist)), "");
  EXPECT_EQ(DiskProblem(kFile, UpdateError("Fail to decode: x", UpdateError::kGeneral)), "");
  EXPECT_EQ(DiskProblem("/tmp", failed), "");
  EXPECT_EQ(DiskProblem("/tmp/missing", failed), "");
  open_error = EACCES;
  EXPECT_EQ(DiskProblem(kFile, failed), "");
  open_error = EPERM;
  EXPECT_EQ(DiskProblem(kFile, failed), "");
  open_error = ESTALE;
  EXPECT_EQ(DiskProblem(kFile, failed), "cannot be read: Stale file handle");
}

TEST(SettingsFileTest, WhatTheLibraryRefusesIsToldByItsPlaceAndCommentsAreTaken) {
  testing::WriteFile(kFile, "\xEF\xBB\xBF{}");
  EXPECT_EQ(ProblemOfSettings(kFile), "line 1, column 1: a byte order mark stands there");
  EXPECT_TRUE(IsDamagedSettings(kFile));
  testing::WriteFile(kFile, "{\"a\": 1,}");
  EXPECT_EQ(ProblemOfSettings(kFile), "line 1, column 9: Missing '}' or object member name");
  testing::WriteFile(kFile, "{\"a\": \"b");
  EXPECT_EQ(ProblemOfSettings(kFile),
            "line 1, column 7: Syntax error: value, object or array expected.")
      << "what is cut off ends at its end";
  testing::WriteFile(kFile, "{\"a\": 1}  // one\n");
  EXPECT_EQ(ProblemOfSettings(kFile), "");
  EXPECT_FALSE(IsDamagedSettings(kFile));
}

TEST(SettingsFileTest, WhatIsSetAsideIsNumberedFromTheSecondOn) {
  const std::string aside = std::string(kFile) + ".aside";
  EXPECT_TRUE(SetAsideOf(kFile).empty());
  EXPECT_EQ(NextAside(kFile), aside);
  testing::WriteFile(aside, "");
  EXPECT_EQ(SetAsideOf(kFile), (std::vector<std::string>{aside}));
  EXPECT_EQ(NextAside(kFile), aside + ".2");
  std::filesystem::create_symlink("/nonexistent", aside + ".2");
  EXPECT_EQ(SetAsideOf(kFile), (std::vector<std::string>{aside, aside + ".2"}));
  EXPECT_EQ(NextAside(kFile), aside + ".3");
}

// What stands before the zero is there under any number.
TEST(SettingsFileTest, NothingIsSetAsideUnderANameWithAZeroByte) {
  testing::WriteFile(kFile, "");
  EXPECT_TRUE(SetAsideOf(kFile + std::string(1, '\0') + "more").empty());
}

}  // namespace
}  // namespace tolm::operation
