#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "operation/device_trust.h"
#include "operation/doctor_looks.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using State = Finding::State;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::StartsWith;

auto IsFound(const std::string& check, State state, const std::string& message) {
  return AllOf(Field(&Finding::check, check), Field(&Finding::state, state),
               Field(&Finding::message, StartsWith(message)));
}

std::vector<Finding> LookAtKeyringNow() {
  const Service service;
  Findings findings;
  LookAtKeyring({service, std::time(nullptr)}, findings);
  return findings.all();
}

TEST(DoctorTrustTest, KeyringThatIsThereIsLookedInto) {
  testing::WriteFile(KeyringFile(".pem"), testing::Authority("Root").Pem());
  EXPECT_THAT(LookAtKeyringNow(),
              ElementsAre(IsFound("keyring", State::kOk, "CN = Root is valid until ")));
}

TEST(DoctorTrustTest, ListsOfRevocationsAreLookedIntoWhereTheyAre) {
  const testing::Authority root("Root");
  testing::WriteFile(KeyringFile(".pem"), root.Pem());
  testing::WriteFile(KeyringFile(".crl.pem"), root.RevocationPem({}));
  EXPECT_THAT(LookAtKeyringNow(),
              ElementsAre(IsFound("keyring", State::kOk, ""),
                          IsFound("revocations", State::kOk, "the list of CN = Root")));
}

TEST(DoctorTrustTest, KeyringThatIsNotThereIsMissed) {
  std::filesystem::remove(KeyringFile(".pem"));
  EXPECT_THAT(LookAtKeyringNow(),
              ElementsAre(IsFound("keyring", State::kProblem,
                                  "it is missing, no package can be verified")));
}

}  // namespace
}  // namespace tolm::operation
