#include "publish/signed_description.h"

#include <gmock/gmock.h>

#include <limits>

#include "offer/error.h"
#include "package/certificate.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using package::Kind;
using publish::Catalog;
using publish::DescriptionSigner;
using publish::IsDescriptionOf;
using publish::NextCounter;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::int64_t kDay = 24 * 3600;

publish::PackageRecord Package(const std::string& name, Kind kind, int version) {
  const std::string path = publish::PackagePath("packages", name, kind, version);
  return {path, static_cast<std::uint64_t>(version), publish::Sha384OfText(path)};
}

publish::Release ReleaseOf(const std::string& name, int version, bool with_delta) {
  publish::Release release;
  release.version = version;
  release.released = 1700000000 + version;
  release.full = Package(name, Kind::kFull, version);
  if (with_delta) {
    release.delta = publish::DeltaRecord{Package(name, Kind::kDelta, version), {}, 0};
  }
  return release;
}

// "oui" has a stable version, and two staged ones after it; "geo" one that is deprecated.
Catalog Sample() {
  Catalog catalog;
  publish::Database& oui = catalog.databases["oui"];
  for (const int version : {1001, 1002, 1003, 1004}) {
    oui.releases.push_back(ReleaseOf("oui", version, version > 1001));
  }
  oui.last_fetch_time = 1700009999;
  oui.rollout = publish::Rollout{1002, {1700005000, {{100, 3600}, {10000, 0}}, {}, false}};
  publish::Database& geo = catalog.databases["geo"];
  geo.releases.push_back(ReleaseOf("geo", 7, false));
  geo.last_fetch_time = 1700008888;
  geo.deprecated = true;
  return catalog;
}

offer::PackageOffer OfferOf(const std::string& name, Kind kind, int version) {
  const publish::PackageRecord package = Package(name, kind, version);
  return {package.path, package.size_bytes, package.sha384};
}

class SignedDescriptionTest : public ReleaseFixture {
 protected:
  SignedDescriptionTest() {
    InitRepository(NewSignedRepository(kNow), kNow);
    settings_ = publish::LoadSettings(Path("repo/state/settings.json"));
  }

  std::string Sign(std::uint64_t counter, std::int64_t now = kNow) const {
    return DescriptionSigner(settings_, "", now).Sign(catalog_, settings_, counter, now);
  }

  bool IsDescription(const std::string& served) const {
    return IsDescriptionOf(catalog_, settings_, served, kNow);
  }

  std::int64_t EndOfCertificate() const {
    return package::DetailsOf(publish::LoadInfoSigner(settings_, kNow).certificate.get()).not_after;
  }

  // In its first place, in the signed text or besides.
  static std::string With(std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
  }

  publish::Settings settings_;
  Catalog catalog_ = Sample();
};

TEST_F(SignedDescriptionTest, SignedTextSaysAllThatIsOfferedAndNothingElse) {
  offer::Offer expected;
  expected.repository = settings_.identity;
  expected.info_version = "1";
  expected.counter = 12;
  expected.issued = kNow;
  expected.expires = kNow + 14 * kDay;
  expected.base = "http://example.org";
  offer::DatabaseOffer& oui = expected.databases["oui"];
  oui.version = 1002;
  oui.last_fetch_time = 1700001002;
  oui.full = OfferOf("oui", Kind::kFull, 1002);
  oui.deltas[1002] = OfferOf("oui", Kind::kDelta, 1002);
  offer::NextOffer next;
  next.version = 1004;
  next.last_fetch_time = 1700009999;
  next.full = OfferOf("oui", Kind::kFull, 1004);
  next.deltas[1003] = OfferOf("oui", Kind::kDelta, 1003);
  next.deltas[1004] = OfferOf("oui", Kind::kDelta, 1004);
  next.plan = catalog_.databases["oui"].rollout->plan;
  oui.next = next;
  offer::DatabaseOffer& geo = expected.databases["geo"];
  geo.version = 7;
  geo.last_fetch_time = 1700008888;
  geo.deprecated = true;
  geo.full = OfferOf("geo", Kind::kFull, 7);
  const std::string text = Sign(12);
  const auto verified = VerifyDescription(text, settings_, kNow);
  ASSERT_TRUE(verified);
  EXPECT_EQ(FormatOffer(verified->offer), FormatOffer(expected));
  EXPECT_TRUE(IsDescription(text));
  // The rest is what an unsigned one would say, which has the stable version alone.
  const Json::Value document = publish::ParseJson(text, "");
  EXPECT_EQ(document["db_list"],
            publish::ParseJson(DescribeCatalog(catalog_, settings_.base_url), "")["db_list"]);
  const Json::Value& record = document["db_list"]["oui"];
  EXPECT_EQ(record["data_version"], "1002");
  EXPECT_EQ(record["last_fetch_time"], 1700001002);
  EXPECT_EQ(record["download_link"], "http://example.org/packages/oui/oui_v1002");
  EXPECT_EQ(record["diff_files"].getMemberNames(), std::vector<std::string>{"1002"});
}

