#ifndef TOLM_TESTS_TOOLS_GOLDEN_H_
#define TOLM_TESTS_TOOLS_GOLDEN_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/publisher.h"
#include "tests/support/unique_descriptor.h"
#include "tests/tools/device.h"

namespace tolm::testing {

inline constexpr char kServerDefaults[] = "/usr/share/data_update/data_update.conf";
inline constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
inline constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";
inline constexpr char kDescription[] = "/var/cache/data_update/database_info.json";
inline constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
inline constexpr char kMark[] = "/var/lib/data_update/oui/recovery.mark";
inline constexpr char kTemporary[] = "/volume1/@tmp/data_update";
// What stands at the end of many lines.
inline const std::string kAnew = "; \"tolmdbpub install-config\" makes it anew\n";
inline const std::string kCheckIt =
    "; the publisher's \"tolmdbpub check\" tells what the server has\n";
inline constexpr char kUnknown[] = "tolmdbud: nope: there is no such database; configured: oui\n";

/// The device on which a command's whole output is looked at. One database "oui" is configured on
/// the volume; the server offers its version 70001 in full and can offer 70002, in full or by a
/// delta. Nothing is installed.
class GoldenDevice {
 public:
  static constexpr int kFirst = 70001;  ///< Texts that occur nowhere else in a link.
  static constexpr int kSecond = 70002;

  GoldenDevice() {
    ConfigureDevice(publisher, {{"oui", kOnVolume}});
    publisher.PackFull("oui", kFirst, {{"a.txt", "one"}, {"gone.txt", "x"}, {"sub/b.txt", "b"}});
    publisher.Offer("oui", kFirst);
  }

  /// Installs the first version, by an update.
  void Install() { MustRun({"update", "oui"}); }
  void OfferSecond() {
    publisher.PackFull("oui", kSecond, {{"a.txt", "two"}, {"sub/b.txt", "b"}});
    publisher.Offer("oui", kSecond);
  }
  void OfferSecondByDelta() {
    publisher.PackFull("oui", kSecond, {{"a.txt", "two"}, {"sub/b.txt", "b"}});
    publisher.PackDelta("oui", kSecond,
                        R"({"/a.txt": {"operation": "create", "input_file": "a"},
                            "/gone.txt": {"operation": "delete"}})",
                        {{"a", "two"}});
    publisher.Offer("oui", kSecond, {kSecond});
  }
  /// The description with these JSON texts as the version and as further members of the record.
  void Describe(const std::string& version, const std::string& more = "") {
    publisher.Server().SetBody(
        "/database_info/1",
        R"({"deprecated": false, "db_list": {"oui": {"last_fetch_time": 1700000000,
            "download_link": ")" +
            publisher.Server().Url("/packages/oui_v70002") + R"(", "data_version": )" + version +
            more + "}}}");
    ForgetDescription();
  }
  void ServerFails() {
    HttpAnswer answer;
    answer.status = 500;
    publisher.Server().SetAnswer("/database_info/1", answer);
    ForgetDescription();
  }
  /// Not even a connection is to be had.
  void ServerIsGone() {
    ReplaceInFile(kServerDefaults, ":" + std::to_string(publisher.Server().Port()), ":1");
    ForgetDescription();
  }
  static void ForgetDescription() { std::filesystem::remove(kDescription); }
  /// Until the end of this object.
  void Hold(const std::string& lock) {
    std::filesystem::create_directories("/run/data_update");
    UniqueDescriptor file(open(lock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0) << lock;
    held_.push_back(std::move(file));
  }
  void Mount(ScopedMount mount) { mounts_.push_back(std::move(mount)); }
  void WithoutAVolume() { ConfigureDevice(publisher, {{"oui", kOnVolume}}, ""); }
  static void MustRun(const std::vector<std::string>& arguments) {
    const CommandResult result = Tool(arguments);
    ASSERT_EQ(result.exit_status, 0) << result.err;
  }

  static std::filesystem::path Installed(const std::string& file) {
    return kVolumePrefix / "oui" / file;
  }

  Publisher publisher;
  std::vector<std::string> environment;  ///< Of the command.

 private:
  std::vector<UniqueDescriptor> held_;
  std::vector<ScopedMount> mounts_;
};

// What many rows arrange.
inline void Nothing(GoldenDevice&) {}
inline void Install(GoldenDevice& device) {
  device.Install();
}
/// A machine that systemd runs, which says this of the timer of the daily run.
inline void RunBySystemd(const std::string& update_timer) {
  std::filesystem::create_directories("/run/systemd/system");
  std::filesystem::remove("/usr/bin/systemctl");
  WriteFile("/usr/bin/systemctl",
            "#!/bin/sh\ncat <<'END'\n" + update_timer +
                "\n\nId=tolmdbud-verify.timer\nLoadState=loaded\nActiveState=active\nEND\n");
  std::filesystem::permissions("/usr/bin/systemctl", std::filesystem::perms(0755));
}
inline constexpr char kWaitingTimer[] =
    "NextElapseUSecRealtime=Thu 2099-01-01 03:12:45 UTC\nId=tolmdbud-update.timer\n"
    "LoadState=loaded\nActiveState=active\nUnitFileState=enabled";

/// Whoever waits for a lock has waited for it in vain at once.
inline void SkipWaits(GoldenDevice& device) {
  device.environment = {std::string("LD_PRELOAD=") + TOLM_SKIPPED_WAITS_LIBRARY};
}

/// One command line in one situation, and all that comes of it. In the outputs $URL stands for the
/// server's address, $QUERY for what it is asked for, $TIME for a time, $CLOCK for a time of day,
/// $AGO and "$AGE days" for how long that was ago, $WAIT for how long it will be, $N for a number
/// of bytes that is another on each machine or a line number in the log.
struct GoldenRow {
  std::string name;
  std::vector<std::string> command;
  std::function<void(GoldenDevice&)> arrange;
  int exit_status;
  std::string out;
  std::string err;
};

inline std::string NameOf(const ::testing::TestParamInfo<GoldenRow>& info) {
  return info.param.name;
}

class GoldenTest : public ::testing::TestWithParam<GoldenRow> {
 protected:
  std::string Normalised(std::string text) {
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

  void Expect(const GoldenRow& row) {
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

  GoldenDevice device_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_GOLDEN_H_
