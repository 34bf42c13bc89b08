#include "operation/device_trust.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "base/paths.h"
#include "package/error.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using package::Signer;
using testing::Authority;
using testing::CodeOf;
using testing::kFarFuture;
using testing::OfferCodeOf;

constexpr std::time_t kNow = 1800000000;

class DeviceTrustTest : public ::testing::Test {
 protected:
  DeviceTrustTest() {
    fs::remove_all(fs::path(paths::kLearnedRevocations).parent_path());
    fs::remove_all(paths::kKeyringDirectory);
    testing::WriteFile(KeyringFile(".pem"), root_.Pem());
  }

  std::string List(const std::vector<X509*>& revoked, long number) const {
    return root_.RevocationPem(revoked, kNow + number, kFarFuture, number);
  }
  std::optional<package::Code> Verdict(const std::string& further = "") const {
    return CodeOf(
        [&] { DeviceTrust(further).CheckSigner(signer_.certificate.get(), nullptr, kNow); });
  }
  void Learn(const std::string& pem) const { KeepRevocations(JudgeRevocations(pem)); }

  Authority root_{"Root"};
  Signer signer_ = root_.NewSigner();
};

TEST_F(DeviceTrustTest, KeyringAndBothFilesOfRevocationsCount) {
  EXPECT_EQ(Verdict(), std::nullopt);
  testing::WriteFile(KeyringFile(".crl.pem"), List({signer_.certificate.get()}, 1));
  EXPECT_EQ(Verdict(), package::Code::kRevoked);
  fs::remove(KeyringFile(".crl.pem"));
  testing::WriteFile(paths::kLearnedRevocations, List({signer_.certificate.get()}, 1));
  EXPECT_EQ(Verdict(), package::Code::kRevoked);
  testing::WriteFile(paths::kLearnedRevocations, "damaged");
  EXPECT_EQ(Verdict(), package::Code::kKeyring);
}

TEST_F(DeviceTrustTest, WhatIsJudgedCountsOnceItIsKept) {
  const std::string judged = JudgeRevocations(List({signer_.certificate.get()}, 1));
  EXPECT_FALSE(fs::exists(paths::kLearnedRevocations));
  EXPECT_EQ(Verdict(), std::nullopt);
  EXPECT_EQ(Verdict(judged), package::Code::kRevoked) << "and for the description itself";
  KeepRevocations(judged);
  EXPECT_EQ(Verdict(), package::Code::kRevoked);
  struct stat status;
  ASSERT_EQ(stat(paths::kLearnedRevocations, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(DeviceTrustTest, DescriptionWithoutListsTakesNoneAway) {
  Learn(List({signer_.certificate.get()}, 1));
  EXPECT_EQ(JudgeRevocations(""), "");
  KeepRevocations("");
  EXPECT_EQ(Verdict(), package::Code::kRevoked);
}

TEST_F(DeviceTrustTest, OlderListsArePassedOver) {
  const std::string fifth = List({}, 5);
  Learn(fifth);
  EXPECT_EQ(JudgeRevocations(fifth), "") << "it is there";
  EXPECT_EQ(JudgeRevocations(List({}, 4)), "");
  testing::WriteFile(KeyringFile(".crl.pem"), List({signer_.certificate.get()}, 7));
  EXPECT_EQ(JudgeRevocations(List({}, 6)), "") << "than the one beside the keyring";
  EXPECT_EQ(Verdict(List({}, 6)), package::Code::kRevoked);
  fs::remove(KeyringFile(".crl.pem"));
  Learn(List({signer_.certificate.get()}, 8));
  EXPECT_EQ(Verdict(), package::Code::kRevoked) << "the newer one of both files";
}

TEST_F(DeviceTrustTest, OnlyAuthoritiesOfTheKeyringAreHeard) {
  const Authority impostor("Root");
  const Authority between = root_.NewAuthorityBelow();
  const std::string own = List({signer_.certificate.get()}, 1);
  for (const Authority* foreign : {&impostor, &between}) {
    EXPECT_EQ(JudgeRevocations(foreign->RevocationPem({})), "");
    EXPECT_EQ(JudgeRevocations(foreign->RevocationPem({}) + own), own) << "theirs is not kept";
  }
  for (const std::string damaged : {"no list", "-----BEGIN X509 CRL-----\nAAAA\n"}) {
    EXPECT_EQ(OfferCodeOf([&] { JudgeRevocations(damaged); }), offer::Code::kForm);
  }
  EXPECT_FALSE(fs::exists(paths::kLearnedRevocations));
  Learn(own);
  EXPECT_EQ(JudgeRevocations(impostor.RevocationPem({})), "") << "nothing is to be kept";
}

TEST_F(DeviceTrustTest, ListOfAReplacedAuthorityOfTheSameNameHindersNobody) {
  Learn(List({}, 1));
  const Authority next("Root");
  const Signer nexts = next.NewSigner();
  const auto verdict = [&] {
    return CodeOf([&] { DeviceTrust().CheckSigner(nexts.certificate.get(), nullptr, kNow); });
  };
  testing::WriteFile(KeyringFile(".pem"), root_.Pem() + next.Pem());
  EXPECT_EQ(verdict(), std::nullopt);
  testing::WriteFile(KeyringFile(".pem"), next.Pem());
  EXPECT_EQ(verdict(), std::nullopt);
}

TEST_F(DeviceTrustTest, ListsOfOtherAuthoritiesStay) {
  const Authority other("Other");
  const Signer others = other.NewSigner();
  testing::WriteFile(KeyringFile(".pem"), root_.Pem() + other.Pem());
  Learn(other.RevocationPem({others.certificate.get()}));
  Learn(List({}, 1));
  Learn(List({signer_.certificate.get()}, 2));
  const std::string learned = testing::ReadFile(paths::kLearnedRevocations);
  EXPECT_EQ(package::ParseRevocations(learned, "learned").size(), 2u) << "the older one is gone";
  EXPECT_EQ(Verdict(), package::Code::kRevoked);
  EXPECT_EQ(CodeOf([&] { DeviceTrust().CheckSigner(others.certificate.get(), nullptr, kNow); }),
            package::Code::kRevoked);
}

TEST_F(DeviceTrustTest, UnusableKeyringIsNoFaultOfTheDescription) {
  fs::remove(KeyringFile(".pem"));
  EXPECT_EQ(OfferCodeOf([&] { JudgeRevocations(List({}, 1)); }), offer::Code::kKeyring);
}

}  // namespace
}  // namespace tolm::operation
