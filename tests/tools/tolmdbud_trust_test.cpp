// trust: whole outputs and exit statuses, and what an offer below the floor is worth afterwards.

#include <filesystem>

#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

constexpr char kHistory[] = "/var/lib/data_update/history.jsonl";

class TrustTest : public GoldenTest {};

TEST_P(TrustTest, SaysExactlyThis) {
  Expect(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, TrustTest,
                         ::testing::ValuesIn(std::vector<GoldenRow>{
                             {"NothingInstalled",
                              {"trust", "show"},
                              Nothing,
                              0,
                              "oui: nothing was ever installed\n",
                              ""},
                             {"Installed",
                              {"trust", "show", "oui"},
                              Install,
                              0,
                              "oui: nothing older than 70001 is installed\n",
                              ""},
                             {"Unknown",
                              {"trust", "show", "x"},
                              Nothing,
                              1,
                              "",
                              "tolmdbud: x: there is no such database; configured: oui\n"},
                             {"Lowered",
                              {"trust", "lower", "oui", "5"},
                              Install,
                              0,
                              "oui: what is offered from version 5 on is installed again\n",
                              ""},
                             {"NotBelow",
                              {"trust", "lower", "oui", "70001"},
                              Install,
                              1,
                              "",
                              "tolmdbud: oui: the floor is 70001, which is not above 70001\n"},
                             {"Negative",
                              {"trust", "lower", "oui", "-1"},
                              Install,
                              1,
                              "",
                              "tolmdbud: oui: a version is not negative\n"},
                             {"WithoutAFloor",
                              {"trust", "lower", "oui", "1"},
                              Nothing,
                              1,
                              "",
                              "tolmdbud: oui: nothing was ever installed, so there is no floor\n"},
                             {"LoweredUnknown",
                              {"trust", "lower", "x", "1"},
                              Nothing,
                              1,
                              "",
                              "tolmdbud: x: there is no such database; configured: oui\n"}}),
                         NameOf);

class FloorTest : public DeviceTest {
 protected:
  // Version 2 is installed and damaged, and the server has gone back to version 1.
  void SetUp() override {
    DeviceTest::SetUp();
    publisher_.Offer("oui", 2);
    ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
    WriteFile(prefix_ / "a.txt", "damaged");
    publisher_.Offer("oui", 1);
  }
};

TEST_F(FloorTest, LoweringItLetsAnOlderVersionIn) {
  EXPECT_EQ(Tool({"fix", "oui"}).exit_status, 1);
  EXPECT_EQ(Tool({"trust", "lower", "oui", "1"}).exit_status, 0);
  EXPECT_THAT(ReadFile(kHistory), ::testing::HasSubstr(R"("from":2,)"));
  EXPECT_THAT(ReadFile(kHistory), ::testing::HasSubstr(R"("operation":"trust-lower")"));
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: repaired with 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(FloorTest, ForcedInstallationPutsItWhereItWas) {
  EXPECT_EQ(Tool({"force-install", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"trust", "show"}).out, "oui: nothing older than 1 is installed\n");
  publisher_.Offer("oui", 2);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  EXPECT_EQ(Tool({"trust", "show"}).out, "oui: nothing older than 2 is installed\n");
}

TEST_F(FloorTest, OldOfferAloneIsNoFailure) {
  publisher_.Offer("oui", 2);
  ASSERT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  publisher_.Offer("oui", 1);
  EXPECT_EQ(WithoutAge(Tool({"update", "oui"}).out), "oui: up to date\n");
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: intact\n");
}

TEST_F(FloorTest, WhatAnotherProgramInstallsRaisesItAsFarAsItIsOffered) {
  publisher_.Offer("oui", 2);
  ASSERT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  std::string record = ReadFile(version_file_);
  record.replace(record.find("\"2\""), 3, "\"2000000000\"");
  WriteFile(version_file_, record);
  EXPECT_EQ(WithoutAge(Tool({"update", "oui"}).out), "oui: up to date\n");
  EXPECT_EQ(Tool({"trust", "show"}).out, "oui: nothing older than 2 is installed\n");
  std::filesystem::remove(version_file_);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
}

TEST_F(FloorTest, VersionInstalledByAnEarlierReleaseIsTheFirstFloor) {
  std::filesystem::remove("/var/lib/data_update/trust.json");
  EXPECT_EQ(Tool({"fix", "oui"}).exit_status, 1);
  WriteFile(mark_, "");
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  EXPECT_EQ(Tool({"trust", "show"}).out, "oui: nothing older than 2 is installed\n");
  publisher_.Offer("oui", 2);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
}

}  // namespace
}  // namespace tolm::testing
