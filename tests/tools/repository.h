#ifndef TOLM_TESTS_TOOLS_REPOSITORY_H_
#define TOLM_TESTS_TOOLS_REPOSITORY_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace tolm::testing {

inline constexpr char kPub[] = "/usr/bin/tolmdbpub";

/// Runs the installed tolmdbpub to its end.
inline CommandResult Pub(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {kPub};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunCommand(command);
}

/// As ::testing::Test, with keys and an empty repository that was made by the installed programs.
class RepositoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Pub({"keygen", keys_, "--no-passphrase"}).exit_status, 0);
    const CommandResult init = Pub({"init", repo_, "--base-url", kBaseUrl, "--key",
                                    keys_ / "signing.key", "--cert", keys_ / "signing.pem"});
    ASSERT_EQ(init.exit_status, 0) << init.err;
    ASSERT_EQ(init.err + init.out, "");
  }

  /// Makes of the repository what a program that signs no descriptions would have made.
  static void MakeFormer(const std::filesystem::path& repo = repo_) {
    Json::Value settings = ReadJson(repo / "state/settings.json");
    for (const char* member :
         {"info_key", "info_certificate", "repository", "description_days", "revocations"}) {
      settings.removeMember(member);
    }
    settings["format"] = 2;
    WriteJson(repo / "state/settings.json", settings);
    Json::Value catalog = ReadJson(repo / "state/catalog.json");
    catalog.removeMember("counter");
    catalog.removeMember("former_roots");
    catalog["format"] = 2;
    WriteJson(repo / "state/catalog.json", catalog);
    Json::Value description = ReadJson(repo / "public/database_info/1");
    description.removeMember("signed");
    description.removeMember("signature");
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    WriteFile(repo / "public/database_info/1", Json::writeString(compact, description) + '\n');
  }

  /// Releases these files as a version of "oui".
  CommandResult Release(const Tree& files, std::vector<std::string> options = {}) const {
    std::filesystem::remove_all(source_);
    MakeTree(source_, files);
    options.insert(options.begin(), {"release", repo_, "oui", source_});
    return Pub(options);
  }
  void MustRelease(const Tree& files, const std::vector<std::string>& options = {}) const {
    const CommandResult result = Release(files, options);
    ASSERT_EQ(result.exit_status, 0) << result.err;
  }

  static std::filesystem::path InPublic(const std::string& path) { return repo_ / "public" / path; }

  static Json::Value ReadJson(const std::filesystem::path& path) {
    std::istringstream in(ReadFile(path));
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) << errors;
    return value;
  }
  static void WriteJson(const std::filesystem::path& path, const Json::Value& value) {
    WriteFile(path, value.toStyledString());
  }
  static Json::Value Description() { return ReadJson(InPublic("database_info/1")); }
  static Json::Value Catalog() { return ReadJson(repo_ / "state/catalog.json"); }

  /// The versions whose deltas are offered.
  static std::vector<std::string> OfferedDeltas() {
    return Description()["db_list"]["oui"]["diff_files"].getMemberNames();
  }

  static void ExpectInOrder() {
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
    EXPECT_EQ(check.err, "");
  }

  /// One line of the program's own, and the exit status of a failure.
  static void ExpectFailure(const CommandResult& result,
                            const ::testing::Matcher<std::string>& message) {
    EXPECT_EQ(result.exit_status, 1) << result.out;
    EXPECT_THAT(result.err, ::testing::AllOf(::testing::StartsWith("tolmdbpub: "), message));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }

  static constexpr char kBaseUrl[] = "http://127.0.0.1:1/db";
  inline static const std::filesystem::path keys_ = "/tmp/keys";
  inline static const std::filesystem::path repo_ = "/tmp/repo";
  inline static const std::filesystem::path source_ = "/tmp/source";
};

/// tolmdbpub serve, until the end of this object.
class RunningServer {
 public:
  explicit RunningServer(const std::filesystem::path& repository)
      : command_({kPub, "serve", repository}) {
    EXPECT_TRUE(WaitUntil([this] { return command_.Out().find('\n') != std::string::npos; }));
    port_ = command_.Out().substr(0, command_.Out().find('\n'));
  }

  std::string Url(const std::string& path) const { return "http://127.0.0.1:" + port_ + path; }
  RunningCommand& Command() { return command_; }

 private:
  RunningCommand command_;
  std::string port_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_REPOSITORY_H_
