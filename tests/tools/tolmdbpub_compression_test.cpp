// How packages are compressed: chosen by the publisher, told by its commands, read by devices.

#include "tests/support/noise.h"
#include "tests/tools/device.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

class CompressionTest : public RepositoryTest {
 protected:
  static void Set(const std::vector<std::string>& options) {
    std::vector<std::string> command = {"set", repo_};
    command.insert(command.end(), options.begin(), options.end());
    const CommandResult set = Pub(command);
    ASSERT_EQ(set.exit_status, 0) << set.err;
    EXPECT_EQ(set.out + set.err, "");
  }

  static Json::Value List() {
    WriteFile("/tmp/list.json", Pub({"list", repo_, "--json"}).out);
    return ReadJson("/tmp/list.json");
  }

  // Of one version: "xz", or "xz zstd" with its delta.
  static std::string Compressions(int number) {
    const Json::Value release = List()["databases"][0]["releases"][number - 1];
    const std::string full = release["full"]["compression"].asString();
    return release["delta"].isNull() ? full
                                     : full + ' ' + release["delta"]["compression"].asString();
  }

  static std::string PayloadOf(const fs::path& package) {
    const std::string bytes = ReadFile(package);
    std::size_t signature = 0;
    for (std::size_t i = bytes.size() - 16; i < bytes.size() - 8; ++i) {
      signature = signature * 256 + static_cast<unsigned char>(bytes[i]);
    }
    return bytes.substr(0, bytes.size() - 16 - signature);
  }

  // Large enough, and so that patches of it are what xz packs best.
  const Tree first_ = {{"numbers", Numbers(60000)}, {"noise", Noise(60000)}};
  const Tree second_ = {{"numbers", Numbers(60000) + Numbers(30000, 2)}, {"noise", Noise(60000)}};
  const Tree third_ = {{"numbers", Numbers(60000) + Numbers(30000, 3)}, {"noise", Noise(60000)}};
};

TEST_F(CompressionTest, DevicesFollowWhateverTheSettingsSay) {
  RunningServer server(repo_);
  Set({"--base-url", server.Url(""), "--chain-share", "1000", "--compression", "xz"});
  MustRelease(first_);
  ASSERT_EQ(Pub({"install-config", repo_, "/"}).exit_status, 0);
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_TRUE(ReadTree(kVolumePrefix / "oui") == first_);
  Set({"--compression", "zstd"});
  MustRelease(second_);
  Set({"--compression", "auto", "--compression-window", "1"});
  MustRelease(third_);
  EXPECT_EQ(Compressions(1), "xz");
  EXPECT_EQ(Compressions(2), "zstd zstd");
  EXPECT_EQ(Compressions(3), "xz xz");
  EXPECT_EQ(Pub({"check", repo_}).out, "in order: 5 packages (3 xz, 2 zstd), 2 deltas replayed\n");
  // Without full packages only deltas can lead on.
  fs::rename(InPublic("packages/oui/oui_v1000003"), "/tmp/aside");
  fs::remove("/var/cache/data_update/database_info.json");
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 0) << update.err;
  EXPECT_TRUE(ReadTree(kVolumePrefix / "oui") == third_);
}

TEST_F(CompressionTest, IsToldByEveryCommand) {
  Set({"--compression", "xz", "--compression-window", "8"});
  MustRelease(first_);
  EXPECT_EQ(List()["compression"], "xz");
  EXPECT_EQ(List()["compression_window_mib"], 8);
  EXPECT_THAT(Pub({"list", repo_}).out,
              AllOf(HasSubstr("\ncompression  xz, window 8 MiB\n"),
                    ContainsRegex("  full [0-9,]+ bytes as xz, no delta")));
  const fs::path package = InPublic("packages/oui/oui_v1000001");
  EXPECT_THAT(Pub({"inspect", package}).out, HasSubstr("\ncompression xz\n"));
  EXPECT_EQ(Pub({"check", repo_}).out, "in order: 1 package (1 xz), 0 deltas replayed\n");
  const std::string payload = PayloadOf(package);
  Set({"--compression", "zstd"});
  const CommandResult resign = Pub({"resign", repo_, "--force"});
  EXPECT_EQ(resign.out, "1 package is signed anew below packages-2, compressed as before: 1 xz\n");
  EXPECT_TRUE(PayloadOf(InPublic("packages-2/oui/oui_v1000001")) == payload);
  EXPECT_EQ(Compressions(1), "xz");
  fs::remove(InPublic("packages-2/oui/oui_v1000001"));
  EXPECT_TRUE(List()["databases"][0]["releases"][0]["full"]["compression"].isNull());
  EXPECT_THAT(Pub({"list", repo_}).out, ContainsRegex("  full [0-9,]+ bytes, no delta"));
}

TEST_F(CompressionTest, OfASinglePackageIsChosenWithIt) {
  MakeTree(source_, first_);
  const auto pack = [](const std::vector<std::string>& options) {
    std::vector<std::string> command = {"pack",
                                        source_,
                                        "/tmp/oui_v7",
                                        "--name",
                                        "oui",
                                        "--kind",
                                        "full",
                                        "--version",
                                        "7",
                                        "--key",
                                        keys_ / "signing.key",
                                        "--cert",
                                        keys_ / "signing.pem"};
    command.insert(command.end(), options.begin(), options.end());
    return Pub(command).exit_status;
  };
  for (const std::string compression : {"zstd", "xz"}) {
    ASSERT_EQ(pack({"--compression", compression}), 0);
    EXPECT_THAT(Pub({"inspect", "/tmp/oui_v7"}).out,
                HasSubstr("\ncompression " + compression + "\n"));
  }
  ASSERT_EQ(pack({}), 0);
  EXPECT_THAT(Pub({"inspect", "/tmp/oui_v7"}).out, HasSubstr("\ncompression xz\n"));
  EXPECT_EQ(pack({"--compression", "bzip2"}), 2);
  EXPECT_EQ(pack({"--compression-window", "5"}), 2);
}

TEST_F(CompressionTest, RepositoriesOfEarlierProgramsAreAuto) {
  MakeFormer();
  MustRelease(first_);
  EXPECT_EQ(ReadJson(repo_ / "state/settings.json")["format"], 2) << "which that one reads";
  EXPECT_EQ(List()["compression"], "auto");
  EXPECT_EQ(Compressions(1), "xz");
  Set({"--compression", "zstd"});
  EXPECT_EQ(ReadJson(repo_ / "state/settings.json")["format"], 4) << "which that one refuses";
  Set({"--compression", "auto"});
  EXPECT_EQ(ReadJson(repo_ / "state/settings.json")["format"], 2);
}

}  // namespace
}  // namespace tolm::testing
