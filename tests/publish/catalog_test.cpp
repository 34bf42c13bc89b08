#include "publish/catalog.h"

#include <functional>
#include <map>

#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Kind;
using publish::Catalog;
using publish::Database;
using publish::DeltaRecord;
using publish::PackagePath;
using publish::Release;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

Release MakeRelease(int version, std::uint64_t full_bytes, std::uint64_t delta_bytes = 0) {
  Release release;
  release.version = version;
  release.released = 1000 + version;
  release.content = "c" + std::to_string(version);
  release.full = {PackagePath("packages", "oui", Kind::kFull, version), full_bytes, "f"};
  if (delta_bytes > 0) {
    release.delta = DeltaRecord{
        {PackagePath("packages", "oui", Kind::kDelta, version), delta_bytes, "d"}, {"/a", "/b"}, 0};
  } else {
    release.no_delta_reason = "none";
  }
  return release;
}

Catalog Sample() {
  Catalog catalog;
  catalog.part = "packages-2";
  catalog.replaces = "r";
  Database& database = catalog.databases["oui"];
  database.deprecated = true;
  database.last_fetch_time = 5000000000;
  database.directories = {"/d", "/d/e"};
  database.releases = {MakeRelease(7, 100), MakeRelease(8, 5000000000, 3)};
  database.releases[1].delta->withdrawn = 12;
  database.releases[0].withdrawn = 13;
  database.releases[1].restores = 6;
  database.retired = {{{"packages/oui/oui_d6", 1, "x"}, 9}};
  catalog.removed["geo"] = {
      14, 1000007, {{{"packages/geo/geo_v1000007", 2, "y"}, 15}}, {{5, 17, "g"}}};
  database.forgotten = {{3, 16, "w"}};
  return catalog;
}

TEST(CatalogTest, IsReadBackAsItWasWritten) {
  const TemporaryDirectory directory;
  const std::string text = FormatCatalog(Sample());
  WriteFile(directory.Path() / "catalog.json", text);
  const Catalog loaded = publish::LoadCatalog(directory.Path() / "catalog.json");
  EXPECT_EQ(FormatCatalog(loaded), text);
  const Database& database = loaded.databases.at("oui");
  EXPECT_EQ(database.releases[1].full.size_bytes, 5000000000u);
  EXPECT_THAT(database.releases[1].delta->keys, ElementsAre("/a", "/b"));
  EXPECT_EQ(database.releases[1].delta->withdrawn, 12);
  EXPECT_FALSE(database.releases[0].delta);
  EXPECT_EQ(database.releases[0].no_delta_reason, "none");
  EXPECT_EQ(database.retired[0].since, 9);
  EXPECT_EQ(database.releases[0].withdrawn, 13);
  EXPECT_FALSE(database.releases[0].restores);
  EXPECT_EQ(database.releases[1].restores, 6);
  EXPECT_EQ(database.forgotten[0].version, 3);
  EXPECT_EQ(database.forgotten[0].withdrawn, 16);
  EXPECT_EQ(database.forgotten[0].content, "w");
  EXPECT_EQ(loaded.removed.at("geo").forgotten[0].content, "g");
  EXPECT_EQ(loaded.removed.at("geo").newest, 1000007);
  EXPECT_EQ(loaded.removed.at("geo").since, 14);
  EXPECT_EQ(loaded.removed.at("geo").retired[0].since, 15);
}

TEST(CatalogTest, OneOfAnEarlierProgramIsRead) {
  const TemporaryDirectory directory;
  Json::Value value = publish::ParseJson(FormatCatalog(Sample()), "");
  value.removeMember("removed");
  value["databases"]["oui"].removeMember("forgotten");
  for (Json::Value& release : value["databases"]["oui"]["releases"]) {
    release.removeMember("withdrawn");
    release.removeMember("restores");
  }
  WriteFile(directory.Path() / "catalog.json", publish::FormatJson(value));
  const Catalog loaded = publish::LoadCatalog(directory.Path() / "catalog.json");
  EXPECT_TRUE(loaded.removed.empty());
  EXPECT_EQ(loaded.databases.at("oui").releases[0].withdrawn, 0);
  EXPECT_FALSE(loaded.databases.at("oui").releases[1].restores);
  value["format"] = 1;
  EXPECT_EQ(FormatCatalog(loaded), publish::FormatJson(value)) << "and written as it was";
}

