#include "publish/check_memory.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "publish/json_object.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::LoadProvedChain;
using publish::ProvedChain;

ProvedChain SomeChain() {
  ProvedChain chain;
  chain.steps[1000002] = {"d", "b", "a", "s", "r", true};
  chain.steps[1000003] = {"d3", "", "a3", "s3", "r3", false};
  chain.together[1000001] = "w";
  return chain;
}

class CheckMemoryTest : public ::testing::Test {
 protected:
  ProvedChain Load(const std::string& text, const std::string& proved_by = "p") {
    WriteFile(path_, text);
    return LoadProvedChain(path_, proved_by);
  }

  TemporaryDirectory directory_;
  const std::string path_ = directory_.Path() / "results.json";
};

TEST_F(CheckMemoryTest, IsReadAsItWasWritten) {
  const std::string text = FormatProvedChain(SomeChain(), "p");
  const ProvedChain chain = Load(text);
  EXPECT_EQ(FormatProvedChain(chain, "p"), text);
  const publish::ProvedStep& step = chain.steps.at(1000002);
  EXPECT_EQ(step.delta + step.before + step.after + step.start + step.result, "dbasr");
  EXPECT_TRUE(step.exact);
  EXPECT_EQ(chain.together.at(1000001), "w");
}

TEST_F(CheckMemoryTest, WhatAnotherHasProvedDoesNotCount) {
  EXPECT_TRUE(Load(FormatProvedChain(SomeChain(), "p"), "q").steps.empty());
}

TEST_F(CheckMemoryTest, AnythingElseIsNothing) {
  const std::string text = FormatProvedChain(SomeChain(), "p");
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string other = text;
    return other.replace(other.find(from), from.size(), to);
  };
  for (const std::string& other :
       {std::string(), std::string("{}"), text.substr(0, text.size() / 2), text + "x",
        with("\"format\" : 1", "\"format\" : 2"), with("\"1000002\"", "\"1000002x\""),
        with("\"1000002\"", "\"99999999999\""), with("true", "1"), with("\"d3\"", "[]"),
        std::string(100000, '[')}) {
    EXPECT_TRUE(Load(other).steps.empty()) << other.substr(0, 1000);
  }
  EXPECT_TRUE(LoadProvedChain(directory_.Path() / "missing", "p").steps.empty());
  EXPECT_TRUE(LoadProvedChain(directory_.Path(), "p").steps.empty());
}

TEST_F(CheckMemoryTest, HasAMemberForEachStepAndEachUpdateOfSeveral) {
  ProvedChain chain = SomeChain();
  chain.steps.erase(1000003);
  EXPECT_EQ(FormatProvedChain(chain, "p"), publish::FormatJson(publish::ParseJson(R"({
    "format": 1, "proved_by": "p",
    "steps": {"1000002": {"delta": "d", "before": "b", "after": "a", "start": "s",
                          "result": "r", "exact": true}},
    "together": {"1000001": {"packages": "w"}}})",
                                                                                  "")));
  EXPECT_EQ(publish::FormatProvedChain({}, ""), publish::FormatJson(publish::ParseJson(R"({
    "format": 1, "proved_by": "", "steps": {}, "together": {}})",
                                                                                       "")));
}

TEST_F(CheckMemoryTest, LinkIsNotFollowed) {
  Load(FormatProvedChain(SomeChain(), "p"));
  const std::string link = directory_.Path() / "link";
  std::filesystem::create_symlink(path_, link);
  EXPECT_TRUE(LoadProvedChain(link, "p").steps.empty());
  std::filesystem::remove(link);
  std::filesystem::copy_file(path_, link);
  EXPECT_EQ(LoadProvedChain(link, "p").steps.size(), 2u);
}

}  // namespace
}  // namespace tolm::testing
