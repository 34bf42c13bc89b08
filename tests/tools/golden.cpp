#include "tests/tools/golden.h"

#include <fcntl.h>
#include <sys/file.h>

#include <regex>
#include <utility>

#include "tests/support/preload.h"

namespace tolm::testing {

GoldenDevice::GoldenDevice() {
  ConfigureDevice(publisher, {{"oui", kOnVolume}});
  publisher.PackFull("oui", kFirst, {{"a.txt", "one"}, {"gone.txt", "x"}, {"sub/b.txt", "b"}});
  publisher.Offer("oui", kFirst);
}

GoldenDevice::~GoldenDevice() = default;

void GoldenDevice::Install() {
  MustRun({"update", "oui"});
}

void GoldenDevice::OfferSecond() {
  publisher.PackFull("oui", kSecond, {{"a.txt", "two"}, {"sub/b.txt", "b"}});
  publisher.Offer("oui", kSecond);
}

void GoldenDevice::OfferSecondByDelta() {
  publisher.PackFull("oui", kSecond, {{"a.txt", "two"}, {"sub/b.txt", "b"}});
  publisher.PackDelta("oui", kSecond,
                      R"({"/a.txt": {"operation": "create", "input_file": "a"},
                          "/gone.txt": {"operation": "delete"}})",
                      {{"a", "two"}});
  publisher.Offer("oui", kSecond, {kSecond});
}

void GoldenDevice::Describe(const std::string& version, const std::string& more) {
  publisher.Server().SetBody(
      "/database_info/1",
      R"({"deprecated": false, "db_list": {"oui": {"last_fetch_time": 1700000000,
          "download_link": ")" +
          publisher.Server().Url("/packages/oui_v70002") + R"(", "data_version": )" + version +
          more + "}}}");
  ForgetDescription();
}

void GoldenDevice::ServerFails() {
  HttpAnswer answer;
  answer.status = 500;
  publisher.Server().SetAnswer("/database_info/1", answer);
  ForgetDescription();
}

void GoldenDevice::ServerIsGone() {
  ReplaceInFile(kServerDefaults, ":" + std::to_string(publisher.Server().Port()), ":1");
  ForgetDescription();
}

void GoldenDevice::Hold(const std::string& lock) {
  std::filesystem::create_directories("/run/data_update");
  UniqueDescriptor file(open(lock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0) << lock;
  held_.push_back(std::move(file));
}

void GoldenDevice::MustRun(const std::vector<std::string>& arguments) {
  const CommandResult result = Tool(arguments);
  ASSERT_EQ(result.exit_status, 0) << result.err;
}

void Install(GoldenDevice& device) {
  device.Install();
}

void RunBySystemd(const std::string& update_timer) {
  std::filesystem::create_directories("/run/systemd/system");
  std::filesystem::remove("/usr/bin/systemctl");
  WriteFile("/usr/bin/systemctl",
            "#!/bin/sh\ncat <<'END'\n" + update_timer +
                "\n\nId=tolmdbud-verify.timer\nLoadState=loaded\nActiveState=active\nEND\n");
  std::filesystem::permissions("/usr/bin/systemctl", std::filesystem::perms(0755));
}

void SkipWaits(GoldenDevice& device) {
  device.environment = Preload(TOLM_SKIPPED_WAITS_LIBRARY);
}

std::string NameOf(const ::testing::TestParamInfo<GoldenRow>& info) {
  return info.param.name;
}

GoldenTest::GoldenTest() = default;
GoldenTest::~GoldenTest() = default;

std::string GoldenTest::Normalised(std::string text) {
  const std::string url = device_.publisher.Server().Url("");
  for (std::size_t at = text.find(url); at != std::string::npos; at = text.find(url, at)) {
    text.replace(at, url.size(), "$URL");
  }
  // In this order: port 1, at which nobody listens, stays as it is.
  const std::vector<std::pair<std::string, std::string>> replacements = {
      {R"re(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)re", "$$TIME"},
      {R"re(127\.0\.0\.1:\d{2,5})re", "127.0.0.1:$$PORT"},
      {R"re(\?os=tmo[^\s")]*)re", "?$$QUERY"},
      {R"re(\(\d+ (s|min|h|days) ago\))re", "($$AGO ago)"},
      {R"re(\bin \d+ (s|min|h|days)\b)re", "in $$WAIT"},
      {R"re(\d{4} days)re", "$$AGE days"},
      {R"re(\d+ bytes available)re", "$$N bytes available"},
      {R"re(("(available_bytes|age_seconds|seconds|bytes)" : )[\d.e-]+)re", "$1$$N"},
      {R"re(as of (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d \(asked \d+ seconds? ago)re",
       "as of $$CLOCK (asked $$AGO"},
      {R"re((downloaded [^\n]*, )[\d.]+ )re", "$1$$N "},
      {R"re(free are \d+)re", "free are $$N"},
      {R"re(signing \d{4}-\d\d-\d\d)re", "signing $$DATE"},
      {R"re(\bby process \d+)re", "by process $$N"},
      {R"re((\n|^)(\[[a-z]+\] [a-z_]+):\d+ )re", "$1$2:$$N "}};
  for (const auto& [pattern, replacement] : replacements) {
    text = std::regex_replace(text, std::regex(pattern), replacement);
  }
  return text;
}

void GoldenTest::Expect(const GoldenRow& row) {
  if (row.arrange) {
    row.arrange(device_);
  }
  ASSERT_FALSE(HasFatalFailure());
  std::vector<std::string> command = {kTool};
  command.insert(command.end(), row.command.begin(), row.command.end());
  const CommandResult result = RunCommand(command, {device_.environment, {}, ""});
  EXPECT_EQ(result.exit_status, row.exit_status);
  EXPECT_EQ(Normalised(result.out), row.out);
  EXPECT_EQ(Normalised(result.err), row.err);
}

}  // namespace tolm::testing