TEST(CatalogTest, HasAnotherFormatAsSoonAsAnEarlierProgramWouldLoseSomething) {
  const auto format_of = [](const Catalog& catalog) {
    return publish::ParseJson(FormatCatalog(catalog), "")["format"].asInt();
  };
  Catalog plain;
  plain.databases["oui"].releases = {MakeRelease(7, 100), MakeRelease(8, 100, 3)};
  plain.databases["oui"].releases[1].delta->withdrawn = 12;
  plain.databases["oui"].retired = {{{"packages/oui/oui_d6", 1, "x"}, 9}};
  EXPECT_EQ(format_of(plain), 1);
  const std::map<std::string, std::function<void(Catalog&)>> rows = {
      {"a removed database", [](Catalog& c) { c.removed["geo"].newest = 7; }},
      {"a version that was withdrawn",
       [](Catalog& c) { c.databases["oui"].releases[1].withdrawn = 13; }},
      {"a withdrawn one that is not kept",
       [](Catalog& c) {
         c.databases["oui"].forgotten = {{3, 16, "w"}};
       }},
      {"one that took its place", [](Catalog& c) { c.databases["oui"].releases[1].restores = 7; }}};
  for (const auto& [name, change] : rows) {
    Catalog changed = plain;
    change(changed);
    EXPECT_EQ(format_of(changed), 2) << name;
  }
}

TEST(CatalogTest, UnsoundOneIsRefused) {
  const TemporaryDirectory directory;
  const auto file = directory.Path() / "catalog.json";
  struct Row {
    const char* name;
    std::function<void(Json::Value& catalog, Json::Value& database)> damage;
  };
  const std::vector<Row> rows = {
      {"another format", [](auto& c, auto&) { c["format"] = 5; }},
      {"no databases", [](auto& c, auto&) { c.removeMember("databases"); }},
      {"a name that leads elsewhere", [](auto& c, auto& d) { c["databases"][".."] = d; }},
      {"no release", [](auto&, auto& d) { d["releases"] = Json::Value(Json::arrayValue); }},
      {"versions that do not grow", [](auto&, auto& d) { d["releases"][1]["version"] = 7; }},
      {"a version below 0", [](auto&, auto& d) { d["releases"][0]["version"] = -1; }},
      {"a version that is a text", [](auto&, auto& d) { d["releases"][0]["version"] = "7"; }},
      {"a path that leads elsewhere",
       [](auto&, auto& d) { d["releases"][0]["full"]["path"] = "packages/../../etc/passwd"; }},
      {"a path of another database",
       [](auto&, auto& d) { d["releases"][0]["full"]["path"] = "packages/x/x_v7"; }},
      {"a path of another part",
       [](auto&, auto& d) { d["releases"][0]["full"]["path"] = "database_info/oui/oui_v7"; }},
      {"a retired path that leads elsewhere",
       [](auto&, auto& d) { d["retired"][0]["path"] = "packages/oui/oui_v7/../x"; }},
      {"a removed path that leads elsewhere",
       [](auto& c, auto&) { c["removed"]["geo"]["retired"][0]["path"] = "packages/oui/oui_v7"; }},
      {"a name that is released and removed",
       [](auto& c, auto&) {
         c["removed"]["oui"] = c["removed"]["geo"];
         c["removed"]["oui"]["retired"] = Json::Value(Json::arrayValue);
       }},
      {"a size below zero", [](auto&, auto& d) { d["releases"][0]["full"]["size"] = -1; }},
      {"keys that are no texts", [](auto&, auto& d) { d["releases"][1]["delta"]["keys"][0] = 1; }},
      {"no reason where there is no delta",
       [](auto&, auto& d) { d["releases"][0].removeMember("no_delta"); }}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Json::Value catalog = publish::ParseJson(FormatCatalog(Sample()), "");
    Json::Value database = catalog["databases"]["oui"];
    row.damage(catalog, database);
    if (catalog.isMember("databases")) {
      catalog["databases"]["oui"] = database;
    }
    WriteFile(file, publish::FormatJson(catalog));
    ExpectError([&] { publish::LoadCatalog(file); }, StartsWith(file.string() + ": "));
  }
}

TEST(CatalogTest, PackagesLieUnderTheirDatabase) {
  EXPECT_EQ(publish::PackagePath("packages", "oui", Kind::kFull, 7), "packages/oui/oui_v7");
  EXPECT_EQ(publish::PackagePath("packages-2", "a b", Kind::kDelta, 0), "packages-2/a b/a b_d0");
}

