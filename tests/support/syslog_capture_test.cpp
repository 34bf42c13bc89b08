#include "tests/support/syslog_capture.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "tests/support/logging_library.h"

namespace tolm::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(SyslogCapture, KeepsPriorityFormatAndText) {
  syslog(LOG_DAEMON | LOG_ERR, "%s has %d", "this", 3);
  const std::vector<SyslogLine> lines = SyslogCapture::Lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].priority, LOG_DAEMON | LOG_ERR);
  EXPECT_EQ(lines[0].format, "%s has %d");
  EXPECT_EQ(lines[0].text, "this has 3");
}

TEST(SyslogCapture, SeesCallsOfSharedLibraries) {
  LogFromLibrary(LOG_NOTICE, "place.cpp", 12, "done");
  EXPECT_THAT(SyslogCapture::Texts(LOG_NOTICE), ElementsAre("place.cpp:12 done"));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE), ElementsAre("done"));
}

TEST(SyslogCapture, TextsAreOfOneSeverityOnly) {
  syslog(LOG_ERR, "bad");
  syslog(LOG_USER | LOG_INFO, "good");
  EXPECT_THAT(SyslogCapture::Texts(LOG_INFO), ElementsAre("good"));
  EXPECT_THAT(SyslogCapture::Texts(LOG_DEBUG), IsEmpty());
}

TEST(SyslogCapture, ClearForgetsEverything) {
  syslog(LOG_ERR, "bad");
  SyslogCapture::Clear();
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(SyslogCapture, ErrnoIsFilledInAndKept) {
  errno = ENOENT;
  const std::string format = "%s: %m";  // Compilers warn of "%m" where they can see it.
  syslog(LOG_ERR, format.c_str(), "failed");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(SyslogCapture::Texts(LOG_ERR), ElementsAre("failed: No such file or directory"));
}

TEST(SyslogCapture, KeepsLinesOfSeveralThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int line = 0; line < 100; ++line) {
        syslog(LOG_INFO, "line %d", line);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(SyslogCapture::Lines().size(), 400U);
}

TEST(SyslogCapture, OnlyAPlaceIsCutOff) {
  EXPECT_EQ(SyslogCapture::WithoutPlace("a.cpp:7 a text"), "a text");
  EXPECT_EQ(SyslogCapture::WithoutPlace("a.cpp:x a text"), "a.cpp:x a text");
  EXPECT_EQ(SyslogCapture::WithoutPlace("a.cpp: a text"), "a.cpp: a text");
  EXPECT_EQ(SyslogCapture::WithoutPlace(":7 a text"), ":7 a text");
  EXPECT_EQ(SyslogCapture::WithoutPlace("text"), "text");
  EXPECT_EQ(SyslogCapture::WithoutPlace("a text: 7 b"), "a text: 7 b");
}

}  // namespace
}  // namespace tolm::testing
