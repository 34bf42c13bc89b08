#include "publish/tree.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "package/error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

// Done after a file of this name was looked at so many times.
const char* watched = nullptr;
int looks_left = 0;
std::function<void()> then;

}  // namespace

// A file system on which something happens between two looks, when a test wants that.
int lstat(const char* path, struct stat* status) noexcept {
  const int result = fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
  if (watched != nullptr && std::string(path).find(watched) != std::string::npos &&
      --looks_left == 0) {
    watched = nullptr;
    then();
  }
  return result;
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using publish::ScanTree;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class TreeTest : public ::testing::Test {
 protected:
  std::string Make(const std::string& name, const Tree& files) {
    fs::create_directories(directory_.Path() / name);
    MakeTree(directory_.Path() / name, files);
    return directory_.Path() / name;
  }

  static std::vector<std::string> Keys(const publish::Tree& tree) {
    std::vector<std::string> keys;
    for (const auto& entry : tree.files) {
      keys.push_back(entry.first);
    }
    return keys;
  }

  static void ExpectRefused(const std::string& directory, Code code, const std::string& words,
                            bool follow_links = false) {
    try {
      ScanTree(directory, {follow_links});
      ADD_FAILURE() << "read " << directory;
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), code) << error.what();
      EXPECT_THAT(error.what(), HasSubstr(words));
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(TreeTest, FilesAreKeyedByTheirPathWithSizeAndDigest) {
  const std::string top = Make("t", {{"b", "12345"}, {"a/x", ""}, {"a.b", "y"}});
  const publish::Tree tree = ScanTree(top);
  EXPECT_THAT(Keys(tree), ElementsAre("/a.b", "/a/x", "/b"));
  const publish::TreeFile& file = tree.files.at("/b");
  EXPECT_EQ(file.key, "/b");
  EXPECT_EQ(file.path, top + "/b");
  EXPECT_EQ(file.size_bytes, 5U);
  EXPECT_EQ(file.sha384, Sha384Hex(top + "/b"));
  EXPECT_THAT(tree.warnings, IsEmpty());
}

TEST_F(TreeTest, EmptyDirectoriesAndModesAreNoContent) {
  const std::string with = Make("with", {{"a", "1"}, {"empty/", ""}});
  fs::permissions(with + "/a", fs::perms(0600));
  EXPECT_EQ(publish::TreeDigest(ScanTree(with)),
            publish::TreeDigest(ScanTree(Make("without", {{"a", "1"}}))));
}

TEST_F(TreeTest, DigestDiffersWithNamesAndContent) {
  const std::string digest = publish::TreeDigest(ScanTree(Make("0", {{"a", "1"}, {"b", "2"}})));
  EXPECT_EQ(digest.size(), 96U);
  const struct {
    const char* name;
    Tree files;
  } kRows[] = {
      {"content", {{"a", "1"}, {"b", "3"}}},
      {"swapped", {{"a", "2"}, {"b", "1"}}},
      {"renamed", {{"a", "1"}, {"c", "2"}}},
      {"moved", {{"a", "1"}, {"d/b", "2"}}},
      {"missing", {{"a", "1"}}},
      {"added", {{"a", "1"}, {"b", "2"}, {"c", ""}}},
  };
  for (const auto& row : kRows) {
    EXPECT_NE(publish::TreeDigest(ScanTree(Make(row.name, row.files))), digest) << row.name;
  }
}

TEST_F(TreeTest, LinksAndSpecialFilesAreRefused) {
  ExpectRefused(Make("link", {{"a", "1"}, {"b -> a", ""}}), Code::kMemberType,
                "/b: a symbolic link");
  const std::string top = Make("fifo", {{"d/", ""}});
  ASSERT_EQ(::mkfifo((top + "/d/f").c_str(), 0600), 0);
  ExpectRefused(top, Code::kMemberType, "/d/f: neither a file nor a directory");
  ExpectRefused(top, Code::kMemberType, "/d/f", true);
}

TEST_F(TreeTest, FollowedLinksStandForWhatTheyLeadTo) {
  const std::string top = Make("t", {{"a", "12"}, {"b -> a", ""}, {"d/x", "3"}, {"e -> d", ""}});
  const publish::Tree tree = ScanTree(top, {true});
  EXPECT_THAT(Keys(tree), ElementsAre("/a", "/b", "/d/x", "/e/x"));
  EXPECT_EQ(tree.files.at("/b").size_bytes, 2U);
}

TEST_F(TreeTest, LinksThatLeadNowhereOrInACircleAreRefused) {
  ExpectRefused(Make("nowhere", {{"a -> b", ""}}), Code::kRead, "/a", true);
  ExpectRefused(Make("circle", {{"d/e -> ..", ""}}), Code::kRead, "a directory that it lies in",
                true);
  // Seen at the first step, not once around.
  try {
    ScanTree(directory_.Path() / "circle", {true});
    ADD_FAILURE() << "was read";
  } catch (const package::Error& error) {
    EXPECT_STREQ(error.what(), "/d/e: this link leads to a directory that it lies in");
  }
}

TEST_F(TreeTest, NamesThatNoPackageTakesAreRefused) {
  ExpectRefused(Make("bytes", {{"d/\xff", ""}}), Code::kMemberPath, "not UTF-8");
  ExpectRefused(Make("control", {{"a\nb", ""}}), Code::kMemberPath, "/a\\x0ab");
  ExpectRefused(Make("seal", {{".tolmpkg/x", ""}}), Code::kMemberPath, "/.tolmpkg");
  const std::string long_name(200, 'n');
  std::string path = long_name;
  while (path.size() <= 2048) {
    path += "/" + long_name;
  }
  ExpectRefused(Make("long", {{path, ""}}), Code::kMemberPath, "");
  EXPECT_THAT(Keys(ScanTree(Make("deep", {{"d/.tolmpkg", ""}}))), ElementsAre("/d/.tolmpkg"));
}

TEST_F(TreeTest, NamesWithColonsAreWarnedOfInTheOrderOfKeys) {
  const publish::Tree tree = ScanTree(Make("t", {{"a/b:c", ""}, {"a.d:e", ""}, {"f", ""}}));
  EXPECT_EQ(tree.files.size(), 3U);
  EXPECT_THAT(tree.warnings, ElementsAre(HasSubstr("/a.d:e: "), HasSubstr("/a/b:c: ")));
}

TEST_F(TreeTest, ReadByAnyNumberOfJobsATreeIsTheSame) {
  Tree files;
  for (int i = 0; i < 50; ++i) {
    files["d" + std::to_string(i % 7) + "/f" + std::to_string(i)] = std::to_string(i * i);
  }
  const std::string top = Make("t", files);
  EXPECT_EQ(TreeDigest(ScanTree(top, {false, 1})), TreeDigest(ScanTree(top, {false, 4})));
}

TEST_F(TreeTest, MissingDirectoryIsReported) {
  ExpectRefused(directory_.Path() / "none", Code::kRead, "none");
}

TEST_F(TreeTest, CopiesHaveContentAndPermissionBitsAndLinksShareTheFile) {
  const std::string top = Make("t", {{"a", "1"}, {"d/e/b", "2"}, {"l -> a", ""}});
  fs::permissions(top + "/d/e/b", fs::perms(0640));
  const publish::Tree tree = ScanTree(top, {true});
  const std::string copy = directory_.Path() / "copy";
  publish::CopyTree(tree, copy);
  EXPECT_THAT(ReadTree(copy),
              (Tree{{"a", "1"}, {"d/", ""}, {"d/e/", ""}, {"d/e/b", "2"}, {"l", "1"}}));
  EXPECT_EQ(fs::status(copy + "/d/e/b").permissions(), fs::perms(0640));
  EXPECT_EQ(fs::hard_link_count(copy + "/a"), 1U);
  const std::string linked = directory_.Path() / "linked";
  publish::LinkTree(tree, linked);
  EXPECT_TRUE(fs::equivalent(linked + "/l", top + "/a"));
  EXPECT_FALSE(fs::is_symlink(linked + "/l"));
}

TEST_F(TreeTest, CopyReplacesNothing) {
  const std::string copy = Make("copy", {{"a", "there"}});
  EXPECT_THROW(publish::CopyTree(ScanTree(Make("t", {{"a", "new"}})), copy), package::Error);
  EXPECT_EQ(ReadFile(copy + "/a"), "there");
}

// Another one under its name, or its content in place.
TEST_F(TreeTest, FileThatChangesWhileItIsReadIsRefused) {
  struct Row {
    const char* name;
    std::function<void(const std::string&)> change;
    int looks = 2;  // the first is for the file's kind
  };
  const auto keep_times = [](const std::string& path, const std::function<void()>& change) {
    struct stat before {};
    ASSERT_EQ(fstatat(AT_FDCWD, path.c_str(), &before, 0), 0);
    change();
    const struct timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  const auto set_time = [](const std::string& path, time_t seconds, long nanoseconds) {
    const struct timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  for (const Row& row : std::initializer_list<Row>{
           {"longer",
            [&](const std::string& path) { keep_times(path, [&] { WriteFile(path, "12345"); }); }},
           {"shorter",
            [&](const std::string& path) { keep_times(path, [&] { WriteFile(path, "1"); }); }},
           {"of another second", [&](const std::string& path) { set_time(path, 1001, 5); }},
           {"of another nanosecond", [&](const std::string& path) { set_time(path, 1000, 6); }},
           {"of another mode",
            [](const std::string& path) { fs::permissions(path, fs::perms(0600)); }},
           {"another one",
            [&](const std::string& path) {
              keep_times(path, [&] {
                WriteFile(path + ".new", "1234");
                fs::rename(path + ".new", path);
              });
            }},
           {"a link from the first look on",
            [](const std::string& path) {
              fs::rename(path, path + ".old");
              fs::create_symlink(path + ".old", path);
            },
            1}}) {
    SCOPED_TRACE(row.name);
    const std::string top = Make(std::string("t ") + row.name, {{"d/watched", "1234"}});
    const std::string path = top + "/d/watched";
    set_time(path, 1000, 5);
    then = [&] { row.change(path); };
    looks_left = row.looks;
    watched = "/d/watched";
    ExpectRefused(top, Code::kChanged, "/d/watched: changed while it was being read");
    EXPECT_EQ(watched, nullptr) << "nothing has happened";
  }
}

// Catalogs hold such digests for years.
TEST_F(TreeTest, DigestOfATreeStaysWhatItWas) {
  EXPECT_EQ(
      publish::TreeDigest({}),
      "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f1"
      "4898b95b");
  EXPECT_EQ(
      publish::TreeDigest(ScanTree(Make("t", {{"b", "12345"}, {"a/x", ""}}))),
      "2e16534d4ef76e954461f8ea39b6523c0e216b16381620bbf85acf7a33e7bc2efd315dce87c00c6940f0a0c2"
      "5095adee");
}

TEST_F(TreeTest, TreeIsNotPutWhereAFileStands) {
  const publish::Tree tree = ScanTree(Make("t", {{"a/b", "1"}, {"a/c", "2"}}));
  const std::string copy = Make("copy", {{"a", "there"}});
  for (const auto place : {publish::CopyTree, publish::LinkTree}) {
    try {
      place(tree, copy);
      ADD_FAILURE() << "was put there";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), Code::kWrite) << error.what();
      EXPECT_EQ(error.errno_value(), ENOTDIR);
      EXPECT_THAT(error.what(), ::testing::StartsWith(copy + "/a: "));
    }
  }
  EXPECT_EQ(ReadFile(copy + "/a"), "there");
}

TEST_F(TreeTest, WhatIsRefusedIsToldWithItsKey) {
  const std::string top = Make("t", {{"d/a:b", ""}});
  EXPECT_THAT(
      ScanTree(top).warnings,
      ElementsAre("/d/a:b: the name has a \":\", on which hooks that split lists of names go "
                  "wrong"));
  ExpectRefused(Make("link", {{"d/l -> x", ""}}), Code::kMemberType,
                "/d/l: a symbolic link, which no full update installs");
  ExpectRefused(Make("seal", {{".tolmpkg", ""}}), Code::kMemberPath,
                "/.tolmpkg: this name belongs to the package format");
  ExpectRefused(Make("control", {{"d/a\tb", ""}}), Code::kMemberPath,
                "/d/a\\x09b: the name is not UTF-8 or has control characters");
  try {
    ScanTree(directory_.Path() / "no\nne");
    ADD_FAILURE() << "was read";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.errno_value(), ENOENT);
    EXPECT_THAT(error.what(), ::testing::EndsWith("/no\\x0ane: No such file or directory"));
  }
}

}  // namespace
}  // namespace tolm::testing
