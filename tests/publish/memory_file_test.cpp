#include "publish/memory_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

namespace tolm::testing {
namespace {

using publish::MemoryFile;

TEST(MemoryFileTest, IsReadFromTheBeginning) {
  const MemoryFile file("probe", "content");
  std::array<char, 100> read{};
  ASSERT_EQ(::read(file.Get(), read.data(), read.size()), 7);
  EXPECT_STREQ(read.data(), "content");
}

TEST(MemoryFileTest, ContentIsAllThatWasWrittenWhereverThePositionIs) {
  const std::string content = std::string(100000, 'x') + '\0' + "end";
  const MemoryFile file("probe", content);
  ::lseek(file.Get(), 5000, SEEK_SET);
  EXPECT_TRUE(file.Content() == content);
  ASSERT_EQ(::lseek(file.Get(), 0, SEEK_END), static_cast<off_t>(content.size()));
  ASSERT_EQ(::write(file.Get(), "more", 4), 4);
  EXPECT_TRUE(file.Content() == content + "more");
  EXPECT_EQ(MemoryFile("probe").Content(), "");
}

TEST(MemoryFileTest, ProgramsInheritItOnlyWhenItIsGivenToThem) {
  const MemoryFile file("probe");
  EXPECT_NE(::fcntl(file.Get(), F_GETFD) & FD_CLOEXEC, 0);
}

}  // namespace
}  // namespace tolm::testing
