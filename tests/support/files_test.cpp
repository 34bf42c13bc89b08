#include "tests/support/files.h"

#include <gmock/gmock.h>

#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

TEST(Files, WrittenFileIsReadBackWithEveryByte) {
  const TemporaryDirectory directory;
  const std::string content("a\0\r\n\xff", 5);
  WriteFile(directory.Path() / "deep/er/file", content);
  EXPECT_EQ(ReadFile(directory.Path() / "deep/er/file"), content);
}

TEST(Files, MissingFileCannotBeRead) {
  const TemporaryDirectory directory;
  EXPECT_THROW(ReadFile(directory.Path() / "none"), std::runtime_error);
  EXPECT_THROW(Sha384Hex(directory.Path() / "none"), std::runtime_error);
}

TEST(Files, TreeIsReadAsItWasMade) {
  const TemporaryDirectory directory;
  const Tree tree = {{"d/", ""}, {"d/f", "one"}, {"empty/", ""}, {"link -> d/f", ""}};
  MakeTree(directory.Path() / "root", tree);
  EXPECT_EQ(ReadTree(directory.Path() / "root"), tree);
  EXPECT_THAT(ListTree(directory.Path() / "root"),
              ElementsAre("d/", "d/f", "empty/", "link -> d/f"));
}

TEST(Files, DigestIsTheKnownOne) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "f", "abc");
  EXPECT_EQ(Sha384Hex(directory.Path() / "f"),
            "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded163"
            "1a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7");
}

TEST(TemporaryDirectory, VanishesWithItsContent) {
  fs::path path;
  {
    const TemporaryDirectory directory;
    path = directory.Path();
    WriteFile(path / "a/b", "c");
    EXPECT_TRUE(fs::is_directory(path));
  }
  EXPECT_FALSE(fs::exists(path));
}

}  // namespace
}  // namespace tolm::testing
