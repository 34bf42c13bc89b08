#include "publish/metrics.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>

#include "publish/catalog.h"
#include "publish/certificates.h"
#include "publish/error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;

class RepositoryMetricsTest : public ReleaseFixture {
 protected:
  RepositoryMetricsTest() { InitRepository(NewRepository(), kNow); }

  // Versions 1 to `releases`, with deltas to all but the first; each package has another size.
  static publish::Database DatabaseOf(int releases) {
    publish::Database database;
    for (int version = 1; version <= releases; ++version) {
      publish::Release release;
      release.version = version;
      release.released = kNow - (releases - version) * kDay;
      release.full.size_bytes = 1000 * static_cast<std::uint64_t>(version);
      if (version > 1) {
        release.delta.emplace();
        release.delta->package.size_bytes = 10 * static_cast<std::uint64_t>(version);
      }
      database.releases.push_back(release);
    }
    database.last_fetch_time = kNow - 77;
    return database;
  }

  // A line for each name but for those of certificates: what its samples are of, and their values.
  std::string Samples(std::int64_t now, const publish::CheckReport* check = nullptr) const {
    const std::string path = "path=\"" + std::filesystem::canonical(Path("repo")).string() + "\"} ";
    std::istringstream lines(publish::RepositoryMetrics(Path("repo"), check, now));
    std::string samples;
    std::string name;
    for (std::string line; std::getline(lines, line);) {
      if (line[0] == '#' || line.find("certificate_not_after") != std::string::npos) {
        continue;
      }
      const std::size_t label = line.find('{') + 1;
      const std::size_t end = line.find(path);
      EXPECT_NE(end, std::string::npos) << line;
      const bool is_same = std::exchange(name, line.substr(0, label)) == line.substr(0, label);
      const std::string begin = "\n" + name.substr(0, label - 1) + ": ";
      samples += (is_same ? ", " : begin) + line.substr(label, end - label) +
                 line.substr(end + path.size());
    }
    return samples + '\n';
  }

  std::string SizeOfPublic() const {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Path("repo/public"))) {
      bytes += entry.is_regular_file() ? entry.file_size() : 0;
    }
    return std::to_string(bytes);
  }
};

TEST_F(RepositoryMetricsTest, EveryDatabaseIsToldOf) {
  publish::Database oui = DatabaseOf(4);
  oui.deprecated = true;
  oui.releases[1].delta->withdrawn = kNow - kDay;
  oui.retired = {{{"packages/oui/oui_v0", 100, "r"}, 9}, {{"packages/oui/oui_d0", 20, "r"}, 9}};
  PutReleases("oui", oui);
  publish::Database geo = DatabaseOf(4);
  geo.rollout = publish::Rollout{2, {kNow - kDay, {{2500, 3 * kDay}, {10000, 0}}, {}, false}};
  PutReleases("geo", geo);
  geo.rollout->plan.held = kNow - kHour;
  PutReleases("held", geo);
  geo.rollout->plan.stopped = true;
  PutReleases("stopped", geo);
  PutReleases("whole", DatabaseOf(1));
  publish::Catalog catalog = publish::LoadCatalog(Path("repo/state/catalog.json"));
  catalog.removed["old"].retired = {{{"packages/old/old_v7", 3, "r"}, 9},
                                    {{"packages/old/old_d7", 2, "r"}, 9}};
  WriteFile(Path("repo/state/catalog.json"), FormatCatalog(catalog));
  std::filesystem::create_symlink("nowhere", Path("repo/public/dangling"));
  const std::string text = Samples(kNow);
  const std::size_t begin = text.find("tolmdbpub_collected");
  EXPECT_THAT(text.substr(0, begin), ContainsRegex("^\ntolmdbpub_build_info: version=.*,1\n$"));
  EXPECT_EQ(text.substr(begin), R"(tolmdbpub_collected_timestamp_seconds: 1800000000
tolmdbpub_newest_version: database="geo",4, database="held",4, database="oui",4, database="stopped",4, database="whole",1
tolmdbpub_stable_version: database="geo",2, database="held",2, database="oui",4, database="stopped",2, database="whole",1
tolmdbpub_released_timestamp_seconds: database="geo",1800000000, database="held",1800000000, database="oui",1800000000, database="stopped",1800000000, database="whole",1800000000
tolmdbpub_data_timestamp_seconds: database="geo",1799999923, database="held",1799999923, database="oui",1799999923, database="stopped",1799999923, database="whole",1799999923
tolmdbpub_releases: database="geo",4, database="held",4, database="oui",4, database="stopped",4, database="whole",1
tolmdbpub_deprecated: database="geo",0, database="held",0, database="oui",1, database="stopped",0, database="whole",0
tolmdbpub_full_bytes: database="geo",4000, database="held",4000, database="oui",4000, database="stopped",4000, database="whole",1000
tolmdbpub_delta_bytes: database="geo",40, database="held",40, database="oui",40, database="stopped",40
tolmdbpub_chain_deltas: database="geo",3, database="held",3, database="oui",2, database="stopped",3, database="whole",0
tolmdbpub_chain_bytes: database="geo",90, database="held",90, database="oui",70, database="stopped",90, database="whole",0
tolmdbpub_retired_packages: database="geo",0, database="held",0, database="oui",2, database="stopped",0, database="whole",0, database="old",2
tolmdbpub_retired_bytes: database="geo",0, database="held",0, database="oui",120, database="stopped",0, database="whole",0, database="old",5
tolmdbpub_rollout_version: database="geo",4, database="held",4, database="stopped",4
tolmdbpub_rollout_reached_ratio: database="geo",0.25, database="held",0.25, database="stopped",0
tolmdbpub_rollout_held: database="geo",0, database="held",1, database="stopped",0
tolmdbpub_rollout_stopped: database="geo",0, database="held",0, database="stopped",1
tolmdbpub_rollout_opened_timestamp_seconds: database="geo",1799913600, database="held",1799913600, database="stopped",1799913600
tolmdbpub_rollout_last_stage_timestamp_seconds: database="geo",1800172800
tolmdbpub_rollout_halted_timestamp_seconds: database="held",1799996400, database="stopped",1799996400
tolmdbpub_public_files: 31
tolmdbpub_public_bytes: )" + SizeOfPublic() +
                                    R"(
tolmdbpub_certificates_unreadable: 0
)");
}

