#include "package/openssl.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>

#include "tests/package/expect_code.h"

namespace tolm::testing {
namespace {

using package::Code;

class OpenSslTest : public ::testing::Test {
 protected:
  OpenSslTest() { ERR_clear_error(); }
  ~OpenSslTest() override { ERR_clear_error(); }
};

TEST_F(OpenSslTest, ReasonIsThatOfTheLastFailure) {
  EXPECT_EQ(package::OpenSslReason(), "unknown reason");
  ERR_raise(ERR_LIB_PEM, PEM_R_BAD_PASSWORD_READ);
  ERR_raise(ERR_LIB_PEM, PEM_R_BAD_END_LINE);
  EXPECT_EQ(package::OpenSslReason(), "bad end line");
  ERR_raise(ERR_LIB_SYS, ENOENT);
  EXPECT_EQ(package::OpenSslReason(), "No such file or directory");
}

TEST_F(OpenSslTest, ResultThatIsNotPositiveIsAFailure) {
  EXPECT_EQ(CodeOf([] { package::CheckResult(1); }), std::nullopt);
  EXPECT_EQ(CodeOf([] { package::CheckResult(0); }), Code::kInternal);
  EXPECT_EQ(CodeOf([] { package::CheckResult(-1); }), Code::kInternal);
}

}  // namespace
}  // namespace tolm::testing
