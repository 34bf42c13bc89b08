#include "operation/keyring_dates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/keyring_bounds.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::ElementsAre;

constexpr char kFile[] = "/tmp/keyring.pem";

// "<subject>|<begin>|<end>"
std::vector<std::string> Certificates(const std::string& text) {
  testing::WriteFile(kFile, text);
  std::vector<std::string> told;
  for (const std::optional<CertificateDates>& one : ReadCertificateDates(kFile)) {
    told.push_back(one ? one->subject + '|' + std::to_string(one->not_before) + '|' +
                             std::to_string(one->not_after)
                       : "damaged");
  }
  return told;
}

std::vector<std::string> Lists(const std::string& text) {
  testing::WriteFile(kFile, text);
  std::vector<std::string> told;
  for (const std::optional<RevocationDates>& one : ReadRevocationDates(kFile)) {
    told.push_back(one ? one->issuer + '|' + std::to_string(one->next_update) : "damaged");
  }
  return told;
}

std::string Cut(const std::string& pem) {
  return pem.substr(0, pem.size() / 2);
}

TEST(KeyringDatesTest, CertificatesAreToldInTheirOrderAndWhatIsNoTimeIsZero) {
  const testing::Authority root(
      "R\xC3\xBC"
      "ckrat");
  testing::CertificateOptions options;
  options.not_before = 1700000001;
  options.not_after = 4000000001;
  const testing::Authority below = root.NewAuthorityBelow(options);
  EXPECT_THAT(
      Certificates(root.Pem() + "a remark\n" + below.Pem() + PemWithoutEnd(below)),
      ElementsAre("CN = R\xC3\xBC"
                  "ckrat|1000000000|4102444800",
                  "CN = Test signing|1700000001|4000000001", "CN = Test signing|1700000001|0"));
}

TEST(KeyringDatesTest, ListsAreToldWithTheirNextDateWhereTheyHaveOne) {
  const testing::Authority root("Root");
  EXPECT_THAT(Lists(root.RevocationPem({}, testing::kLongAgo, 4000000001) +
                    root.RevocationPem({}, testing::kLongAgo, 0)),
              ElementsAre("CN = Root|4000000001", "CN = Root|0"));
}

TEST(KeyringDatesTest, WhatCannotBeReadOnIsToldOnceAndSpoilsNoLaterLook) {
  const testing::Authority root("Root");
  const std::string certificate = "CN = Root|1000000000|4102444800";
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(Certificates(root.Pem() + Cut(root.Pem())), ElementsAre(certificate, "damaged"));
    EXPECT_THAT(Lists(Cut(root.RevocationPem({}))), ElementsAre("damaged"));
    EXPECT_THAT(Certificates(root.Pem()), ElementsAre(certificate));
    EXPECT_THAT(Certificates(""), ElementsAre());
    EXPECT_EQ(ERR_peek_error(), 0ul) << "the next one who asks OpenSSL is told of his own errors";
  }
}

TEST(KeyringDatesTest, ErrorsOfOthersAreNotTakenForDamage) {
  const testing::Authority root("Root");
  ERR_raise(ERR_LIB_USER, ERR_R_MALLOC_FAILURE);
  testing::WriteFile(kFile, root.Pem());
  EXPECT_EQ(ReadCertificateDates(kFile).size(), 1u);
}

TEST(KeyringDatesTest, FileMayBeAsLargeAsTheBoundAndNotLarger) {
  const testing::Authority root("Root");
  const std::string pem = root.Pem();
  const std::string full = std::string(rules::kKeyringBytes - pem.size(), '\n') + pem;
  EXPECT_THAT(Certificates(full), ElementsAre("CN = Root|1000000000|4102444800"));
  testing::WriteFile(kFile, full + '\n');
  EXPECT_THAT([] { ReadCertificateDates(kFile); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  "it is larger than 1048576 bytes, no package can be verified"));
}

}  // namespace
}  // namespace tolm::operation
