#include "publish/description.h"

#include <climits>

#include "base/json_scan.h"
#include "base/rules.h"
#include "dataupdate/records.h"
#include "publish/json_object.h"
#include "tests/publish/expect_error.h"

namespace tolm::testing {
namespace {

using package::Kind;
using publish::Catalog;
using publish::PackagePath;
using publish::Release;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;

const publish::BaseUrl kBase = {"https", "example.org/x"};

Catalog Sample() {
  Catalog catalog;
  publish::Database& database = catalog.databases["oui"];
  database.last_fetch_time = 1700000000;
  for (const int version : {1000001, 1000002, 1000003}) {
    Release release;
    release.version = version;
    release.full = {PackagePath("packages", "oui", Kind::kFull, version), 5000000000, "f"};
    release.delta = publish::DeltaRecord{
        {PackagePath("packages", "oui", Kind::kDelta, version), 9, "d"}, {}, 0};
    database.releases.push_back(release);
  }
  database.releases[0].delta.reset();
  return catalog;
}

Json::Value RecordOf(const Catalog& catalog) {
  return publish::ParseJson(DescribeCatalog(catalog, kBase), "")["db_list"]["oui"];
}

TEST(DescriptionTest, DeviceReadsItsRecordAndDeltas) {
  const Json::Value record = RecordOf(Sample());
  EXPECT_EQ(dataupdate::RemoteInfo::FromJson(record),
            dataupdate::RemoteInfo(1000003, 1700000000, false,
                                   "https://example.org/x/packages/oui/oui_v1000003"));
  const auto diffs = dataupdate::DiffInfo::BatchFromJson(record["diff_files"]);
  EXPECT_THAT(
      diffs,
      ElementsAre(
          Pair(1000002, dataupdate::DiffInfo("https://example.org/x/packages/oui/oui_d1000002", 9)),
          Pair(1000003,
               dataupdate::DiffInfo("https://example.org/x/packages/oui/oui_d1000003", 9))));
}

TEST(DescriptionTest, FullPackageHasItsSizeAndDigest) {
  const Json::Value record = RecordOf(Sample());
  EXPECT_EQ(record["file_size"].asUInt64(), 5000000000u);
  EXPECT_EQ(record["sha384"], "f");
}

TEST(DescriptionTest, WithdrawnDeltasAndRetiredPackagesAreNotInIt) {
  Catalog catalog = Sample();
  catalog.databases["oui"].releases[1].delta->withdrawn = 5;
  catalog.databases["oui"].retired = {{{"packages/oui/oui_v9", 1, "x"}, 9}};
  EXPECT_THAT(RecordOf(catalog)["diff_files"].getMemberNames(), ElementsAre("1000003"));
  EXPECT_EQ(DescribeCatalog(catalog, kBase).find("oui_v9"), std::string::npos);
}

TEST(DescriptionTest, DeprecatedDatabaseSaysSoByItself) {
  Catalog catalog = Sample();
  catalog.databases["oui"].deprecated = true;
  EXPECT_TRUE(dataupdate::RemoteInfo::FromJson(RecordOf(catalog)).deprecated);
  EXPECT_FALSE(publish::ParseJson(DescribeCatalog(catalog, kBase), "")["deprecated"].asBool());
}

TEST(DescriptionTest, TimeFitsWhatDevicesHold) {
  Catalog catalog = Sample();
  for (const auto& [seconds, stated] : {std::pair<std::int64_t, int>{-1, 0},
                                        {INT_MAX, INT_MAX},
                                        {std::int64_t{INT_MAX} + 1, INT_MAX}}) {
    catalog.databases["oui"].last_fetch_time = seconds;
    EXPECT_EQ(dataupdate::RemoteInfo::FromJson(RecordOf(catalog)).last_fetch_time, stated);
  }
}

TEST(DescriptionTest, SameCatalogGivesTheSameText) {
  EXPECT_EQ(DescribeCatalog(Sample(), kBase), DescribeCatalog(Sample(), kBase));
  EXPECT_EQ(DescribeCatalog({}, kBase), "{\"db_list\":{},\"deprecated\":false}\n");
}

TEST(DescriptionTest, IsReadBack) {
  const auto offers = publish::ParseDescription(DescribeCatalog(Sample(), kBase), "file");
  ASSERT_EQ(offers.size(), 1u);
  const publish::Offer& offer = offers.at("oui");
  EXPECT_EQ(offer.version, 1000003);
  EXPECT_EQ(offer.full.link, "https://example.org/x/packages/oui/oui_v1000003");
  EXPECT_EQ(offer.full.size_bytes, 5000000000u);
  EXPECT_EQ(offer.full.sha384, "f");
  EXPECT_EQ(offer.deltas.size(), 2u);
  EXPECT_EQ(offer.deltas.at(1000002).size_bytes, 9u);
  EXPECT_EQ(offer.deltas.at(1000002).sha384, std::nullopt);
}

TEST(DescriptionTest, SizesDigestsAndDeltasMayBeMissing) {
  const auto offers = publish::ParseDescription(
      R"({"db_list": {"a": {"data_version": "7", "download_link": "x"},
                      "b": {"data_version": "8", "download_link": "y", "sha384": "s",
                            "diff_files": {"8": {"download_link": "z"}}}}})",
      "file");
  EXPECT_EQ(offers.size(), 2u);
  EXPECT_EQ(offers.at("a").version, 7);
  EXPECT_EQ(offers.at("a").full.link, "x");
  EXPECT_EQ(offers.at("a").full.size_bytes, std::nullopt);
  EXPECT_EQ(offers.at("a").full.sha384, std::nullopt);
  EXPECT_TRUE(offers.at("a").deltas.empty());
  EXPECT_EQ(offers.at("b").full.sha384, "s");
  EXPECT_EQ(offers.at("b").deltas.at(8).link, "z");
  EXPECT_EQ(offers.at("b").deltas.at(8).size_bytes, std::nullopt);
}

