#include "tolm/hwid.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "tests/platform/scratch.h"
#include "tolm/err.h"

namespace tolm::testing {
namespace {

constexpr char kMachineIdPath[] = "/etc/machine-id";
constexpr char kMachineId[] = "0123456789abcdef0123456789abcdef\n";

struct Free {
  void operator()(tolmcrypto_hwid* context) const { tolmcrypto_hwid_free(context); }
};
using Context = std::unique_ptr<tolmcrypto_hwid, Free>;

// Every test has an empty /etc, which no other process sees.
class HwidTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, nullptr), 0);
    ASSERT_TRUE(context_);
  }

  const Context context_{tolmcrypto_hwid_init()};
};

TEST_F(HwidTest, ANewContextIsEmpty) {
  EXPECT_STREQ(context_->text, "");
}

// Computed by another program:
//   printf 0123456789abcdef0123456789abcdef |
//     openssl dgst -sha256 -mac hmac -macopt hexkey:5b1fd20c936e47a88d35e1742bc906fa
TEST_F(HwidTest, IsTheKeyedHashOfTheMachineId) {
  WriteFile(kMachineIdPath, kMachineId);
  ASSERT_NE(tolmcrypto_hwid_str(context_.get(), 64), 0);
  EXPECT_STREQ(context_->text, "f22cd13a9f1641f349fcdffb7d0decad90ee4f974776180009418e571d52f882");
}

TEST_F(HwidTest, IsTheSameOnEveryCall) {
  WriteFile(kMachineIdPath, kMachineId);
  const Context other(tolmcrypto_hwid_init());
  ASSERT_NE(tolmcrypto_hwid_str(context_.get(), 16), 0);
  ASSERT_NE(tolmcrypto_hwid_str(other.get(), 16), 0);
  EXPECT_STREQ(context_->text, other->text);
}

TEST_F(HwidTest, AnotherMachineHasAnother) {
  WriteFile(kMachineIdPath, kMachineId);
  ASSERT_NE(tolmcrypto_hwid_str(context_.get(), 16), 0);
  const std::string first = context_->text;
  WriteFile(kMachineIdPath, "0123456789abcdef0123456789abcdee\n");
  ASSERT_NE(tolmcrypto_hwid_str(context_.get(), 16), 0);
  EXPECT_NE(context_->text, first);
}

TEST_F(HwidTest, EveryLengthIsABeginningOfTheWhole) {
  WriteFile(kMachineIdPath, kMachineId);
  ASSERT_NE(tolmcrypto_hwid_str(context_.get(), 64), 0);
  const std::string whole = context_->text;
  ASSERT_EQ(whole.size(), 64U);
  for (int length = 1; length <= 64; ++length) {
    ASSERT_NE(tolmcrypto_hwid_str(context_.get(), length), 0);
    EXPECT_EQ(context_->text, whole.substr(0, static_cast<std::size_t>(length)));
    const std::string rest(context_->text + length,
                           sizeof context_->text - static_cast<std::size_t>(length));
    EXPECT_EQ(rest.find_first_not_of('\0'), std::string::npos);
  }
}

TEST_F(HwidTest, LengthsOutOfRangeFailWithAnEmptyText) {
  WriteFile(kMachineIdPath, kMachineId);
  for (const int length : {-1, 0, 65, 1000}) {
    std::strcpy(context_->text, "old");
    EXPECT_EQ(tolmcrypto_hwid_str(context_.get(), length), 0) << length;
    EXPECT_EQ(TLIBCErrGet(), EINVAL);
    EXPECT_STREQ(context_->text, "");
  }
}

TEST_F(HwidTest, NullIsRefusedAndFreeingItIsNothing) {
  EXPECT_EQ(tolmcrypto_hwid_str(nullptr, 16), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  tolmcrypto_hwid_free(nullptr);
}

TEST_F(HwidTest, AMissingMachineIdFails) {
  EXPECT_EQ(tolmcrypto_hwid_str(context_.get(), 16), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_STREQ(context_->text, "");
}

TEST_F(HwidTest, ADirectoryInItsPlaceFails) {
  std::filesystem::create_directory(kMachineIdPath);
  EXPECT_EQ(tolmcrypto_hwid_str(context_.get(), 16), 0);
  EXPECT_EQ(TLIBCErrGet(), EISDIR);
}

struct MachineIdCase {
  const char* name;
  const char* content;
  bool accepted;
};

class HwidMachineIdTest : public HwidTest, public ::testing::WithParamInterface<MachineIdCase> {};

TEST_P(HwidMachineIdTest, IsJudged) {
  WriteFile(kMachineIdPath, GetParam().content);
  std::strcpy(context_->text, "old");
  EXPECT_EQ(tolmcrypto_hwid_str(context_.get(), 16) != 0, GetParam().accepted);
  EXPECT_EQ(std::strlen(context_->text), GetParam().accepted ? 16U : 0U);
  if (!GetParam().accepted) {
    EXPECT_EQ(TLIBCErrGet(), ENODATA);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, HwidMachineIdTest,
    ::testing::Values(
        MachineIdCase{"Usual", "0123456789abcdef0123456789abcdef\n", true},
        MachineIdCase{"WithoutLineEnd", "0123456789abcdef0123456789abcdef", true},
        MachineIdCase{"Empty", "", false}, MachineIdCase{"OnlyALineEnd", "\n", false},
        MachineIdCase{"Uninitialized", "uninitialized\n", false},
        MachineIdCase{"OneDigitShort", "0123456789abcdef0123456789abcde\n", false},
        MachineIdCase{"OneDigitLong", "0123456789abcdef0123456789abcdef0\n", false},
        MachineIdCase{"MuchTooLong",
                      "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef\n", false},
        MachineIdCase{"UpperCase", "0123456789ABCDEF0123456789ABCDEF\n", false},
        MachineIdCase{"NotHexadecimal", "g123456789abcdef0123456789abcdef\n", false},
        MachineIdCase{"WithDashes", "01234567-89ab-cdef-0123-456789abcdef\n", false},
        MachineIdCase{"SpaceAtTheEnd", "0123456789abcdef0123456789abcdef ", false},
        MachineIdCase{"SecondLine", "0123456789abcdef0123456789abcdef\n\n", false},
        MachineIdCase{"OnlyZeros", "00000000000000000000000000000000\n", false}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::testing
