#ifndef TOLM_TESTS_TOOLS_HOSTILE_SERVER_H_
#define TOLM_TESTS_TOOLS_HOSTILE_SERVER_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/package/payload_builder.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/publisher.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {

/// The server's host begins every link and every request.
inline constexpr char kDownloadFailed[] = "Fail to wget url: http://127.0.0.1:";

/// What the description is refused with when it is no JSON.
inline constexpr char kUnreadableDescription[] =
    "/database_info/1 is no description of databases (it is ";
/// The same when it is, and no description.
inline constexpr char kNoDescription[] = "/database_info/1 is no description of databases (it ";

/// What a package is refused with before it is unpacked; the number says why.
inline std::string OpenFailed(int code) {
  return "tolmarchive_open /volume1/@tmp/data_update/oui_v1000002 failed, ret: " +
         std::to_string(code) + " (";
}

/// A JSON text of that content, which ends at its first NUL.
inline std::string Quoted(const std::string& text) {
  return Json::valueToQuotedString(text.c_str());
}

/// So many arrays, one in the other.
inline std::string Nested(std::size_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

/// Makes wget give up a silent server after @p seconds, and lets its retries follow each other at
/// once; all else is as the system's programs set it.
inline void SetReadTimeout(const std::string& seconds) {
  WriteFile("/tmp/wgetrc",
            "use_server_timestamps = off\nwaitretry = 0\nread_timeout = " + seconds + "\n");
}

/// A server that offers an installed database's next version, and the means to spoil the offer.
class Scene {
 public:
  static constexpr int kInstalled = 1000001;
  static constexpr int kOffered = 1000002;
  static constexpr char kDescriptionPath[] = "/database_info/1";

  Scene() {
    publisher_.PackPayload(Payload("full", kInstalled, kFirst), Package(kInstalled));
    publisher_.PackPayload(Payload("full", kOffered, kSecond), Package());
    honest_package_ = ReadFile(Package());
  }

  Publisher& GetPublisher() { return publisher_; }
  HttpServer& Server() { return publisher_.Server(); }

  /// The file that is served as the full package, and its path on the server.
  std::filesystem::path Package(int version = kOffered) const {
    return publisher_.FullPackage("oui", version);
  }
  std::string PackagePath(int version = kOffered) const {
    return Publisher::PathOf(Package(version));
  }
  /// The same for the delta, of which there is none in the beginning.
  std::filesystem::path Delta() const { return publisher_.DeltaPackage("oui", kOffered); }

  /// What an honest server has.
  const std::string& HonestPackage() const { return honest_package_; }
  std::string HonestDescription(int version = kOffered) {
    return Description(Quoted(std::to_string(version)), Quoted(Server().Url(PackagePath(version))));
  }
  void BecomeHonest(int version = kOffered) {
    Server().Reset(PackagePath());
    WriteFile(Package(), honest_package_);
    Describe(HonestDescription(version));
  }

  void Describe(const std::string& document) { Server().SetBody(kDescriptionPath, document); }
  /// The honest description with one member's value replaced by that JSON text.
  void DescribeVersion(const std::string& json) {
    Describe(Description(json, Quoted(Server().Url(PackagePath()))));
  }
  void DescribeLink(const std::string& json) {
    Describe(Description(Quoted(std::to_string(kOffered)), json));
  }
  void DescribeDeltas(const std::string& json) {
    Describe(
        Description(Quoted(std::to_string(kOffered)), Quoted(Server().Url(PackagePath())), json));
  }

  static std::string Seal(const std::string& kind, int version = kOffered,
                          const std::string& name = "oui") {
    return R"({"name":")" + name + R"(","kind":")" + kind + R"(","version":)" +
           std::to_string(version) + "}";
  }
  /// Many times faster than the publisher's tool, which is tried elsewhere.
  static std::string Payload(const std::string& kind, int version, const Tree& files,
                             const std::string& name = "oui") {
    PayloadBuilder builder;
    builder.Seal(Seal(kind, version, name));
    for (const auto& [file, content] : files) {
      if (file.back() != '/') {
        builder.File(file, content);
      }
    }
    return builder.Finish();
  }

  static std::string Document(const std::string& record) {
    return R"({"deprecated": false, "db_list": {"oui": )" + record + "}}";
  }

  inline static const Tree kFirst = {
      {"a.txt", "one"}, {"gone.txt", ""}, {"sub/", ""}, {"sub/b.txt", "b"}};
  inline static const Tree kSecond = {{"a.txt", "two"}, {"sub/", ""}, {"sub/b.txt", "b"}};

 private:
  static std::string Description(const std::string& version, const std::string& link,
                                 const std::string& deltas = "{}") {
    return Document(R"({"last_fetch_time": 1700000000, "data_version": )" + version +
                    R"(, "download_link": )" + link + R"(, "diff_files": )" + deltas + "}");
  }

  Publisher publisher_;
  std::string honest_package_;
};

/// The last one is after a delta that was of no use.
enum class Outcome { kRefused, kUpToDate, kUpdated, kUpdatedInFull };

/// One way in which the server is hostile or broken, and what an update then does.
struct Row {
  std::string name;
  std::function<void(Scene&)> arrange;
  Outcome outcome;
  std::string says;  ///< Part of the library's words for it, when it is refused.
};

inline std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

/// A device on which version 1000001 is installed, with a volume that a bomb fills soon.
class HostileServerFixture : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kVolumeBytes = 32 << 20;
  static constexpr std::uint64_t kCacheBytes = 16 << 20;

  HostileServerFixture()
      : volume_(ScopedMount::Tmpfs("/volume1", kVolumeBytes)),
        cache_(ScopedMount::Tmpfs("/var/cache", kCacheBytes)) {}

  void SetUp() override {
    ConfigureDevice(scene_.GetPublisher(), {{"oui", kOnVolume}});
    SetReadTimeout("60");
    std::filesystem::create_directories(kWorkingDirectory);
    MakeTree("/tmp/outside", kOutside);
    scene_.BecomeHonest(Scene::kInstalled);
    ExpectUpdated(Update(), Scene::kInstalled);
    scene_.BecomeHonest();
  }

  /// An update with the cached description expired.
  static CommandResult Update() {
    namespace fs = std::filesystem;
    const fs::path cached = "/var/cache/data_update/database_info.json";
    if (fs::exists(cached)) {
      fs::last_write_time(cached, fs::file_time_type::clock::now() - std::chrono::hours(2));
    }
    RunningCommand tool({kTool, "update", "oui"},
                        {{"SYSTEM_WGETRC=/tmp/wgetrc"}, kWorkingDirectory, ""});
    if (!WaitUntil([&] { return !tool.Process().IsRunning(); }, kHangLimit)) {
      ADD_FAILURE() << "it hangs";
      tool.Process().Signal(SIGKILL);
    }
    return tool.Wait();
  }

  /// Everything that an update may change: the volume's files and the recorded state. What is noted
  /// of every run, successful or not, is none of it.
  static std::pair<Tree, Tree> TakeState() {
    Tree recorded = ReadTree("/var/lib/data_update");
    recorded.erase("history.jsonl");
    recorded.erase("cooldown.json");
    return {ReadTree("/volume1"), recorded};
  }

  static void ExpectNothingLeftBehind() {
    EXPECT_FALSE(std::filesystem::exists("/volume1/@tmp/data_update"));
    EXPECT_EQ(ListTree(kWorkingDirectory), std::vector<std::string>{});
    EXPECT_EQ(ReadTree("/tmp/outside"), kOutside);
    for (const auto& entry : std::filesystem::directory_iterator("/run/data_update")) {
      EXPECT_TRUE(IsFree(entry.path())) << entry.path();
    }
  }

  static void ExpectRefused(const CommandResult& result, const std::string& says) {
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, ::testing::StartsWith("tolmdbud: oui"));
    EXPECT_THAT(LastMessage() + "\n", ::testing::HasSubstr(says));
    // One line, and nothing in it that a terminal would act upon.
    const auto is_control = [](unsigned char c) { return std::iscntrl(c) != 0; };
    EXPECT_EQ(std::count_if(result.err.begin(), result.err.end(), is_control), 1) << result.err;
  }

  static void ExpectUpdated(const CommandResult& result, int version = Scene::kOffered,
                            const ::testing::Matcher<std::string>& notes = "") {
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.out, "oui: updated to " + std::to_string(version) + "\n");
    EXPECT_THAT(result.err, notes);
    EXPECT_EQ(ReadTree(kPrefix), version == Scene::kInstalled ? Scene::kFirst : Scene::kSecond);
    EXPECT_EQ(InstalledVersion("oui"), std::to_string(version));
  }

  /// What is said when the delta was of no use and the full package has been taken: one line.
  static ::testing::Matcher<std::string> FellBack() {
    return ::testing::MatchesRegex(
        "tolmdbud: oui delta 1000002: [ -~]+; the full package was taken, [0-9.]+ k?B\n");
  }

  /// An update with the row's server does what the row says; what is refused changes nothing and
  /// stands in the way of nothing.
  void UpdateEndsCleanly(const Row& row) {
    row.arrange(scene_);
    const auto before = TakeState();
    const CommandResult result = Update();
    if (row.outcome == Outcome::kUpdated || row.outcome == Outcome::kUpdatedInFull) {
      const bool fell_back = row.outcome == Outcome::kUpdatedInFull;
      ExpectUpdated(result, Scene::kOffered,
                    fell_back ? FellBack() : ::testing::Matcher<std::string>(""));
      ExpectNothingLeftBehind();
      return;
    }
    if (row.outcome == Outcome::kRefused) {
      ExpectRefused(result, row.says);
    } else {
      EXPECT_EQ(result.exit_status, 0) << result.err;
      EXPECT_EQ(result.out, "oui: up to date\n");
    }
    ExpectNothingLeftBehind();
    EXPECT_TRUE(TakeState() == before);
    SetReadTimeout("60");
    scene_.BecomeHonest();
    ExpectUpdated(Update());
  }

  Scene& GetScene() { return scene_; }

 private:
  static constexpr char kPrefix[] = "/volume1/@database/autoupdate/oui";
  static constexpr char kWorkingDirectory[] = "/tmp/cwd";
  // Far more than any of it takes.
  static constexpr std::chrono::seconds kHangLimit{120};
  inline static const Tree kOutside = {{"canary", "untouched"}, {"directory/", ""}, {"empty", ""}};

  const ScopedMount volume_;
  const ScopedMount cache_;
  Scene scene_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_HOSTILE_SERVER_H_
