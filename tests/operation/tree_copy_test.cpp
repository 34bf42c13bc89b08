#include "operation/tree_copy.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "operation/download_limit.h"
#include "operation/interrupt.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait.h"

namespace {

off_t readable_bytes = -1;  // Of a stick that is drawn out then; negative for one that stays.
std::function<void()> after_look;  // What happens to the tree after the first look at a file.

ssize_t ReadFromStick(int fd, void* buffer, std::size_t size, off_t at) {
  if (readable_bytes >= 0 && at >= readable_bytes) {
    errno = EIO;
    return -1;
  }
  using Call = ssize_t(int, void*, std::size_t, off_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "pread64"));
  return real(fd, buffer, size, at);
}

}  // namespace

ssize_t pread(int fd, void* buffer, std::size_t size, off_t at) {
  return ReadFromStick(fd, buffer, size, at);
}

int fstatat(int directory, const char* name, struct stat* status, int flags) noexcept {
  using Call = int(int, const char*, struct stat*, int);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "fstatat64"));
  const int result = real(directory, name, status, flags);
  if (after_look && std::string(name) == "oui_v1") {
    std::exchange(after_look, nullptr)();
  }
  return result;
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

const fs::path kTree = "/tmp/tree";
constexpr char kFile[] = "/tmp/copy";
constexpr char kPath[] = "packages/oui/oui_v1";

class TreeCopyTest : public ::testing::Test {
 protected:
  TreeCopyTest() { testing::WriteFile(kTree / kPath, content_); }

  static DownloadResult Copy(const std::string& path = kPath) {
    return CopyFromTree(kTree, path, kFile);
  }

  // More than one piece, and no whole number of them.
  const std::string content_ = std::string(700001, 'x') + "end";
};

TEST_F(TreeCopyTest, CopyIsTheFileAndTakesTheOldOnesPlace) {
  const mode_t mask = umask(0);
  testing::WriteFile("/tmp/elsewhere", "stays");
  fs::create_symlink("/tmp/elsewhere", kFile);
  const DownloadResult result = Copy();
  umask(mask);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.failure.reason, "");
  EXPECT_EQ(fs::status(kFile).permissions(), fs::perms{0644});
  EXPECT_EQ(testing::ReadFile(kFile), content_);
  EXPECT_FALSE(fs::is_symlink(kFile));
  EXPECT_EQ(testing::ReadFile("/tmp/elsewhere"), "stays");
}

TEST_F(TreeCopyTest, TreeItselfMayBeReachedByALink) {
  fs::create_directory_symlink(kTree, "/tmp/stick");
  EXPECT_EQ(CopyFromTree("/tmp/stick", kPath, kFile).exit_status, 0);
}

struct Row {
  std::string name;
  std::function<void()> make;
  std::string path;
  std::string says;
  std::string reason;
};

TEST_F(TreeCopyTest, NothingButAFileOfTheTreeIsCopied) {
  const fs::path oui = kTree / "packages/oui";
  testing::WriteFile("/tmp/secret", "secret");
  const std::vector<Row> rows = {
      {"missing", [] {}, "packages/none", "/tmp/tree/packages/none is not there",
       reasons::kDownloadFailed},
      {"missing on the way", [] {}, "none/oui_v1", "/tmp/tree/none is not there",
       reasons::kDownloadFailed},
      {"below a file", [] {}, "packages/oui/oui_v1/x", "oui_v1 is not there",
       reasons::kDownloadFailed},
      {"a directory", [] {}, "packages/oui", "packages/oui is no regular file",
       reasons::kLinkRefused},
      {"a link", [&] { fs::create_symlink("/tmp/secret", oui / "link"); }, "packages/oui/link",
       "oui/link is a link, and none is followed there", reasons::kLinkRefused},
      {"a link within the tree", [&] { fs::create_symlink("oui_v1", oui / "near"); },
       "packages/oui/near", "is a link", reasons::kLinkRefused},
      {"a link on the way", [] { fs::create_directory_symlink("/tmp", kTree / "away"); },
       "away/secret", "/tmp/tree/away is a link", reasons::kLinkRefused},
      {"a pipe", [&] { ASSERT_EQ(mkfifo((oui / "pipe").c_str(), 0600), 0); }, "packages/oui/pipe",
       "is no regular file", reasons::kLinkRefused},
      {"above the tree", [] {}, "../secret", "leads out of the copy", reasons::kLinkRefused},
      {"above it later", [] {}, "packages/../../secret", "leads out of the copy",
       reasons::kLinkRefused},
      {"the whole machine's", [] {}, "/tmp/secret", "leads out of the copy", reasons::kLinkRefused},
      {"none", [] {}, "", "leads out of the copy", reasons::kLinkRefused},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.make();
    testing::SyslogCapture::Clear();
    const DownloadResult result = Copy(row.path);
    EXPECT_LT(result.exit_status, 0);
    EXPECT_THAT(result.failure.text, HasSubstr(row.says));
    EXPECT_EQ(result.failure.reason, row.reason);
    EXPECT_EQ(result.reason, result.failure.text);
    EXPECT_EQ(testing::SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
              std::vector<std::string>{result.failure.text});
    EXPECT_FALSE(fs::exists(kFile));
  }
}

