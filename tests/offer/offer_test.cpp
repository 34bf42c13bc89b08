#include "offer/offer.h"

#include <gtest/gtest.h>

#include <string>

#include "base/json_scan.h"
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

std::string Changed(const char* before, const char* after) {
  std::string text = FormatOffer(SomeOffer());
  return text.replace(text.find(before), std::string(before).size(), after);
}

std::string RefusalOf(const std::string& text) {
  try {
    ParseOffer(text);
  } catch (const offer::Error& error) {
    return error.what();
  }
  return "none";
}

TEST(OfferTest, RefusalNamesTheMemberAndWhatItShouldBe) {
  EXPECT_EQ(RefusalOf(Changed("\"counter\":41,", "")),
            "its signed part cannot be read: the whole has no \"counter\"");
  EXPECT_EQ(RefusalOf(Changed("\"counter\":41", "\"counter\":true")),
            "its signed part cannot be read: the whole.counter is no whole number");
  EXPECT_EQ(RefusalOf(Changed("\"version\":7", "\"version\":\"7\"")),
            "its signed part cannot be read: the whole.databases.oui.version is no small number");
  Offer staged = SomeOffer();
  staged.databases["oui"].next =
      offer::NextOffer{8, 1700000009, PackageNamed("n"), {}, {kIssued, {{10000, 0}}, {}, false}};
  std::string text = FormatOffer(staged);
  text.replace(text.find("\"steps\":["), 9, "\"steps\":{},\"x\":[");
  EXPECT_EQ(RefusalOf(text),
            "its signed part cannot be read: the whole.databases.oui.next.plan.steps is no list");
}

TEST(OfferTest, EveryHexadecimalDigitMayStandInADigest) {
  const std::string digits = "0123456789abcdef";
  std::string digest;
  while (digest.size() < 96) {
    digest += digits;
  }
  Offer made = SomeOffer();
  made.databases["oui"].full.sha384 = digest;
  made.repository = digits + digits;
  EXPECT_EQ(FormatOffer(ParseOffer(FormatOffer(made))), FormatOffer(made));
  for (const char wrong : {'/', ':', '`', 'g'}) {
    made.databases["oui"].full.sha384[0] = wrong;
    EXPECT_EQ(OfferCodeOf([&] { ParseOffer(FormatOffer(made)); }), Code::kForm) << wrong;
  }
}

TEST(OfferTest, NextVersionIsAboveTheStableOne) {
  Offer staged = SomeOffer();
  staged.databases["oui"].next =
      offer::NextOffer{8, 1700000009, PackageNamed("n"), {}, {kIssued, {{10000, 0}}, {}, false}};
  EXPECT_EQ(OfferCodeOf([&] { ParseOffer(FormatOffer(staged)); }), std::nullopt);
  staged.databases["oui"].next->version = 7;
  EXPECT_EQ(OfferCodeOf([&] { ParseOffer(FormatOffer(staged)); }), Code::kForm);
}

TEST(OfferTest, VersionIsANumberWithoutASignOrLeadingZeros) {
  EXPECT_EQ(offer::ParseVersion("0"), 0);
  EXPECT_EQ(offer::ParseVersion("2147483647"), 2147483647);
  for (const char* text : {"", "-1", "-0", "+1", "01", "1 ", " 1", "1x", "2147483648"}) {
    EXPECT_EQ(offer::ParseVersion(text), std::nullopt) << text;
  }
}

TEST(OfferTest, WhatLaterVersionsAddIsPassedOver) {
  std::string text = FormatOffer(SomeOffer());
  text.insert(text.find("\"format\""), "\"next\":{\"a\":[1]},");
  EXPECT_EQ(FormatOffer(ParseOffer(text)), FormatOffer(SomeOffer()));
}

std::string With(const std::string& member) {
  const std::string good = FormatOffer(SomeOffer());
  return good.substr(0, good.size() - 1) + ",\"x\":" + member + '}';
}

TEST(OfferTest, AtABoundItIsParsedAndBeyondItNot) {
  const auto code = [](const std::string& text) { return OfferCodeOf([&] { ParseOffer(text); }); };
  const std::size_t rest = rules::kDescriptionBytes - With("\"\"").size();
  EXPECT_EQ(code(With('"' + std::string(rest, 'x') + '"')), std::nullopt);
  EXPECT_EQ(code(With('"' + std::string(rest + 1, 'x') + '"')), Code::kForm);
  const auto nested = [](std::size_t levels) {
    return With(std::string(levels, '[') + std::string(levels, ']'));
  };
  EXPECT_EQ(code(nested(rules::kDescriptionDepth - 1)), std::nullopt);
  EXPECT_EQ(code(nested(rules::kDescriptionDepth)), Code::kForm);
  base::JsonScan scan;
  scan.Add(With("[0]"));
  std::string values = "[0";
  for (std::uint64_t i = scan.measure().values; i < rules::kDescriptionValues; ++i) {
    values += ",0";
  }
  EXPECT_EQ(code(With(values + ']')), std::nullopt);
  EXPECT_EQ(code(With(values + ",0]")), Code::kForm);
}

TEST(OfferTest, BeyondABoundNothingIsParsed) {
  std::string many = "[0";
  for (std::uint64_t i = 0; i < rules::kDescriptionValues; ++i) {
    many += ",0";
  }
  for (const std::string& text :
       {With('"' + std::string(rules::kDescriptionBytes, 'x') + '"'), With(many + ']'),
        With(std::string(20000, '[') + std::string(20000, ']'))}) {
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
