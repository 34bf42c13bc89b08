#include "operation/belief.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "operation/description_reader.h"
#include "operation/device_trust.h"
#include "operation/sources.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/opening_watch.h"
#include "tests/support/syslog_capture.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::Authority;

// What is kept of a file is told from another by times that go on in ticks.
void WaitForTicks() {
  usleep(200000);
}

void Put(const offer::Offer& offer, const package::Signer& signer) {
  Json::Value document(Json::objectValue);
  offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer));
  testing::WriteFile(paths::kDatabaseInfo,
                     Json::writeString(Json::StreamWriterBuilder(), document));
}

std::string OfferedVersionRead() {
  return DescriptionReader()
      .ReadJson(paths::kDatabaseInfo)["db_list"]["oui"]["data_version"]
      .asString();
}

TEST(BeliefTest, WhatIsKeptOfASignedOneIsThatOfTheFileAndJudgedEachTime) {
  const Authority root;
  testing::CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  const package::Signer signer = root.NewSigner(options);
  testing::WriteFile(KeyringFile(".pem"), root.Pem());
  testing::WriteFile(paths::kServiceDefaults, R"({"config": {"db_ver": "1"}})");
  offer::Offer offer = testing::SomeOffer();
  Put(offer, signer);
  WaitForTicks();
  EXPECT_EQ(OfferedVersionRead(), "7");
  EXPECT_EQ(OfferedVersionRead(), "7");
  offer.databases["oui"].version = 8;
  Put(offer, signer);
  EXPECT_EQ(OfferedVersionRead(), "8") << "written in its place, and as long";
  WaitForTicks();
  EXPECT_EQ(OfferedVersionRead(), "8");
  testing::WriteFile(KeyringFile(".crl.pem"), root.RevocationPem({signer.certificate.get()}));
  EXPECT_THROW(OfferedVersionRead(), Disbelieved) << "the file is the same";
}

// A device that trusts one authority, and descriptions that are signed below it.
class BelieveTest : public ::testing::Test {
 protected:
  BelieveTest() {
    testing::WriteFile(KeyringFile(".pem"), root_.Pem());
    Configure("");
    testing::SyslogCapture::Clear();
  }

  static void Configure(const std::string& more) {
    testing::WriteFile(paths::kServiceDefaults, R"({"config": {"db_ver": "1")" + more + "}}");
  }

  static package::Signer NewSigner(const Authority& root) {
    testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    return root.NewSigner(options);
  }

  static Json::Value DocumentOf(const offer::Offer& offer, const package::Signer& signer) {
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer));
    return document;
  }
  Claim ClaimOf(const offer::Offer& offer) const { return Claim(DocumentOf(offer, signer_)); }
  static Claim Unsigned() {
    Json::Value document(Json::objectValue);
    document["db_list"] = Json::Value(Json::objectValue);
    return Claim(document);
  }

  static Failure RefusalOf(const Claim& claim) {
    try {
      Believe(claim, "it there");
    } catch (const Disbelieved& error) {
      EXPECT_EQ(error.what(), error.failure().text);
      return error.failure();
    }
    return {};
  }
  static std::string ReasonFor(const Claim& claim) { return RefusalOf(claim).reason; }

  const Authority root_{"Root"};
  const package::Signer signer_ = NewSigner(root_);
};

struct RemedyRow {
  const char* reason;
  const char* of_server;
  const char* elsewhere;
};

TEST_F(BelieveTest, RefusedOneIsToldWithWhatToDoAboutItsSource) {
  offer::Offer offer = testing::SomeOffer();
  Remember(Believe(ClaimOf(offer), "it"));
  offer::Offer older = offer;
  --older.counter;
  offer::Offer of_another = offer;
  of_another.repository = std::string(32, '8');
  Json::Value damaged(Json::objectValue);
  damaged[offer::kSignedMember] = 7;
  const std::vector<std::pair<Claim, RemedyRow>> rows = {
      {Unsigned(),
       {reasons::kDescriptionNotSigned,
        "if the publisher has given up signing, \"tolmdbud trust reset\" lets unsigned ones in "
        "again",
        "the publisher has to sign descriptions (\"tolmdbpub upgrade\")"}},
      {ClaimOf(older),
       {reasons::kDescriptionOlder, "ask who runs the server: a mirror may be behind",
        "bring it up to date with the publisher's tree"}},
      {ClaimOf(of_another),
       {reasons::kDescriptionForAnother,
        "\"tolmdbud trust reset\" lets this device follow another one",
        "\"tolmdbud trust reset\" lets this device follow another one"}},
      {Claim(damaged), {reasons::kDescriptionDamaged, "", ""}}};
  for (const auto& [claim, row] : rows) {
    const Failure failure = RefusalOf(claim);
    EXPECT_EQ(failure.reason, row.reason);
    EXPECT_EQ(failure.text.rfind("it there is refused: ", 0), 0u) << failure.text;
    EXPECT_EQ(failure.remedy, row.of_server);
    {
      const Asking server({Source::Kind::kServer, "http://h"});
      EXPECT_EQ(RefusalOf(claim).remedy, row.of_server);
    }
    const Asking mirror({Source::Kind::kMirror, "http://m"});
    EXPECT_EQ(RefusalOf(claim).remedy, row.elsewhere);
  }
}

