#include "publish/diff.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::Difference;

TEST(DiffTest, HowMuchThereIsToReadIsNotKnown) {
  const TemporaryDirectory directory;
  std::vector<publish::Step> steps;
  publish::DiffDirectories(directory.Path(), directory.Path(),
                           [&](const publish::Step& step) { steps.push_back(step); });
  ASSERT_FALSE(steps.empty());
  EXPECT_STREQ(steps.front().what, "reading files");
  EXPECT_EQ(steps.front().total, 0u) << "a share of it would be drawn";
}

TEST(DiffTest, TableOfTwoDirectoriesHasItsColumnsBelowTheirNames) {
  const TemporaryDirectory directory;
  const std::string before = directory.Path() / "before";
  const std::string after = directory.Path() / "after";
  std::filesystem::create_directory(before);
  std::filesystem::create_directory(after);
  MakeTree(before, {{"a", "same"}, {"b", "old"}, {"gone", std::string(1234567, 'x')}});
  MakeTree(after, {{"a", "same"}, {"b", "newer"}, {"new", "n"}});
  Difference difference = publish::DiffDirectories(before, after, [](const publish::Step&) {});
  difference.name = "oui";
  difference.before = "1";
  difference.after = "2";
  std::ostringstream out;
  publish::PrintDifference(difference, false, out);
  EXPECT_EQ(out.str(),
            "oui 1 -> 2\n"
            "  change          before         after  file\n"
            "  changed              3             5  /b\n"
            "  gone         1,234,567             -  /gone\n"
            "  new                  -             1  /new\n"
            "  1 file is unchanged\n");
}

}  // namespace
}  // namespace tolm::testing
