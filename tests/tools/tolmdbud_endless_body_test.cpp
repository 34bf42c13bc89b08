// The installed tool against servers that send without an end: the run ends, says why, and leaves
// five per cent of the volume free all the time.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::uint64_t kVolumeBytes = 20 << 20;
constexpr std::uint64_t kEndlessBytes = std::uint64_t{1} << 40;
constexpr char kPackagePath[] = "/packages/oui_v2";
constexpr char kDescriptionPath[] = "/database_info/1";

const char kRoom[] =
    " bytes that there are for it in /volume1/@tmp/data_update while five per cent "
    "stay free)\n";

std::uint64_t AvailableOn(const char* volume) {
  struct statvfs space;
  return statvfs(volume, &space) == 0 ? std::uint64_t{space.f_bavail} * space.f_frsize : 0;
}

// Looks at a file system all the time, in a thread of its own.
class LeastAvailable {
 public:
  explicit LeastAvailable(const char* volume)
      : least_(AvailableOn(volume)), watcher_([this, volume] {
          while (!done_) {
            least_ = std::min(least_.load(), AvailableOn(volume));
            std::this_thread::yield();
          }
        }) {}
  ~LeastAvailable() { Stop(); }

  std::uint64_t Stop() {
    done_ = true;
    if (watcher_.joinable()) {
      watcher_.join();
    }
    return least_;
  }

 private:
  std::atomic<bool> done_{false};
  std::atomic<std::uint64_t> least_;
  std::thread watcher_;
};

HttpAnswer Endless() {
  std::ofstream("/tmp/endless").close();
  fs::resize_file("/tmp/endless", kEndlessBytes);
  HttpAnswer answer;
  answer.body_file = "/tmp/endless";
  return answer;
}

class TolmdbudEndlessBodyTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    InstallFirst();
    publisher_.Offer("oui", 2);
  }

  void ExpectBoundedFailure(const HttpAnswer& answer, const char* path, const std::string& reason) {
    publisher_.Server().SetAnswer(path, answer);
    LeastAvailable least("/volume1");
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_GE(least.Stop(), kVolumeBytes / 20);
    publisher_.Server().Reset(path);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    EXPECT_THAT(LastMessage() + "\n",
                AllOf(StartsWith("Fail to wget url: "),
                      HasSubstr(" (the server sends more than the "), HasSubstr(reason)));
    EXPECT_EQ(ReadTree(prefix_), first_);
    ExpectNothingLeft();
    publisher_.Offer("oui", 2);
    EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 2\n");
  }

  const ScopedMount volume_ = ScopedMount::Tmpfs("/volume1", kVolumeBytes);
};

TEST_F(TolmdbudEndlessBodyTest, BodyLargerThanTheVolumeIsCut) {
  ExpectBoundedFailure(Endless(), kPackagePath, kRoom);
}

TEST_F(TolmdbudEndlessBodyTest, BodyWithoutALengthIsCut) {
  HttpAnswer answer = Endless();
  answer.without_length = true;
  ExpectBoundedFailure(answer, kPackagePath, kRoom);
}

TEST_F(TolmdbudEndlessBodyTest, ChunksWithoutAnEndAreCut) {
  const std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
  std::ofstream file("/tmp/chunks", std::ios::binary);
  for (std::uint64_t written = 0; written < 2 * kVolumeBytes; written += chunk.size()) {
    file << chunk;
  }
  file.close();
  HttpAnswer answer;
  answer.headers = {{"Transfer-Encoding", "chunked"}};
  answer.without_length = true;
  answer.body_file = "/tmp/chunks";
  answer.pause_at = fs::file_size("/tmp/chunks");
  ExpectBoundedFailure(answer, kPackagePath, kRoom);
}

TEST_F(TolmdbudEndlessBodyTest, DescriptionWithoutAnEndIsCut) {
  ExpectBoundedFailure(Endless(), kDescriptionPath, " 4194304 bytes that a description may have)");
}

TEST_F(TolmdbudEndlessBodyTest, DeltaWithoutAnEndIsFollowedByTheFullPackage) {
  publisher_.Offer("oui", 2, {2});
  publisher_.Server().SetAnswer("/packages/oui_d2", Endless());
  LeastAvailable least("/volume1");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_GE(least.Stop(), kVolumeBytes / 20);
  EXPECT_EQ(result.out, "oui: updated to 2\n");
  EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbud: oui delta 2: no room on /volume1: more is "),
                                HasSubstr("; the full package was taken, ")));
}

TEST_F(TolmdbudEndlessBodyTest, PackageThatIsSaidToBeTooLargeIsNotAskedFor) {
  publisher_.Server().SetBody(kDescriptionPath,
                              R"({"deprecated": false, "db_list": {"oui": {"data_version": "2",
                                  "last_fetch_time": 1, "file_size": 1000000000000,
                                  "download_link": ")" +
                                  publisher_.Server().Url(kPackagePath) + R"("}}})");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("no room on /volume1: 1000 GB needed, "));
  EXPECT_THAT(LastMessage() + "\n", AllOf(HasSubstr(" (it has more than the "), HasSubstr(kRoom)));
  EXPECT_EQ(publisher_.Server().RequestCount(kPackagePath), 0u);
  ExpectNothingLeft();
}

TEST_F(TolmdbudEndlessBodyTest, VolumeWithLessThanFivePerCentTakesNothing) {
  WriteFile("/volume1/filler", std::string(kVolumeBytes * 97 / 100, 'x'));
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("no room on /volume1: more is needed than the 0 B "));
  EXPECT_THAT(LastMessage(), HasSubstr(" (it has more than the 0 bytes "));
  EXPECT_EQ(publisher_.Server().RequestCount(kPackagePath), 0u);
  ExpectNothingLeft();
}

TEST_F(TolmdbudEndlessBodyTest, ToolItselfIsNotEndedByAFileSizeLimit) {
  publisher_.PackFull("oui", 2, {{"large", std::string(1 << 20, 'x')}});
  // In blocks of 512 bytes: enough for the package, not for what is in it.
  const CommandResult result = RunCommand({"sh", "-c", "ulimit -f 128; exec tolmdbud update oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(LastMessage(), StartsWith("tolmarchive_extract "));
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

}  // namespace
}  // namespace tolm::testing
