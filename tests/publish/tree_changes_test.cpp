#include "publish/tree_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace tolm::testing {
namespace {

using publish::FileChange;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

publish::Tree TreeOf(const std::map<std::string, std::string>& files) {
  publish::Tree tree;
  for (const auto& [key, content] : files) {
    tree.files[key] = {key, "", content.size(), "digest of " + content};
  }
  return tree;
}

std::vector<std::string> Told(const std::map<std::string, std::string>& before,
                              const std::map<std::string, std::string>& after) {
  std::vector<std::string> told;
  for (const FileChange& change : publish::ChangesOf(TreeOf(before), TreeOf(after))) {
    told.push_back(std::string(FileChangeKindText(change.kind)) + ' ' + change.key + ' ' +
                   std::to_string(change.bytes) +
                   (change.renamed_from.empty() ? "" : " from " + change.renamed_from));
  }
  return told;
}

TEST(TreeChangesTest, WhatBecameOfEachFileIsTold) {
  EXPECT_THAT(Told({{"/same", "s"}, {"/b", "1"}, {"/c", "22"}, {"/old", "333"}},
                   {{"/same", "s"}, {"/a", "4444"}, {"/b", "55555"}, {"/renamed", "333"}}),
              ElementsAre("new /a 4", "changed /b 5", "gone /c 0", "renamed /renamed 3 from /old"));
  EXPECT_THAT(Told({{"/same", "s"}}, {{"/same", "s"}}), IsEmpty());
}

TEST(TreeChangesTest, OfSeveralWithTheSameContentEachIsTakenOnce) {
  EXPECT_THAT(Told({{"/a", "1"}, {"/b", "1"}}, {{"/c", "1"}}),
              ElementsAre("gone /b 0", "renamed /c 1 from /a"));
  EXPECT_THAT(Told({{"/a", "1"}}, {{"/b", "1"}, {"/c", "1"}}),
              ElementsAre("renamed /b 1 from /a", "new /c 1"));
}

TEST(TreeChangesTest, EmptyFileOrOneThatIsStillThereIsNotRenamed) {
  EXPECT_THAT(Told({{"/a", ""}}, {{"/b", ""}}), ElementsAre("gone /a 0", "new /b 0"));
  EXPECT_THAT(Told({{"/a", "1"}}, {{"/a", "1"}, {"/b", "1"}}), ElementsAre("new /b 1"));
  EXPECT_THAT(Told({{"/a", "1"}}, {{"/a", "2"}, {"/b", "1"}}),
              ElementsAre("changed /a 1", "new /b 1"));
  // One that has changed is no renamed one, be its content another's of before.
  EXPECT_THAT(Told({{"/a", "1"}, {"/b", "2"}}, {{"/b", "1"}}),
              ElementsAre("gone /a 0", "changed /b 1"));
}

}  // namespace
}  // namespace tolm::testing
