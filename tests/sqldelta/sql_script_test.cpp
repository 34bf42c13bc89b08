#include "sqldelta/sql_script.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "sqldelta/error.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using sqldelta::FileError;
using sqldelta::SqliteConnection;
using sqldelta::SqlScript;

class SqlScriptTest : public ::testing::Test {
 protected:
  SqlScriptTest() : scratch_(OpenEmpty(directory_.Path() / "scratch")) {
    scratch_.Execute("CREATE TABLE t (v TEXT)");
  }

  static SqliteConnection OpenEmpty(const std::string& path) {
    WriteFile(path, "");
    return SqliteConnection::OpenScratch(path);
  }

  const TemporaryDirectory directory_;
  SqliteConnection scratch_;
};

TEST_F(SqlScriptTest, DeferredStatementsAreExecutedWhenToldTo) {
  const std::string path = directory_.Path() / "script";
  SqlScript script(path, scratch_);
  script.Defer("INSERT INTO t VALUES ('x');");
  EXPECT_EQ(scratch_.Single("SELECT count(*) FROM t").integer, 0);
  script.ExecuteDeferred();
  EXPECT_EQ(scratch_.Single("SELECT count(*) FROM t").integer, 1);
  script.Close();
  EXPECT_EQ(ReadFile(path), "INSERT INTO t VALUES ('x');\n");
}

TEST_F(SqlScriptTest, FullFileSystemIsSaidBeforeACutStatementIsExecuted) {
  const auto disk = ScopedMount::Tmpfs("/small", 4096);
  WriteFile("/small/other", std::string(4096, 'x'));
  SqlScript script("/small/script", scratch_);
  script.Defer("INSERT INTO t VALUES ('" + std::string(100, 'x') + "');");
  try {
    script.ExecuteDeferred();
    FAIL() << "nothing was thrown";
  } catch (const FileError& error) {
    EXPECT_EQ(error.action(), FileError::Action::kWrite);
    EXPECT_EQ(error.errno_value(), ENOSPC);
  }
}

}  // namespace
}  // namespace tolm::testing
