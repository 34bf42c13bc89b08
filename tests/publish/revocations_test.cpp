#include "publish/revocations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "package/error.h"
#include "package/revocations.h"
#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Code;
using publish::IsOverdue;
using publish::LoadRevocations;
using publish::RevocationList;
using publish::Revocations;
using publish::RevocationText;
using publish::RevocationWarnings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kNow = 2100000000;  // 2036-07-18 13:20
constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kDue = kNow + 100 * kDay;

RevocationList Due(std::optional<std::int64_t> next_due, std::size_t revoked = 1) {
  return {"CN=x", next_due, revoked};
}

TEST(RevocationTextTest, SaysHowManyAndWhenTheNextOneIsDue) {
  EXPECT_EQ(RevocationText(Due(kNow, 0)),
            "the list of CN=x revokes 0 certificates; the next one is due by 2036-07-18 13:20 UTC");
  EXPECT_EQ(RevocationText(Due(kNow, 1)),
            "the list of CN=x revokes 1 certificate; the next one is due by 2036-07-18 13:20 UTC");
  EXPECT_EQ(RevocationText(Due(std::nullopt, 2)),
            "the list of CN=x revokes 2 certificates; it does not say when the next one is due");
}

TEST(RevocationTextTest, NextOneIsAskedForAMonthBefore) {
  const auto warnings = [](std::int64_t due) {
    return RevocationWarnings({"/crl.pem", "", {Due(due), Due(std::nullopt)}}, kNow);
  };
  EXPECT_THAT(warnings(kNow + 30 * kDay), IsEmpty());
  EXPECT_THAT(warnings(kNow + 30 * kDay - 1),
              ElementsAre("/crl.pem: the list of CN=x revokes 1 certificate; the next one is due "
                          "by 2036-08-17 13:19 UTC, 29 days from now: have another made, and "
                          "install it"));
  EXPECT_THAT(warnings(kNow),
              ElementsAre("/crl.pem: the list of CN=x revokes 1 certificate; the next one is due "
                          "by 2036-07-18 13:20 UTC, less than a day from now: have another made, "
                          "and install it"));
  EXPECT_THAT(warnings(kNow - 3 * kDay),
              ElementsAre("/crl.pem: the list of CN=x revokes 1 certificate; the next one is due "
                          "by 2036-07-15 13:20 UTC, 2 days ago: devices go on with it, but hear of "
                          "nothing newer"));
}

TEST(RevocationTextTest, ListIsOverdueAfterTheLastSecond) {
  const auto is_overdue = [](const std::vector<RevocationList>& lists) {
    return IsOverdue({"/crl.pem", "", lists}, kNow);
  };
  EXPECT_FALSE(is_overdue({}));
  EXPECT_FALSE(is_overdue({Due(std::nullopt), Due(kNow)}));
  EXPECT_TRUE(is_overdue({Due(kNow), Due(kNow - 1)}));
}

// A repository whose signer is below an authority below the root.
class RevocationsTest : public ::testing::Test {
 protected:
  RevocationsTest() {
    WriteFile(Path("root.pem"), root_.Pem());
    WriteFile(Path("signing.pem"), PemOf(signer_.certificate.get()) + between_.Pem());
    settings_.directory = directory_.Path();
    settings_.root_path = Path("root.pem");
    settings_.certificate_path = Path("signing.pem");
  }

  static CertificateOptions Between() {
    CertificateOptions options;
    options.name = "between";
    return options;
  }
  std::string Path(const std::string& name) const { return directory_.Path() / name; }
  Revocations Load(const std::string& pem, std::int64_t now = kNow) const {
    WriteFile(Path("crl.pem"), pem);
    return LoadRevocations(Path("crl.pem"), settings_, now);
  }
  // Of the error, after the file's name; empty when there is none.
  template <typename Action>
  std::string Refusal(Action action) const {
    const std::string start = Path("crl.pem") + ": ";
    try {
      action();
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), Code::kKeyring);
      const std::string text = error.what();
      EXPECT_EQ(text.substr(0, start.size()), start);
      return text.substr(start.size());
    }
    return "";
  }
  // A list of this number.
  static std::string Numbered(const Authority& authority, long number) {
    return authority.RevocationPem({}, kLongAgo, kDue, number);
  }
  std::string WhatIsTakenBack(const std::string& next, const std::string& installed) const {
    WriteFile(Path("installed"), installed);
    const Revocations loaded = Load(next);
    return Refusal([&] { RequireNoneTakenBack(loaded, Path("installed"), settings_); });
  }
  std::string WhatIsOlder(const std::string& next, const std::string& brought) const {
    const Revocations loaded = Load(next);
    return Refusal([&] { RequireNoneOlder(loaded, brought, settings_); });
  }

  TemporaryDirectory directory_;
  const Authority root_;
  const Authority between_ = root_.NewAuthorityBelow(Between());
  const package::Signer signer_ = between_.NewSigner();
  publish::Settings settings_;
};

