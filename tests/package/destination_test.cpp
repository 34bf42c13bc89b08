#include "package/destination.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/package/expect_code.h"
#include "tests/package/payload_builder.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Destination;
using package::Member;
using package::PayloadReader;

struct stat StatusOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

class DestinationTest : public ::testing::Test {
 protected:
  DestinationTest() { fs::create_directory(Root()); }

  fs::path Root() const { return directory_.Path() / "root"; }
  fs::path Outside() const { return directory_.Path() / "outside"; }

  // Puts every member that `add` adds; `meanwhile` is called after each, with its name.
  void Put(
      const std::function<void(PayloadBuilder&)>& add, const fs::path& root,
      const std::function<void(const std::string&)>& meanwhile = [](const std::string&) {},
      Destination::Audience audience = Destination::Audience::kEverybody) {
    PayloadBuilder builder;
    builder.Seal();
    add(builder);
    PutPayload(builder.Finish(), root, meanwhile, audience);
  }
  void Put(const std::function<void(PayloadBuilder&)>& add) { Put(add, Root()); }
  std::optional<Code> PutCode(const std::function<void(PayloadBuilder&)>& add) {
    return CodeOf([&] { Put(add); });
  }

  // Puts "s", which holds these parts and has holes between them.
  std::optional<Code> PutSparse(
      std::uint64_t size, const std::vector<std::pair<std::uint64_t, std::string>>& parts,
      Destination::Audience audience = Destination::Audience::kEverybody) {
    const std::string payload = PayloadBuilder::WithSparseFile(
        PayloadBuilder(PayloadBuilder::Filter::kNone).Seal().Finish(), "s", size, parts);
    return CodeOf([&] {
      PutPayload(
          payload, Root(), [](const std::string&) {}, audience);
    });
  }

  TemporaryDirectory directory_;

 private:
  static void PutPayload(const std::string& payload, const fs::path& root,
                         const std::function<void(const std::string&)>& meanwhile,
                         Destination::Audience audience) {
    const PayloadFile file(payload);
    PayloadReader reader(file.fd(), file.size());
    const base::Descriptor directory = OpenDirectory(root);
    Destination destination(directory.Get(), audience);
    for (Member member; reader.Next(member);) {
      destination.Put(member, reader);
      meanwhile(member.name);
    }
  }
};

// Sees whether a directory was opened, itself and not what is in it.
class DirectoryOpenings {
 public:
  explicit DirectoryOpenings(const fs::path& directory)
      : watch_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    EXPECT_GE(::inotify_add_watch(watch_.Get(), directory.c_str(), IN_OPEN), 0);
  }

  // Since the last call.
  bool Take() const {
    bool was_opened = false;
    alignas(inotify_event) char buffer[4096];
    for (ssize_t size = 0; (size = ::read(watch_.Get(), buffer, sizeof buffer)) > 0;) {
      for (const char* at = buffer; at < buffer + size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        was_opened = was_opened || event->len == 0;
        at += sizeof *event + event->len;
      }
    }
    return was_opened;
  }

 private:
  base::Descriptor watch_;
};

TEST_F(DestinationTest, WhereNobodyLooksFilesAreWrittenInTheirPlace) {
  std::vector<ino_t> inodes;
  const auto look = [&](const std::string& name) {
    inodes.push_back(StatusOf(Root() / name).st_ino);
  };
  Put([](auto& b) { b.File("a", "1").File("x/b", "22").File("a", "333", 0600); }, Root(), look,
      Destination::Audience::kNobody);
  EXPECT_EQ(ReadTree(Root()), (Tree{{"a", "333"}, {"x/", ""}, {"x/b", "22"}}));
  EXPECT_EQ(StatusOf(Root() / "a").st_mode & 07777, 0600U);
  EXPECT_NE(inodes.front(), inodes.back()) << "what came twice is not written over";
}

TEST_F(DestinationTest, WhereNobodyLooksNothingIsWrittenThroughALinkEither) {
  fs::create_directory(Outside());
  Put([this](auto& b) { b.SymbolicLink("a", (Outside() / "b").string()).File("a", "1"); }, Root(),
      [](const std::string&) {}, Destination::Audience::kNobody);
  EXPECT_TRUE(fs::is_empty(Outside()));
  EXPECT_EQ(ReadTree(Root()), (Tree{{"a", "1"}}));
}

