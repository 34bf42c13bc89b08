#include "publish/remote.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::Remote;
using ::testing::HasSubstr;

TEST(RemoteTest, FolderIsOneWhateverSlashesEndItsName) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path();
  const Remote remote(path);
  EXPECT_TRUE(remote.IsFolder());
  EXPECT_TRUE(remote.HasDigests());
  EXPECT_EQ(remote.Name(), path);
  EXPECT_EQ(Remote(path + "//").Key(), remote.Key());
  WriteFile(path + "/a", "text");
  EXPECT_EQ(remote.Read("a", 100), "text");
  EXPECT_EQ(remote.Read("a", 2), "te");
  EXPECT_EQ(remote.Read("b", 100), std::nullopt);
}

TEST(RemoteTest, WhatRcloneWouldTakeForAnOptionIsNone) {
  for (const std::string text : {"", "-v", "--config=/tmp/x"}) {
    ExpectError([&] { const Remote remote(text); }, "\"" + text + "\" is no remote of rclone");
  }
}

TEST(RemoteTest, FileIsNoFolder) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "a", "text");
  ExpectError([&] { const Remote remote(directory.Path() / "a"); }, HasSubstr("not a directory"));
}

}  // namespace
}  // namespace tolm::testing
