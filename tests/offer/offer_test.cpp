#include "offer/offer.h"

#include <gtest/gtest.h>

#include <string>

#include "base/rules.h"
#include "tests/offer/offers.h"

namespace tolm::testing {
namespace {

using offer::Code;
using offer::FormatOffer;
using offer::Offer;
using offer::ParseOffer;

TEST(OfferTest, IsTheSameAfterItWasWrittenAndRead) {
  Offer made = SomeOffer();
  made.revocations = "-----BEGIN X509 CRL-----\n";
  const std::string text = FormatOffer(made);
  EXPECT_EQ(FormatOffer(ParseOffer(text)), text);
  EXPECT_EQ(text.find_first_of(" \n"), text.find(' ')) << "one line";
}

TEST(OfferTest, TextIsThisOne) {
  Offer made = SomeOffer();
  made.databases.erase("oui");
  EXPECT_EQ(FormatOffer(made),
            R"({"base":"https://updates.example.org/data","counter":41,"databases":{)"
            "\"Zeichen \xC3\xA4"
            R"(\"\n":{"deltas":{},"deprecated":true,"full":{"link":)"
            R"("https://other.example.org/z_v0","sha384":")" +
                std::string(96, 'a') +
                R"(","size":1000},"last_fetch_time":0,"version":0}},"expires":4001209600,)"
                R"("format":1,"info_version":"1","issued":4000000000,"repository":")" +
                std::string(32, '7') + R"("})");
}

struct Damage {
  const char* what;
  const char* before;
  const char* after;
};

TEST(OfferTest, WhatIsIncompleteOrOfAnotherTypeIsRefused) {
  const std::string good = FormatOffer(SomeOffer());
  ASSERT_EQ(OfferCodeOf([&] { ParseOffer(good); }), std::nullopt);
  for (const Damage& row : {
           Damage{"another format", "\"format\":1", "\"format\":2"},
           Damage{"no format", "\"format\":1,", ""},
           Damage{"counter as a text", "\"counter\":41", "\"counter\":\"41\""},
           Damage{"negative counter", "\"counter\":41", "\"counter\":-1"},
           Damage{"broken counter", "\"counter\":41", "\"counter\":4.5"},
           Damage{"counter beyond 64 bits", "\"counter\":41", "\"counter\":18446744073709551616"},
           Damage{"ends before it begins", "\"expires\":4001209600", "\"expires\":4000000000"},
           Damage{"negative time", "\"issued\":4000000000", "\"issued\":-1"},
           Damage{"short identity", "\"repository\":\"77", "\"repository\":\"7"},
           Damage{"capitals in the identity", "\"repository\":\"77", "\"repository\":\"7F"},
           Damage{"databases as a list", "\"databases\":{", "\"databases\":[],\"x\":{"},
           Damage{"member twice", "\"counter\":41", "\"counter\":41,\"counter\":42"},
           Damage{"version as a text", "\"version\":7", "\"version\":\"7\""},
           Damage{"version beyond 31 bits", "\"version\":7", "\"version\":2147483648"},
           Damage{"negative version", "\"version\":7", "\"version\":-7"},
           Damage{"delta of no version", "\"7\":{", "\"07\":{"},
           Damage{"delta of a negative version", "\"7\":{", "\"-7\":{"},
           Damage{"no size", "\"size\":1000", "\"sixe\":1000"},
           Damage{"empty package", "\"size\":1000", "\"size\":0"},
           Damage{"digest of another length", "\"sha384\":\"aa", "\"sha384\":\"a"},
           Damage{"digest in capitals", "\"sha384\":\"aa", "\"sha384\":\"aA"},
           Damage{"empty link", "\"link\":\"d/oui_d7\"", "\"link\":\"\""},
           Damage{"flag as a number", "\"deprecated\":false", "\"deprecated\":0"},
           Damage{"record as null", "\"full\":{", "\"full\":null,\"x\":{"},
           Damage{"revocations as a list", "\"format\":1", "\"format\":1,\"revocations\":[]"},
       }) {
    std::string text = good;
    ASSERT_NE(text.find(row.before), std::string::npos) << row.what;
    text.replace(text.find(row.before), std::string(row.before).size(), row.after);
    EXPECT_EQ(OfferCodeOf([&] { ParseOffer(text); }), Code::kForm) << row.what;
  }
  for (const std::string& text : {std::string(), std::string("null"), std::string("[]"),
                                  std::string("{"), good + "x", good.substr(0, good.size() - 1)}) {
    EXPECT_EQ(OfferCodeOf([&] { ParseOffer(text); }), Code::kForm) << text;
  }
}

TEST(OfferTest, WhatLaterVersionsAddIsPassedOver) {
  std::string text = FormatOffer(SomeOffer());
  text.insert(text.find("\"format\""), "\"next\":{\"a\":[1]},");
  EXPECT_EQ(FormatOffer(ParseOffer(text)), FormatOffer(SomeOffer()));
}

TEST(OfferTest, BeyondABoundNothingIsParsed) {
  const std::string good = FormatOffer(SomeOffer());
  const auto with = [&](const std::string& member) {
    return good.substr(0, good.size() - 1) + ",\"x\":" + member + '}';
  };
  std::string many = "[0";
  for (std::uint64_t i = 0; i < rules::kDescriptionValues; ++i) {
    many += ",0";
  }
  for (const std::string& text :
       {with('"' + std::string(rules::kDescriptionBytes, 'x') + '"'), with(many + ']'),
        with(std::string(20000, '[') + std::string(20000, ']'))}) {
    EXPECT_EQ(OfferCodeOf([&] { ParseOffer(text); }), Code::kForm) << text.size();
  }
}

TEST(OfferTest, DocumentHasWhatDevicesReadAndNothingElse) {
  const Json::Value document = offer::DocumentOf(SomeOffer());
  EXPECT_TRUE(offer::IsDocumentOfOffer(document));
  EXPECT_EQ(document["deprecated"], Json::Value(false));
  EXPECT_EQ(document["signed"]["repository"], std::string(32, '7'));
  EXPECT_EQ(document["signed"]["issued"].asInt64(), 4000000000);
  EXPECT_EQ(document["signed"]["expires"].asInt64(), 4001209600);
  const Json::Value& oui = document["db_list"]["oui"];
  EXPECT_EQ(oui["data_version"], "7");
  EXPECT_EQ(oui["last_fetch_time"], 1700000000);
  EXPECT_EQ(oui["deprecated"], Json::Value(false));
  EXPECT_EQ(oui["download_link"], "https://updates.example.org/data/packages/oui/oui_v7");
  EXPECT_EQ(oui["file_size"].asUInt64(), 1000U);
  EXPECT_EQ(oui["sha384"], std::string(96, 'a'));
  EXPECT_EQ(oui["diff_files"]["7"]["download_link"], "https://updates.example.org/data/d/oui_d7");
  EXPECT_EQ(document["db_list"]["Zeichen \xC3\xA4\"\n"]["download_link"],
            "https://other.example.org/z_v0")
      << "an address of its own stays";
}

TEST(OfferTest, ServersOwnDocumentIsNoneOfAnOffer) {
  Json::Value document(Json::objectValue);
  EXPECT_FALSE(offer::IsDocumentOfOffer(document));
  document["signed"] = "true";
  EXPECT_FALSE(offer::IsDocumentOfOffer(document));
  EXPECT_FALSE(offer::IsDocumentOfOffer(Json::Value("signed")));
}

}  // namespace
}  // namespace tolm::testing
