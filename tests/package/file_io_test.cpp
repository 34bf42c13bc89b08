#include "package/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "base/file.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using base::Descriptor;
using package::Code;

TEST(FileIoTest, FullDiskIsToldFromOtherWriteFailures) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  const Descriptor file(::open("/small/f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::string data(128 * 1024, 'x');
  EXPECT_EQ(CodeOf([&] { package::WriteAll(file.Get(), data.data(), data.size(), "f"); }),
            Code::kNoSpace);
  EXPECT_EQ(CodeOf([&] { package::WriteAll(-1, data.data(), data.size(), "f"); }), Code::kWrite);
}

TEST(FileIoTest, SmallFilesAreReadUpToTheirBound) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "12345");
  EXPECT_EQ(package::ReadSmallFile(path, 5, Code::kKeyring), "12345");
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path, 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path + "x", 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile("/tmp", 4, Code::kOpen); }), Code::kOpen);
}

TEST(FileIoTest, SmallFilesTakeLittleMemoryHoweverLargeTheirBound) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "12345");
  EXPECT_LE(package::ReadSmallFile(path, 64 << 20, Code::kKeyring).capacity(), 1U << 20);
  EXPECT_LE(base::File(path, O_RDONLY).Read(0, 64 << 20).capacity(), 1U << 20);
  const std::string long_text(5 << 20, 'x');
  WriteFile(path, long_text + "end");
  EXPECT_EQ(package::ReadSmallFile(path, 64 << 20, Code::kKeyring), long_text + "end");
  EXPECT_EQ(base::File(path, O_RDONLY).Read(long_text.size() - 1, 64 << 20), "xend");
}

}  // namespace
}  // namespace tolm::testing
