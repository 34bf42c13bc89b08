#include "package/package.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "package/package_writer.h"
#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/package/payload_builder.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Kind;
using package::Package;
using package::Seal;
using package::Signer;
using package::Trust;
using ::testing::ElementsAre;

constexpr std::int64_t kNow = 1800000000;

// Called once.
std::function<void()> before_a_directory_is_made;

// Then they fail; never when negative.
int successful_syncs = -1;

class PackageTest : public ::testing::Test {
 protected:
  PackageTest() { MakeTree(Source(), {{"a", "1"}, {"d/b", std::string(100000, 'x')}}); }

  fs::path Source() const { return directory_.Path() / "source"; }
  fs::path Target() const { return directory_.Path() / "out" / "oui_v7"; }

  void Write(const Signer& signer) {
    fs::create_directories(Target().parent_path());
    package::WritePackage(Source(), Target(), {"oui", Kind::kFull, 7}, {}, signer, kNow);
  }
  Trust Trusted() const { return Trust::InCertificate(root_.certificate()); }

  TemporaryDirectory directory_;
  Authority root_;
  Signer signer_ = root_.NewSigner();
};

TEST_F(PackageTest, WrittenPackageIsVerifiedReadAndUnpacked) {
  Write(signer_);
  const Package package(Target());
  package.Verify(Trusted(), kNow);
  package.CheckName();
  EXPECT_EQ(package.ReadSeal().version, 7);
  EXPECT_EQ(package.ReadSigner().subject, "CN=Test signing");
  EXPECT_EQ(package.ReadSignerCertificate().subject, "CN=Test signing");
  EXPECT_EQ(package.ReadSignerCertificate().fingerprint.size(), 64U);
  package.CheckSigner(Trusted(), kNow);
  EXPECT_EQ(
      CodeOf([&] { package.CheckSigner(Trust::InCertificate(Authority().certificate()), kNow); }),
      Code::kUntrusted);
  std::vector<std::string> names;
  package.ForEachMember([&](const package::Member& member) { names.push_back(member.name); });
  EXPECT_THAT(names, ElementsAre("a", "d", "d/b"));
  const fs::path unpacked = directory_.Path() / "unpacked";
  fs::create_directory(unpacked);
  package.Extract(OpenDirectory(unpacked).Get(), nullptr);
  EXPECT_EQ(ReadTree(unpacked), ReadTree(Source()));
}

TEST_F(PackageTest, SealMustFitTheFilesName) {
  Write(signer_);
  for (const auto& [name, code] :
       std::map<std::string, std::optional<Code>>{{"oui_v7", std::nullopt},
                                                  {"oui", std::nullopt},
                                                  {"geo_v7", Code::kWrongName},
                                                  {"oui_d7", Code::kWrongKind},
                                                  {"oui_v8", Code::kWrongVersion}}) {
    fs::copy_file(Target(), directory_.Path() / name);
    const Package package(directory_.Path() / name);
    EXPECT_EQ(CodeOf([&] { package.CheckName(); }), code) << name;
  }
}

TEST_F(PackageTest, OfADatabaseThatItsSignerIsNotForIsRefused) {
  CertificateOptions options;
  options.scope = {"geo", "tor"};
  fs::create_directories(Target().parent_path());
  const std::string payload = PayloadBuilder().Seal().File("a", "1").Finish();  // of "oui"
  WriteFile(Target(), SignedPackage(payload, root_.NewSigner(options)));
  try {
    Package(Target()).Verify(Trusted(), kNow);
    ADD_FAILURE() << "it is accepted";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kOutOfScope);
    EXPECT_STREQ(error.what(), "the signer's certificate is for geo, tor and not for \"oui\"");
  }
  options.scope = {"oui"};
  WriteFile(Target(), SignedPackage(payload, root_.NewSigner(options)));
  Package(Target()).Verify(Trusted(), kNow);
}

TEST_F(PackageTest, TwoPacksOfOneTreeHaveTheSamePayload) {
  const auto payload = [this] {
    Write(signer_);
    return ReadFile(Target()).substr(0, Package(Target()).layout().payload_bytes);
  };
  const std::string first = payload();
  EXPECT_EQ(payload(), first);
}