TEST(CatalogTest, PathsOfPackagesAreToldFromOthers) {
  for (const char* path : {"packages/oui/oui_v7", "packages/oui/oui_d0", "packages-2/oui/oui_v10",
                           "packages-10/oui/oui_d1000001"}) {
    EXPECT_TRUE(publish::IsPackagePathOf("oui", path)) << path;
  }
  for (const char* path :
       {"", "packages", "packages/oui/oui_", "packages/oui/oui_v", "packages/oui/oui_x7",
        "packages/oui/oui_v07", "packages/oui/oui_v-7", "packages/oui/oui_v7/",
        "packages/geo/geo_v7", "packages-/oui/oui_v7", "packages-x/oui/oui_v7",
        "packages2/oui/oui_v7", "a-packages-2/oui/oui_v7", "x/packages/oui/oui_v7"}) {
    EXPECT_FALSE(publish::IsPackagePathOf("oui", path)) << path;
  }
}

TEST(CatalogTest, KnowsEveryPackage) {
  std::vector<std::string> paths;
  for (const auto& [path, record] : PackagesOf(Sample())) {
    EXPECT_EQ(path, record.path);
    paths.push_back(path);
  }
  EXPECT_THAT(paths,
              ElementsAre("packages/geo/geo_v1000007", "packages/oui/oui_d6", "packages/oui/oui_d8",
                          "packages/oui/oui_v7", "packages/oui/oui_v8"));
}

TEST(DatabaseNameTest, IsOneNameOfAFile) {
  for (const char* name : {"oui", "a.b", "gr\xc3\xbcn", "-x", "a b"}) {
    EXPECT_EQ(publish::DatabaseNameProblem(name), "") << name;
  }
  for (const char* name : {"", ".", "..", ".hidden", "a/b", "a\nb", "\xff"}) {
    EXPECT_NE(publish::DatabaseNameProblem(name), "") << name;
  }
}

TEST(CatalogTest, CounterAndFormerRootsHaveTheThirdFormatAndARolloutTheFourth) {
  const TemporaryDirectory directory;
  const auto file = directory.Path() / "catalog.json";
  const auto format_of = [&](const Catalog& catalog) {
    const std::string text = FormatCatalog(catalog);
    WriteFile(file, text);
    EXPECT_EQ(FormatCatalog(publish::LoadCatalog(file)), text);
    return publish::ParseJson(text, "")["format"].asInt();
  };
  Catalog catalog;
  EXPECT_EQ(format_of(catalog), 1);
  catalog.counter = 5000000000;
  EXPECT_EQ(format_of(catalog), 3);
  EXPECT_EQ(publish::LoadCatalog(file).counter, 5000000000u);
  catalog.counter = 1;
  EXPECT_EQ(format_of(catalog), 3);
  EXPECT_EQ(publish::LoadCatalog(file).counter, 1u);
  catalog.counter = 0;
  catalog.former_roots = "root";
  EXPECT_EQ(format_of(catalog), 3);
  EXPECT_EQ(publish::LoadCatalog(file).former_roots, "root");
  catalog.databases["oui"].releases = {MakeRelease(7, 100), MakeRelease(8, 100, 3)};
  EXPECT_EQ(format_of(catalog), 3);
  catalog.databases["oui"].releases[0].offered_until = 12;
  EXPECT_EQ(format_of(catalog), 4);
  EXPECT_EQ(publish::LoadCatalog(file).databases.at("oui").releases[0].offered_until, 12);
  catalog.databases["oui"].releases[0].offered_until = 1;
  EXPECT_EQ(format_of(catalog), 4);
  WriteFile(file, FormatCatalog(Catalog()));
  ReplaceInFile(file, "\"format\" : 1", "\"format\" : 0");
  ExpectError([&] { publish::LoadCatalog(file); },
              file.string() + ": written by a newer version of this program");
}

TEST(CatalogTest, WhatIsUnsoundIsSaidByNameAndPlace) {
  const TemporaryDirectory directory;
  const auto file = directory.Path() / "catalog.json";
  const std::string start = file.string() + ": ";
  struct Row {
    const char* from;
    const char* to;
    std::string problem;
  };
  for (const Row& row :
       {Row{"\"geo\" :", "\".geo\" :", "\".geo\": a name must not begin with \".\""},
        Row{"\"oui\" :", "\".oui\" :", "\".oui\": a name must not begin with \".\""},
        Row{"\"geo\" :", "\"oui\" :", "\"oui\" is released and removed"},
        Row{"\"version\" : 8", "\"version\" : 6", "versions do not grow"},
        Row{"packages/oui/oui_v8", "packages/oui/oui_v08",
            "\"packages/oui/oui_v08\" is no package of this database"},
        Row{"\"/d/e\"", "1", "not a list of texts"}}) {
    WriteFile(file, FormatCatalog(Sample()));
    ReplaceInFile(file, row.from, row.to);
    ExpectError([&] { publish::LoadCatalog(file); },
                ::testing::AllOf(StartsWith(file.string()), ::testing::EndsWith(row.problem)));
  }
  WriteFile(file, FormatCatalog(Sample()));
  EXPECT_EQ(FormatCatalog(publish::LoadCatalog(file)), FormatCatalog(Sample()));
}

