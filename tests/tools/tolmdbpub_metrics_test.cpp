// list --metrics and check --metrics of the installed publisher.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/noise.h"
#include "tests/tools/metrics_text.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class PublisherMetricsTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    MustRelease({{"noise", Noise(50000)}, {"t", "1"}});
    MustRelease({{"noise", Noise(50000)}, {"t", "2"}});
  }

  static std::string Metrics(const std::string& command) {
    const CommandResult result = Pub({command, repo_, "--metrics"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
  }
};

TEST_F(PublisherMetricsTest, ReleasesAreToldOf) {
  const std::string metrics = Metrics("list");
  const Json::Value release = Catalog()["databases"]["oui"]["releases"][1];
  EXPECT_THAT(
      metrics,
      HasSubstr("\ntolmdbpub_newest_version{database=\"oui\",path=\"/tmp/repo\"} 1000002\n"));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_releases{database=\"oui\",path=\"/tmp/repo\"} 2\n"));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_full_bytes{database=\"oui\",path=\"/tmp/repo\"} " +
                                 release["full"]["size"].asString() + "\n"));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_delta_bytes{database=\"oui\",path=\"/tmp/repo\"} " +
                                 release["delta"]["size"].asString() + "\n"));
  EXPECT_THAT(metrics,
              HasSubstr("\ntolmdbpub_chain_deltas{database=\"oui\",path=\"/tmp/repo\"} 1\n"));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_description_signed{path=\"/tmp/repo\"} 1\n"));
  EXPECT_THAT(metrics, HasSubstr("{role=\"root\",subject=\""));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_public_files{path=\"/tmp/repo\"} 4\n"));
  ExpectReadAlike(metrics);
}

TEST_F(PublisherMetricsTest, CheckTellsWhatItHasFound) {
  const std::string metrics = Metrics("check");
  EXPECT_THAT(metrics,
              HasSubstr("\ntolmdbpub_check_problems{part=\"packages\",path=\"/tmp/repo\"} 0\n"));
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_check_deltas_proved{path=\"/tmp/repo\"} 1\n"));
  ExpectReadAlike(metrics);
  WriteFile(InPublic("stray"), "x");
  ChangeByte(InPublic("packages/oui/oui_v1000001"), 100);
  const CommandResult wrong = Pub({"check", repo_, "--quick", "--metrics"});
  EXPECT_EQ(wrong.exit_status, 1);
  EXPECT_THAT(wrong.out,
              HasSubstr("\ntolmdbpub_check_problems{part=\"packages\",path=\"/tmp/repo\"} 1\n"));
  EXPECT_THAT(wrong.out,
              HasSubstr("\ntolmdbpub_check_problems{part=\"files\",path=\"/tmp/repo\"} 1\n"));
  EXPECT_THAT(wrong.out,
              HasSubstr("\ntolmdbpub_check_problems{part=\"offers\",path=\"/tmp/repo\"} 0\n"));
}

TEST_F(PublisherMetricsTest, RepositoriesOfAMachineAreToldApart) {
  fs::copy(repo_, "/tmp/other", fs::copy_options::recursive);
  const CommandResult other =
      RunCommand({"/bin/sh", "-c", "cd /tmp/other/public && exec tolmdbpub list .. --metrics"});
  EXPECT_EQ(other.exit_status, 0) << other.err;
  const auto series_of = [](const std::string& metrics) {
    std::set<std::string> series;
    std::istringstream lines(metrics);
    for (std::string line; std::getline(lines, line);) {
      if (line[0] != '#') {
        series.insert(line.substr(0, line.rfind(' ')));
      }
    }
    return series;
  };
  const std::set<std::string> of_one = series_of(Metrics("list"));
  const std::set<std::string> of_other = series_of(other.out);
  EXPECT_EQ(of_one.size(), of_other.size());
  for (const std::string& one : of_one) {
    EXPECT_EQ(of_other.count(one), 0u) << one;
    EXPECT_THAT(one, HasSubstr("path=\"/tmp/repo\"}"));
  }
}

