#include "publish/inspect.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <sstream>

#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/package/payload_builder.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Signer;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::time_t kNow = 1800000000;

class InspectTest : public ::testing::Test {
 protected:
  InspectTest() {
    request_.package_path = directory_.Path() / "oui_v7";
    WriteFile(directory_.Path() / "root.pem", root_.Pem());
  }

  void Make(PayloadBuilder& builder) {
    payload_ = builder.Finish();
    WriteFile(request_.package_path, SignedPackage(payload_, signer_));
  }
  std::string Inspect() {
    std::ostringstream out;
    publish::Inspect(request_, kNow, out);
    return out.str();
  }
  void UseKeyring() { request_.keyring_path = directory_.Path() / "root.pem"; }

  TemporaryDirectory directory_;
  Authority root_;
  Signer signer_ = root_.NewSigner();
  publish::InspectRequest request_;
  std::string payload_;
};

TEST_F(InspectTest, EverythingIsShown) {
  PayloadBuilder builder;
  builder.Seal()
      .File("a", "12345", 0640)
      .Directory("d", 0700)
      .SymbolicLink("l", "/x")
      .HardLink("h", "a");
  Make(builder);
  EXPECT_EQ(Inspect(),
            "name        oui\n"
            "kind        full\n"
            "version     7\n"
            "payload     " +
                std::to_string(payload_.size()) +
                " bytes\n"
                "compression zstd\n"
                "signer      CN=Test signing\n"
                "valid       2001-09-09T01:46:40Z to 2100-01-01T00:00:00Z\n"
                "signature   NOT CHECKED against a trusted root (--keyring checks it)\n"
                "members (type, mode, bytes, name)\n"
                "  file     0640              5  a\n"
                "  dir      0700              0  d\n"
                "  symlink  0777              0  l -> /x\n"
                "  hardlink 0644              0  h = a\n");
}

TEST_F(InspectTest, KeyringVerifies) {
  PayloadBuilder builder;
  Make(builder.Seal().File("a", "1"));
  UseKeyring();
  const std::string text = Inspect();
  EXPECT_THAT(text, HasSubstr("signature   verified against the keyring\n"));
  EXPECT_THAT(text, Not(HasSubstr("NOT CHECKED")));
}

TEST_F(InspectTest, NothingOfAnUntrustedPackageIsShown) {
  UseKeyring();
  const std::string payload = PayloadBuilder().Seal().File("a", "1").Finish();
  WriteFile(request_.package_path, SignedPackage(payload, Authority("Foreign").NewSigner()));
  std::ostringstream out;
  EXPECT_EQ(CodeOf([&] { publish::Inspect(request_, kNow, out); }), Code::kUntrusted);
  EXPECT_EQ(out.str(), "");
}

TEST_F(InspectTest, RevocationsAreHeeded) {
  PayloadBuilder builder;
  Make(builder.Seal().File("a", "1"));
  UseKeyring();
  request_.revocations_path = directory_.Path() / "crl.pem";
  WriteFile(request_.revocations_path, root_.RevocationPem({signer_.certificate.get()}));
  EXPECT_EQ(CodeOf([&] { Inspect(); }), Code::kRevoked);
}

TEST_F(InspectTest, NameThatDisagreesWithTheSealIsAFailure) {
  PayloadBuilder builder;
  Make(builder.Seal(R"({"name":"geo","kind":"full","version":7})").File("a", "1"));
  EXPECT_EQ(CodeOf([&] { Inspect(); }), Code::kWrongName);
}

TEST_F(InspectTest, ControlCharactersDoNotReachTheTerminal) {
  PayloadBuilder builder;
  Make(builder.Seal().File("a\x1b[2Jb", "1").SymbolicLink("l", "x\ny"));
  const std::string text = Inspect();
  EXPECT_THAT(text, HasSubstr("a\\x1b[2Jb\n"));
  EXPECT_THAT(text, HasSubstr("l -> x\\x0ay\n"));
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace tolm::testing
