#include "operation/notes_lock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/lock_holder.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST(NotesLockTest, MakesItsFileAndTheStateDirectorySafeFirst) {
  const std::string history = std::string(paths::kStateDirectory) + "/history.jsonl";
  { const NotesLock lock(0); }
  const mode_t lock_mode = ModeOf(paths::kNotesLock);
  EXPECT_EQ(lock_mode & 022, 0u);
  testing::WriteFile(history, "");
  ASSERT_EQ(chmod(paths::kStateDirectory, 0777), 0);
  ASSERT_EQ(chmod(history.c_str(), 0666), 0);
  ASSERT_EQ(chmod(paths::kNotesLock, 0666), 0);
  { const NotesLock lock(0); }
  EXPECT_EQ(ModeOf(paths::kStateDirectory), 0755u);
  EXPECT_EQ(ModeOf(history), 0644u);
  EXPECT_EQ(ModeOf(paths::kNotesLock), lock_mode);
}

TEST(NotesLockTest, IsHeldByOneAtATime) {
  const NotesLock lock(0);
  EXPECT_TRUE(IsHeld(paths::kNotesLock));
  EXPECT_THROW(NotesLock(0), dataupdate::UpdateError);
}

}  // namespace
}  // namespace tolm::operation