TEST_F(TreeCopyTest, FileThatIsReplacedAfterTheLookAtItIsNotCopied) {
  testing::WriteFile("/tmp/secret", "secret");
  const fs::path file = kTree / kPath;
  const std::vector<Row> rows = {
      {"by a pipe", [&] { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }, "",
       "oui_v1 is no regular file", reasons::kLinkRefused},
      {"by a directory", [&] { fs::create_directory(file); }, "", "oui_v1 is no regular file",
       reasons::kLinkRefused},
      {"by a link", [&] { fs::create_symlink("/tmp/secret", file); }, "",
       "oui_v1 cannot be read: Too many levels of symbolic links", reasons::kDownloadFailed},
      {"by nothing", [] {}, "", "oui_v1 is not there", reasons::kDownloadFailed},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove(file);
    testing::WriteFile(file, content_);
    after_look = [&] {
      fs::remove(file);
      row.make();
    };
    const DownloadResult result = Copy();
    EXPECT_LT(result.exit_status, 0);
    EXPECT_THAT(result.failure.text, HasSubstr(row.says));
    EXPECT_EQ(result.failure.reason, row.reason);
    EXPECT_FALSE(fs::exists(kFile));
  }
}

TEST_F(TreeCopyTest, VanishedTreeIsSaid) {
  fs::remove_all(kTree);
  EXPECT_THAT(Copy().failure.text, HasSubstr("/tmp/tree is not there"));
}

TEST_F(TreeCopyTest, StickThatIsDrawnOutInTheMiddleIsSaid) {
  readable_bytes = 500000;
  const DownloadResult result = Copy();
  readable_bytes = -1;
  EXPECT_LT(result.exit_status, 0);
  EXPECT_EQ(result.failure.reason, reasons::kDownloadFailed);
  EXPECT_EQ(result.failure.text,
            "/tmp/tree/packages/oui/oui_v1 cannot be read: Input/output error");
  EXPECT_THAT(result.failure.remedy, HasSubstr("is it still there?"));
}

TEST_F(TreeCopyTest, LimitOfFilesEndsItLikeADownload) {
  IgnoreFileSizeSignal();
  const FileSizeLimit limit(500000);
  const DownloadResult result = Copy();
  EXPECT_EQ(result.exit_status, 128 + SIGXFSZ);
  EXPECT_EQ(result.failure.reason, reasons::kTooLarge);
  EXPECT_EQ(fs::file_size(kFile), 500000u);
}

TEST_F(TreeCopyTest, PlaceThatCannotBeWrittenIsSaid) {
  const DownloadResult result = CopyFromTree(kTree, kPath, "/dev/full/x");
  EXPECT_LT(result.exit_status, 0);
  EXPECT_EQ(result.failure.reason, reasons::kDownloadFailed);
  EXPECT_EQ(result.failure.text, "/dev/full/x cannot be written: Not a directory");
}

TEST_F(TreeCopyTest, FullDiskIsNoRoomOnIt) {
  const auto small = testing::ScopedMount::Tmpfs("/tmp/small", 64 << 10);
  const DownloadResult result = CopyFromTree(kTree, kPath, "/tmp/small/copy");
  EXPECT_LT(result.exit_status, 0);
  EXPECT_EQ(result.failure.reason, reasons::kNoRoom);
  EXPECT_EQ(result.failure.text,
            "no room on /tmp/small: more is needed than the 0 B free beyond the 5 % reserve");
  EXPECT_EQ(result.reason, result.failure.text);
}

TEST_F(TreeCopyTest, SignalEndsIt) {
  const Interrupt interrupt;
  kill(getpid(), SIGTERM);
  ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
  const DownloadResult result = Copy();
  EXPECT_EQ(result.exit_status, 128 + SIGTERM);
  EXPECT_EQ(result.failure.reason, reasons::kInterrupted);
}

}  // namespace
}  // namespace tolm::operation