TEST_F(BelieveTest, RefusalIsFoundAgainByTheMessageThatIsAboutIt) {
  EXPECT_FALSE(RefusalIn("")) << "nothing was refused yet";
  EXPECT_FALSE(RefusalIn("anything"));
  Configure(R"(, "require_signed_description": true)");
  const Failure refused = RefusalOf(Unsigned());
  ASSERT_TRUE(RefusalIn("Fail: " + refused.text + "."));
  EXPECT_EQ(RefusalIn(refused.text)->reason, reasons::kDescriptionNotSigned);
  EXPECT_FALSE(RefusalIn("of something else"));
  EXPECT_THROW(ThrowRefusal("no server has one", dataupdate::UpdateError::kGeneral,
                            {reasons::kTimedOut, "it does not answer"}),
               ExplainedError);
  ASSERT_TRUE(RefusalIn("Fail: no server has one"));
  EXPECT_EQ(RefusalIn("no server has one")->reason, reasons::kTimedOut);
  EXPECT_FALSE(RefusalIn(refused.text)) << "the last one counts";
}

TEST_F(BelieveTest, SignedOnesAreDemandedByTheSettingAlsoByOneThatCannotBeRead) {
  struct Row {
    const char* setting;
    bool is_required;
  };
  for (const Row& row :
       std::initializer_list<Row>{{"", false},
                                  {R"(, "require_signed_description": false)", false},
                                  {R"(, "require_signed_description": true)", true},
                                  {R"(, "require_signed_description": "perhaps")", true}}) {
    Configure(row.setting);
    EXPECT_EQ(IsSignedRequired(), row.is_required) << row.setting;
    EXPECT_EQ(RefusalOf(Unsigned()).reason, row.is_required ? reasons::kDescriptionNotSigned : "");
    EXPECT_EQ(RefusalOf(Unsigned()).remedy, "");
  }
  fs::remove(paths::kServiceDefaults);
  EXPECT_FALSE(IsSignedRequired());
}

TEST_F(BelieveTest, ClaimToBeSignedIsEitherMember) {
  Json::Value document(Json::objectValue);
  EXPECT_FALSE(IsSigned(document));
  for (const char* member : {offer::kSignedMember, offer::kSignatureMember}) {
    document = Json::Value(Json::objectValue);
    document[member] = 7;
    EXPECT_TRUE(IsSigned(document)) << member;
  }
  for (const Json::Value& other : {Json::Value(), Json::Value(7), Json::Value(Json::arrayValue)}) {
    EXPECT_FALSE(IsSigned(other));
  }
}

TEST_F(BelieveTest, WhereSignaturesAloneAreTrustedAnUnsignedOneIsRefused) {
  const Belief of_signed = Believe(ClaimOf(testing::SomeOffer()), "it");
  EXPECT_NO_THROW(RequireSigned(of_signed, "it"));
  EXPECT_THROW(RequireSigned(Believe(Unsigned(), "it"), "it"), Disbelieved);
}

TEST_F(BelieveTest, ListOfWhatWasRevokedCountsForWhoHasSignedTheDescriptionToo) {
  offer::Offer offer = testing::SomeOffer();
  offer.revocations = root_.RevocationPem({signer_.certificate.get()});
  EXPECT_EQ(ReasonFor(ClaimOf(offer)), reasons::kDescriptionNotTrusted);
  EXPECT_FALSE(fs::exists(paths::kLearnedRevocations)) << "what is refused teaches nothing";
  const package::Signer another = NewSigner(root_);
  offer.revocations = root_.RevocationPem({another.certificate.get()});
  const Belief belief = Believe(ClaimOf(offer), "it");
  EXPECT_FALSE(fs::exists(paths::kLearnedRevocations));
  Remember(belief);
  EXPECT_EQ(testing::ReadFile(paths::kLearnedRevocations), offer.revocations);
  EXPECT_EQ(ReasonFor(Claim(DocumentOf(testing::SomeOffer(), another))),
            reasons::kDescriptionNotTrusted);
}