TEST_F(PackageTest, PackageIsForEverybodyToRead) {
  ::umask(077);
  Write(signer_);
  struct stat status {};
  ASSERT_EQ(::stat(Target().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(PackageTest, FailureLeavesTheOldPackageAndNothingBeside) {
  struct Row {
    const char* why;
    Code code;
    CertificateOptions options;
  };
  Row rows[] = {{"expired", Code::kExpired, {}},
                {"TLS only", Code::kWrongUsage, {}},
                {"another database", Code::kOutOfScope, {}},
                {"descriptions", Code::kWrongUsage, {}}};
  rows[0].options.not_after = kLongAgo + 1;
  rows[1].options.extended_usage = "serverAuth";
  rows[2].options.scope = {"geo"};
  rows[3].options.extended_usage = package::kDescriptionSigningOid;
  WriteFile(Target(), "old");
  for (const Row& row : rows) {
    EXPECT_EQ(CodeOf([&] { Write(root_.NewSigner(row.options)); }), row.code) << row.why;
    EXPECT_EQ(ReadTree(Target().parent_path()), (Tree{{"oui_v7", "old"}})) << row.why;
  }
  ASSERT_EQ(::mkfifo((Source() / "z").c_str(), 0600), 0);
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), Code::kMemberType);
  EXPECT_EQ(ReadTree(Target().parent_path()), (Tree{{"oui_v7", "old"}}));
}

TEST_F(PackageTest, SourceThatIsMissingIsToldSo) {
  fs::remove_all(Source());
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), Code::kRead);
  EXPECT_EQ(ReadTree(Target().parent_path()), Tree{});
}

TEST_F(PackageTest, WhatDoesNotReachTheDiskIsNotPutInPlace) {
  WriteFile(Target(), "old");
  successful_syncs = 0;
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), Code::kWrite);
  EXPECT_EQ(ReadTree(Target().parent_path()), (Tree{{"oui_v7", "old"}}));
  successful_syncs = 1;
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), Code::kWrite) << "its place did not reach the disk";
  successful_syncs = 2;
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), std::nullopt);
  EXPECT_EQ(successful_syncs, 0);
  successful_syncs = -1;
}

TEST_F(PackageTest, FullDiskLeavesNothing) {
  const ScopedMount disk = ScopedMount::Tmpfs(Target().parent_path(), 4096);
  std::string noise;
  for (unsigned int i = 0, value = 1; i < 100000; ++i, value = value * 1664525 + 1013904223) {
    noise.push_back(static_cast<char>(value >> 24));
  }
  WriteFile(Source() / "noise", noise);
  EXPECT_EQ(CodeOf([&] { Write(signer_); }), Code::kNoSpace);
  EXPECT_EQ(ReadTree(Target().parent_path()), Tree{});
}

TEST_F(PackageTest, TargetInsideTheSourceIsRefused) {
  for (const fs::path& target : {Source() / "p", Source() / "d/p", Source() / "d/../p"}) {
    EXPECT_EQ(CodeOf([&] {
                package::WritePackage(Source(), target, {"oui", Kind::kFull, 7}, {}, signer_, kNow);
              }),
              Code::kArgument)
        << target;
  }
  const fs::path sibling = directory_.Path() / "source2";
  fs::create_directory(sibling);
  package::WritePackage(Source(), sibling / "p", {"oui", Kind::kFull, 7}, {}, signer_, kNow);
  EXPECT_TRUE(fs::exists(sibling / "p"));
}

TEST_F(PackageTest, ItsCompressionIsToldByItsFirstBytes) {
  using package::Compression;
  using Filter = PayloadBuilder::Filter;
  const std::pair<Filter, Compression> rows[] = {{Filter::kNone, Compression::kNone},
                                                 {Filter::kGzip, Compression::kGzip},
                                                 {Filter::kXz, Compression::kXz},
                                                 {Filter::kZstd, Compression::kZstd}};
  for (const auto& [filter, compression] : rows) {
    const std::string payload = PayloadBuilder(filter).Seal().File("a", "1").Finish();
    WriteFile(Target(), payload + std::string(100, 's') + package::FormatTrailer(100));
    EXPECT_EQ(Package(Target()).ReadCompression(), compression) << CompressionText(compression);
  }
  WriteFile(Target(), "\xfd" + std::string(100, 's') + package::FormatTrailer(100));
  const Package one_byte(Target());
  EXPECT_EQ(one_byte.ReadCompression(), Compression::kNone) << "a payload of one byte";
  fs::resize_file(Target(), 0);
  EXPECT_EQ(one_byte.ReadCompression(), Compression::kNone) << "it is gone meanwhile";
}