TEST_F(PublisherMetricsTest, OpenRolloutIsToldOf) {
  const std::string none = Metrics("list");
  EXPECT_THAT(
      none, HasSubstr("\ntolmdbpub_stable_version{database=\"oui\",path=\"/tmp/repo\"} 1000002\n"));
  EXPECT_THAT(none, Not(HasSubstr("tolmdbpub_rollout_")));
  const auto series = [](const std::string& name, const std::string& value) {
    return "\ntolmdbpub_" + name + "{database=\"oui\",path=\"/tmp/repo\"} " + value + '\n';
  };
  MustRelease({{"noise", Noise(50000)}, {"t", "3"}}, {"--stages", "12.5%/2d,100%"});
  const std::string running = Metrics("list");
  const Json::Value oui = Catalog()["databases"]["oui"];
  const std::int64_t start = oui["rollout"]["start"].asInt64();
  const std::string released = oui["releases"][2]["released"].asString();
  EXPECT_THAT(running, AllOf(HasSubstr(series("newest_version", "1000003")),
                             HasSubstr(series("stable_version", "1000002")),
                             HasSubstr(series("rollout_version", "1000003")),
                             HasSubstr(series("rollout_reached_ratio", "0.125")),
                             HasSubstr(series("rollout_held", "0")),
                             HasSubstr(series("rollout_stopped", "0")),
                             HasSubstr(series("rollout_opened_timestamp_seconds", released)),
                             HasSubstr(series("rollout_last_stage_timestamp_seconds",
                                              std::to_string(start + 2 * 24 * 3600))),
                             Not(HasSubstr("rollout_halted"))));
  ExpectReadAlike(running);
  ASSERT_EQ(Pub({"rollout", "hold", repo_, "oui"}).exit_status, 0);
  const std::string held = Metrics("list");
  const Json::Value plan = Catalog()["databases"]["oui"]["rollout"];
  EXPECT_THAT(held,
              AllOf(HasSubstr(series("rollout_held", "1")),
                    HasSubstr(series("rollout_reached_ratio", "0.125")),
                    HasSubstr(series("rollout_halted_timestamp_seconds", plan["held"].asString())),
                    Not(HasSubstr("rollout_last_stage"))));
  ASSERT_EQ(Pub({"rollout", "stop", repo_, "oui"}).exit_status, 0);
  EXPECT_THAT(Metrics("list"), AllOf(HasSubstr(series("rollout_held", "0")),
                                     HasSubstr(series("rollout_stopped", "1")),
                                     HasSubstr(series("rollout_reached_ratio", "0"))));
}

TEST_F(PublisherMetricsTest, UnsignedDescriptionIsToldOf) {
  Json::Value description = Description();
  description.removeMember("signed");
  description.removeMember("signature");
  WriteJson(InPublic("database_info/1"), description);
  const std::string metrics = Metrics("list");
  EXPECT_THAT(metrics, HasSubstr("\ntolmdbpub_description_signed{path=\"/tmp/repo\"} 0\n"));
  EXPECT_EQ(NamesIn(metrics).count("tolmdbpub_description_expire_timestamp_seconds"), 0u);
}

TEST_F(PublisherMetricsTest, FileForACollectorIsWrittenBesideTheResult) {
  std::filesystem::create_directories("/tmp/textfiles");
  const CommandResult result =
      Pub({"check", repo_, "--quick", "--metrics-file", "/tmp/textfiles/tolmdbpub.prom"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("in order"));
  ExpectReadAlike(ReadFile("/tmp/textfiles/tolmdbpub.prom"));
  ExpectFailure(Pub({"list", repo_, "--metrics-file", "/tmp/none/tolmdbpub.prom"}),
                HasSubstr("there is no directory /tmp/none for /tmp/none/tolmdbpub.prom"));
  EXPECT_EQ(Pub({"list", repo_, "--metrics-file", ""}).exit_status, 2);
}

TEST_F(PublisherMetricsTest, RulesDashboardAndDocumentNameWhatIsPrinted) {
  MustRelease({{"noise", Noise(50000)}, {"t", "3"}}, {"--stages", "1%/2d,100%"});
  std::set<std::string> printed = NamesIn(Metrics("check"));
  ASSERT_EQ(Pub({"rollout", "hold", repo_, "oui"}).exit_status, 0);
  printed.merge(NamesIn(Metrics("list")));
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud.rules.yml", "tolmdbpub"), printed);
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud.rules.test.yml", "tolmdbpub"), printed);
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud-dashboard.json", "tolmdbpub"), printed);
  const std::set<std::string> described = NamesInFile("docs/monitoring.md", "tolmdbpub");
  ExpectAllIn(described, printed);
  ExpectAllIn(printed, described);
}

}  // namespace
}  // namespace tolm::testing
