// What the library asks of the platform and the C library, with calls of this program's own in
// their place.
#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dataupdate/io_utils.h"
#include "tests/src/thrown.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/info.h"

namespace {

struct Fakes {
  int exec_result = 0;
  std::string exec_writes;  // To the output file, as wget does before it fails.
  std::vector<std::string> exec_calls;
  std::vector<std::string> exec_arguments;
  int exec_options = 0;

  std::string user_agent = "agent/1 (test)";
  int user_agent_result = 0;
  std::string product;
  std::size_t user_agent_buffer = 0;

  std::string mkdir_path;
  std::vector<int> mkdir_values;
  int mkdir_result = 0;

  int statvfs_errno = 0;
  std::optional<time_t> now;

  // Directories look as if the file system did not tell the types of its entries.
  bool hide_types = false;
  int entries_before_failure = -1;
  int directory_errno = 0;
  int directories_before_failure = -1;
};
Fakes fakes;

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int TLIBCExecl(const char* path, int options, ...) {
  fakes.exec_calls.emplace_back(path);
  fakes.exec_options = options;
  fakes.exec_arguments.clear();
  va_list arguments;
  va_start(arguments, options);
  while (const char* argument = va_arg(arguments, const char*)) {
    fakes.exec_arguments.emplace_back(argument);
  }
  va_end(arguments);
  if (fakes.exec_arguments.size() > 3) {
    tolm::testing::WriteFile(fakes.exec_arguments[3], fakes.exec_writes);
  }
  return fakes.exec_result;
}

int TLIBTminfoUserAgentGet(const char* product, char* buffer, size_t size) {
  fakes.product = product;
  fakes.user_agent_buffer = size;
  std::strncpy(buffer, fakes.user_agent.c_str(), size);
  return fakes.user_agent_result;
}

int TOLMFSMkdirP(const char* path, int first, int second, int uid, int gid, int mode) {
  fakes.mkdir_path = path;
  fakes.mkdir_values = {first, second, uid, gid, mode};
  return fakes.mkdir_result;
}

// With _FILE_OFFSET_BITS=64 these two are the 64-bit symbols that the libraries call.
int statvfs(const char* path, struct statvfs* info) noexcept {
  if (fakes.statvfs_errno != 0) {
    errno = fakes.statvfs_errno;
    return -1;
  }
  static auto* const real = Real<int(const char*, struct statvfs*)>("statvfs64");
  return real(path, info);
}

DIR* opendir(const char* path) {
  if (fakes.directories_before_failure == 0) {
    errno = fakes.directory_errno;
    return nullptr;
  }
  if (fakes.directories_before_failure > 0) {
    --fakes.directories_before_failure;
  }
  static auto* const real = Real<DIR*(const char*)>("opendir");
  return real(path);
}

dirent* readdir(DIR* directory) {
  if (fakes.entries_before_failure == 0) {
    errno = fakes.directory_errno;
    return nullptr;
  }
  if (fakes.entries_before_failure > 0) {
    --fakes.entries_before_failure;
  }
  static auto* const real = Real<dirent*(DIR*)>("readdir64");
  dirent* const entry = real(directory);
  if (entry != nullptr && fakes.hide_types) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

time_t time(time_t* result) noexcept {
  timespec reading{};
  clock_gettime(CLOCK_REALTIME, &reading);
  const time_t now = fakes.now.value_or(reading.tv_sec);
  if (result != nullptr) {
    *result = now;
  }
  return now;
}
}
#pragma GCC visibility pop

namespace tolm::dataupdate {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using tolm::testing::MakeTree;
using tolm::testing::ReadFile;
using tolm::testing::SyslogCapture;
using tolm::testing::WriteFile;

constexpr char kOutput[] = "/tmp/output";
constexpr char kUrl[] = "http://host/path?a=b";

std::vector<std::string> Walk(const std::string& directory, bool recursive) {
  std::vector<std::string> paths;
  IOUtils().IterateDirectory(
      directory, [&](const std::string& path) { paths.push_back(path); }, recursive);
  return paths;
}

std::ptrdiff_t OpenDescriptors() {
  std::ptrdiff_t count = 0;
  for (int fd = 0; fd < 256; ++fd) {
    struct stat info;
    count += fstat(fd, &info) == 0 ? 1 : 0;
  }
  return count;
}

TEST(DownloadCallTest, WgetIsRunWithItsFixedArguments) {
  fakes = Fakes();
  IOUtils().Download(kOutput, kUrl);
  EXPECT_THAT(fakes.exec_calls, ElementsAre("/usr/bin/wget"));
  EXPECT_EQ(fakes.exec_options, 187);
  EXPECT_THAT(fakes.exec_arguments,
              ElementsAre("-N", kUrl, "-O", kOutput, "-U", "agent/1 (test)", "--dns-timeout=8",
                          "--connect-timeout=15", "--tries=3"));
}

TEST(DownloadCallTest, AnyResultButZeroFailsAndRemovesTheOutput) {
  for (const int result : {1, 3, 4, 8, 127, 143, 255, -1}) {
    for (const char* partial : {"", "partial"}) {
      fakes = Fakes();
      fakes.exec_result = result;
      fakes.exec_writes = partial;
      EXPECT_EQ(ErrorOf([] { IOUtils().Download(kOutput, kUrl); }),
                Thrown{std::string("Fail to wget url: ") + kUrl})
          << result;
      EXPECT_FALSE(std::filesystem::exists(kOutput)) << result;
      EXPECT_EQ(fakes.exec_calls.size(), 1U) << "no retry of its own";
    }
  }
}

TEST(DownloadCallTest, ResultZeroIsSuccessWithoutLookingAtTheContent) {
  for (const char* content : {"", "<html>anything</html>"}) {
    fakes = Fakes();
    fakes.exec_writes = content;
    IOUtils().Download(kOutput, kUrl);
    EXPECT_EQ(ReadFile(kOutput), content);
  }
}

TEST(DownloadCallTest, UrlThatLooksLikeAnOptionRunsNothing) {
  for (const std::string url : {"-", "-ilist", "--input-file=list", "-http://host/"}) {
    fakes = Fakes();
    WriteFile(kOutput, "old");
    EXPECT_EQ(ErrorOf([&] { IOUtils().Download(kOutput, url); }),
              Thrown{"Fail to wget url: " + url});
    EXPECT_THAT(fakes.exec_calls, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kOutput));
  }
}

TEST(DownloadCallTest, WithoutAUserAgentNothingIsRun) {
  fakes = Fakes();
  fakes.user_agent_result = -1;
  WriteFile(kOutput, "old");
  SyslogCapture::Clear();
  EXPECT_EQ(ErrorOf([] { IOUtils().Download(kOutput, kUrl); }),
            Thrown{"Fail to generate user agent string"});
  EXPECT_THAT(fakes.exec_calls, IsEmpty());
  EXPECT_EQ(ReadFile(kOutput), "old");
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(DownloadCallTest, UserAgentOfTheProductDatabaseIsLogged) {
  fakes = Fakes();
  SyslogCapture::Clear();
  IOUtils().Download(kOutput, kUrl);
  EXPECT_EQ(fakes.product, "database");
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_DEBUG),
              ElementsAre("Use agent/1 (test) as user agent string"));
}

