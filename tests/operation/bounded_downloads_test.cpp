#include "operation/bounded_downloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "dataupdate/error.h"
#include "operation/failure.h"
#include "operation/interrupt.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/wait.h"
#include "tolm/exec.h"

namespace tolm::operation {
namespace {

using dataupdate::UpdateError;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// Blocks its signals before the server's threads begin.
struct Interruptible {
  Interrupt interrupt;
};

class BoundedDownloadsTest : public Interruptible, public ::testing::Test {
 protected:
  BoundedDownloadsTest() {
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                           std::to_string(server_.Port()) + R"("}})");
    std::filesystem::create_directories("/tmp/in");
  }

  int Download(const std::string& path) const {
    const char* const end = nullptr;
    return TLIBCExecl("/usr/bin/wget", 0, "-N", server_.Url(path).c_str(), "-O", "/tmp/in/file",
                      "-U", "agent", "--tries=1", end);
  }

  // What a download that came to this leads to.
  void DownloadInVain(const std::string& path, bool is_run = true) const {
    EXPECT_EQ(Download(path) > 0, is_run);
    throw UpdateError("Fail to download " + server_.Url(path), UpdateError::kGeneral);
  }

  testing::HttpServer server_;
};

TEST_F(BoundedDownloadsTest, ReasonOfAFailureIsAdded) {
  signal(SIGXFSZ, SIG_DFL);
  server_.SetBody("/x", "text");
  WithBoundedDownloads([&] { EXPECT_EQ(Download("/x"), 0); });
  EXPECT_EQ(testing::ReadFile("/tmp/in/file"), "text");
  EXPECT_EQ(signal(SIGXFSZ, SIG_IGN), SIG_IGN);
  EXPECT_THAT([&] { WithBoundedDownloads([&] { DownloadInVain("/missing"); }); },
              ThrowsMessage<ExplainedError>("Fail to download " + server_.Url("/missing") +
                                            " (the server answers with an error)"));
}

TEST_F(BoundedDownloadsTest, WhatHasNoRoomIsNotAskedFor) {
  const testing::ScopedMount small = testing::ScopedMount::Tmpfs("/tmp/in", 1 << 16);
  testing::WriteFile("/tmp/in/full", std::string(1 << 16, 'x'));
  EXPECT_THAT([&] { WithBoundedDownloads([&] { DownloadInVain("/x", false); }); },
              ThrowsMessage<ExplainedError>(HasSubstr("(it has ")));
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(BoundedDownloadsTest, SignalTakesTheFailuresPlace) {
  server_.SetBody("/x", "text");
  WithBoundedDownloads([&] {
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
  });
  EXPECT_THROW(WithBoundedDownloads([&] { DownloadInVain("/x", false); }), Interrupted);
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
}  // namespace tolm::operation
