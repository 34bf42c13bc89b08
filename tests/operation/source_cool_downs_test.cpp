#include "operation/source_cool_downs.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "operation/history.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

constexpr char kServer[] = "server.example:8080";
constexpr char kMirror[] = "mirror.example:80";

// A server and a mirror, of which each failure is one of a run of its own.
class SourceCoolDownsTest : public ::testing::Test {
 protected:
  SourceCoolDownsTest() {
    testing::WriteFile(paths::kServiceDefaults,
                       R"({"config": {"download_scheme": "http",
                                      "db_netloc": "server.example:8080"}})");
    testing::WriteFile(paths::kOperationSettings, R"({"mirrors": ["http://mirror.example"]})");
    sources_ = PresentSources();
  }

  const Source& Server() const { return sources_.at(0); }
  const Source& Mirror() const { return sources_.at(1); }

  void Fail(const Source& source) const { SourceCoolDowns(sources_).BeginAttempt(source); }

  static Json::Value Kept(const std::string& name) {
    Json::Value file;
    if (std::filesystem::exists(paths::kCoolDowns)) {
      EXPECT_TRUE(Json::Reader().parse(testing::ReadFile(paths::kCoolDowns), file));
    }
    return file["servers"][name];
  }
  static int Failures(const std::string& name) { return Kept(name)["failures"].asInt(); }

  static std::string TextOf(const std::string& name, const std::string& failures) {
    return name + " is left alone until " + TimeText(Kept(name)["until"].asInt64()) + " after " +
           failures;
  }

  static std::vector<std::string> Present() {
    std::vector<std::string> names;
    for (const Source& source : PresentSources()) {
      names.push_back(source.name);
    }
    return names;
  }

  std::vector<Source> sources_;
};

TEST_F(SourceCoolDownsTest, ThoseThatFailedAreLeftOutAsLongAsThereAreOthers) {
  Fail(Server());
  {
    SourceCoolDowns cool_downs(sources_);
    EXPECT_FALSE(cool_downs.Ask());
    EXPECT_EQ(Present(), std::vector<std::string>{kMirror});
  }
  EXPECT_EQ(Present(), (std::vector<std::string>{kServer, kMirror}));
}

TEST_F(SourceCoolDownsTest, WhereAllHaveFailedTheRunIsHeldBackAndEachIsTold) {
  Fail(Server());
  EXPECT_FALSE(SourceCoolDowns(sources_).Ask());
  Fail(Mirror());
  Fail(Mirror());
  const std::string why =
      "the server " + TextOf(kMirror, "2 failures in a row") + ", " + TextOf(kServer, "1 failure");
  for (const bool is_first : {true, false}) {
    const std::optional<SourceCoolDowns::HeldBack> held = SourceCoolDowns(sources_).Ask();
    ASSERT_TRUE(held);
    EXPECT_EQ(held->why, why);
    EXPECT_EQ(held->first_asked, is_first) << "of the mirror that is asked for the first time";
    EXPECT_EQ(Present().size(), 2u) << "nobody is left out of what does not happen";
  }
}

TEST_F(SourceCoolDownsTest, WhatHasNoNameIsNeverHeldBack) {
  const Source directory{Source::Kind::kDirectory, "/media/stick", ""};
  for (const std::vector<Source>& sources : {std::vector<Source>{}, {directory}}) {
    SourceCoolDowns cool_downs(sources);
    cool_downs.BeginAttempt(directory);
    cool_downs.Answered(directory, false);
    cool_downs.Succeed();
    cool_downs.Withdraw();
    EXPECT_FALSE(cool_downs.Ask());
  }
  EXPECT_FALSE(std::filesystem::exists(paths::kCoolDowns));
}

TEST_F(SourceCoolDownsTest, RunIsOneAttemptHoweverOftenItAsks) {
  SourceCoolDowns cool_downs(sources_);
  for (int i = 0; i < 3; ++i) {
    cool_downs.BeginAttempt(Server());
  }
  EXPECT_EQ(Failures(kServer), 1);
  EXPECT_EQ(Failures(kMirror), 0);
}

TEST_F(SourceCoolDownsTest, GoodRunEndsThatOfWhoAnsweredAtLast) {
  Fail(Mirror());
  {
    SourceCoolDowns cool_downs(sources_);
    cool_downs.BeginAttempt(Server());
    cool_downs.Answered(Server(), true);
    cool_downs.Answered(Mirror(), true);
    cool_downs.Succeed();
    EXPECT_EQ(Failures(kServer), 0);
    EXPECT_EQ(Failures(kMirror), 1) << "it was not asked";
  }
  SourceCoolDowns cool_downs(sources_);
  cool_downs.BeginAttempt(Server());
  cool_downs.Answered(Server(), true);
  cool_downs.Answered(Server(), false);
  cool_downs.BeginAttempt(Mirror());
  cool_downs.Succeed();
  EXPECT_EQ(Failures(kServer), 1) << "its last answer was of no use";
  EXPECT_EQ(Failures(kMirror), 2) << "it has not answered";
}

TEST_F(SourceCoolDownsTest, OfTheOnlyOneAGoodRunEndsItWhateverWasAsked) {
  Fail(Server());
  SourceCoolDowns cool_downs({Server()});
  cool_downs.Succeed();
  EXPECT_EQ(Failures(kServer), 0);
}

TEST_F(SourceCoolDownsTest, RunThatSaysNothingLeavesAllAsItWas) {
  Fail(Server());
  Fail(Mirror());
  SourceCoolDowns cool_downs(sources_);
  cool_downs.BeginAttempt(Server());
  EXPECT_EQ(Failures(kServer), 2);
  cool_downs.Withdraw();
  EXPECT_EQ(Failures(kServer), 1);
  EXPECT_EQ(Failures(kMirror), 1);
}

}  // namespace
}  // namespace tolm::operation