TEST_F(DestinationTest, TreeIsMadeWithMissingParents) {
  Put([](auto& b) {
    b.File("a", "1").File("x/y/b", "2").Directory("empty").SymbolicLink("x/l", "/nowhere");
    b.File("nothing", "");
    b.HardLink("x/y/h", "x/y/b");
  });
  EXPECT_EQ(ReadTree(Root()), (Tree{{"a", "1"},
                                    {"empty/", ""},
                                    {"nothing", ""},
                                    {"x/", ""},
                                    {"x/l -> /nowhere", ""},
                                    {"x/y/", ""},
                                    {"x/y/b", "2"},
                                    {"x/y/h", "2"}}));
  EXPECT_EQ(StatusOf(Root() / "x/y/b").st_ino, StatusOf(Root() / "x/y/h").st_ino);
}

TEST_F(DestinationTest, PermissionsAreRestoredAndNothingElse) {
  ::umask(077);
  Put([](auto& b) {
    b.File("s", "1", 06755).Directory("d", 01555).File("d/f", "2", 0640).Directory("o", 0);
  });
  EXPECT_EQ(StatusOf(Root() / "s").st_mode & 07777, 0755U);
  EXPECT_EQ(StatusOf(Root() / "d").st_mode & 07777, 0755U);
  EXPECT_EQ(StatusOf(Root() / "d/f").st_mode & 07777, 0640U);
  EXPECT_EQ(StatusOf(Root() / "o").st_mode & 07777, 0700U);
  EXPECT_EQ(StatusOf(Root() / "s").st_uid, ::geteuid());
  EXPECT_EQ(StatusOf(Root() / "s").st_gid, ::getegid());
  EXPECT_GT(StatusOf(Root() / "s").st_mtime, 1000);
}

TEST_F(DestinationTest, NobodyButTheOwnerWritesWhatAPackageBrings) {
  ::umask(0);
  Put([](auto& b) { b.File("s", "1", 06777).Directory("d", 01777).File("d/f", "2", 0666); });
  EXPECT_EQ(StatusOf(Root() / "s").st_mode & 07777, 0755U);
  EXPECT_EQ(StatusOf(Root() / "d").st_mode & 07777, 0755U);
  EXPECT_EQ(StatusOf(Root() / "d/f").st_mode & 07777, 0644U);
}

TEST_F(DestinationTest, ReaderKeepsTheOldFileWhole) {
  WriteFile(Root() / "a", "old content");
  const base::Descriptor reader(::open((Root() / "a").c_str(), O_RDONLY | O_CLOEXEC));
  const ino_t old_inode = StatusOf(Root() / "a").st_ino;
  Put([](auto& b) { b.File("a", "new"); });
  char buffer[32] = {};
  EXPECT_EQ(base::ReadAt(reader.Get(), buffer, sizeof buffer, 0), 11);
  EXPECT_STREQ(buffer, "old content");
  EXPECT_EQ(ReadFile(Root() / "a"), "new");
  EXPECT_NE(StatusOf(Root() / "a").st_ino, old_inode);
}

TEST_F(DestinationTest, LinkInTheFilesPlaceIsReplacedNotFollowed) {
  WriteFile(Outside(), "safe");
  fs::create_symlink(Outside(), Root() / "a");
  Put([](auto& b) { b.File("a", "new"); });
  EXPECT_EQ(ReadFile(Outside()), "safe");
  EXPECT_TRUE(S_ISREG(StatusOf(Root() / "a").st_mode));
}

TEST_F(DestinationTest, HardLinkedOldFileIsNotWrittenThrough) {
  WriteFile(Outside(), "safe");
  fs::create_hard_link(Outside(), Root() / "a");
  Put([](auto& b) { b.File("a", "new"); });
  EXPECT_EQ(ReadFile(Outside()), "safe");
}