TEST(UserAgentCallTest, PlatformIsAskedWithABufferOf1024Bytes) {
  fakes = Fakes();
  EXPECT_EQ(TolmGetUserAgent("some product"), "agent/1 (test)");
  EXPECT_EQ(fakes.product, "some product");
  EXPECT_EQ(fakes.user_agent_buffer, 1024U);
}

TEST(UserAgentCallTest, OnlyANegativeResultIsAFailure) {
  for (const int result : {0, 1, 1000}) {
    fakes = Fakes();
    fakes.user_agent_result = result;
    EXPECT_EQ(TolmGetUserAgent("p"), "agent/1 (test)");
  }
  for (const int result : {-1, -1000}) {
    fakes.user_agent_result = result;
    EXPECT_EQ(ErrorOf([] { TolmGetUserAgent("p"); }), Thrown{"Fail to generate user agent string"});
  }
}

TEST(UserAgentCallTest, LongestTextIsGivenWhole) {
  fakes = Fakes();
  fakes.user_agent = std::string(1023, 'u');
  EXPECT_EQ(TolmGetUserAgent("p"), fakes.user_agent);
}

TEST(MkdirCallTest, PlatformsDefaultsAreKept) {
  fakes = Fakes();
  IOUtils().TolmMkdir("/tmp/a/b");
  EXPECT_EQ(fakes.mkdir_path, "/tmp/a/b");
  EXPECT_THAT(fakes.mkdir_values, ElementsAre(0, 0, -1, -1, -1));
}

