#include "tools/log_mirror.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "dataupdate/file_lock.h"
#include "tests/support/logging_library.h"

namespace tolm::tool {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

// As libraries find it. Naming it here would link the tests' own capture of the log in its place.
void Log(int priority, const char* format, const char* text) {
  using Syslog = void(int, const char*, ...);
  const int saved_errno = errno;
  auto* const log = reinterpret_cast<Syslog*>(dlsym(RTLD_DEFAULT, "syslog"));
  errno = saved_errno;
  log(priority, format, text);
}

class LogMirrorTest : public ::testing::Test {
 protected:
  std::vector<std::pair<int, std::string>> lines_;
  LogMirror::Listener listener_ = [this](int priority, const std::string& line) {
    lines_.emplace_back(priority, line);
  };
};

TEST_F(LogMirrorTest, LinesAreToldAsTheyGoToTheLog) {
  const LogMirror mirror(listener_);
  Log(LOG_WARNING, "a %s b", "text");
  Log(LOG_DAEMON | LOG_ERR, "%s", "plain");
  EXPECT_THAT(lines_, ElementsAre(Pair(LOG_WARNING, "a text b"), Pair(LOG_ERR, "plain")));
}

TEST_F(LogMirrorTest, LinesOfTheLibraryAreTold) {
  const LogMirror mirror(listener_);
  { const dataupdate::FileLock lock("/run/data_update/x.lock", 0); }
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_THAT(lines_[0].second, HasSubstr("Acquire lock on file: /run/data_update/x.lock"));
  EXPECT_EQ(lines_[0].first, LOG_INFO);
}

TEST_F(LogMirrorTest, LinesOfAFortifiedLibraryAreTold) {
  const LogMirror mirror(listener_);
  tolm::testing::LogFromLibrary(LOG_NOTICE, "source", 7, "text");
  EXPECT_THAT(lines_, ElementsAre(Pair(LOG_NOTICE, "source:7 text")));
}

TEST_F(LogMirrorTest, NothingIsToldWithoutOne) {
  { const LogMirror mirror(listener_); }
  Log(LOG_WARNING, "%s", "afterwards");
  EXPECT_THAT(lines_, ElementsAre());
}

TEST_F(LogMirrorTest, ErrnoIsUnderstoodAndKept) {
  const LogMirror mirror(listener_);
  errno = ENOSPC;
  Log(LOG_ERR, "failed: %m", "");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(lines_, ElementsAre(Pair(LOG_ERR, "failed: No space left on device")));
}

TEST_F(LogMirrorTest, ErrnoIsUnderstoodAndKeptWhateverTheLogAndTheListenerDo) {
  std::string line;
  const LogMirror mirror([&line](int, const std::string& told) {
    line = told;
    errno = EBADF;
  });
  errno = ENOSPC;
  Log(LOG_ERR, "failed: %m", "");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(line, "failed: No space left on device");
}

TEST_F(LogMirrorTest, LongLinesAreWhole) {
  const LogMirror mirror(listener_);
  const std::string longest(100000, 'x');
  Log(LOG_INFO, "%s", longest.c_str());
  EXPECT_THAT(lines_, ElementsAre(Pair(LOG_INFO, longest)));
}

}  // namespace
}  // namespace tolm::tool