TEST_F(DestinationTest, NothingGoesThroughASymbolicLink) {
  fs::create_directory(Outside());
  WriteFile(Outside() / "f", "safe");
  fs::create_directory(Root() / "inside");
  struct Row {
    const char* why;
    std::function<void(PayloadBuilder&)> add;
  };
  const Row rows[] = {
      {"file", [](auto& b) { b.File("out/f", "x"); }},
      {"file deeper", [](auto& b) { b.File("out/d/f", "x"); }},
      {"directory", [](auto& b) { b.Directory("out/d"); }},
      {"directory in the link's place", [](auto& b) { b.Directory("out"); }},
      {"symbolic link", [](auto& b) { b.SymbolicLink("out/l", "x"); }},
      {"hard link", [](auto& b) { b.File("a", "x").HardLink("out/h", "a"); }},
      {"hard link's target", [](auto& b) { b.HardLink("h", "out/f"); }},
      {"link made by the package",
       [](auto& b) { b.SymbolicLink("new", "../outside").File("new/f", "x"); }},
      {"link that stays inside", [](auto& b) { b.SymbolicLink("in", "inside").File("in/f", "x"); }},
      {"dangling link", [](auto& b) { b.SymbolicLink("gone", "nowhere").File("gone/f", "x"); }}};
  for (const Row& row : rows) {
    fs::remove(Root() / "out");
    fs::create_directory_symlink(Outside(), Root() / "out");
    EXPECT_EQ(PutCode(row.add), Code::kThroughLink) << row.why;
    EXPECT_EQ(ReadTree(Outside()), (Tree{{"f", "safe"}})) << row.why;
    EXPECT_EQ(StatusOf(Outside() / "f").st_nlink, 1U) << row.why;
  }
}

TEST_F(DestinationTest, HardLinkNeedsAFileOfTheDestination) {
  fs::create_directory(Root() / "d");
  fs::create_symlink("/etc/passwd", Root() / "l");
  for (const char* target : {"missing", "missing/deeper", "d", "l"}) {
    const auto code = PutCode([&](auto& b) { b.HardLink("h", target); });
    EXPECT_TRUE(code == Code::kHardLink) << target;
    EXPECT_FALSE(fs::exists(fs::symlink_status(Root() / "h"))) << target;
  }
}

TEST_F(DestinationTest, HardLinkToItselfLeavesTheFile) {
  WriteFile(Root() / "a", "1");
  EXPECT_EQ(PutCode([](auto& b) { b.HardLink("a", "a"); }), std::nullopt);
  EXPECT_EQ(ReadTree(Root()), (Tree{{"a", "1"}}));
}

TEST_F(DestinationTest, DirectoriesAndFilesDoNotReplaceEachOther) {
  MakeTree(Root(), {{"d/keep", "1"}, {"f", "2"}, {"e/", ""}});
  const Tree before = ReadTree(Root());
  EXPECT_EQ(PutCode([](auto& b) { b.File("d", "x"); }), Code::kInTheWay);
  EXPECT_EQ(PutCode([](auto& b) { b.File("e", "x"); }), Code::kInTheWay);
  EXPECT_EQ(PutCode([](auto& b) { b.SymbolicLink("d", "x"); }), Code::kInTheWay);
  EXPECT_EQ(PutCode([](auto& b) { b.Directory("f"); }), Code::kInTheWay);
  EXPECT_EQ(PutCode([](auto& b) { b.File("f/x", "x"); }), Code::kInTheWay);
  EXPECT_EQ(ReadTree(Root()), before);
}

TEST_F(DestinationTest, ExistingDirectoryKeepsItsModeAndContent) {
  MakeTree(Root(), {{"d/keep", "1"}});
  fs::permissions(Root() / "d", fs::perms::owner_all);
  Put([](auto& b) { b.Directory("d", 0777).File("d/new", "2"); });
  EXPECT_EQ(StatusOf(Root() / "d").st_mode & 07777, 0700U);
  EXPECT_EQ(ReadTree(Root()), (Tree{{"d/", ""}, {"d/keep", "1"}, {"d/new", "2"}}));
}

TEST_F(DestinationTest, DirectoryExchangedBetweenMembersIsEnteredAnew) {
  Put([](auto& b) { b.File("x/d/a", "1").File("x/d/b", "2").File("x/d/c", "3"); }, Root(),
      [&](const std::string& name) {
        if (name == "x/d/a") {
          fs::rename(Root() / "x/d", Outside());
          fs::create_directory(Root() / "x/d");
        } else if (name == "x/d/b") {
          fs::remove_all(Root() / "x");
        }
      });
  EXPECT_EQ(ReadTree(Outside()), (Tree{{"a", "1"}}));
  EXPECT_EQ(ReadTree(Root()), (Tree{{"x/", ""}, {"x/d/", ""}, {"x/d/c", "3"}}));
}

