#include "operation/download_failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

constexpr int kServerError = 8;
constexpr char kAddress[] = "http://server.example:8080/oui_v2";

Failure FailureAfter(int exit_status, const std::string& log_text = "",
                     const std::string& file = "/tmp/file") {
  WgetLog log;
  log.Add("--2026-11-21 10:00:00--  http://server.example:8080/oui_v2?device=1\n");
  log.Add("Connecting to server.example (server.example)|192.0.2.1|:8080... connected.\n");
  log.Add("HTTP request sent, awaiting response... \n" + log_text);
  return DownloadFailure(*ParseUrl(std::string(kAddress) + "?device=1"), exit_status, log, file);
}

struct StatusRow {
  int number;
  const char* text;
  const char* remedy;
};

TEST(DownloadFailureTest, StatusesHaveTheirNamesAndWhatToDo) {
  constexpr char kLater[] = "the server is overloaded or broken: try later";
  constexpr char kRefresh[] = "tolmdbud check --refresh asks what is offered now";
  for (const StatusRow& row : std::initializer_list<StatusRow>{
           {300, "HTTP status 300", ""},
           {400, "400 Bad Request", ""},
           {401, "401 Unauthorized",
            "user and password stand before the host in db_netloc in "
            "/usr/share/data_update/data_update.conf (user:password@host)"},
           {402, "HTTP status 402", ""},
           {403, "403 Forbidden", "ask who runs the server why it refuses this machine"},
           {404, "404 Not Found", kRefresh},
           {405, "HTTP status 405", ""},
           {407, "407 Proxy Authentication Required",
            "the proxy's user and password stand in the settings of wget"},
           {408, "408 Request Timeout", ""},
           {409, "HTTP status 409", ""},
           {410, "410 Gone", kRefresh},
           {411, "HTTP status 411", ""},
           {428, "HTTP status 428", ""},
           {429, "429 Too Many Requests", kLater},
           {430, "HTTP status 430", ""},
           {499, "HTTP status 499", ""},
           {500, "500 Internal Server Error", kLater},
           {501, "HTTP status 501", kLater},
           {502, "502 Bad Gateway", kLater},
           {503, "503 Service Unavailable", kLater},
           {504, "504 Gateway Timeout", kLater},
           {505, "HTTP status 505", kLater}}) {
    const Failure failure =
        FailureAfter(kServerError, "  HTTP/1.1 " + std::to_string(row.number) + " Of its own\n");
    EXPECT_EQ(failure.reason, reasons::kHttpStatus);
    EXPECT_EQ(failure.http_status, row.number);
    EXPECT_EQ(failure.text, row.text + std::string(" from ") + kAddress);
    EXPECT_EQ(failure.remedy, row.remedy) << row.number;
  }
}

TEST(DownloadFailureTest, StatusThatIsNoneOfAFailureSaysNothing) {
  const Failure failure = FailureAfter(kServerError, "  HTTP/1.1 299 Well\n");
  EXPECT_EQ(failure.reason, reasons::kDownloadFailed);
  EXPECT_EQ(failure.http_status, 0);
  EXPECT_EQ(failure.text, std::string("wget ended with status 8 for ") + kAddress);
}

TEST(DownloadFailureTest, WithoutAnAnswerTheEndOfWgetIsTold) {
  const std::string for_address = std::string(" for ") + kAddress;
  testing::WriteFile("/tmp/file", "");
  errno = EACCES;  // Of whatever was before.
  EXPECT_EQ(FailureAfter(0).reason, "");
  EXPECT_EQ(FailureAfter(1).text, "wget ended with status 1" + for_address);
  EXPECT_EQ(FailureAfter(1, "", "/tmp/missing").text, "wget ended with status 1" + for_address);
  EXPECT_EQ(FailureAfter(1, "", "/nowhere/file").text, std::string("what comes from ") + kAddress +
                                                           " cannot be written to /nowhere/file: "
                                                           "No such file or directory");
  EXPECT_EQ(FailureAfter(3).text,
            std::string("what comes from ") + kAddress + " cannot be written to /tmp/file");
  EXPECT_EQ(FailureAfter(7).text, "server.example:8080 does not answer as a web server does");
  EXPECT_EQ(FailureAfter(6).text, "wget ended with status 6" + for_address);
  EXPECT_EQ(FailureAfter(128).text, "wget ended with status 128" + for_address);
  EXPECT_EQ(FailureAfter(128 + SIGHUP).text,
            std::string("wget was ended by signal 1 before it had ") + kAddress);
  EXPECT_EQ(FailureAfter(128 + SIGKILL).text,
            std::string("wget was ended by signal 9 before it had ") + kAddress);
}

TEST(DownloadFailureTest, OfNoAddressNothingIsShownThatNobodyShallRead) {
  EXPECT_EQ(ShownUrl("http://me:secret@h/x?device=1#y"), "http://h/x");
  EXPECT_EQ(ShownUrl("no address?device=1"), "no address");
  EXPECT_EQ(ShownUrl("://me:secret@h/x#y"), "://h/x");
}

}  // namespace
}  // namespace tolm::operation
