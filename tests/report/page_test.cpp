#include "report/page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "base/file.h"
#include "report/chart.h"
#include "tests/report/page_problems.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using report::Html;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Whatever stands on a page may be this.
const std::string kHostile =
    "</td></title></style><script src='//x'>a</script>\" onclick=\"b\xFF\xE2\x80\xAE<!-- ]]> <?x";

std::string PageOf(const std::string& text) {
  return report::MakePage({text, text, text, 1700000000}, [&text](Html& html) {
    const report::Section section(html, "s", text);
    report::PutWarning(html, text);
    {
      report::Facts facts(html);
      facts.Add(text, text, "bad");
    }
    report::PageTable table(html, text, {{text}, {text, report::PageTable::Kind::kNumber, true}});
    table.Add({{text, "s"}, {text, "", "quiet"}});
  });
}

TEST(PageTest, IsWellFormedAndLoadsNothing) {
  EXPECT_EQ(ProblemsOfPageText(PageOf("text")), "");
}

TEST(PageTest, WhateverStandsOnItIsText) {
  EXPECT_EQ(ProblemsOfPageText(PageOf(kHostile)), "");
}

TEST(PageTest, PicturesOfWhateverNamesAreGood) {
  const report::BarChart bars{"p",
                              kHostile,
                              kHostile,
                              report::Quantity::kBytes,
                              {{"full", kHostile}, {"bad", kHostile}},
                              {{kHostile, {1, 2}}, {kHostile, {3, 4}}}};
  const std::string page = report::MakePage({"t", "l", "m", 0}, [&](Html& html) {
    const report::Section section(html, "s", "Pictures");
    Draw(html, bars);
    Draw(html, report::StepChart{"q", kHostile, kHostile, {{10, 0.5}, {20, 1}}, 30, 15});
  });
  EXPECT_EQ(ProblemsOfPageText(page), "");
}

class WritePageTest : public ::testing::Test {
 protected:
  std::vector<std::string> Files() const { return ListTree(directory_.Path()); }

  const TemporaryDirectory directory_;
  const fs::path page_ = directory_.Path() / "index.html";
};

TEST_F(WritePageTest, TakesThePlaceOfTheOneBefore) {
  report::WritePage(page_, "one");
  report::WritePage(page_, "two");
  EXPECT_EQ(ReadFile(page_), "two");
  EXPECT_THAT(Files(), ElementsAre("index.html"));
}

TEST_F(WritePageTest, FullDiskLeavesTheOneBefore) {
  const fs::path small = directory_.Path() / "small";
  const ScopedMount mount = ScopedMount::Tmpfs(small, 1 << 16);
  report::WritePage(small / "index.html", "one");
  EXPECT_THROW(report::WritePage(small / "index.html", std::string(1 << 17, 'x')), base::FileError);
  EXPECT_EQ(ReadFile(small / "index.html"), "one");
  EXPECT_THAT(ListTree(small), ElementsAre("index.html"));
}

TEST_F(WritePageTest, LinksAreNotWrittenThrough) {
  const fs::path other = directory_.Path() / "other";
  WriteFile(other, "mine");
  fs::create_symlink(other, directory_.Path() / "index.html.new");
  report::WritePage(page_, "one");
  EXPECT_EQ(ReadFile(other), "mine");
  EXPECT_EQ(ReadFile(page_), "one");
  fs::remove(page_);
  fs::create_symlink(other, page_);
  EXPECT_THROW(report::WritePage(page_, "two"), std::runtime_error);
  EXPECT_EQ(ReadFile(other), "mine");
}

TEST_F(WritePageTest, DirectoryIsNoPage) {
  fs::create_directory(page_);
  try {
    report::WritePage(page_, "one");
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), page_.string() + " is no regular file, and stays as it is");
  }
  EXPECT_TRUE(fs::is_directory(page_));
}

}  // namespace
}  // namespace tolm::testing
