#include "operation/sources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/paths.h"
#include "offer/signed_offer.h"
#include "operation/description_reader.h"
#include "operation/device_trust.h"
#include "operation/taken_from.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kServer[] = "http://server.example:8080";
constexpr char kMirror[] = "http://mirror.example/oui";

// A server and a mirror are configured; nothing is cached that would say what else has the
// packages.
class SourcesTest : public ::testing::Test {
 protected:
  SourcesTest() {
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http",
                                      "db_netloc": "server.example:8080", "db_ver": "1"}})");
    testing::WriteFile("/usr/tolm/etc/data_update/operation.conf",
                       R"({"mirrors": [")" + std::string(kMirror) + R"("]})");
  }

  static std::vector<std::string> Addresses() {
    std::vector<std::string> addresses;
    for (const Source& source : PresentSources()) {
      addresses.push_back(source.address);
    }
    return addresses;
  }
};

TEST_F(SourcesTest, ServerComesBeforeItsMirrors) {
  EXPECT_THAT(Addresses(), ElementsAre(kServer, kMirror));
}

TEST_F(SourcesTest, NamedPlaceIsTheOnlyOneAndOnlyAsLongAsItIsNamed) {
  {
    const TakenFrom directory("/tmp/");
    EXPECT_THAT(Addresses(), ElementsAre("/tmp"));
    EXPECT_TRUE(IsTakenFromElsewhere());
    EXPECT_TRUE(IsTakenFromDirectory());
    EXPECT_EQ(SettingOfSource(), "--from");
  }
  EXPECT_THAT(Addresses(), ElementsAre(kServer, kMirror));
  EXPECT_FALSE(IsTakenFromElsewhere());
  EXPECT_FALSE(IsTakenFromDirectory());
  EXPECT_THAT(SettingOfSource(), StartsWith("db_netloc in "));
  const TakenFrom server("http://stick.example/copy/");
  EXPECT_THAT(Addresses(), ElementsAre("http://stick.example/copy"));
  EXPECT_TRUE(IsTakenFromElsewhere());
  EXPECT_FALSE(IsTakenFromDirectory());
}

TEST_F(SourcesTest, LeftOutOnesAreThereAgainAfterwards) {
  {
    const LeftOutSources left_out({"mirror.example:80"});
    EXPECT_THAT(Addresses(), ElementsAre(kServer));
  }
  EXPECT_THAT(Addresses(), ElementsAre(kServer, kMirror));
}

TEST_F(SourcesTest, AskedOneIsThatBeforeAgainAfterwards) {
  const std::vector<Source> sources = PresentSources();
  EXPECT_FALSE(AskedSource());
  {
    const Asking server(sources[0]);
    {
      const Asking mirror(sources[1]);
      EXPECT_EQ(AskedSource()->address, kMirror);
      EXPECT_THAT(SettingOfSource(), StartsWith("mirrors in "));
    }
    EXPECT_EQ(AskedSource()->address, kServer);
    EXPECT_THAT(SettingOfSource(), StartsWith("db_netloc in "));
  }
  EXPECT_FALSE(AskedSource());
}

TEST_F(SourcesTest, MirrorsHaveADescriptionWhereTheServerHasIt) {
  const std::vector<Source> sources = PresentSources();
  const std::string url = std::string(kServer) + "/database_info/1?db_list=oui";
  EXPECT_EQ(DescriptionPlace(sources[0], url), url);
  EXPECT_EQ(DescriptionPlace(sources[1], url),
            std::string(kMirror) + "/database_info/1?db_list=oui");
  const TakenFrom directory("/tmp");
  EXPECT_EQ(DescriptionPlace(PresentSources()[0], url), "/tmp/database_info/1");
}

TEST_F(SourcesTest, WithoutASignedDescriptionOnlyTheServerHasPackages) {
  const std::string link = std::string(kServer) + "/packages/oui_v1";
  const std::vector<Place> places = PlacesOf(link);
  ASSERT_EQ(places.size(), 1u);
  EXPECT_EQ(places[0].source.kind, Source::Kind::kServer);
  EXPECT_EQ(places[0].address, link);
  const TakenFrom directory("/tmp");
  EXPECT_TRUE(PlacesOf(link).empty());
}

TEST_F(SourcesTest, PlaceThatIsNoneIsRefusedByItsName) {
  for (const char* place : {"/nonexistent", "ftp://h/x", "http://"}) {
    try {
      const TakenFrom taken(place);
      FAIL() << place;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(place));
    }
  }
}

