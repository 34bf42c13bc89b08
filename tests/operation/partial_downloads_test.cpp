#include "operation/partial_downloads.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>

#include "base/descriptor.h"
#include "base/rules.h"
#include "operation/download_bounds.h"
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

// Of this very package, and yet no help.
TEST_F(PartialDownloadTest, WhatCannotBeGoneOnWithGoesWhereThePackageNeedsItsRoom) {
  ground_.reset();
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", 2 << 20);
  ground_ = std::make_unique<OwnGround>("/volume1", "/volume1/@database/autoupdate/oui");
  ASSERT_TRUE(ground_->Make("/volume1/@tmp/data_update"));
  EndEarly(200000);
  ASSERT_EQ(chmod(Kept().c_str(), 0644), 0);
  WriteFile("/volume1/other", std::string(1600000, 'x'));
  EXPECT_TRUE(DownloadBounds().Fits({StepKind::kDownload, kFile, link_}));
  EXPECT_FALSE(fs::exists(Kept()));
  WriteFile("/volume1/other", std::string(1900000, 'x'));
  EXPECT_FALSE(DownloadBounds().Fits({StepKind::kDownload, kFile, link_}));
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

struct KeptRow {
  const char* what;
  std::size_t bytes;
  mode_t mode;
  uid_t owner;
  bool has_other_name;
  bool is_gone_on_with;
};

TEST_F(PartialDownloadTest, OnlyAFileOfRootsThatIsNotLongerIsGoneOnWith) {
  EndEarly(1000);
  const std::size_t whole = content_.size();
  for (const KeptRow& row : std::initializer_list<KeptRow>{
           {"whole", whole, 0600, 0, false, true},
           {"run by root", 1000, 0700, 0, false, true},
           {"longer", whole + 1, 0600, 0, false, false},
           {"read by others", 1000, 0604, 0, false, false},
           {"read by the group", 1000, 0640, 0, false, false},
           {"somebody else's", 1000, 0600, 1000, false, false},
           {"somebody else's, longer", whole + 1, 0600, 1000, false, false},
           {"has another name", 1000, 0600, 0, true, false}}) {
    SCOPED_TRACE(row.what);
    fs::remove(Kept());
    WriteFile(Kept(), (content_ + 'x').substr(0, row.bytes));
    ASSERT_EQ(chmod(Kept().c_str(), row.mode), 0);
    ASSERT_EQ(chown(Kept().c_str(), row.owner, 0), 0);
    if (row.has_other_name) {
      fs::create_hard_link(Kept(), "/volume1/other-name");
    }
    EXPECT_EQ(KeptBytesOf(link_), row.is_gone_on_with ? row.bytes : 0);
    const PartialDownload partial(link_, kFile);
    EXPECT_EQ(partial.Received(), row.is_gone_on_with ? row.bytes : 0);
  }
  EXPECT_EQ(ReadFile("/volume1/other-name"), content_.substr(0, 1000));
}

TEST_F(PartialDownloadTest, WhatSomebodyStillWritesIsGoneOnWithInACopy) {
  EndEarly(200000);
  WriteFile(Kept().string() + ".copy", "of an operation that was killed");
  const base::Descriptor writer(open(Kept().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  ASSERT_TRUE(writer.IsOpen());
  {
    const PartialDownload partial(link_, kFile);
    EXPECT_EQ(write(writer.Get(), "xyz", 3), 3);
    EXPECT_EQ(ReadFile(kFile), content_.substr(0, 200000));
    EXPECT_EQ(fs::status(Kept()).permissions(), fs::perms(0600));
  }
  EXPECT_EQ(ReadFile(Kept()), content_.substr(0, 200000));
  EXPECT_FALSE(fs::exists(Kept().string() + ".copy"));
}

TEST_F(PartialDownloadTest, WhatNothingNamesGoesAndTheDirectoryWithTheLast) {
  EndEarly(1000);
  const fs::path other = kPartials / std::string(96, 'a');
  WriteFile(other, "other");
  { const PartialDownload partial(link_, kFile); }
  fs::remove(kFile);
  EXPECT_FALSE(fs::exists(other)) << "another download begins";
  WriteFile(other, "other");
  RemoveOtherPartials(link_);
  EXPECT_FALSE(fs::exists(other)) << "room is needed";
  EXPECT_EQ(KeptBytesOf(link_), 1000u);
  WriteFile(other, "other");
  TidyPartials();
  EXPECT_FALSE(fs::exists(other)) << "an operation begins";
  EXPECT_EQ(KeptBytesOf(link_), 1000u);
  fs::remove(Kept());
  WriteFile(other, "other");
  TidyPartials();
  EXPECT_FALSE(fs::exists(kPartials));
}

TEST_F(PartialDownloadTest, SmallestThatIsKeptHasAQuarterOfAMebibyte) {
  for (const bool is_kept : {false, true}) {
    server_.Describe(2, {kPackage, rules::kLeastPartialBytes - (is_kept ? 0 : 1), offered_.sha384});
    EXPECT_EQ(Tool({"check"}).exit_status, 10);
    EXPECT_EQ(PartialDownload(link_, kFile).IsKept(), is_kept);
  }
}

TEST_F(PartialDownloadTest, ForgottenOneBeginsWithNothingAndIsKeptAgain) {
  for (const bool has_links : {false, true}) {
    refuses_links = !has_links;
    {
      PartialDownload partial(link_, kFile);
      WriteFile(kFile, content_);
      partial.Complete();
      partial.Forget();
      EXPECT_EQ(partial.Received(), 0u);
      EXPECT_EQ(KeptBytesOf(link_), 0u);
      WriteFile(kFile, content_.substr(0, 1));
    }
    fs::remove(kFile);
    EXPECT_EQ(KeptBytesOf(link_), 1u) << "one byte is something";
    fs::remove_all(kPartials);
  }
}

TEST_F(PartialDownloadTest, WhatNobodyWritesIsGoneOnWithAsItIs) {
  EndEarly(1000);
  struct stat before;
  ASSERT_EQ(stat(Kept().c_str(), &before), 0);
  const PartialDownload partial(link_, kFile);
  struct stat file;
  ASSERT_EQ(stat(kFile, &file), 0);
  EXPECT_EQ(file.st_ino, before.st_ino);
}

}  // namespace
}  // namespace tolm::operation