TEST_F(SignedDescriptionTest, StagedVersionsAreReadFromTheSignedText) {
  const std::map<std::string, publish::Offer> staged = publish::StagedOffersIn(Sign(1));
  ASSERT_EQ(staged.size(), 1u);
  const publish::Offer& oui = staged.at("oui");
  EXPECT_EQ(oui.version, 1004);
  EXPECT_EQ(oui.full.link, "http://example.org/packages/oui/oui_v1004");
  EXPECT_EQ(oui.full.size_bytes, 1004u);
  EXPECT_EQ(oui.full.sha384, Package("oui", Kind::kFull, 1004).sha384);
  ASSERT_EQ(oui.deltas.size(), 2u);
  EXPECT_EQ(oui.deltas.at(1003).link, "http://example.org/packages/oui/oui_d1003");
  EXPECT_EQ(oui.deltas.at(1003).size_bytes, 1003u);
  EXPECT_EQ(oui.deltas.at(1003).sha384, Package("oui", Kind::kDelta, 1003).sha384);
  for (const std::string& other : std::initializer_list<std::string>{
           "", "no JSON", "{}", R"({"signed": "{}", "signature": "AAAA"})", R"({"signed": 7})",
           DescribeCatalog(catalog_, settings_.base_url)}) {
    EXPECT_THAT(publish::StagedOffersIn(other), IsEmpty()) << other;
  }
}

TEST_F(SignedDescriptionTest, IsTheCatalogsOnlyWithTheSameSignedTextUnderAGoodSignature) {
  const std::string text = Sign(12);
  const auto signed_with = [&](auto change) {
    Catalog other = catalog_;
    change(other.databases["oui"]);
    return DescriptionSigner(settings_, "", kNow).Sign(other, settings_, 12, kNow);
  };
  EXPECT_TRUE(IsDescription(signed_with([](publish::Database&) {})));
  // What all but the signed text says is the same.
  for (const std::string& other :
       {signed_with([](publish::Database& oui) { oui.rollout->plan.stopped = true; }),
        signed_with([](publish::Database& oui) { oui.rollout->plan.held = 1700005001; }),
        signed_with([](publish::Database& oui) { oui.releases[3].full.size_bytes = 9; }),
        signed_with([](publish::Database& oui) { oui.releases[2].delta->withdrawn = 9; }),
        With(text, "\"signature\":\"MII", "\"signature\":\"MIJ"),
        With(text, "counter\\\":12", "counter\\\":13")}) {
    EXPECT_TRUE(IsUnsignedDescriptionOf(catalog_, settings_, other));
    EXPECT_FALSE(IsDescription(other)) << other;
  }
  // And here it is another.
  for (const std::string& other :
       {signed_with([](publish::Database& oui) { oui.deprecated = true; }),
        signed_with([](publish::Database& oui) { oui.rollout.reset(); }), text + ' ', text + '\n',
        std::string(), std::string("[]"), std::string("{}\n"), text.substr(0, text.size() / 2)}) {
    EXPECT_FALSE(IsUnsignedDescriptionOf(catalog_, settings_, other)) << other;
    EXPECT_FALSE(IsDescription(other)) << other;
  }
  const std::string plain = DescribeCatalog(catalog_, settings_.base_url);
  EXPECT_TRUE(IsUnsignedDescriptionOf(catalog_, settings_, plain));
  EXPECT_FALSE(IsDescription(plain)) << "it is not signed";
  EXPECT_TRUE(IsDescriptionOf(catalog_, settings_, text, kNow + 100 * kDay)) << "it has ended";
  // Those of another repository, or form.
  for (std::string* member : {&settings_.identity, &settings_.info_version}) {
    const std::string before = std::exchange(*member, "another");
    EXPECT_FALSE(IsDescription(text)) << before;
    *member = before;
  }
  // A repository that signs none has the plain one.
  settings_.info_key.clear();
  EXPECT_TRUE(IsDescription(plain));
  EXPECT_FALSE(IsDescription(text));
}

TEST_F(SignedDescriptionTest, IsNotTheCatalogsBelowTheCounterThatThatRemembers) {
  const std::string text = Sign(12);
  for (const auto& [counter, is_it] :
       {std::pair<std::uint64_t, bool>{0, true}, {11, true}, {12, true}, {13, false}}) {
    catalog_.counter = counter;
    EXPECT_EQ(IsDescription(text), is_it) << counter;
  }
}

TEST_F(SignedDescriptionTest, CounterGoesOnFromTheServedOneTheCatalogsAndTheTime) {
  struct Row {
    const char* what;
    std::string served;
    std::uint64_t remembered;
    std::int64_t now;
    std::uint64_t counter;
  };
  const std::string served = Sign(5000000000);
  for (const Row& row : std::initializer_list<Row>{
           {"the first", "", 0, 1000, 1000},
           {"a clock before 1970", "", 0, -5, 1},
           {"the time", "", 998, 1000, 1000},
           {"of that second", "", 1000, 1000, 1001},
           {"remembered", "", 4000000000, kNow, 4000000001},
           {"served", served, 0, kNow, 5000000001},
           {"served above the remembered", served, 4999999999, kNow, 5000000001},
           {"remembered above the served", served, 6000000000, kNow, 6000000001},
           {"whose signature is none", With(served, "counter\\\":5", "counter\\\":6"), 7, kNow,
            kNow},
           {"no JSON", "x", 7, kNow, kNow}}) {
    catalog_.counter = row.remembered;
    EXPECT_EQ(NextCounter(row.served, catalog_, settings_, row.now), row.counter) << row.what;
  }
}