TEST(CatalogTest, WithdrawnFilesAreThoseOfBeforeAndOfEachRelease) {
  std::vector<std::string> files;
  for (const publish::WithdrawnFiles& withdrawn : WithdrawnFilesOf(Sample().databases.at("oui"))) {
    files.push_back(std::to_string(withdrawn.version) + ' ' + std::to_string(withdrawn.withdrawn) +
                    ' ' + withdrawn.content);
  }
  EXPECT_THAT(files, ElementsAre("3 16 w", "7 13 c7"));
}

std::vector<int> Offered(const Database& database) {
  std::vector<int> versions;
  for (const Release* release : OfferedChain(database)) {
    versions.push_back(release->version);
  }
  return versions;
}

TEST(TrimChainTest, ChainWithinItsShareStays) {
  Database database;
  database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 300), MakeRelease(3, 1000, 400)};
  EXPECT_EQ(TrimChain(database, 70, 99), "");
  EXPECT_THAT(Offered(database), ElementsAre(2, 3));
}

TEST(TrimChainTest, OlderDeltasBeyondTheShareAreWithdrawnAtThisTime) {
  Database database;
  database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 10), MakeRelease(3, 1000, 301),
                       MakeRelease(4, 1000, 400)};
  EXPECT_EQ(TrimChain(database, 70, 99),
            "deltas to 3 and older are not offered any more: with it the deltas would exceed 70 % "
            "of the full package");
  EXPECT_THAT(Offered(database), ElementsAre(4)) << "nothing leads over what was withdrawn";
  EXPECT_EQ(database.releases[1].delta->withdrawn, 99);
  EXPECT_EQ(database.releases[2].delta->withdrawn, 99);
  // Never again, not even when there is room, and the time stays.
  database.releases.push_back(MakeRelease(5, 1000000, 1));
  EXPECT_EQ(TrimChain(database, 70, 200), "");
  EXPECT_THAT(Offered(database), ElementsAre(4, 5));
  EXPECT_EQ(database.releases[2].delta->withdrawn, 99);
}

TEST(TrimChainTest, DeltaOfTheOldestReleaseIsOfTheChainAsWell) {
  Database database;
  database.releases = {MakeRelease(5, 1000, 700), MakeRelease(6, 1000, 10)};
  EXPECT_THAT(TrimChain(database, 70, 99), HasSubstr("to 5 and older"));
  EXPECT_THAT(Offered(database), ElementsAre(6));
}

TEST(TrimChainTest, ShareIsThatOfTheNewestFullPackage) {
  Database database;
  database.releases = {MakeRelease(1, 100000), MakeRelease(2, 100000, 80), MakeRelease(3, 100, 60)};
  EXPECT_THAT(TrimChain(database, 70, 99), HasSubstr("to 2 and older"));
  EXPECT_THAT(Offered(database), ElementsAre(3));
}

TEST(TrimChainTest, NothingLeadsOverAReleaseWithoutADelta) {
  Database database;
  database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 1), MakeRelease(3, 1000),
                       MakeRelease(4, 1000, 1)};
  EXPECT_THAT(TrimChain(database, 70, 99), HasSubstr("to 2 and older"));
  EXPECT_THAT(Offered(database), ElementsAre(4));
  database.releases.push_back(MakeRelease(5, 1000));
  EXPECT_THAT(TrimChain(database, 70, 99), HasSubstr("to 4 and older"));
  EXPECT_THAT(Offered(database), IsEmpty());
}

TEST(TrimChainTest, NothingLeadsOverAGap) {
  Database database;
  database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 1), MakeRelease(4, 1000, 1)};
  EXPECT_THAT(TrimChain(database, 70, 99), HasSubstr("to 2 and older"));
  EXPECT_THAT(Offered(database), ElementsAre(4));
}

