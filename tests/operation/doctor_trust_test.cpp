#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "base/paths.h"
#include "base/rules.h"
#include "operation/device_trust.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
#include "operation/trust_state.h"
#include "tests/operation/doctor_report.h"
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

constexpr std::int64_t kBegin = 4000000000;  // Later than this was built.
constexpr std::int64_t kEnd = 4100000000;
constexpr char kBring[] =
    "bring the publisher's present root certificate there (root.pem; tolmdbpub install-config)";
constexpr char kBringList[] =
    "bring the publisher's present revocation list there (without that file nothing counts as "
    "revoked)";

std::string ReportOfKeyringAt(std::int64_t now) {
  const Service service;
  Findings findings;
  LookAtKeyring({service, now}, findings);
  return testing::Report(findings.all());
}

std::string ReportOfClockAt(std::int64_t now) {
  const Service service;
  Findings findings;
  LookAtClock({service, now}, findings);
  return testing::Report(findings.all());
}

TEST(DoctorTrustTest, CertificateIsToldOfFromItsBeginToItsEndWithSixtyDaysOfWarning) {
  const std::string file = KeyringFile(".pem");
  testing::CertificateOptions options;
  options.name = "Root";
  options.not_before = kBegin;
  options.not_after = kEnd;
  testing::WriteFile(file, testing::Authority().NewAuthorityBelow(options).Pem());
  const std::string problem = "problem keyring: " + file + ": CN = Root ";
  const std::string early =
      problem + "is not valid before " + TimeText(kBegin) + "; set the clock\n";
  const std::string valid =
      "ok keyring: " + file + ": CN = Root is valid until " + TimeText(kEnd) + '\n';
  const std::string ends = problem + "ends on " + TimeText(kEnd) + "; " + kBring + '\n';
  const std::string expired = problem + "has expired on " + TimeText(kEnd) +
                              ": nothing that it vouches for is installed; " + kBring + '\n';
  constexpr std::int64_t kWarning = std::int64_t{60} * 24 * 60 * 60;
  EXPECT_EQ(ReportOfKeyringAt(kBegin - 1), early);
  EXPECT_EQ(ReportOfKeyringAt(kBegin), valid);
  EXPECT_EQ(ReportOfKeyringAt(kEnd - kWarning), valid);
  EXPECT_EQ(ReportOfKeyringAt(kEnd - kWarning + 1), ends);
  EXPECT_EQ(ReportOfKeyringAt(kEnd - 1), ends);
  EXPECT_EQ(ReportOfKeyringAt(kEnd), expired);
}

TEST(DoctorTrustTest, EachCertificateAndListIsToldOfAndWhatCannotBeReadOn) {
  const testing::Authority root("Root");
  const std::string pem = root.Pem();
  const std::string keyring = KeyringFile(".pem");
  testing::WriteFile(keyring, pem + pem.substr(0, pem.size() / 2));
  const std::string lists = KeyringFile(".crl.pem");
  const std::string list = root.RevocationPem({}, testing::kLongAgo, kEnd);
  testing::WriteFile(
      lists, list + root.RevocationPem({}, testing::kLongAgo, 0) + list.substr(0, list.size() / 2));
  testing::WriteFile(paths::kLearnedRevocations, "");
  const std::string before = "ok keyring: " + keyring + ": CN = Root is valid until " +
                             TimeText(testing::kFarFuture) + "\nproblem keyring: " + keyring +
                             ": it is damaged, no package can be verified; " + kBring + '\n';
  const std::string after =
      "ok revocations: " + lists + ": the list of CN = Root\n" + "problem revocations: " + lists +
      ": it is damaged, no package can be verified; " + kBringList +
      "\nproblem revocations: " + paths::kLearnedRevocations +
      ": it holds no revocation list, no package can be verified; remove it and run \"tolmdbud "
      "check --refresh\", which brings the lists of the signed description again\n";
  constexpr std::int64_t kMonth = std::int64_t{30} * 24 * 60 * 60;
  static_assert(kEnd + 3 * kMonth > testing::kFarFuture, "the certificate ends later");
  EXPECT_EQ(ReportOfKeyringAt(1900000000), before + "ok revocations: " + lists +
                                               ": the list of CN = Root counts until " +
                                               TimeText(kEnd) + '\n' + after);
  testing::WriteFile(keyring, "");
  const std::string empty =
      "problem keyring: " + keyring + ": it holds no certificate; " + kBring + '\n';
  EXPECT_EQ(ReportOfKeyringAt(kEnd - 1), empty + "ok revocations: " + lists +
                                             ": the list of CN = Root counts until " +
                                             TimeText(kEnd) + '\n' + after);
  EXPECT_EQ(ReportOfKeyringAt(kEnd), empty + "problem revocations: " + lists +
                                         ": the list of CN = Root should have been replaced on " +
                                         TimeText(kEnd) + ": later revocations are not known; " +
                                         kBringList + '\n' + after);
}

TEST(DoctorTrustTest, PipeInPlaceOfAKeyringIsNotOpened) {
  const std::string file = KeyringFile(".pem");
  std::filesystem::remove(file);
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(ReportOfKeyringAt(1900000000),
            "problem keyring: " + file + ": it is no regular file, no package can be verified; " +
                kBring + '\n');
}

TEST(DoctorTrustTest, ClockMayBeBehindTheLastQuestionByAMinute) {
  constexpr std::time_t kAsked = 4000000000;
  testing::WriteFile(paths::kDatabaseInfo, "{}");
  const timespec asked[] = {{kAsked, 0}, {kAsked, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, paths::kDatabaseInfo, asked, 0), 0);
  constexpr std::int64_t kEarliest = kAsked - rules::kClockToleranceSeconds;
  EXPECT_EQ(ReportOfClockAt(kEarliest), "ok clock: it says " + TimeText(kEarliest) + '\n');
  EXPECT_EQ(ReportOfClockAt(kEarliest - 1),
            "problem clock: it says " + TimeText(kEarliest - 1) +
                ", before the server was last asked (" + TimeText(kAsked) +
                "): certificates of servers and ages are judged wrongly; set the clock\n");
}

TEST(DoctorTrustTest, ClockIsNotBeforeTheNewestAcceptedDescription) {
  testing::WriteFile(paths::kTrustState, "{");
  constexpr std::int64_t kNow = 3900000000;
  EXPECT_EQ(ReportOfClockAt(kNow), "ok clock: it says " + TimeText(kNow) + '\n');
  std::filesystem::remove(paths::kTrustState);
  offer::Acceptance acceptance;
  acceptance.accepted.repository = std::string(32, '7');
  acceptance.accepted.issued = 4000000000;
  RememberAccepted(acceptance, {});
  EXPECT_EQ(ReportOfClockAt(kNow),
            "problem clock: it says " + TimeText(kNow) +
                ", before the newest accepted description was signed (" + TimeText(4000000000) +
                "): certificates of servers and ages are judged wrongly; set the clock\n");
}

}  // namespace
}  // namespace tolm::operation