// What is mounted over a directory begins with the inode number of what is mounted there already.
TEST_F(DestinationTest, DirectoryThatIsMountedOverBetweenMembersIsEnteredAnew) {
  const ScopedMount below = ScopedMount::Tmpfs(Root() / "x", 1 << 16);
  std::optional<ScopedMount> above;
  Put([](auto& b) { b.File("x/a", "1").File("x/b", "2"); }, Root(),
      [&](const std::string& name) {
        if (name == "x/a") {
          above.emplace(ScopedMount::Tmpfs(Root() / "x", 1 << 16));
        }
      });
  EXPECT_EQ(ReadTree(Root()), (Tree{{"x/", ""}, {"x/b", "2"}}));
  above.reset();
  EXPECT_EQ(ReadTree(Root()), (Tree{{"x/", ""}, {"x/a", "1"}}));
}

TEST_F(DestinationTest, DirectoriesOfTheLastWayAreNotOpenedAgain) {
  fs::create_directories(Root() / "x/y");
  const DirectoryOpenings outer(Root() / "x");
  const DirectoryOpenings inner(Root() / "x/y");
  std::map<std::string, std::pair<bool, bool>> opened;
  Put([](auto& b) { b.File("x/y/a", "1").File("x/y/b", "2").File("x/c", "3").File("x/y/d", "4"); },
      Root(),
      [&](const std::string& name) {
        opened[name] = {outer.Take(), inner.Take()};
      });
  EXPECT_EQ(opened, (std::map<std::string, std::pair<bool, bool>>{{"x/y/a", {true, true}},
                                                                  {"x/y/b", {false, false}},
                                                                  {"x/c", {false, false}},
                                                                  {"x/y/d", {false, true}}}));
}

// The directory itself is where the link leads: it is refused all the same.
TEST_F(DestinationTest, LinkPlantedBetweenMembersIsNotFollowed) {
  for (const char* planted : {"x", "x/y", "x/y/z"}) {
    fs::remove_all(Root());
    fs::remove_all(Outside());
    fs::create_directory(Root());
    const auto plant = [&](const std::string&) {
      if (!fs::exists(Outside())) {
        fs::rename(Root() / planted, Outside());
        fs::create_directory_symlink(Outside(), Root() / planted);
      }
    };
    EXPECT_EQ(CodeOf([&] {
                Put([](auto& b) { b.File("x/y/z/a", "1").File("x/y/z/b", "2"); }, Root(), plant);
              }),
              Code::kThroughLink)
        << planted;
    for (const auto& [name, content] : ReadTree(Outside())) {
      EXPECT_NE(fs::path(name).filename(), "b") << planted;
    }
  }
}

// So it is where hard links lead.
TEST_F(DestinationTest, LinkPlantedOnTheWayOfAHardLinksTargetIsNotFollowed) {
  const auto plant = [&](const std::string& name) {
    if (name == "one") {
      fs::rename(Root() / "x", Outside());
      fs::create_directory_symlink(Outside(), Root() / "x");
    }
  };
  EXPECT_EQ(CodeOf([&] {
              Put([](auto& b) { b.File("x/a", "1").HardLink("one", "x/a").HardLink("two", "x/a"); },
                  Root(), plant);
            }),
            Code::kThroughLink);
  EXPECT_FALSE(fs::exists(Root() / "two"));
}

TEST_F(DestinationTest, MembersMayComeInAnyOrder) {
  Put([](auto& b) {
    b.File("x/y/a", "1").File("b", "2").File("x/c", "3").File("z/y/d", "4").File("x/y/e", "5");
    b.Directory("x/y", 0700).Directory("x", 0711).Directory("w", 0711).File("w/f", "6");
  });
  EXPECT_EQ(ReadTree(Root()), (Tree{{"b", "2"},
                                    {"w/", ""},
                                    {"w/f", "6"},
                                    {"x/", ""},
                                    {"x/c", "3"},
                                    {"x/y/", ""},
                                    {"x/y/a", "1"},
                                    {"x/y/e", "5"},
                                    {"z/", ""},
                                    {"z/y/", ""},
                                    {"z/y/d", "4"}}));
  EXPECT_EQ(StatusOf(Root() / "x").st_mode & 07777, 0755U) << "it was there when its member came";
  EXPECT_EQ(StatusOf(Root() / "w").st_mode & 07777, 0711U);
}

TEST_F(DestinationTest, WayIsNotTakenForItsOwnEnd) {
  Put([](auto& b) { b.File("x/a", "1").File("y/x/b", "2").File("x/c", "3"); });
  EXPECT_EQ(
      ReadTree(Root()),
      (Tree{{"x/", ""}, {"x/a", "1"}, {"x/c", "3"}, {"y/", ""}, {"y/x/", ""}, {"y/x/b", "2"}}));
}

