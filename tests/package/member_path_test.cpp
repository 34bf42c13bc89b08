#include "package/member_path.h"

#include <gtest/gtest.h>

#include "tests/package/expect_code.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::MemberPath;

TEST(MemberPathTest, NamesAreTakenApart) {
  struct Row {
    const char* name;
    MemberPath path;
  };
  const Row rows[] = {{"a", {"a"}},
                      {"a/b/c", {"a", "b", "c"}},
                      {"./a", {"a"}},
                      {"a//b/", {"a", "b"}},
                      {"a/./b", {"a", "b"}},
                      {"..a/b..", {"..a", "b.."}},
                      {"...", {"..."}},
                      {".", {}},
                      {"./", {}}};
  for (const Row& row : rows) {
    EXPECT_EQ(package::SplitMemberPath(row.name), row.path) << row.name;
  }
}

TEST(MemberPathTest, NamesThatLeaveTheDestinationAreRefused) {
  for (const char* name : {"", "/", "/etc/passwd", "..", "../a", "a/..", "a/../b", "a/b/.."}) {
    EXPECT_EQ(CodeOf([&] { package::SplitMemberPath(name); }), Code::kMemberPath) << name;
  }
}

TEST(MemberPathTest, NameThatNoPathCouldHoldIsRefused) {
  const std::string longest(package::kMaxMemberNameBytes, 'n');
  EXPECT_EQ(package::SplitMemberPath(longest), package::MemberPath{longest});
  EXPECT_EQ(CodeOf([&] { package::SplitMemberPath(longest + "n"); }), Code::kMemberPath);
  try {
    package::SplitMemberPath("begin" + longest);
    ADD_FAILURE() << "not refused";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.what(),
              "member begin" + std::string(59, 'n') + "...: name longer than 2048 bytes");
  }
}

TEST(MemberPathTest, JoiningPutsSlashesBetween) {
  EXPECT_EQ(package::JoinMemberPath({}), "");
  EXPECT_EQ(package::JoinMemberPath({"a"}), "a");
  EXPECT_EQ(package::JoinMemberPath({"a", "b"}), "a/b");
}

TEST(MemberPathTest, OnlyTheTopLevelSealNameIsReserved) {
  EXPECT_TRUE(package::IsReserved({".tolmpkg"}));
  EXPECT_TRUE(package::IsReserved({".tolmpkg", "a"}));
  EXPECT_FALSE(package::IsReserved({"a", ".tolmpkg"}));
  EXPECT_FALSE(package::IsReserved({".tolmpkg2"}));
  EXPECT_FALSE(package::IsReserved({}));
}

}  // namespace
}  // namespace tolm::testing