TEST(DescriptionTest, WhileARolloutIsOpenItSaysTheStableVersionAndTheWayThere) {
  Catalog catalog = Sample();
  publish::Database& oui = catalog.databases["oui"];
  oui.rollout = publish::Rollout{1000002, {}};
  oui.releases[1].released = 1600000000;
  const Json::Value record = RecordOf(catalog);
  EXPECT_EQ(record["data_version"], "1000002");
  EXPECT_EQ(record["last_fetch_time"], 1600000000);
  EXPECT_EQ(record["download_link"], "https://example.org/x/packages/oui/oui_v1000002");
  EXPECT_THAT(record["diff_files"].getMemberNames(), ElementsAre("1000002"));
  oui.releases[1].released = std::int64_t{INT_MAX} + 1;
  EXPECT_EQ(RecordOf(catalog)["last_fetch_time"], INT_MAX);
}

TEST(DescriptionTest, UnsoundOneIsRefused) {
  const std::string good = DescribeCatalog(Sample(), kBase);
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  for (const std::string& text :
       {std::string(), std::string("[]"), std::string("{}"), good.substr(0, good.size() / 2),
        with("\"1000003\",\"dep", "\"seven\",\"dep"), with("\"1000003\",\"dep", "\"07\",\"dep"),
        with("\"download_link\"", "\"link\""), with("{\"1000002\":", "{\"x\":"),
        with("\"file_size\":9", "\"file_size\":-9")}) {
    ExpectError([&] { publish::ParseDescription(text, "file"); }, StartsWith("file: "));
  }
}

TEST(DescriptionTest, LargeOneIsWarnedOfFromAQuarterOfWhatDevicesRefuse) {
  const auto array = [](std::uint64_t values) {
    std::string text = "[0";
    for (std::uint64_t i = 2; i < values; ++i) {
      text += ",0";
    }
    return text + ']';
  };
  const std::uint64_t values = rules::kDescriptionValues / rules::kDescriptionWarningPart;
  const std::uint64_t bytes = rules::kDescriptionBytes / rules::kDescriptionWarningPart;
  EXPECT_THAT(publish::DescriptionWarnings(DescribeCatalog(Sample(), kBase)), ElementsAre());
  EXPECT_THAT(publish::DescriptionWarnings(array(values)), ElementsAre());
  EXPECT_THAT(publish::DescriptionWarnings(array(values + 1)),
              ElementsAre("the description has 50001 values; devices refuse one of more than "
                          "200000"));
  EXPECT_THAT(publish::DescriptionWarnings(std::string(bytes, ' ')), ElementsAre());
  EXPECT_THAT(publish::DescriptionWarnings(std::string(bytes + 1, ' ')),
              ElementsAre("the description has 1048577 bytes; devices refuse one of more than "
                          "4194304"));
}

// No catalog makes it deeper, so devices' bound on that is no matter of warnings.
TEST(DescriptionTest, IsNestedFiveLevelsDeep) {
  base::JsonScan scan;
  scan.Add(DescribeCatalog(Sample(), kBase));
  EXPECT_EQ(scan.measure().depth, 5u);
}

TEST(PackageLinkTest, OtherCharactersAreEncoded) {
  EXPECT_EQ(publish::PackageLink(kBase, "packages/a b/gr\xc3\xbcn?#%&_v7"),
            "https://example.org/x/packages/a%20b/gr%C3%BCn%3F%23%25%26_v7");
}

TEST(PackageLinkTest, EveryByteIsAsAnAddressHoldsIt) {
  std::string plain;
  std::string encoded;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = publish::EncodePath(std::string(1, static_cast<char>(byte)));
    (text.size() == 1 ? plain : encoded) += text;
  }
  EXPECT_EQ(plain, "-./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz~");
  EXPECT_EQ(encoded.size(), 3u * (256 - plain.size()));
  EXPECT_EQ(encoded.substr(0, 6), "%00%01");
  EXPECT_THAT(encoded, HasSubstr("%2B%2C%3A%3B"));
  EXPECT_EQ(encoded.substr(encoded.size() - 6), "%FE%FF");
}

TEST(LinkProblemTest, VersionOccursOnceOnly) {
  struct Row {
    const char* link;
    int version;
    bool good;
  };
  for (const Row& row :
       {Row{"http://a/packages/oui/oui_v7", 7, true},
        Row{"http://a:8080/packages/oui/oui_v80", 80, false},
        Row{"http://a7/packages/oui/oui_v7", 7, false}, Row{"http://a/packages/o7/o7_v7", 7, false},
        Row{"http://a/packages-2/oui/oui_v2", 2, false},
        Row{"http://a/packages-2/oui/oui_v12", 12, true},
        Row{"http://a/packages/oui/oui_v11", 1, false},
        Row{"http://a/packages/oui/oui_v1111", 11, false},
        Row{"http://a/b%20/packages/oui/oui_v20", 20, false},
        Row{"http://a/packages/oui/oui_v8", 7, false}}) {
    EXPECT_EQ(publish::LinkProblem(row.link, row.version).empty(), row.good) << row.link;
  }
  EXPECT_EQ(
      publish::LinkProblem("http://a7/oui_v7", 7),
      "the text \"7\" occurs 2 times in http://a7/oui_v7, and a device that force-installs an "
      "older version rewrites every one of them");
  EXPECT_THAT(publish::LinkProblem("http://a/oui_v111", 11), HasSubstr("occurs 2 times"));
}

}  // namespace
}  // namespace tolm::testing
