#include "operation/offered_size.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

constexpr char kDescription[] = "/var/cache/data_update/database_info.json";

// Without settings no description is believed that is not signed.
void Describe(const std::string& document) {
  testing::WriteFile("/usr/share/data_update/data_update.conf", R"({"config": {}})");
  testing::WriteFile(kDescription, document);
}

TEST(OfferedSizeTest, SizesOfPackagesAndDeltasAreFound) {
  Describe(R"({"deprecated": false, "db_list": {
    "geo": {"download_link": "http://h/geo_v7"},
    "oui": {"download_link": "http://h/oui_v2", "file_size": 5000000000, "diff_files": {
      "1": {"download_link": "http://h/oui_d1", "file_size": 10},
      "2": {"download_link": "http://h/oui_d2", "file_size": 20}}}}})");
  EXPECT_EQ(OfferedBytes("http://h/oui_v2"), 5000000000u);
  EXPECT_EQ(OfferedBytes("http://h/oui_d1"), 10u);
  EXPECT_EQ(OfferedBytes("http://h/oui_d2"), 20u);
  EXPECT_EQ(OfferedBytes("http://h/geo_v7"), std::nullopt);
  EXPECT_EQ(OfferedBytes("http://h/other"), std::nullopt);
  EXPECT_EQ(OfferedBytes(""), std::nullopt);
}

TEST(OfferedSizeTest, SizeThatNobodySignedIsNoBound) {
  Describe(R"({"deprecated": false, "db_list": {
    "oui": {"download_link": "http://h/oui_v2", "file_size": 5}}})");
  EXPECT_EQ(OfferedBytes("http://h/oui_v2"), 5u);
  EXPECT_EQ(SignedBytes("http://h/oui_v2"), std::nullopt);
}

TEST(OfferedSizeTest, NothingIsFoundInAnyOtherDocument) {
  EXPECT_EQ(OfferedBytes("u"), std::nullopt);
  for (const std::string document :
       {"", "{", "[]", "7", "null", R"({"db_list": []})", R"({"db_list": 7})",
        R"({"db_list": {"oui": 7}})", R"({"db_list": {"oui": ["u"]}})",
        R"({"db_list": {"oui": {"download_link": 7, "file_size": 7}}})",
        R"({"db_list": {"oui": {"download_link": "u", "file_size": -7}}})",
        R"({"db_list": {"oui": {"download_link": "u", "file_size": "7"}}})",
        R"({"db_list": {"oui": {"download_link": "u", "diff_files": 7}}})",
        R"({"db_list": {"oui": {"diff_files": {"1": []}}}})"}) {
    Describe(document);
    EXPECT_EQ(OfferedBytes("u"), std::nullopt) << document;
  }
  Describe(std::string(5000, '[') + std::string(5000, ']'));
  EXPECT_EQ(OfferedBytes("u"), std::nullopt);
}

}  // namespace
}  // namespace tolm::operation
