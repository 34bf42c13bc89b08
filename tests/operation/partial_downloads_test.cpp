#include "operation/partial_downloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "operation/guarded_wget.h"
#include "operation/own_ground.h"
#include "operation/taken_from.h"
#include "tests/support/mounts.h"
#include "tests/tools/signed_server.h"

namespace {

bool refuses_links = false;

}  // namespace

// A file system where a file has one name, when a test wants that.
int linkat(int from_directory, const char* from, int to_directory, const char* to,
           int flags) noexcept {
  if (refuses_links) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_linkat, from_directory, from, to_directory, to, flags));
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using tolm::testing::ReadFile;
using tolm::testing::ScopedMount;
using tolm::testing::SignedServer;
using tolm::testing::Tool;
using tolm::testing::WriteFile;

constexpr char kPackage[] = "packages/oui_v2";
constexpr char kFile[] = "/volume1/@tmp/data_update/oui_v2";
const fs::path kPartials = "/volume1/@database/partial-downloads";

class PartialDownloadTest : public ::testing::Test {
 protected:
  PartialDownloadTest() {
    content_ = server_.Package("full", 2, {{"a.txt", std::string(300000, 'a')}});
    offered_ = server_.Offered(kPackage, content_);
    server_.Describe(2, offered_);
    EXPECT_EQ(Tool({"check"}).exit_status, 10);
    link_ = server_.Server().Url(std::string("/") + kPackage);
    ground_ = std::make_unique<OwnGround>("/volume1", "/volume1/@database/autoupdate/oui");
    EXPECT_TRUE(ground_->Make("/volume1/@tmp/data_update"));
  }
  ~PartialDownloadTest() override { refuses_links = false; }

  fs::path Kept() const { return kPartials / offered_.sha384; }

  /// A download that ends early with so much of the package, of which the library removes its file.
  void EndEarly(std::size_t bytes) {
    {
      const PartialDownload partial(link_, kFile);
      ASSERT_TRUE(partial.IsKept());
      WriteFile(kFile, content_.substr(0, bytes));
      EXPECT_EQ(partial.Received(), bytes);
    }
    fs::remove(kFile);
  }

  SignedServer server_;
  std::string content_;
  offer::PackageOffer offered_;
  std::string link_;
  std::unique_ptr<OwnGround> ground_;
};

TEST_F(PartialDownloadTest, IsOneFileWithTheLibrarysSoThatAKillKeepsIt) {
  const PartialDownload partial(link_, kFile);
  struct stat file;
  struct stat kept;
  ASSERT_EQ(stat(kFile, &file), 0);
  ASSERT_EQ(stat(Kept().c_str(), &kept), 0);
  EXPECT_EQ(file.st_ino, kept.st_ino);
}

TEST_F(PartialDownloadTest, WhereAFileHasOneNameItIsMovedAndMovedBack) {
  refuses_links = true;
  EndEarly(1000);
  EXPECT_EQ(ReadFile(Kept()), content_.substr(0, 1000));
  EXPECT_EQ(fs::status(Kept()).permissions(), fs::perms(0600));
  PartialDownload partial(link_, kFile);
  EXPECT_EQ(partial.Received(), 1000u);
  WriteFile(kFile, content_);
  EXPECT_TRUE(partial.IsWhole([] {}));
  partial.Complete();
  EXPECT_EQ(ReadFile(kFile), content_);
  EXPECT_FALSE(fs::exists(kPartials));
}

TEST_F(PartialDownloadTest, OfTwoTheLargerOneStays) {
  for (const bool is_more : {false, true}) {
    EndEarly(1000);
    {
      PartialDownload partial(link_, kFile);
      partial.BeginAnew();
      WriteFile(kFile, content_.substr(0, is_more ? 2000 : 500));
      partial.Settle();
      EXPECT_EQ(partial.Received(), is_more ? 2000u : 1000u) << "what another server goes on with";
    }
    EXPECT_EQ(fs::file_size(Kept()), is_more ? 2000u : 1000u);
    fs::remove_all(kPartials);
    fs::remove(kFile);
  }
}

TEST_F(PartialDownloadTest, NothingIsKeptOfNothing) {
  EndEarly(0);
  EXPECT_FALSE(fs::exists(kPartials));
}

TEST_F(PartialDownloadTest, NothingIsKeptElsewhereOrOfAnotherLink) {
  EXPECT_FALSE(PartialDownload(link_, "/tmp/oui_v2").IsKept());
  EXPECT_FALSE(PartialDownload(link_ + 'x', kFile).IsKept());
  ground_.reset();
  EXPECT_FALSE(PartialDownload(link_, kFile).IsKept());
  EXPECT_FALSE(fs::exists(kPartials));
}

TEST_F(PartialDownloadTest, NothingIsKeptOfASmallPackage) {
  const std::string small = server_.Package("full", 2, {{"a.txt", std::string(100000, 'a')}});
  server_.Describe(2, server_.Offered(kPackage, small));
  EXPECT_EQ(Tool({"check"}).exit_status, 10);
  EXPECT_FALSE(PartialDownload(link_, kFile).IsKept());
  EXPECT_FALSE(fs::exists(kPartials));
}

// What is there belongs to other packages, or to nobody.
TEST_F(PartialDownloadTest, WhereNothingIsKeptNothingIsDone) {
  EndEarly(1000);
  const std::string small = server_.Package("full", 2, {{"a.txt", std::string(1000, 'a')}});
  server_.Serve("packages/small", small);
  server_.Describe(2, offered_, {{2, server_.Offered("packages/small", small)}});
  EXPECT_EQ(Tool({"check"}).exit_status, 10);
  WriteFile(kFile, small);
  PartialDownload partial(server_.Server().Url("/packages/small"), kFile);
  EXPECT_FALSE(partial.IsKept());
  partial.BeginAnew();
  partial.Forget();
  partial.Settle();
  partial.Complete();
  EXPECT_EQ(ReadFile(kFile), small);
  EXPECT_EQ(fs::file_size(Kept()), 1000u);
}