TEST_F(DestinationTest, DeepWaysTakeFewDescriptors) {
  std::string way;
  for (int i = 0; i < 200; ++i) {
    way += "d/";
  }
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit few{64, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  Put([&](auto& b) {
    b.File(way + "a", "1").File(way + "b", "2").HardLink(way + "c", way + "a").File("d/e", "3");
  });
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(ReadFile(Root() / (way + "b")), "2");
  EXPECT_EQ(ReadFile(Root() / (way + "c")), "1");
  EXPECT_EQ(ReadFile(Root() / "d/e"), "3");
}

// A process of the same number may have died while it unpacked here.
TEST_F(DestinationTest, WhatADeadProcessLeftIsOverwritten) {
  for (int i = 0; i < 3; ++i) {
    WriteFile(Root() / (".tolmpkg-" + std::to_string(::getpid()) + '-' + std::to_string(i)),
              "left over");
  }
  Put([](auto& b) { b.File("a", "1").SymbolicLink("l", "a").HardLink("h", "a"); });
  EXPECT_EQ(ReadTree(Root()), (Tree{{"a", "1"}, {"h", "1"}, {"l -> a", ""}}));
}

TEST_F(DestinationTest, SparseFileHasItsWholeContent) {
  Put([](auto& b) { b.SparseFile("s", 300000, "tail"); });
  EXPECT_EQ(ReadFile(Root() / "s"), std::string(299996, '\0') + "tail");
}

TEST_F(DestinationTest, PartsOfASparseFileComeToTheirPlaces) {
  struct Row {
    const char* why;
    std::vector<std::pair<std::uint64_t, std::string>> parts;
    std::string content;
  };
  const Row rows[] = {
      {"a hole first", {{1, "tail"}}, std::string("\0tail", 5)},
      {"a hole last", {{0, "head"}}, std::string("head\0\0\0\0\0", 9)},
      {"a hole between", {{0, "a"}, {3, "b"}}, std::string("a\0\0b", 4)},
      {"nothing but a hole", {{1, ""}}, std::string(1, '\0')},
      {"from the last to the first", {{8, "ccc"}, {4, "bbbb"}, {0, "aaaa"}}, "aaaabbbbccc"}};
  for (const Row& row : rows) {
    EXPECT_EQ(PutSparse(row.content.size(), row.parts), std::nullopt) << row.why;
    EXPECT_EQ(ReadFile(Root() / "s"), row.content) << row.why;
  }
}

TEST_F(DestinationTest, PartBeyondTheSizeOfItsFileIsRefused) {
  WriteFile(Root() / "s", "old");
  EXPECT_EQ(PutSparse(12, {{0, "head"}, {10, "tail"}}), Code::kPayload) << "it ends there";
  EXPECT_EQ(PutSparse(12, {{13, "tail"}}), Code::kPayload) << "it begins there";
  EXPECT_EQ(ReadTree(Root()), (Tree{{"s", "old"}}));
}

TEST_F(DestinationTest, WhereNobodyLooksAFileThatIsNotWholeIsItsOwnersAlone) {
  ::umask(0);
  EXPECT_EQ(PutSparse(12, {{0, "head"}, {10, "tail"}}, Destination::Audience::kNobody),
            Code::kPayload);
  EXPECT_EQ(StatusOf(Root() / "s").st_mode & 07777, 0600U);
}

// A full disk must never pass for success: the old file stays, and no half-written one is left.
TEST_F(DestinationTest, FullDiskIsAFailureAndKeepsTheOldFile) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  WriteFile("/small/a", "old");
  const auto code =
      CodeOf([&] { Put([](auto& b) { b.File("a", std::string(200 * 1024, 'x')); }, "/small"); });
  EXPECT_EQ(code, Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), (Tree{{"a", "old"}}));
}

TEST_F(DestinationTest, ReadOnlyFileSystemIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  disk.MakeReadOnly();
  for (const auto& add : std::vector<std::function<void(PayloadBuilder&)>>{
           [](auto& b) { b.File("a", "x"); }, [](auto& b) { b.Directory("a"); },
           [](auto& b) { b.SymbolicLink("a", "x"); }, [](auto& b) { b.File("d/a", "x"); }}) {
    EXPECT_EQ(CodeOf([&] { Put(add, "/small"); }), Code::kWrite);
  }
}

}  // namespace
}  // namespace tolm::testing
