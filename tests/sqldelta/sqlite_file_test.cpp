#include "sqldelta/sqlite_file.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "sqldelta/error.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using sqldelta::FileError;
using sqldelta::IsSqliteFile;

class SqliteFileTest : public ::testing::Test {
 protected:
  std::string At(const std::string& name) const { return directory_.Path() / name; }

  TemporaryDirectory directory_;
};

TEST_F(SqliteFileTest, IsToldByItsFirstSixteenBytes) {
  ExecuteOn(At("x.db"), "CREATE TABLE t(a)");
  EXPECT_TRUE(IsSqliteFile(At("x.db")));
  const std::string content = ReadFile(At("x.db"));
  const struct {
    std::string content;
    bool is_one;
  } kRows[] = {{content.substr(0, 16), true},
               {content.substr(0, 15), false},
               {"", false},
               {"SQLite format 3 ", false},
               {"x" + content, false}};
  for (const auto& row : kRows) {
    WriteFile(At("file"), row.content);
    EXPECT_EQ(IsSqliteFile(At("file")), row.is_one) << row.content.size();
  }
}

TEST_F(SqliteFileTest, WhatCannotBeReadIsNamed) {
  try {
    IsSqliteFile(At("gone"));
    ADD_FAILURE() << "read";
  } catch (const FileError& error) {
    EXPECT_EQ(error.action(), FileError::Action::kRead);
    EXPECT_EQ(error.errno_value(), ENOENT);
    EXPECT_EQ(error.what(), At("gone") + ": No such file or directory");
  }
}

}  // namespace
}  // namespace tolm::testing
