#include "publish/check_memory.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace tolm::testing
