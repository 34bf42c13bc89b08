#include "operation/offers.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <exception>
#include <initializer_list>
#include <string>

#include "dataupdate/error.h"

namespace tolm::operation {
namespace {

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

TEST(OffersTest, OfferIsReadAsTheLibraryReadsItWithoutUserNameAndPassword) {
  const Json::Value description = Parsed(R"({"deprecated": false, "db_list": {"oui": {
    "data_version": "7", "last_fetch_time": 5, "deprecated": true,
    "download_link": "http://me:secret@h/oui_v7", "diff_files": {
      "6": {"download_link": "http://me:secret@h/oui_d6", "file_size": 6}}}}})");
  const dataupdate::RemoteInfo offer = OfferIn(description, "oui");
  EXPECT_EQ(offer.data_version, 7);
  EXPECT_EQ(offer.last_fetch_time, 5);
  EXPECT_TRUE(offer.deprecated);
  EXPECT_EQ(offer.download_link, "http://h/oui_v7");
  const auto deltas = DeltasIn(description, "oui");
  ASSERT_EQ(deltas.size(), 1u);
  EXPECT_EQ(deltas.at(6).download_link, "http://h/oui_d6");
  EXPECT_FALSE(OtherOfferIn(description, "oui"));
}

struct NoRecordRow {
  const char* description;
  bool has_no_deltas_either;  // As the library has it; otherwise they are of no form.
};

TEST(OffersTest, WhatIsNoRecordIsAFailureOfTheLibrarysOwn) {
  for (const NoRecordRow& row : std::initializer_list<NoRecordRow>{
           {"{}", true},
           {"[]", false},
           {R"({"deprecated": false, "db_list": []})", false},
           {R"({"deprecated": false, "db_list": [7]})", false},
           {R"({"deprecated": false, "db_list": 7})", false},
           {R"({"deprecated": false, "db_list": "x"})", false},
           {R"({"deprecated": false, "db_list": {}})", true},
           {R"({"deprecated": false, "db_list": {"geo": {}}})", true},
           {R"({"deprecated": false, "db_list": {"oui": 7}})", false},
           {R"({"deprecated": false, "db_list": {"oui": ["data_version"]}})", false},
           {R"({"deprecated": false, "db_list": {"oui": "data_version"}})", false},
           {R"({"deprecated": false, "db_list": {"oui": {"data_version": []}}})", true}}) {
    SCOPED_TRACE(row.description);
    const Json::Value description = Parsed(row.description);
    EXPECT_THROW(OfferIn(description, "oui"), dataupdate::UpdateError);
    if (row.has_no_deltas_either) {
      EXPECT_TRUE(DeltasIn(description, "oui").empty());
    } else {
      EXPECT_THROW(DeltasIn(description, "oui"), dataupdate::UpdateError);
    }
    EXPECT_FALSE(OtherOfferIn(description, "oui"));
  }
}

TEST(OffersTest, VersionThatIsNoNumberIsSaidToBeNone) {
  const Json::Value description = Parsed(R"({"deprecated": false, "db_list": {"oui": {
    "data_version": "seven", "last_fetch_time": 5, "deprecated": false,
    "download_link": "http://h/oui_v7", "diff_files": {}}}})");
  try {
    OfferIn(description, "oui");
    FAIL();
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "the version that the server offers is no number");
  }
}

}  // namespace
}  // namespace tolm::operation