// On a volume that keeps no owners others can put one there.
TEST_F(PartialDownloadTest, LinkInThePlaceOfTheFileIsNotFollowed) {
  refuses_links = true;
  WriteFile("/tmp/elsewhere", "stays");
  {
    const PartialDownload partial(link_, kFile);
    fs::remove(kFile);
    fs::create_symlink("/tmp/elsewhere", kFile);
  }
  EXPECT_EQ(fs::status("/tmp/elsewhere").permissions(), fs::perms(0644));
  EXPECT_FALSE(fs::is_symlink(Kept()));
}

TEST_F(PartialDownloadTest, WithLittleRoomNothingIsKeptBesideWhatBeginsAnew) {
  for (const bool is_little : {false, true}) {
    ground_.reset();
    const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 2 << 20);
    ground_ = std::make_unique<OwnGround>("/volume1", "/volume1/@database/autoupdate/oui");
    ASSERT_TRUE(ground_->Make("/volume1/@tmp/data_update"));
    EndEarly(200000);
    WriteFile("/volume1/other", std::string(is_little ? 1500000 : 1000000, 'x'));
    PartialDownload partial(link_, kFile);
    partial.BeginAnew();
    EXPECT_EQ(fs::exists(Kept()) && fs::file_size(Kept()) == 200000, !is_little);
    EXPECT_EQ(partial.Received(), 0u);
  }
}

TEST_F(PartialDownloadTest, NothingIsKeptOnAVolumeWithoutRoom) {
  for (const bool is_full : {false, true}) {
    ground_.reset();
    const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 2 << 20);
    ground_ = std::make_unique<OwnGround>("/volume1", "/volume1/@database/autoupdate/oui");
    ASSERT_TRUE(ground_->Make("/volume1/@tmp/data_update"));
    EndEarly(200000);
    WriteFile("/volume1/other", std::string(is_full ? 1850000 : 1000000, 'x'));
    TidyPartials();
    EXPECT_EQ(fs::exists(Kept()), !is_full);
  }
}

TEST_F(PartialDownloadTest, VolumeThatIsGivenUpKeepsNothingAndGetsNothing) {
  EndEarly(1000);
  ground_.reset();
  RemovePartialsOf("/volume1");
  EXPECT_FALSE(fs::exists(kPartials));
  const ScopedMount other = ScopedMount::Tmpfs("/volume2", 2 << 20);
  RemovePartialsOf("/volume2");
  EXPECT_TRUE(fs::is_empty("/volume2"));
}

TEST_F(PartialDownloadTest, WhatADirectoryGivesGoesOnWithNothing) {
  EndEarly(1000);
  EXPECT_EQ(KeptBytesOf(link_), 1000u);
  const TakenFrom directory("/tmp");
  EXPECT_FALSE(PartialDownload(link_, kFile).IsKept());
  EXPECT_EQ(KeptBytesOf(link_), 0u) << "it takes room";
}

TEST_F(PartialDownloadTest, SettingsOfWgetSayTheRateAndThatItGoesOn) {
  WriteFile("/usr/tolm/etc/data_update/operation.conf", R"({"download_rate_kib": 200})");
  std::string settings;
  const auto run = [&](const std::string&) {
    settings = ReadFile(getenv("WGETRC"));
    return 1;
  };
  PartialDownload partial(link_, kFile);
  RunGuarded(link_, kFile, run, &partial);
  EXPECT_THAT(settings, ::testing::AllOf(::testing::HasSubstr("\nlimit_rate = 200k\n"),
                                         ::testing::HasSubstr("\ncontinue = on\n")));
  RunGuarded(link_, "/tmp/other", run);
  EXPECT_THAT(settings, ::testing::Not(::testing::HasSubstr("continue")));
}

// A server that sends all but what is there already.
TEST_F(PartialDownloadTest, WrongBeginningCostsOneDownloadMore) {
  {
    const PartialDownload partial(link_, kFile);
    WriteFile(kFile, std::string(1000, 'x'));
  }
  fs::remove(kFile);
  int asked = 0;
  const auto run = [&](const std::string&) {
    ++asked;
    const std::string received = ReadFile(kFile);
    WriteFile(kFile, received + content_.substr(received.size()));
    return 0;
  };
  PartialDownload partial(link_, kFile);
  const DownloadResult result = RunGuarded(link_, kFile, run, &partial);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(ReadFile(kFile), content_);
  EXPECT_EQ(asked, 2);
  EXPECT_FALSE(fs::exists(kPartials));
}

TEST_F(PartialDownloadTest, ServerThatBreaksOffAndBringsNothingIsAskedOnce) {
  constexpr int kBrokenOff = 4;
  int asked = 0;
  const auto run = [&](const std::string&) {
    if (++asked == 3) {
      throw std::runtime_error("again and again");
    }
    return kBrokenOff;
  };
  PartialDownload partial(link_, kFile);
  const DownloadResult result = RunGuarded(link_, kFile, run, &partial);
  EXPECT_EQ(result.exit_status, kBrokenOff);
  EXPECT_EQ(result.received_bytes, 0u);
  EXPECT_EQ(asked, 1);
}

}  // namespace
}  // namespace tolm::operation
