#include "tests/support/mounts.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

TEST(ScopedMount, TmpfsIsFullAfterItsSize) {
  const TemporaryDirectory directory;
  const fs::path target = directory.Path() / "small";
  const ScopedMount mount = ScopedMount::Tmpfs(target, 64 * 1024);
  WriteFile(target / "fits", std::string(32 * 1024, 'x'));
  EXPECT_THROW(WriteFile(target / "too much", std::string(64 * 1024, 'x')), std::runtime_error);
}

TEST(ScopedMount, ReadOnlyRefusesWritesUntilMadeWritable) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "f", "old");
  const ScopedMount mount = ScopedMount::ReadOnly(directory.Path());
  EXPECT_THROW(WriteFile(directory.Path() / "f", "new"), std::runtime_error);
  EXPECT_EQ(ReadFile(directory.Path() / "f"), "old");
  struct statvfs status = {};
  ASSERT_EQ(statvfs(directory.Path().c_str(), &status), 0);
  EXPECT_NE(status.f_flag & ST_RDONLY, 0U);
  mount.MakeWritable();
  WriteFile(directory.Path() / "f", "new");
  EXPECT_EQ(ReadFile(directory.Path() / "f"), "new");
}

TEST(ScopedMount, BoundFileShowsItsSource) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "source", "text");
  const fs::path target = directory.Path() / "sub/target";
  {
    const ScopedMount mount = ScopedMount::Bind(directory.Path() / "source", target);
    EXPECT_EQ(ReadFile(target), "text");
  }
  EXPECT_EQ(ReadFile(target), "");
}

TEST(ScopedMount, EndsWithItsScopeOrBefore) {
  const TemporaryDirectory directory;
  ScopedMount mount = ScopedMount::Tmpfs(directory.Path(), 4096);
  WriteFile(directory.Path() / "f", "x");
  mount.Unmount();
  EXPECT_FALSE(fs::exists(directory.Path() / "f"));
}

TEST(ScopedMount, MissingSourceIsAnError) {
  EXPECT_THROW(ScopedMount::Bind("/tmp/none", "/tmp/target"), std::system_error);
}

}  // namespace
}  // namespace tolm::testing