TEST_F(RevocationsTest, ListsOfEveryAuthorityAreDescribed) {
  const Revocations loaded = Load(
      root_.RevocationPem({between_.certificate(), signer_.certificate.get()}, kLongAgo, kDue) +
      between_.RevocationPem({}, kNow, kDue + 1));
  EXPECT_EQ(loaded.file, Path("crl.pem"));
  EXPECT_EQ(loaded.pem, ReadFile(Path("crl.pem")));
  ASSERT_EQ(loaded.lists.size(), 2u);
  EXPECT_EQ(loaded.lists[0].issuer, "CN=Test root");
  EXPECT_EQ(loaded.lists[0].next_due, kDue);
  EXPECT_EQ(loaded.lists[0].revoked, 2u);
  EXPECT_EQ(loaded.lists[1].issuer, "CN=between");
  EXPECT_EQ(loaded.lists[1].next_due, kDue + 1);
  EXPECT_EQ(loaded.lists[1].revoked, 0u);
}

TEST_F(RevocationsTest, ForeignListsAndThoseFromTheFutureAreRefused) {
  const Authority other("other");
  EXPECT_EQ(Refusal([&] { Load(root_.RevocationPem({}) + other.RevocationPem({})); }),
            "the list of CN=other is not signed by the root " + Path("root.pem") +
                ", nor by an authority below it");
  EXPECT_EQ(Refusal([&] { Load(root_.RevocationPem({}, kNow + 1, kDue)); }),
            "the list of CN=Test root is not valid before 2036-07-18 13:20 UTC");
  EXPECT_EQ(Refusal([&] { Load(root_.RevocationPem({}, kNow, kDue)); }), "");
}

TEST_F(RevocationsTest, PartOfAListIsRefused) {
  const auto lists = package::ParseRevocations(Numbered(root_, 2), "lists");
  const std::unique_ptr<ASN1_INTEGER, package::OpenSslDelete<ASN1_INTEGER_free>> base(
      ASN1_INTEGER_new());
  ASSERT_EQ(ASN1_INTEGER_set(base.get(), 1), 1);
  ASSERT_EQ(X509_CRL_add1_ext_i2d(lists[0].get(), NID_delta_crl, base.get(), 1, 0), 1);
  ASSERT_GT(X509_CRL_sign(lists[0].get(), root_.key(), EVP_sha256()), 0);
  EXPECT_EQ(Refusal([&] { Load(PemOf(lists[0].get())); }),
            "the list of CN=Test root is a delta list; give the whole one");
}

TEST_F(RevocationsTest, FileIsAsLargeAsDevicesReadAtMost) {
  const std::string pem = Numbered(root_, 2);
  std::string most = std::string((std::size_t{16} << 20) - pem.size() - 1, 'x') + '\n' + pem;
  EXPECT_EQ(Load(most).lists.size(), 1u);
  EXPECT_THAT(Refusal([&] { Load('x' + most); }), ::testing::HasSubstr("16777216"));
}

TEST_F(RevocationsTest, RevokedSignerIsNotTrusted) {
  const package::Signer signer = root_.NewSigner();
  const auto code_with = [&](const std::vector<X509*>& revoked) {
    const package::Trust trust = TrustWith(settings_, Load(root_.RevocationPem(revoked)));
    return CodeOf([&] { trust.CheckSigner(signer.certificate.get(), nullptr, kNow); });
  };
  EXPECT_EQ(code_with({}), std::nullopt);
  EXPECT_EQ(code_with({signer.certificate.get()}), Code::kRevoked);
}

TEST_F(RevocationsTest, InstalledListsAreReplacedBySuchAsAreNotOlder) {
  const std::string end = " (" + Path("installed") +
                          "), which would be taken back; nothing was installed. Remove that file "
                          "to have it so";
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 2), Numbered(root_, 2)), "");
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 3), Numbered(root_, 2)), "");
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 1), Numbered(root_, 2)),
            "the list of CN=Test root is older than the installed one" + end);
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 9), Numbered(root_, 2) + Numbered(between_, 1)),
            "has no list of CN=between, but one is installed" + end);
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 1), "damaged"), "");
  EXPECT_EQ(WhatIsTakenBack(Numbered(root_, 1), Numbered(Authority("other"), 2)), "")
      << "of whom devices do not know";
  const Revocations first = Load(Numbered(root_, 1));
  EXPECT_EQ(Refusal([&] { RequireNoneTakenBack(first, Path("none"), settings_); }), "");
}

TEST_F(RevocationsTest, OlderListThanTheServedOneIsRefusedAndAMissingOneIsNot) {
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 1), Numbered(root_, 2)),
            "the list of CN=Test root is older than the one that the served description brings, "
            "and devices refuse a description that brings an older one; give the newer list");
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 2), Numbered(root_, 2)), "");
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 3), Numbered(root_, 2)), "");
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 1), Numbered(between_, 2)), "");
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 1), "damaged"), "");
  EXPECT_EQ(WhatIsOlder(Numbered(root_, 1), ""), "");
}

}  // namespace
}  // namespace tolm::testing