TEST(TrimChainTest, WayBackIsOfferedAsLongAsItIsSmallerThanTheFullPackage) {
  const auto chain = [](std::uint64_t bad_bytes, std::uint64_t back_bytes) {
    Database database;
    database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 5),
                         MakeRelease(3, 10, bad_bytes), MakeRelease(4, 1000, back_bytes)};
    database.releases[2].withdrawn = 50;
    database.releases[3].restores = 2;
    return database;
  };
  Database smaller = chain(9, 990);
  EXPECT_THAT(TrimChain(smaller, 70, 99), HasSubstr("to 2 and older"));
  EXPECT_THAT(Offered(smaller), ElementsAre(3, 4));
  Database as_large = chain(10, 990);
  EXPECT_EQ(
      TrimChain(as_large, 70, 99),
      "deltas to 3 and older are not offered any more: with it the deltas would not be smaller "
      "than the full package");
  EXPECT_THAT(Offered(as_large), ElementsAre(4));
  Database small = chain(9, 100);
  EXPECT_EQ(TrimChain(small, 70, 99), "");
  EXPECT_THAT(Offered(small), ElementsAre(2, 3, 4));
  Database least = small;
  TrimChain(least, 1, 99);
  EXPECT_THAT(Offered(least), ElementsAre(3, 4)) << "as few as there can be are wanted";
  EXPECT_NE(TrimChain(small, 0, 99), "") << "no deltas are wanted";
  EXPECT_THAT(Offered(small), IsEmpty());
}

TEST(TrimChainTest, ChainToAVersionHasNoGapAndNothingAfterIt) {
  Database database;
  database.releases = {MakeRelease(1, 9),    MakeRelease(2, 9, 1), MakeRelease(3, 9, 1),
                       MakeRelease(5, 9, 1), MakeRelease(6, 9, 1), MakeRelease(7, 9, 1)};
  const auto chain = [&](int version) {
    std::vector<int> versions;
    for (const Release* release : ChainTo(database, version)) {
      versions.push_back(release->version);
    }
    return versions;
  };
  EXPECT_THAT(chain(7), ElementsAre(5, 6, 7));
  EXPECT_THAT(chain(6), ElementsAre(5, 6));
  EXPECT_THAT(chain(4), IsEmpty()) << "there is no such release";
  EXPECT_THAT(chain(3), ElementsAre(2, 3));
  EXPECT_THAT(chain(1), IsEmpty());
  database.releases[4].delta->withdrawn = 9;
  EXPECT_THAT(chain(7), ElementsAre(7));
  EXPECT_THAT(chain(6), IsEmpty());
}

TEST(TrimChainTest, EveryStepBetweenTheGoodVersionAndItsReturnIsOfTheWayBack) {
  const auto trimmed = [](int restores, std::uint64_t step_bytes) {
    Database database;
    database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, step_bytes),
                         MakeRelease(3, 1000, 300), MakeRelease(4, 1000, 300)};
    database.releases[2].withdrawn = 50;
    database.releases[3].restores = restores;
    TrimChain(database, 70, 99);
    return Offered(database);
  };
  EXPECT_THAT(trimmed(1, 399), ElementsAre(2, 3, 4)) << "smaller than the full package";
  EXPECT_THAT(trimmed(1, 400), ElementsAre(3, 4));
  EXPECT_THAT(trimmed(2, 399), ElementsAre(3, 4)) << "2 is the good version itself";
  EXPECT_THAT(trimmed(2, 100), ElementsAre(2, 3, 4)) << "within the share";
  EXPECT_THAT(trimmed(2, 101), ElementsAre(3, 4));
}

TEST(TrimChainTest, BothChainsOfARolloutAreTrimmedAndToldOf) {
  Database database;
  database.releases = {MakeRelease(1, 1000), MakeRelease(2, 1000, 800), MakeRelease(3, 1000, 800),
                       MakeRelease(4, 1000, 800)};
  database.rollout = publish::Rollout{2, {}};
  const std::string too_much =
      " and older are not offered any more: with it the deltas would exceed 70 % of the full "
      "package";
  EXPECT_EQ(TrimChain(database, 70, 99), "deltas to 4" + too_much + "; deltas to 2" + too_much);
  EXPECT_THAT(Offered(database), IsEmpty());
}

TEST(ShareOfTest, IsRoundedDownAndDoesNotOverflow) {
  EXPECT_EQ(publish::ShareOf(0, 70), 0u);
  EXPECT_EQ(publish::ShareOf(99, 70), 69u);
  EXPECT_EQ(publish::ShareOf(1000, 70), 700u);
  EXPECT_EQ(publish::ShareOf(150, 1000), 1500u);
  EXPECT_EQ(publish::ShareOf(std::uint64_t{1} << 60, 100), std::uint64_t{1} << 60);
}

}  // namespace
}  // namespace tolm::testing
