#include "publish/list.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "base/human_text.h"
#include "publish/catalog.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/prune.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

/// Two databases, one of them with all that can have happened to it, and one that was removed.
class ListTest : public ReleaseFixture {
 protected:
  ListTest() {
    InitRepository(NewRepository(), kNow);
    for (int i = 0; i < 4; ++i) {
      publish::ReleaseRequest request = NewRelease();
      WriteFile(Path("tree/filler"), Noise(10000, 7) + std::to_string(i));
      MakeRelease(request, kNow + i * 60, note_, [](const publish::Step&) {});
    }
    publish::ReleaseRequest other = NewRelease();
    other.name = "geo";
    MakeRelease(other, kNow, note_, [](const publish::Step&) {});
    other.name = "pci";
    MakeRelease(other, kNow + 600, note_, [](const publish::Step&) {});
    publish::RemoveDatabase({Path("repo"), "geo", true}, kNow + 300, note_);
    publish::Prune({Path("repo"), "oui", 3, 1}, kNow + 360, note_);
    publish::SetDeprecated(Path("repo"), "oui", true, note_);
    publish::Catalog catalog = publish::LoadCatalog(paths_.CatalogFile());
    auto& releases = catalog.databases.at("oui").releases;
    releases[1].delta->withdrawn = kNow + 420;
    releases[1].withdrawn = kNow + 480;
    releases[2].restores = 1000002;
    WriteFile(paths_.CatalogFile(), FormatCatalog(catalog));
  }

  std::string List(bool as_json) const {
    std::ostringstream out;
    publish::ListRepository(Path("repo"), as_json, out);
    return out.str();
  }
  std::string BytesOf(const std::string& path) const {
    return base::Grouped(std::filesystem::file_size(paths_.InPublic(path))) + " bytes as zstd";
  }

  std::string ShareOf(const std::string& version) const {
    const std::string name = paths_.InPublic("packages/oui/oui_");
    return publish::ShareText(std::filesystem::file_size(name + 'd' + version),
                              std::filesystem::file_size(name + 'v' + version));
  }
  Json::Value Package(const std::string& path) const {
    Json::Value value;
    value["path"] = path;
    value["size"] = Json::UInt64(std::filesystem::file_size(paths_.InPublic(path)));
    value["sha384"] = Sha384Hex(paths_.InPublic(path));
    value["compression"] = "zstd";
    return value;
  }
  Json::Value Release(int version, std::time_t released, const std::string& full) const {
    Json::Value value;
    value["version"] = version;
    value["released"] = Json::Int64(released);
    value["full"] = Package(full);
    value["withdrawn"] = Json::Value();
    value["restores"] = Json::Value();
    return value;
  }

  const publish::RepositoryPaths paths_{Path("repo")};
  const publish::Notes note_ = [](const std::string&) {};
};

TEST_F(ListTest, EverythingIsShownOnce) {
  const std::string oui = "packages/oui/oui_";
  EXPECT_EQ(List(false),
            "description  http://example.org/database_info/1\n"
            "key          ../keys/signing.key\n"
            "certificate  ../keys/signing.pem\n"
            "root         ../keys/root.pem\n"
            "compression  auto, window 32 MiB\n"
            "oui  (deprecated)\n"
            "  1000002  2027-01-15 08:01  full " +
                BytesOf(oui + "v1000002") + ", delta " + BytesOf(oui + "d1000002") + " (" +
                ShareOf("1000002") +
                ")\n"
                "  1000003  2027-01-15 08:02  full " +
                BytesOf(oui + "v1000003") + ", delta " + BytesOf(oui + "d1000003") + " (" +
                ShareOf("1000003") +
                "), not offered since 2027-01-15 08:07; withdrawn 2027-01-15 08:08\n"
                "  1000004  2027-01-15 08:03  full " +
                BytesOf(oui + "v1000004") + ", delta " + BytesOf(oui + "d1000004") + " (" +
                ShareOf("1000004") +
                "); the files of 1000002 again\n"
                "  packages/oui/oui_v1000001  retired 2027-01-15 08:01\n"
                "pci\n"
                "  1000001  2027-01-15 08:10  full " +
                BytesOf("packages/pci/pci_v1000001") +
                ", no delta: it is the first release\n"
                "geo  (removed 2027-01-15 08:05; the newest was 1000001)\n"
                "  packages/geo/geo_v1000001  retired 2027-01-15 08:05\n");
}

