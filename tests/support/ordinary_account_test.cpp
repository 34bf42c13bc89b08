#include "tests/support/ordinary_account.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::testing {
namespace {

class OrdinaryAccount : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << kNoOrdinaryAccount;
    }
    WriteFile(kSecret, "secret");
    std::filesystem::permissions(kSecret, std::filesystem::perms::owner_all);
  }

  static constexpr char kSecret[] = "/tmp/secret";
};

TEST_F(OrdinaryAccount, ScriptRunsWithItsRightsOnly) {
  const CommandResult result = RunAsOrdinaryAccount("id -u; id -g; id -G; cat /tmp/secret; exit 7");
  EXPECT_EQ(result.exit_status, 7);
  EXPECT_EQ(result.out, "1000\n1000\n1000\n");
  EXPECT_NE(result.err, "");
}

TEST_F(OrdinaryAccount, FunctionRunsWithItsRightsOnly) {
  const auto look = [] {
    const UniqueDescriptor secret(open(kSecret, O_RDONLY | O_CLOEXEC));
    return geteuid() == kOrdinaryAccount && getegid() == kOrdinaryAccount && !secret ? 7 : 0;
  };
  EXPECT_EQ(CallAsOrdinaryAccount(look), 7);
  ForkedChild account = ForkOrdinaryAccount([&](EventChannel&) { return look(); });
  EXPECT_EQ(account.Process().Wait(), 7);
}

}  // namespace
}  // namespace tolm::testing