TEST_F(SignedDescriptionTest, EndsAfterItsDaysOrWithTheCertificateAndAfterNow) {
  const DescriptionSigner signer(settings_, "", kNow);
  const std::int64_t end = EndOfCertificate();
  ASSERT_EQ(end, kNow + publish::kInfoDays * kDay);
  EXPECT_EQ(signer.ExpiryOf(settings_, kNow), kNow + 14 * kDay);
  EXPECT_EQ(signer.ExpiryOf(settings_, end - 14 * kDay - 1), end - 1);
  EXPECT_EQ(signer.ExpiryOf(settings_, end - 14 * kDay + 1), end);
  EXPECT_EQ(signer.ExpiryOf(settings_, end - 1), end);
  EXPECT_EQ(signer.ExpiryOf(settings_, end), end + 1);
  EXPECT_EQ(signer.ExpiryOf(settings_, end + 5), end + 6);
  settings_.description_days = 3;
  EXPECT_EQ(signer.ExpiryOf(settings_, kNow), kNow + 3 * kDay);
  // Or with another certificate that is sent along, as that of an authority between.
  publish::SigningKeyRequest request;
  request.directory = Path("short");
  request.root_key = Path("keys/root.key");
  request.root_path = Path("keys/root.pem");
  request.days = 2;
  GenerateSigningKey(request, kNow);
  const std::string info = ReadFile(Path("keys/info.pem"));
  WriteFile(Path("keys/info.pem"), info + ReadFile(Path("short/signing.pem")));
  EXPECT_EQ(DescriptionSigner(settings_, "", kNow).ExpiryOf(settings_, kNow), kNow + 2 * kDay);
}

TEST_F(SignedDescriptionTest, CareIsTakenTenDaysBeforeTheEndOrFiveSeventhsOfShorterTimes) {
  for (const auto& [days, seconds] : {std::pair<int, std::int64_t>{1, 61714},
                                      {7, 5 * kDay},
                                      {13, 802285},
                                      {14, 10 * kDay},
                                      {15, 10 * kDay},
                                      {366, 10 * kDay}}) {
    settings_.description_days = days;
    EXPECT_EQ(DescriptionCareSeconds(settings_), seconds) << days;
  }
}

TEST_F(SignedDescriptionTest, NothingIsSignedThatDevicesWouldTakeForOlderThanTheServedOne) {
  const auto sign_after = [this](const std::string& served) {
    return DescriptionSigner(settings_, served, kNow).ExpiryOf(settings_, kNow);
  };
  const std::int64_t end = kNow + 14 * kDay;
  EXPECT_EQ(sign_after(Sign(1, end)), end) << "issued when the new one ends";
  const std::string later = Sign(1, end + 1);
  ExpectError([&] { sign_after(later); },
              "the served description was issued on 2027-01-29 08:00 UTC, and this machine's clock "
              "says 2027-01-15 08:00 UTC: devices that have had it refuse what is signed now. Set "
              "the clock if it is wrong; if it was, \"tolmdbpub keygen DIR --root-key KEY --root "
              "FILE --info\" and \"tolmdbpub set " +
                  Path("repo") + " --info-key KEY --info-cert FILE\" begin anew");
  EXPECT_EQ(sign_after(With(later, "counter\\\":1", "counter\\\":2")), end) << "nobody believes it";
  // A newer signer begins anew.
  publish::SigningKeyRequest request;
  request.directory = Path("newer");
  request.root_key = Path("keys/root.key");
  request.root_path = Path("keys/root.pem");
  GenerateInfoKey(request, kNow + 1);
  settings_.info_key = Path("newer/info.key");
  settings_.info_certificate_path = Path("newer/info.pem");
  EXPECT_EQ(sign_after(later), end);
}

TEST_F(SignedDescriptionTest, OnlyWhatTheRepositorysRootStandsForIsVerified) {
  EXPECT_FALSE(VerifyDescription(DescribeCatalog(catalog_, settings_.base_url), settings_, kNow));
  ExpectError([&] { VerifyDescription("no JSON", settings_, kNow); },
              HasSubstr("the description: "));
  const std::string text = Sign(1);
  publish::GenerateKeys(Path("others"), kNow);
  settings_.root_path = Path("others/root.pem");
  try {
    VerifyDescription(text, settings_, kNow);
    ADD_FAILURE() << "was verified";
  } catch (const offer::Error& error) {
    EXPECT_EQ(error.code(), offer::Code::kNotTrusted) << error.what();
  }
}

}  // namespace
}  // namespace tolm::testing
