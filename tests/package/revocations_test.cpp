#include "package/revocations.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/package/authority.h"

namespace tolm::testing {
namespace {

using package::ParseRevocations;

constexpr std::int64_t kNow = 1800000000;

std::vector<X509Ptr> AllOf(const std::string& pem) {
  return package::ParseCertificates(pem, "test");
}

TEST(RevocationsTest, OlderByNumberOrByDate) {
  struct Row {
    const char* what;
    std::int64_t date;
    long number;
    bool is_older;  // than one of kNow and number 7
  };
  const Row rows[] = {
      {"the same", kNow, 7, false},           {"a lower number", kNow, 6, true},
      {"an earlier date", kNow - 1, 7, true}, {"both newer", kNow + 1, 8, false},
      {"later, lower", kNow + 1, 6, true},    {"earlier, higher", kNow - 1, 8, true},
      {"no number", kNow, 0, false},          {"no number, earlier", kNow - 1, 0, true}};
  const Authority root;
  const auto present = ParseRevocations(root.RevocationPem({}, kNow, kFarFuture, 7), "test");
  for (const Row& row : rows) {
    const auto list =
        ParseRevocations(root.RevocationPem({}, row.date, kFarFuture, row.number), "test");
    EXPECT_EQ(package::IsOlder(list[0].get(), present[0].get()), row.is_older) << row.what;
  }
}

TEST(RevocationsTest, OnlyOlderListsOfTheSameAuthorityGo) {
  const Authority root("Root A");
  const Authority same_name("Root A");
  const Authority foreign("Foreign");
  const std::string newer = root.RevocationPem({}, kNow);
  const std::string other = same_name.RevocationPem({}, kNow - 1000);
  const std::string unknown = foreign.RevocationPem({}, kNow) + foreign.RevocationPem({}, kNow - 1);
  ERR_clear_error();
  const auto left = package::WithoutOlder(
      ParseRevocations(root.RevocationPem({}, kNow - 10) + newer + other + newer + unknown, "test"),
      AllOf(root.Pem() + same_name.Pem()));
  EXPECT_EQ(package::PemOf(left), newer + other + unknown);
  EXPECT_EQ(package::PemOf({}), "");
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(RevocationsTest, ListIsAnAuthoritysThatIsNamedAndHasSigned) {
  const Authority root("Root A");
  const Authority same_name("Root A");
  const auto lists = ParseRevocations(root.RevocationPem({}), "test");
  EXPECT_TRUE(package::IsIssuedBy(lists[0].get(), root.certificate()));
  EXPECT_FALSE(package::IsIssuedBy(lists[0].get(), same_name.certificate()));
  EXPECT_EQ(package::NewestOf(lists, same_name.certificate()), nullptr);
  EXPECT_EQ(package::NewestOf(lists, root.certificate()), lists[0].get());
}

TEST(RevocationsTest, ListIsAnAuthoritysThatMayIssueLists) {
  const Authority root("Root A");
  for (const auto& [usage, may] :
       {std::pair{"critical,keyCertSign", false}, std::pair{"critical,keyCertSign,cRLSign", true},
        std::pair{"critical,cRLSign", true}, std::pair{"", true}}) {
    CertificateOptions options;
    options.usage = usage;
    const package::Signer issuer = root.NewSigner(options);
    const auto lists = ParseRevocations(root.RevocationPem({}), "test");
    X509_CRL* const list = lists[0].get();
    CheckResult(X509_CRL_set_issuer_name(list, X509_get_subject_name(issuer.certificate.get())));
    CheckResult(X509_CRL_sign(list, issuer.key.get(), EVP_sha256()));
    EXPECT_EQ(package::IsIssuedBy(list, issuer.certificate.get()), may) << usage;
  }
}

TEST(RevocationsTest, ListsOfOthersGo) {
  const Authority root("Root A");
  const Authority other("Root B");
  const std::string one = root.RevocationPem({}, kNow);
  const std::string two = other.RevocationPem({}, kNow);
  const std::string foreign = Authority("Root A").RevocationPem({}, kNow);
  const auto left = [&](const std::string& authorities) {
    return package::PemOf(package::IssuedByAnyOf(
        ParseRevocations(foreign + one + foreign + two, "test"), AllOf(authorities)));
  };
  EXPECT_EQ(left(root.Pem() + other.Pem()), one + two);
  EXPECT_EQ(left(other.Pem()), two);
  EXPECT_EQ(left(Authority("Root B").Pem()), "");
}

TEST(RevocationsTest, ListOfChangesIsKnownWhereverThatIsSaid) {
  const auto with = [](bool is_last) {
    package::X509CrlPtr list(X509_CRL_new());
    ASN1_INTEGER* const number = ASN1_INTEGER_new();
    ASN1_INTEGER_set(number, 7);
    for (const int nid :
         {is_last ? NID_crl_number : NID_delta_crl, is_last ? NID_delta_crl : NID_crl_number}) {
      EXPECT_EQ(X509_CRL_add1_ext_i2d(list.get(), nid, number, 0, 0), 1);
    }
    ASN1_INTEGER_free(number);
    return list;
  };
  EXPECT_EQ(package::PartProblem(with(false).get()), "is a delta list");
  EXPECT_EQ(package::PartProblem(with(true).get()), "is a delta list");
}

package::X509CrlPtr ListWith(const std::vector<std::pair<int, const char*>>& extensions) {
  package::X509CrlPtr list(X509_CRL_new());
  for (const auto& [nid, value] : extensions) {
    X509_EXTENSION* extension = X509V3_EXT_nconf_nid(nullptr, nullptr, nid, value);
    EXPECT_EQ(X509_CRL_add_ext(list.get(), extension, -1), 1) << value;
    X509_EXTENSION_free(extension);
  }
  return list;
}

TEST(RevocationsTest, ListOfAPartIsKnownWhereverThatIsSaid) {
  const std::pair<int, const char*> part = {NID_issuing_distribution_point,
                                            "critical,onlyuser:TRUE"};
  const std::pair<int, const char*> note = {NID_issuing_distribution_point, "onlyuser:TRUE"};
  const std::pair<int, const char*> other = {NID_issuer_alt_name, "DNS:example.org"};
  const std::string limited = "is for some certificates only";
  EXPECT_EQ(package::PartProblem(ListWith({part}).get()), limited);
  EXPECT_EQ(package::PartProblem(ListWith({other, part}).get()), limited);
  EXPECT_EQ(package::PartProblem(ListWith({note}).get()), "");
  EXPECT_EQ(package::PartProblem(ListWith({other}).get()), "");
}

}  // namespace
}  // namespace tolm::testing