TEST_F(BelieveTest, KeyringThatIsReplacedCountsAtOnce) {
  const Claim claim = ClaimOf(testing::SomeOffer());
  EXPECT_EQ(ReasonFor(claim), "");
  testing::WriteFile(KeyringFile(".pem"), Authority("Other").Pem());
  EXPECT_EQ(ReasonFor(claim), reasons::kDescriptionNotTrusted);
  testing::WriteFile(KeyringFile(".pem"), root_.Pem());
  testing::WriteFile(KeyringFile(".crl.pem"), root_.RevocationPem({}));
  EXPECT_EQ(ReasonFor(claim), "");
  testing::WriteFile(KeyringFile(".crl.pem"), root_.RevocationPem({signer_.certificate.get()}));
  EXPECT_EQ(ReasonFor(claim), reasons::kDescriptionNotTrusted);
}

std::size_t CountAccepted() {
  const std::vector<std::string> lines = testing::SyslogCapture::TextsWithoutPlace(LOG_NOTICE);
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(),
      [](const std::string& line) { return line.rfind("accepted the description of ", 0) == 0; }));
}

TEST_F(BelieveTest, OnlyANewSignedOneIsRemembered) {
  Remember(Believe(Unsigned(), "it"));
  EXPECT_EQ(ReadSignedState().accepted.repository, "");
  EXPECT_FALSE(fs::exists(paths::kTrustState));
  for (int i = 0; i < 2; ++i) {
    Remember(Believe(ClaimOf(testing::SomeOffer()), "it"));
    EXPECT_EQ(ReadSignedState().accepted.counter, 41u);
    EXPECT_EQ(CountAccepted(), 1u);
  }
}

TEST_F(BelieveTest, CachedOneIsRememberedWhereNothingIs) {
  RememberCached(Unsigned());
  EXPECT_EQ(ReadSignedState().accepted.repository, "");
  const Authority foreign("Foreign");
  RememberCached(Claim(DocumentOf(testing::SomeOffer(), NewSigner(foreign))));
  EXPECT_EQ(ReadSignedState().accepted.repository, "");
  offer::Offer offer = testing::SomeOffer();
  RememberCached(ClaimOf(offer));
  const SignedState state = ReadSignedState();
  EXPECT_EQ(state.accepted.repository, offer.repository);
  EXPECT_EQ(state.accepted.counter, offer.counter);
  EXPECT_EQ(state.accepted.expires, offer.expires);
  EXPECT_TRUE(state.is_wanted);
  ++offer.counter;
  RememberCached(ClaimOf(offer));
  EXPECT_EQ(ReadSignedState().accepted.counter, offer.counter - 1) << "that is for who accepts it";
}

TEST_F(BelieveTest, CachedOneThatIsReplacedIsReadAnewHoweverSoonAndHoweverLate) {
  constexpr int kTimes = 40;
  std::string texts[2];
  for (int i = 0; i < 2; ++i) {
    offer::Offer offer = testing::SomeOffer();
    offer.databases["oui"].version = 7 + i;
    texts[i] = DocumentOf(offer, signer_).toStyledString();
  }
  for (int i = 0; i < kTimes; ++i) {
    testing::WriteFile(paths::kDatabaseInfo, texts[i % 2]);
    EXPECT_EQ(OfferedVersionRead(), std::to_string(7 + i % 2)) << "in the same tick";
  }
  for (int i = 0; i < 3; ++i) {
    testing::WriteFile(paths::kDatabaseInfo, texts[i % 2]);
    WaitForTicks();
    EXPECT_EQ(OfferedVersionRead(), std::to_string(7 + i % 2));
  }
}

TEST_F(BelieveTest, CachedOneIsReadOnceIfItIsSignedAndEachTimeOtherwise) {
  for (const bool is_signed : {true, false}) {
    testing::WriteFile(paths::kDatabaseInfo, (is_signed ? DocumentOf(testing::SomeOffer(), signer_)
                                                        : *Unsigned().document)
                                                 .toStyledString());
    WaitForTicks();
    DescriptionReader().ReadJson(paths::kDatabaseInfo);
    const testing::OpeningWatch watch(paths::kDatabaseInfo);
    DescriptionReader().ReadJson(paths::kDatabaseInfo);
    EXPECT_EQ(watch.HasSeen(), !is_signed);
  }
}

}  // namespace
}  // namespace tolm::operation
