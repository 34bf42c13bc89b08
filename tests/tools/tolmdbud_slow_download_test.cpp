// The installed tool and a server that sends next to nothing but keeps the connection open. For the
// tool a thousand times as much time passes as for wget, which goes on waiting.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/preload.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr char kTooSlow[] = " sends less than 1024 bytes a second; try later\n";

CommandOptions InFastTime() {
  return {Preload(TOLM_FAST_CLOCK_LIBRARY), "", ""};
}

class TolmdbudSlowDownloadTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    InstallFirst();
    publisher_.Offer("oui", 2, {2});
  }

  // From now on the server sends a few bytes of it and then nothing for ever.
  void Stall(const std::string& path, const std::string& body) {
    HttpAnswer answer;
    answer.body = body;
    answer.pause_at = 10;
    publisher_.Server().SetAnswer(path, answer);
  }
};

TEST_F(TolmdbudSlowDownloadTest, DescriptionIsGivenUp) {
  Stall("/database_info/1", std::string(100, ' '));
  const CommandResult result = RunCommand({kTool, "update", "oui"}, InFastTime());
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, EndsWith(kTooSlow));
  EXPECT_EQ(publisher_.Server().RequestCount("/database_info/1"), 2u) << "the first one installed";
  ExpectNothingLeft();
}

TEST_F(TolmdbudSlowDownloadTest, DeltaIsGivenUpAndTheFullPackageIsTaken) {
  Stall("/packages/oui_d2", std::string(100, 'x'));
  const CommandResult result = RunCommand({kTool, "update", "oui", "-vv"}, InFastTime());
  EXPECT_EQ(result.out, "oui: updated to 2\n") << result.err;
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_d2"), 1u);
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 1u);
}

TEST_F(TolmdbudSlowDownloadTest, PackageIsGivenUp) {
  publisher_.Offer("oui", 2);
  Stall("/packages/oui_v2", std::string(100, 'x'));
  const CommandResult result = RunCommand({kTool, "update", "oui"}, InFastTime());
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("oui 2: http://127.0.0.1:"));
  EXPECT_THAT(result.err, EndsWith(kTooSlow));
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(TolmdbudSlowDownloadTest, SignalEndsTheRunAlsoWhenItComesWithTheEndOfADownload) {
  Stall("/packages/oui_d2", std::string(100, 'x'));
  Stall("/packages/oui_v2", std::string(100, 'x'));
  RunningCommand tool({kTool, "update", "oui"}, InFastTime());
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_d2"));
  tool.Process().Signal(SIGTERM);
  const CommandResult result = tool.Wait();
  EXPECT_EQ(result.exit_status, 128 + SIGTERM);
  ExpectNothingLeft();
}

}  // namespace
}  // namespace tolm::testing