TEST_F(PackageTest, OnlyRegularFilesAreOpened) {
  ASSERT_EQ(::mkfifo((directory_.Path() / "fifo").c_str(), 0600), 0);
  for (const fs::path& path : {directory_.Path() / "missing", directory_.Path(),
                               directory_.Path() / "fifo", fs::path("/dev/zero")}) {
    EXPECT_EQ(CodeOf([&] { Package package(path); }), Code::kOpen) << path;
  }
}

TEST_F(PackageTest, ClockBeforeTheCertificateStillVerifies) {
  CertificateOptions options;
  options.not_before = package::BuildDate() - 1000;
  const Signer signer = root_.NewSigner(options);
  Write(signer);
  EXPECT_EQ(CodeOf([&] { Package(Target()).Verify(Trusted(), 0); }), std::nullopt);
}

TEST_F(PackageTest, FileReplacedAfterVerificationIsNotRead) {
  Write(signer_);
  const Package package(Target());
  package.Verify(Trusted(), kNow);
  fs::remove(Target());
  WriteFile(Target(), "another file");
  const fs::path unpacked = directory_.Path() / "unpacked";
  fs::create_directory(unpacked);
  package.Extract(OpenDirectory(unpacked).Get(), nullptr);
  EXPECT_EQ(ReadTree(unpacked), ReadTree(Source()));
}

TEST_F(PackageTest, FileOverwrittenAfterVerificationIsRefused) {
  Write(signer_);
  const fs::path unpacked = directory_.Path() / "unpacked";
  fs::create_directory(unpacked);
  const Package package(Target());
  package.Verify(Trusted(), kNow);
  // What a second download to the same path does.
  fs::last_write_time(Target(), fs::last_write_time(Target()) + std::chrono::seconds(1));
  EXPECT_EQ(CodeOf([&] { package.Extract(OpenDirectory(unpacked).Get(), nullptr); }),
            Code::kChanged);
  fs::resize_file(Target(), 100);
  EXPECT_EQ(CodeOf([&] { package.Extract(OpenDirectory(unpacked).Get(), nullptr); }),
            Code::kChanged);
  EXPECT_EQ(ReadTree(unpacked), Tree{});
}

TEST_F(PackageTest, FileOverwrittenWhileItIsUnpackedIsRefused) {
  Write(signer_);
  const fs::path unpacked = directory_.Path() / "unpacked";
  fs::create_directory(unpacked);
  const Package package(Target());
  package.Verify(Trusted(), kNow);
  before_a_directory_is_made = [this] {
    fs::last_write_time(Target(), fs::last_write_time(Target()) + std::chrono::seconds(1));
  };
  EXPECT_EQ(CodeOf([&] { package.Extract(OpenDirectory(unpacked).Get(), nullptr); }),
            Code::kChanged);
  EXPECT_FALSE(before_a_directory_is_made) << "it was called";
  EXPECT_EQ(CodeOf([&] { package.Verify(Trusted(), kNow); }), Code::kChanged);
}

}  // namespace
}  // namespace tolm::testing

// Before the C library's: a disk that fails.
extern "C" int fsync(int file) {
  using Call = int(int);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "fsync"));
  if (tolm::testing::successful_syncs == 0) {
    errno = EIO;
    return -1;
  }
  if (tolm::testing::successful_syncs > 0) {
    --tolm::testing::successful_syncs;
  }
  return real(file);
}

// What somebody else does in the meantime.
extern "C" int mkdirat(int directory, const char* name, mode_t mode) {
  using Call = int(int, const char*, mode_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "mkdirat"));
  if (const auto act = std::exchange(tolm::testing::before_a_directory_is_made, nullptr)) {
    act();
  }
  return real(directory, name, mode);
}