TEST_F(ListTest, ProgramsAreToldTheSame) {
  const Json::Value all = publish::ParseJson(List(true), "list");
  Json::Value settings = all;
  for (const char* member : {"certificates", "databases", "removed"}) {
    settings.removeMember(member);
  }
  EXPECT_EQ(settings, publish::ParseJson(R"({"format": 1, "base_url": "http://example.org",
      "info_version": "1", "key": "../keys/signing.key", "certificate": "../keys/signing.pem",
      "root": "../keys/root.pem", "compression": "auto", "compression_window_mib": 32,
      "description": null})",
                                         "expected"));
  ASSERT_EQ(all["certificates"].size(), 2u);
  const Json::Value& certificate = all["certificates"][0];
  EXPECT_EQ(certificate.getMemberNames(),
            (std::vector<std::string>{"file", "not_after", "not_before", "role", "subject"}));
  EXPECT_EQ(certificate["role"], "signing");
  EXPECT_EQ(certificate["file"], Path("keys/signing.pem"));
  EXPECT_EQ(certificate["subject"], "CN=Database package signing 2027-01-15");
  EXPECT_LT(certificate["not_before"].asInt64(), kNow);
  EXPECT_GT(certificate["not_after"].asInt64(), kNow);
  EXPECT_EQ(all["certificates"][1]["role"], "root");

  Json::Value pci;
  pci["name"] = "pci";
  pci["newest"] = 1000001;
  pci["stable"] = 1000001;
  pci["deprecated"] = false;
  pci["last_fetch_time"] = Json::Int64(kNow + 600);
  pci["releases"][0] = Release(1000001, kNow + 600, "packages/pci/pci_v1000001");
  pci["releases"][0]["delta"] = Json::Value();
  pci["releases"][0]["no_delta"] = "it is the first release";
  pci["retired"] = Json::Value(Json::arrayValue);
  pci["rollout"] = Json::Value();
  Json::Value oui;
  oui["name"] = "oui";
  oui["newest"] = 1000004;
  oui["stable"] = 1000004;
  oui["deprecated"] = true;
  oui["last_fetch_time"] = Json::Int64(kNow + 180);
  for (int i = 1; i < 4; ++i) {
    const std::string version = std::to_string(1000001 + i);
    Json::Value release = Release(1000001 + i, kNow + 60 * i, "packages/oui/oui_v" + version);
    release["delta"] = Package("packages/oui/oui_d" + version);
    release["delta"]["offered"] = i != 2;
    oui["releases"].append(release);
  }
  oui["releases"][1]["withdrawn"] = Json::Int64(kNow + 480);
  oui["releases"][2]["restores"] = 1000002;
  oui["retired"][0] = Package("packages/oui/oui_v1000001");
  oui["retired"][0]["since"] = Json::Int64(kNow + 60);
  oui["rollout"] = Json::Value();
  EXPECT_EQ(publish::FormatJson(all["databases"][0]), publish::FormatJson(oui));
  EXPECT_EQ(publish::FormatJson(all["databases"][1]), publish::FormatJson(pci));
  EXPECT_EQ(all["databases"].size(), 2u);

  Json::Value geo;
  geo["name"] = "geo";
  geo["newest"] = 1000001;
  geo["since"] = Json::Int64(kNow + 300);
  geo["retired"][0] = Package("packages/geo/geo_v1000001");
  geo["retired"][0]["since"] = Json::Int64(kNow + 300);
  Json::Value removed;
  removed[0] = geo;
  EXPECT_EQ(publish::FormatJson(all["removed"]), publish::FormatJson(removed));
}

TEST_F(ListTest, CompressionOfWhatIsNotThereIsNotKnown) {
  const std::string path = "packages/pci/pci_v1000001";
  const std::string size = base::Grouped(std::filesystem::file_size(paths_.InPublic(path)));
  std::filesystem::remove(paths_.InPublic(path));
  EXPECT_THAT(List(false), ::testing::HasSubstr("full " + size + " bytes, no delta"));
  const Json::Value all = publish::ParseJson(List(true), "list");
  EXPECT_TRUE(all["databases"][1]["releases"][0]["full"]["compression"].isNull());
}

TEST_F(ListTest, WhoSignsDescriptionsAndUntilWhenTheyCountIsShown) {
  const std::time_t now = std::time(nullptr);  // Certificates are judged by the machine's clock.
  std::filesystem::remove_all(Path("repo"));
  std::filesystem::remove_all(Path("keys"));
  InitRepository(NewSignedRepository(now), now);
  const auto offer = ServedOffer(paths_, publish::LoadSettings(paths_.SettingsFile()), now);
  ASSERT_TRUE(offer.has_value());
  EXPECT_THAT(List(false), ::testing::HasSubstr("\ninfo key     ../keys/info.key\nsigned       " +
                                                publish::TimeText(offer->issued) + ", until " +
                                                publish::TimeText(offer->expires) + ", counter " +
                                                std::to_string(offer->counter) + '\n'));
  const Json::Value description = publish::ParseJson(List(true), "list")["description"];
  EXPECT_EQ(description["repository"].asString(), offer->repository);
  EXPECT_EQ(description["counter"].asUInt64(), offer->counter);
  EXPECT_EQ(description["issued"].asInt64(), offer->issued);
  EXPECT_EQ(description["expires"].asInt64(), offer->expires);
  WriteFile(paths_.InPublic("database_info/1"), "{}");
  EXPECT_THAT(List(false), ::testing::HasSubstr("\nsigned       not as devices accept it\n"));
  std::filesystem::remove_all(Path("repo"));
  EXPECT_THROW(List(false), publish::Error);
}

TEST(ListTextTest, SharesHaveOneDigitBehindThePoint) {
  EXPECT_EQ(publish::ShareText(1, 3), "33.3 %");
  EXPECT_EQ(publish::ShareText(3, 2), "150.0 %");
  EXPECT_EQ(publish::ShareText(0, 1), "0.0 %");
  EXPECT_EQ(publish::ShareText(1, 0), "-");
}

}  // namespace
}  // namespace tolm::testing