TEST_F(RepositoryMetricsTest, CheckIsToldOfWhereThereWasOne) {
  publish::CheckReport report;
  report.problems = {{"packages", 2}, {"files", 0}};
  report.remarks = {"a", "b", "c"};
  report.packages = 40;
  report.replayed = 5;
  report.remembered = 600;
  const std::string text = Samples(kNow, &report);
  EXPECT_EQ(text.substr(text.find("tolmdbpub_check")),
            R"(tolmdbpub_check_problems: part="files",0, part="packages",2
tolmdbpub_check_remarks: 3
tolmdbpub_check_packages: 40
tolmdbpub_check_deltas_proved: 605
)");
  EXPECT_THAT(Samples(kNow), Not(HasSubstr("tolmdbpub_check")));
}

TEST_F(RepositoryMetricsTest, SignedDescriptionIsToldOf) {
  const std::time_t now = std::time(nullptr);  // Certificates are judged by the machine's clock.
  std::filesystem::remove_all(Path("repo"));
  std::filesystem::remove_all(Path("keys"));
  InitRepository(NewSignedRepository(now), now);
  const publish::RepositoryPaths paths(Path("repo"));
  const publish::Settings settings = publish::LoadSettings(paths.SettingsFile());
  const auto offer = ServedOffer(paths, settings, now);
  ASSERT_TRUE(offer);
  const std::string issued = std::to_string(offer->issued);
  EXPECT_THAT(Samples(now),
              HasSubstr("tolmdbpub_description_signed: 1\n"
                        "tolmdbpub_description_number: " +
                        std::to_string(offer->counter) +
                        "\ntolmdbpub_description_issued_timestamp_seconds: " + issued +
                        "\ntolmdbpub_description_expire_timestamp_seconds: " +
                        std::to_string(offer->expires) + "\n"));
  const std::string metrics = publish::RepositoryMetrics(Path("repo"), nullptr, now);
  const auto certificates = ReadCertificates(paths, settings, {});
  ASSERT_FALSE(certificates.all.empty());
  for (const publish::RepositoryCertificate& certificate : certificates.all) {
    EXPECT_THAT(metrics,
                HasSubstr("\ntolmdbpub_certificate_not_after_timestamp_seconds{role=\"" +
                          std::string(CertificateRoleText(certificate.role)) + "\",subject=\"" +
                          certificate.details.subject + "\",fingerprint=\"" +
                          certificate.details.fingerprint + "\",needed=\"" +
                          (certificate.is_needed ? "1" : "0") + "\",path=\"" +
                          std::filesystem::canonical(Path("repo")).string() + "\"} " +
                          std::to_string(certificate.details.not_after) + '\n'));
  }
  WriteFile(paths.InPublic("database_info/1"), "{}");
  EXPECT_THAT(Samples(now), HasSubstr("tolmdbpub_description_signed: 0\n"));
  EXPECT_THAT(Samples(now), Not(HasSubstr("tolmdbpub_description_number")));
  std::filesystem::remove_all(Path("repo"));
  EXPECT_THROW(publish::RepositoryMetrics(Path("repo"), nullptr, now), publish::Error);
}

}  // namespace
}  // namespace tolm::testing