TEST_F(SourcesTest, ServerOfWhatIsAskedIsTheMirrorsOwn) {
  const std::vector<Source> sources = PresentSources();
  EXPECT_EQ(AskedServer()->host, "server.example");
  {
    const Asking server(sources[0]);
    EXPECT_EQ(AskedServer()->host, "server.example");
  }
  {
    const Asking mirror(sources[1]);
    EXPECT_EQ(AskedServer()->host, "mirror.example");
  }
  const TakenFrom directory("/tmp");
  const Asking asking(PresentSources()[0]);
  EXPECT_FALSE(AskedServer());
}

TEST_F(SourcesTest, DescriptionIsFoundBehindAnAddressWithoutAHost) {
  EXPECT_EQ(DescriptionPlace(PresentSources()[1], "/database_info/1"),
            std::string(kMirror) + "/database_info/1");
}

TEST_F(SourcesTest, NamedPlaceMayBeTheRootAndRefusesWhatIsCached) {
  EXPECT_FALSE(IsCachedDescriptionRefused());
  const TakenFrom root("/");
  EXPECT_THAT(Addresses(), ElementsAre("/"));
  EXPECT_TRUE(IsCachedDescriptionRefused());
}

TEST_F(SourcesTest, ServerOfHttpsHasNoOtherOneByHttp) {
  const OperatorSettings plain = ReadOperatorSettings();
  EXPECT_NO_THROW(RequireSecureMirrors(plain));
  tolm::testing::WriteFile("/usr/share/data_update/data_update.conf",
                           R"({"config": {"download_scheme": "https",
                                          "db_netloc": "server.example", "db_ver": "1"}})");
  EXPECT_THROW(RequireSecureMirrors(plain), std::runtime_error);
  EXPECT_THROW(TakenFrom("http://stick.example"), std::runtime_error);
  OperatorSettings secure = plain;
  secure.mirrors = {"https://mirror.example"};
  EXPECT_NO_THROW(RequireSecureMirrors(secure));
  EXPECT_NO_THROW(TakenFrom("https://stick.example"));
}

// A signed description is cached, whose packages lie below a base.
class SignedSourcesTest : public SourcesTest {
 protected:
  SignedSourcesTest() {
    const tolm::testing::Authority root;
    tolm::testing::WriteFile(KeyringFile(".pem"), root.Pem());
    tolm::testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    offer::Offer offer = tolm::testing::SomeOffer();
    offer.base = kBase;
    offer.issued = std::time(nullptr);
    offer.expires = offer.issued + 3600;
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), root.NewSigner(options)));
    tolm::testing::WriteFile(paths::kDatabaseInfo, document.toStyledString());
  }

  static std::vector<std::string> AddressesOf(const std::string& link) {
    std::vector<std::string> addresses;
    for (const Place& place : PlacesOf(link)) {
      addresses.push_back(place.address);
    }
    return addresses;
  }

  static constexpr char kBase[] = "http://packages.example/store";
};

TEST_F(SignedSourcesTest, OthersHavePackagesByTheSamePathBelowTheirBase) {
  const std::string path = "/a%20b/..c/.d/e..";
  const std::string link = kBase + path;
  EXPECT_THAT(AddressesOf(link), ElementsAre(link, kMirror + path));
  EXPECT_THAT(AddressesOf(kBase + std::string("/x")),
              ElementsAre(kBase + std::string("/x"), kMirror + std::string("/x")));
  {
    const LeftOutSources left_out({"server.example:8080"});
    EXPECT_THAT(AddressesOf(link), ElementsAre(kMirror + path));
  }
  const TakenFrom directory("/tmp");
  EXPECT_THAT(AddressesOf(link), ElementsAre("/tmp/a b/..c/.d/e.."));
}

TEST_F(SignedSourcesTest, WhatIsNotPlainlyBelowTheBaseOnlyTheServerHas) {
  for (const std::string path :
       {"", "/", "//x", "/x/", "/x//y", "/./x", "/x/.", "/x/./y", "/../x", "/x/..", "/x/../y",
        "/x y", "/x\ny", "/x\x7fy", "/x?y", "/x#y", "/x\\y", "x/y", "/ "}) {
    EXPECT_THAT(AddressesOf(kBase + path), ElementsAre(kBase + path));
  }
  for (const std::string link : {"http://packages.example/other/x", "http://other.example/store/x",
                                 "", "/x", "https://packages.example/store/x"}) {
    EXPECT_THAT(AddressesOf(link), ElementsAre(link));
  }
}

}  // namespace
}  // namespace tolm::operation