TEST(MkdirCallTest, AnyResultButZeroIsAFailure) {
  for (const int result : {-1, 1, 17}) {
    fakes = Fakes();
    fakes.mkdir_result = result;
    EXPECT_EQ(ErrorOf([] { IOUtils().TolmMkdir("/tmp/a"); }), Thrown{"Fail to create dir /tmp/a"});
  }
}

TEST(GetFsSizeCallTest, FailedSpaceQueryIsReported) {
  fakes = Fakes();
  for (const int number : {EIO, ENOSYS, ENOENT}) {
    fakes.statvfs_errno = number;
    EXPECT_EQ(ErrorOf([] { IOUtils().GetFsSize("/tmp"); }), Thrown{"Fail to get available space"});
  }
}

TEST(FileCreateOverCallTest, AgeMustBeStrictlyGreater) {
  fakes = Fakes();
  WriteFile("/tmp/file", "");
  struct stat info;
  ASSERT_EQ(stat("/tmp/file", &info), 0);
  struct Row {
    time_t age;
    int seconds;
    bool over;
  };
  std::vector<Row> rows = {{0, 0, false},  {1, 0, true},        {2, 0, true},
                           {0, -1, true},  {3600, 3600, false}, {3601, 3600, true},
                           {-1, 0, false}, {-5, -10, true}};
  if (sizeof(time_t) > sizeof(std::int32_t)) {  // The difference is one of 32 bits.
    const auto longer = [](std::int64_t age) { return static_cast<time_t>(age); };
    rows.push_back({longer(std::int64_t{1} << 31), 0, false});
    rows.push_back({longer((std::int64_t{1} << 32) + 5), 4, true});
    rows.push_back({longer((std::int64_t{1} << 32) + 5), 5, false});
  }
  for (const auto& row : rows) {
    fakes.now = info.st_mtime + row.age;
    EXPECT_EQ(IOUtils().FileCreateOver("/tmp/file", row.seconds), row.over)
        << row.age << " " << row.seconds;
  }
}

TEST(IterateDirectoryCallTest, EntriesOfUnknownTypeAreHandedOverAndNotEntered) {
  fakes = Fakes();
  MakeTree("/tmp/x", {{"a", ""}, {"d/b", ""}});
  fakes.hide_types = true;
  const std::vector<std::string> paths = Walk("/tmp/x", true);
  fakes = Fakes();
  // The directory itself and the one above it can only be told by their type.
  EXPECT_THAT(paths, UnorderedElementsAre("/tmp/x/a", "/tmp/x/d", "/tmp/x/.", "/tmp/x/.."));
}

TEST(IterateDirectoryCallTest, DirectoryThatCannotBeOpenedIsReportedWithTheSystemsText) {
  MakeTree("/tmp/x", {{"a", ""}, {"d/b", ""}});
  for (const int number : {EACCES, EMFILE}) {
    for (const int directories : {0, 1}) {
      const std::ptrdiff_t before = OpenDescriptors();
      fakes = Fakes();
      fakes.directories_before_failure = directories;
      fakes.directory_errno = number;
      const Thrown thrown = ErrorOf([] { Walk("/tmp/x", true); });
      fakes = Fakes();
      EXPECT_EQ(thrown, Thrown{std::strerror(number)}) << directories;
      EXPECT_EQ(OpenDescriptors(), before);
    }
  }
}

TEST(IterateDirectoryCallTest, ListingThatBreaksOffIsReportedWithTheSystemsText) {
  MakeTree("/tmp/x", {{"a", ""}, {"b", ""}, {"c", ""}});
  for (const int entries : {0, 2, 4}) {
    const std::ptrdiff_t before = OpenDescriptors();
    fakes = Fakes();
    fakes.entries_before_failure = entries;
    fakes.directory_errno = EIO;
    const Thrown thrown = ErrorOf([] { Walk("/tmp/x", false); });
    fakes = Fakes();
    EXPECT_EQ(thrown, Thrown{std::strerror(EIO)}) << entries;
    EXPECT_EQ(OpenDescriptors(), before);
  }
}

TEST(IterateDirectoryCallTest, ErrnoOfTheCallbackIsNotAFailureOfTheListing) {
  fakes = Fakes();
  MakeTree("/tmp/x", {{"a", ""}, {"b", ""}});
  int calls = 0;
  IOUtils().IterateDirectory(
      "/tmp/x",
      [&](const std::string&) {
        ++calls;
        errno = EIO;
      },
      false);
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace tolm::dataupdate
