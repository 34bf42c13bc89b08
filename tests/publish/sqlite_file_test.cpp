#include "publish/sqlite_file.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <stdexcept>

#include "package/error.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

using package::Code;
using publish::IsSqliteFile;
using publish::MakeSqlDelta;
using ::testing::HasSubstr;

package::Error ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const package::Error& error) {
    return error;
  }
  throw std::runtime_error("no error");
}

class PublishedSqliteTest : public ReleaseFixture {
 protected:
  PublishedSqliteTest() {
    WriteFile(Path("old.db"), Table(0));
    WriteFile(Path("new.db"), Table(3));
  }

  package::Error Failure(const std::string& old_file, const std::string& script) {
    return ErrorOf([&] { MakeSqlDelta(Path(old_file), Path("new.db"), Path(script), {}); });
  }
};

TEST_F(PublishedSqliteTest, UnreadableFileIsAnErrorOfReading) {
  const package::Error unread = ErrorOf([this] { IsSqliteFile(Path("gone")); });
  EXPECT_EQ(unread.code(), Code::kRead);
  EXPECT_EQ(unread.errno_value(), ENOENT);
  EXPECT_EQ(unread.what(), Path("gone") + ": No such file or directory");
  const package::Error gone = Failure("gone.db", "script");
  EXPECT_EQ(gone.code(), Code::kRead);
  EXPECT_EQ(gone.what(),
            Path("gone.db") + ", " + Path("new.db") + ": unable to open database file");
}

TEST_F(PublishedSqliteTest, UnwritableScriptIsAnErrorOfWriting) {
  const package::Error nowhere = Failure("old.db", "gone/script");
  EXPECT_EQ(nowhere.code(), Code::kWrite);
  EXPECT_EQ(nowhere.errno_value(), ENOENT);
  EXPECT_EQ(nowhere.what(), Path("gone/script.scratch") + ": No such file or directory");
}

TEST_F(PublishedSqliteTest, FullFileSystemIsToldApart) {
  const auto mount = ScopedMount::Tmpfs(Path("small"), 16 << 10);
  const package::Error full = Failure("old.db", "small/script");
  EXPECT_EQ(full.code(), Code::kNoSpace);
  EXPECT_EQ(full.errno_value(), ENOSPC);
  EXPECT_EQ(full.what(), Path("small/script.scratch") + ": No space left on device");
}

TEST_F(PublishedSqliteTest, OnlySqliteFilesHoldTheSameInOtherBytes) {
  WriteFile(Path("also_new.db"), Table(0, "UPDATE t SET v = v || ' changed' WHERE k <= 3; VACUUM"));
  ASSERT_TRUE(ReadFile(Path("also_new.db")) != ReadFile(Path("new.db")));
  EXPECT_TRUE(publish::HoldTheSame(Path("also_new.db"), Path("new.db")));
  EXPECT_FALSE(publish::HoldTheSame(Path("old.db"), Path("new.db")));
  WriteFile(Path("text"), "text");
  EXPECT_FALSE(publish::HoldTheSame(Path("text"), Path("text")));
}

}  // namespace
}  // namespace tolm::testing
