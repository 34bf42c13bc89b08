#include "tolm/archive.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>

#include "base/descriptor.h"
#include "tests/package/authority.h"
#include "tests/package/payload_builder.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temporary_directory.h"
#include "tolm/err.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Signer;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr int kKeyType = 6;
constexpr int kFlags = 4;
constexpr char kKeyring[] = "/usr/tolm/etc/keyring/6.pem";
constexpr char kRevocations[] = "/usr/tolm/etc/keyring/6.crl.pem";
constexpr char kLearned[] = "/var/lib/data_update/revocations.pem";
constexpr char kDestination[] = "/destination";
constexpr char kPackage[] = "/tmp/oui_v7";

using Handle = std::unique_ptr<tolmarchive, package::OpenSslDelete<tolmarchive_free>>;

Handle NewHandle(const char* destination = kDestination) {
  return Handle(tolmarchive_init(destination));
}

// As callers do it, who know nothing but the place.
std::uint32_t LastError(const Handle& handle) {
  std::uint32_t words[3];
  std::memcpy(words, handle.get(), sizeof words);
  return words[2];
}

// Opens and extracts everything; the error code of the call that failed.
std::uint32_t Install(const char* path = kPackage, const char* destination = kDestination) {
  const Handle handle = NewHandle(destination);
  const bool done = tolmarchive_open_with_keytype(handle.get(), path, kKeyType) != 0 &&
                    tolmarchive_extract_multiple(handle.get(), nullptr, kFlags) != 0;
  EXPECT_EQ(done, LastError(handle) == 0);
  return LastError(handle);
}

class ArchiveTest : public ::testing::Test {
 protected:
  // Also right when the tests run one after the other in one process.
  ArchiveTest() {
    SyslogCapture::Clear();
    fs::remove_all(kDestination);
    fs::remove_all(fs::path(kKeyring).parent_path());
    fs::remove_all(kLearned);
    WriteFile(kKeyring, root_.Pem());
    WriteFile(fs::path(kDestination) / "installed", "old");
  }

  std::string Payload() const {
    return PayloadBuilder().Seal().File("installed", "new").File("d/data", data_).Finish();
  }
  Tree Untouched() const { return {{"installed", "old"}}; }
  Tree Installed() const { return {{"d/", ""}, {"d/data", data_}, {"installed", "new"}}; }

  // The code for a package with this payload, properly signed.
  std::uint32_t InstallPayload(const std::string& payload, const char* path = kPackage) {
    WriteFile(path, SignedPackage(payload, signer_));
    return Install(path);
  }

  std::string data_ = std::string(20000, 'x');
  Authority root_;
  Signer signer_ = root_.NewSigner();
};

TEST_F(ArchiveTest, SignedPackageIsInstalled) {
  EXPECT_EQ(InstallPayload(Payload()), TOLMARCHIVE_E_NONE);
  EXPECT_EQ(ReadTree(kDestination), Installed());
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(ArchiveTest, OnlyNamedMembersAreExtracted) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  ASSERT_NE(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  const char* missing[] = {"nothing", nullptr};
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), missing, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_NO_MEMBER);
  const char* members[] = {"d/data", nullptr};
  EXPECT_NE(tolmarchive_extract_multiple(handle.get(), members, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_NONE) << "success clears the last error";
  EXPECT_EQ(ReadTree(kDestination), (Tree{{"d/", ""}, {"d/data", data_}, {"installed", "old"}}));
}

TEST_F(ArchiveTest, FlippedByteInPayloadOrTrailerIsRefused) {
  const std::string payload = PayloadBuilder(PayloadBuilder::Filter::kNone)
                                  .Seal()
                                  .File("d/data", std::string(90000, 'x'))
                                  .Finish();
  const std::string signature = SignAs(payload, signer_);
  const std::string good = Assemble(payload, signature);
  std::vector<std::size_t> positions;
  constexpr std::size_t kInPayload = 1000 - package::kTrailerBytes;
  for (std::size_t i = 0; i < kInPayload; ++i) {
    positions.push_back(i * (payload.size() - 1) / (kInPayload - 1));
  }
  for (std::size_t i = 0; i < package::kTrailerBytes; ++i) {
    positions.push_back(good.size() - package::kTrailerBytes + i);
  }
  ASSERT_EQ(positions.size(), 1000U);
  for (const std::size_t position : positions) {
    std::string flipped = good;
    flipped[position] = static_cast<char>(flipped[position] ^ (1 << (position % 8)));
    WriteFile(kPackage, flipped);
    ASSERT_NE(Install(), TOLMARCHIVE_E_NONE) << position;
    ASSERT_EQ(ReadTree(kDestination), Untouched()) << position;
  }
  WriteFile(kPackage, good);
  EXPECT_EQ(Install(), TOLMARCHIVE_E_NONE) << "unflipped it is good";
}

TEST_F(ArchiveTest, FlippedByteInTheSignatureIsRefusedOrChangesNothing) {
  const std::string payload = Payload();
  const std::string signature = SignAs(payload, signer_);
  std::size_t refused = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    fs::remove_all(kDestination);
    WriteFile(fs::path(kDestination) / "installed", "old");
    std::string flipped = signature;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x20);
    WriteFile(kPackage, Assemble(payload, flipped));
    if (Install() == TOLMARCHIVE_E_NONE) {
      ASSERT_EQ(ReadTree(kDestination), Installed()) << i;
    } else {
      ASSERT_EQ(ReadTree(kDestination), Untouched()) << i;
      ++refused;
    }
  }
  EXPECT_GT(refused, signature.size() * 9 / 10);
}

TEST_F(ArchiveTest, TruncatedPackageIsRefused) {
  const std::string payload = Payload();
  const std::string signature = SignAs(payload, signer_);
  const std::string good = Assemble(payload, signature);
  const std::size_t parts[] = {0, payload.size(), payload.size() + signature.size(), good.size()};
  std::vector<std::size_t> lengths;
  for (const std::size_t part : parts) {
    for (std::size_t length = part > 20 ? part - 20 : 0; length < part + 20; ++length) {
      lengths.push_back(length);
    }
  }
  for (std::size_t length = 0; length < good.size(); length += 7) {
    lengths.push_back(length);
  }
  for (const std::size_t length : lengths) {
    if (length < good.size()) {
      WriteFile(kPackage, good.substr(0, length));
      ASSERT_EQ(Install(), TOLMARCHIVE_E_NOT_A_PACKAGE) << length;
    }
  }
  EXPECT_EQ(ReadTree(kDestination), Untouched());
}

// The trailer is whole, but what it speaks of is not.
TEST_F(ArchiveTest, PackageCutInTheMiddleIsRefused) {
  const std::string payload = Payload();
  const std::string signature = SignAs(payload, signer_);
  const std::string trailer = package::FormatTrailer(signature.size());
  struct Row {
    const char* why;
    std::uint32_t code;
    std::string content;
  };
  const Row rows[] = {{"empty file", TOLMARCHIVE_E_NOT_A_PACKAGE, ""},
                      {"payload only", TOLMARCHIVE_E_NOT_A_PACKAGE, payload},
                      {"trailer only", TOLMARCHIVE_E_SIGNATURE_SIZE, trailer},
                      {"no payload", TOLMARCHIVE_E_SIGNATURE_SIZE, signature + trailer},
                      {"payload shorter", TOLMARCHIVE_E_BAD_SIGNATURE,
                       payload.substr(0, payload.size() - 1) + signature + trailer},
                      {"signature shorter", TOLMARCHIVE_E_SIGNATURE_FORM,
                       payload + signature.substr(0, signature.size() - 1) + trailer},
                      {"signature with its length shorter", TOLMARCHIVE_E_SIGNATURE_FORM,
                       Assemble(payload, signature.substr(0, signature.size() - 1))},
                      {"something behind the signature", TOLMARCHIVE_E_SIGNATURE_FORM,
                       Assemble(payload, signature + "x")},
                      {"signature too large", TOLMARCHIVE_E_SIGNATURE_SIZE,
                       Assemble(payload, std::string(65537, 'x'))}};
  for (const Row& row : rows) {
    WriteFile(kPackage, row.content);
    EXPECT_EQ(Install(), row.code) << row.why;
  }
  EXPECT_EQ(ReadTree(kDestination), Untouched());
}

TEST_F(ArchiveTest, UntrustedSignersAreRefused) {
  struct Row {
    const char* why;
    std::uint32_t code;
    Signer signer;
    SignatureOptions options;
  };
  const auto with = [](auto change) {
    CertificateOptions options;
    change(options);
    return options;
  };
  const unsigned int plain = CMS_BINARY | CMS_DETACHED;
  Row rows[] = {
      {"foreign", TOLMARCHIVE_E_UNTRUSTED, Authority("Foreign").NewSigner(), {}},
      {"foreign of the same name", TOLMARCHIVE_E_UNTRUSTED, Authority().NewSigner(), {}},
      {"expired",
       TOLMARCHIVE_E_EXPIRED,
       root_.NewSigner(with([](auto& o) { o.not_after = kLongAgo + 1; })),
       {}},
      {"not yet valid",
       TOLMARCHIVE_E_NOT_YET_VALID,
       root_.NewSigner(with([](auto& o) { o.not_before = kFarFuture - 1; })),
       {}},
      {"TLS only",
       TOLMARCHIVE_E_WRONG_USAGE,
       root_.NewSigner(with([](auto& o) { o.extended_usage = "serverAuth"; })),
       {}},
      {"SHA-1", TOLMARCHIVE_E_WEAK_DIGEST, root_.NewSigner(), {EVP_sha1(), plain, true, 1}},
      {"embedded content",
       TOLMARCHIVE_E_EMBEDDED_CONTENT,
       root_.NewSigner(),
       {EVP_sha256(), CMS_BINARY, true, 1}},
      {"no signer", TOLMARCHIVE_E_NO_SIGNER, root_.NewSigner(), {EVP_sha256(), plain, false, 0}}};
  for (const Row& row : rows) {
    WriteFile(kPackage, Assemble(Payload(), SignAs(Payload(), row.signer, row.options)));
    EXPECT_EQ(Install(), row.code) << row.why;
    EXPECT_EQ(ReadTree(kDestination), Untouched()) << row.why;
  }
}

TEST_F(ArchiveTest, RevokedSignerIsRefused) {
  const Signer other = root_.NewSigner();
  WriteFile(kRevocations, root_.RevocationPem({other.certificate.get()}));
  WriteFile(kPackage, SignedPackage(Payload(), other));
  EXPECT_EQ(Install(), TOLMARCHIVE_E_REVOKED);
  EXPECT_EQ(ReadTree(kDestination), Untouched());
  EXPECT_EQ(InstallPayload(Payload()), TOLMARCHIVE_E_NONE) << "another signer is not revoked";
}

TEST_F(ArchiveTest, LearnedRevocationsCountToo) {
  const Signer other = root_.NewSigner();
  WriteFile(kRevocations, root_.RevocationPem({}, kLongAgo));
  WriteFile(kLearned, root_.RevocationPem({other.certificate.get()}, kLongAgo + 1));
  WriteFile(kPackage, SignedPackage(Payload(), other));
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_REVOKED);
  EXPECT_EQ(tolmarchive_error_detail(handle.get()),
            std::string("signed by \"CN=Test signing\", which ") + kLearned +
                " has revoked, or an authority above it");
  EXPECT_EQ(InstallPayload(Payload()), TOLMARCHIVE_E_NONE) << "another signer is not revoked";
  WriteFile(kLearned, "damaged");
  EXPECT_EQ(Install(), TOLMARCHIVE_E_KEYRING);
}

TEST_F(ArchiveTest, SignerOfOtherDatabasesIsRefused) {
  CertificateOptions options;
  options.scope = {"geo"};
  WriteFile(kPackage, SignedPackage(Payload(), root_.NewSigner(options)));  // of "oui"
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_OUT_OF_SCOPE);
  EXPECT_STREQ(tolmarchive_error_detail(handle.get()),
               "signed by \"CN=Test signing\", and the signer's certificate is for geo and not "
               "for \"oui\"");
  EXPECT_EQ(ReadTree(kDestination), Untouched());
  options.scope = {"geo", "oui"};
  WriteFile(kPackage, SignedPackage(Payload(), root_.NewSigner(options)));
  EXPECT_EQ(Install(), TOLMARCHIVE_E_NONE);
}

TEST_F(ArchiveTest, SignerOfDescriptionsSignsNoPackages) {
  CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  WriteFile(kPackage, SignedPackage(Payload(), root_.NewSigner(options)));
  EXPECT_EQ(Install(), TOLMARCHIVE_E_WRONG_USAGE);
}

TEST_F(ArchiveTest, EveryKeyTypeHasItsKeyring) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, 7), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_KEYRING);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  WriteFile("/usr/tolm/etc/keyring/7.pem", Authority("Seven").Pem());
  const Handle again = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(again.get(), kPackage, 7), 0);
  EXPECT_EQ(LastError(again), TOLMARCHIVE_E_UNTRUSTED);
}

TEST_F(ArchiveTest, RootIsRotatedByKeepingBoth) {
  const Authority successor("Next root");
  WriteFile(kKeyring, root_.Pem() + successor.Pem());
  for (const Authority* authority : std::initializer_list<const Authority*>{&root_, &successor}) {
    WriteFile(kPackage, SignedPackage(Payload(), authority->NewSigner()));
    EXPECT_EQ(Install(), TOLMARCHIVE_E_NONE);
  }
}

TEST_F(ArchiveTest, PackageIsValidUnderItsOwnNameOnly) {
  struct Row {
    const char* file;
    const char* seal;
    std::uint32_t code;
  };
  const Row rows[] = {
      {"oui_v7", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_NONE},
      {"oui_d7", R"({"name":"oui","kind":"delta","version":7})", TOLMARCHIVE_E_NONE},
      {"oui_debug", R"({"name":"oui","kind":"full","version":3})", TOLMARCHIVE_E_NONE},
      {"a_b_v1_v7", R"({"name":"a_b_v1","kind":"full","version":7})", TOLMARCHIVE_E_NONE},
      {"any.pkg", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_NONE},
      {"geo_v7", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_WRONG_NAME},
      {"geo_debug", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_WRONG_NAME},
      {"oui_d7", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_WRONG_KIND},
      {"oui_v7", R"({"name":"oui","kind":"delta","version":7})", TOLMARCHIVE_E_WRONG_KIND},
      {"oui_v8", R"({"name":"oui","kind":"full","version":7})", TOLMARCHIVE_E_WRONG_VERSION},
      {"oui_v7", R"({"name":"oui","kind":"full","version":"7"})", TOLMARCHIVE_E_BAD_SEAL},
      {"oui_v7", "[]", TOLMARCHIVE_E_BAD_SEAL},
      {"any.pkg", "{", TOLMARCHIVE_E_BAD_SEAL}};
  for (const Row& row : rows) {
    const std::string path = std::string("/tmp/") + row.file;
    const std::string payload = PayloadBuilder().Seal(row.seal).File("new", "x").Finish();
    fs::remove(fs::path(kDestination) / "new");
    EXPECT_EQ(InstallPayload(payload, path.c_str()), row.code) << row.file << " " << row.seal;
    EXPECT_EQ(fs::exists(fs::path(kDestination) / "new"), row.code == 0) << row.file;
  }
}

TEST_F(ArchiveTest, DeeplyNestedSealIsRefused) {
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  EXPECT_EQ(InstallPayload(PayloadBuilder().Seal(deep).File("a", "x").Finish()),
            TOLMARCHIVE_E_BAD_SEAL);
  EXPECT_EQ(
      InstallPayload(PayloadBuilder().Seal(std::string(10 << 20, ' ')).File("a", "x").Finish()),
      TOLMARCHIVE_E_BAD_SEAL);
}

TEST_F(ArchiveTest, SignedButUnfitPayloadsAreRefused) {
  using Filter = PayloadBuilder::Filter;
  struct Row {
    const char* why;
    std::uint32_t code;
    std::string payload;
  };
  const auto hostile = [](auto add) {
    PayloadBuilder builder;
    builder.Seal().File("installed", "new");
    add(builder);
    return builder.Finish();
  };
  const Row rows[] = {
      {"no seal", TOLMARCHIVE_E_NO_SEAL, PayloadBuilder().File("a", "x").Finish()},
      {"zeros", TOLMARCHIVE_E_NO_SEAL, std::string(10240, '\0')},
      {"empty archive", TOLMARCHIVE_E_NO_SEAL, PayloadBuilder().Finish()},
      {"not an archive", TOLMARCHIVE_E_PAYLOAD, "some text\n"},
      {"mtree", TOLMARCHIVE_E_PAYLOAD, "#mtree\n.tolmpkg type=file\n"},
      {"bzip2", TOLMARCHIVE_E_PAYLOAD, PayloadBuilder(Filter::kBzip2).Seal().Finish()},
      {"seal only", TOLMARCHIVE_E_NO_MEMBERS, PayloadBuilder().Seal().Finish()},
      {"fifo", TOLMARCHIVE_E_MEMBER_TYPE, hostile([](auto& b) { b.Special("f", AE_IFIFO); })},
      {"device", TOLMARCHIVE_E_MEMBER_TYPE, hostile([](auto& b) { b.Special("f", AE_IFCHR); })},
      {"absolute", TOLMARCHIVE_E_MEMBER_PATH, hostile([](auto& b) { b.File("/tmp/f", "x"); })},
      {"parent", TOLMARCHIVE_E_MEMBER_PATH, hostile([](auto& b) { b.File("d/../../f", "x"); })},
      {"second seal", TOLMARCHIVE_E_MEMBER_PATH, hostile([](auto& b) { b.Seal(); })},
      {"hard link out", TOLMARCHIVE_E_HARD_LINK,
       hostile([](auto& b) { b.HardLink("h", "../etc/passwd"); })},
      {"hard link absolute", TOLMARCHIVE_E_HARD_LINK,
       hostile([](auto& b) { b.HardLink("h", "/etc/passwd"); })},
      {"hard link with a body", TOLMARCHIVE_E_HARD_LINK,
       PayloadBuilder::WithHardLinkBody(
           PayloadBuilder(Filter::kNone).Seal().File("a", "x").Finish(), "installed", "a",
           "body")}};
  for (const Row& row : rows) {
    EXPECT_EQ(InstallPayload(row.payload), row.code) << row.why;
    EXPECT_EQ(ReadTree(kDestination), Untouched()) << row.why;
  }
}

TEST_F(ArchiveTest, LinksAreCreatedButNeverFollowed) {
  WriteFile("/outside/f", "safe");
  EXPECT_EQ(InstallPayload(PayloadBuilder().Seal().SymbolicLink("l", "/outside").Finish()),
            TOLMARCHIVE_E_NONE);
  EXPECT_TRUE(fs::is_symlink(fs::path(kDestination) / "l"));
  EXPECT_EQ(InstallPayload(PayloadBuilder().Seal().File("l/f", "x").Finish()),
            TOLMARCHIVE_E_THROUGH_LINK);
  EXPECT_EQ(InstallPayload(PayloadBuilder().Seal().HardLink("h", "l/f").Finish()),
            TOLMARCHIVE_E_THROUGH_LINK);
  EXPECT_EQ(ReadTree("/outside"), (Tree{{"f", "safe"}}));
}

TEST_F(ArchiveTest, DirectoryInTheWayOfAFileIsKept) {
  WriteFile(fs::path(kDestination) / "d" / "keep", "1");
  EXPECT_EQ(InstallPayload(PayloadBuilder().Seal().File("d", "x").Finish()),
            TOLMARCHIVE_E_IN_THE_WAY);
  EXPECT_EQ(ReadFile(fs::path(kDestination) / "d" / "keep"), "1");
}

TEST_F(ArchiveTest, ReaderKeepsTheOldFile) {
  const base::Descriptor reader(::open("/destination/installed", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(InstallPayload(Payload()), TOLMARCHIVE_E_NONE);
  char buffer[16] = {};
  EXPECT_EQ(base::ReadAt(reader.Get(), buffer, sizeof buffer, 0), 3);
  EXPECT_STREQ(buffer, "old");
}

TEST_F(ArchiveTest, DecompressionBombWritesNothing) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  WriteFile(kPackage,
            SignedPackage(PayloadBuilder().Seal().File("a", std::string(64 << 20, '\0')).Finish(),
                          signer_));
  EXPECT_LT(fs::file_size(kPackage), 100000U);
  EXPECT_EQ(Install(kPackage, "/small"), TOLMARCHIVE_E_NO_SPACE);
  EXPECT_EQ(ReadTree("/small"), Tree{});
}

TEST_F(ArchiveTest, DiskThatFillsUpWhileUnpackingIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  PayloadBuilder builder;
  builder.Seal();
  for (int i = 0; i < 400; ++i) {
    builder.File("f" + std::to_string(i), std::string(100, 'x'));
  }
  WriteFile(kPackage, SignedPackage(builder.Finish(), signer_));
  EXPECT_EQ(Install(kPackage, "/small"), TOLMARCHIVE_E_NO_SPACE);
  EXPECT_EQ(TLIBCErrGet(), ENOSPC);
}

TEST_F(ArchiveTest, ReadOnlyDestinationIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  disk.MakeReadOnly();
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  EXPECT_EQ(Install(kPackage, "/small"), TOLMARCHIVE_E_WRITE);
  EXPECT_EQ(TLIBCErrGet(), EROFS);
}

TEST_F(ArchiveTest, FileOverwrittenAfterOpeningIsRefused) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  ASSERT_NE(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  fs::resize_file(kPackage, 10);
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), nullptr, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_CHANGED);
  EXPECT_EQ(ReadTree(kDestination), Untouched());
}

TEST_F(ArchiveTest, WhatIsNoFileIsNotOpened) {
  ASSERT_EQ(::mkfifo("/tmp/fifo", 0600), 0);
  for (const char* path : {"/tmp/missing", "/tmp", "/tmp/fifo", ""}) {
    EXPECT_EQ(Install(path), TOLMARCHIVE_E_OPEN) << path;
  }
}

TEST_F(ArchiveTest, DestinationMustBeADirectory) {
  EXPECT_EQ(tolmarchive_init("/nowhere"), nullptr);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_EQ(tolmarchive_init("/destination/installed"), nullptr);
  EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
  EXPECT_EQ(tolmarchive_init(nullptr), nullptr);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
}

TEST_F(ArchiveTest, CallsOutOfOrderAreRefused) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), nullptr, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_ARGUMENT);
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), nullptr, kKeyType), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_ARGUMENT);
  EXPECT_NE(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_ARGUMENT);
  EXPECT_EQ(tolmarchive_open_with_keytype(nullptr, kPackage, kKeyType), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(nullptr, nullptr, kFlags), 0);
  tolmarchive_free(nullptr);
}

TEST_F(ArchiveTest, NothingIsExtractedAfterAFailedOpen) {
  WriteFile(kPackage, SignedPackage(Payload(), Authority("Foreign").NewSigner()));
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), nullptr, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_ARGUMENT);
  EXPECT_EQ(ReadTree(kDestination), Untouched());
}

TEST_F(ArchiveTest, ReasonGoesToTheSystemLog) {
  WriteFile(kPackage, SignedPackage(Payload(), Authority("Foreign").NewSigner()));
  EXPECT_EQ(Install(), TOLMARCHIVE_E_UNTRUSTED);
  EXPECT_THAT(SyslogCapture::Texts(LOG_ERR),
              ElementsAre(AllOf(
                  StartsWith("tolmarchive: /tmp/oui_v7: the signer's certificate is refused: "),
                  HasSubstr("(error 26)"))));
}

TEST_F(ArchiveTest, StagingDirectoryThatStaysIsInTheSystemLog) {
  const fs::path left_over = fs::path(kDestination) / ".tolmpkg-0-staging";
  const ScopedMount mount = ScopedMount::Tmpfs(left_over / "d", 4096);
  EXPECT_EQ(InstallPayload(Payload()), TOLMARCHIVE_E_NONE);
  EXPECT_EQ(ReadFile(fs::path(kDestination) / "installed"), "new");
  EXPECT_THAT(
      SyslogCapture::Texts(LOG_WARNING),
      ElementsAre(StartsWith("tolmarchive: /tmp/oui_v7: .tolmpkg-0-staging cannot be removed: ")));
}

TEST_F(ArchiveTest, CancelledPackageIsGivenUpWhereverItIs) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  ASSERT_NE(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  tolmarchive_cancel(1);
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), nullptr, kFlags), 0);
  EXPECT_EQ(LastError(handle), TOLMARCHIVE_E_READ);
  EXPECT_EQ(TLIBCErrGet(), ECANCELED);
  EXPECT_EQ(Install(), TOLMARCHIVE_E_READ);
  EXPECT_EQ(ReadTree(kDestination), Untouched());
  tolmarchive_cancel(0);
  EXPECT_EQ(Install(), TOLMARCHIVE_E_NONE);
  EXPECT_EQ(ReadTree(kDestination), Installed());
}

TEST_F(ArchiveTest, ReasonIsToldInWordsWithTheSignerWhereHeIsIt) {
  WriteFile(kPackage, SignedPackage(Payload(), Authority("Foreign").NewSigner()));
  const Handle handle = NewHandle();
  EXPECT_STREQ(tolmarchive_error_detail(handle.get()), "");
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  EXPECT_STREQ(tolmarchive_error_detail(handle.get()),
               "signed by \"CN=Test signing\", which /usr/tolm/etc/keyring/6.pem does not trust");
  EXPECT_EQ(tolmarchive_extract_multiple(handle.get(), nullptr, kFlags), 0);
  EXPECT_STREQ(tolmarchive_error_detail(handle.get()), "not open");
  EXPECT_STREQ(tolmarchive_error_detail(nullptr), "");
}

TEST_F(ArchiveTest, NameOfASignerIsOneLineOfText) {
  CertificateOptions options;
  options.name = "a\x1b]0;b\n";
  WriteFile(kPackage, SignedPackage(Payload(), Authority("Foreign").NewSigner(options)));
  const Handle handle = NewHandle();
  EXPECT_EQ(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  const std::string detail = tolmarchive_error_detail(handle.get());
  EXPECT_EQ(std::count_if(detail.begin(), detail.end(),
                          [](unsigned char c) { return std::iscntrl(c) != 0; }),
            0)
      << detail;
}

TEST_F(ArchiveTest, FreeClosesEverything) {
  const auto open_count = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  // The libraries open files of their own the first time.
  ASSERT_EQ(Install(), TOLMARCHIVE_E_NONE);
  const auto before = open_count();
  EXPECT_EQ(Install(), TOLMARCHIVE_E_NONE);
  WriteFile(kPackage, "broken");
  EXPECT_EQ(Install(), TOLMARCHIVE_E_NOT_A_PACKAGE);
  EXPECT_EQ(open_count(), before);
}

TEST_F(ArchiveTest, DescriptorsAreNotInherited) {
  WriteFile(kPackage, SignedPackage(Payload(), signer_));
  const Handle handle = NewHandle();
  ASSERT_NE(tolmarchive_open_with_keytype(handle.get(), kPackage, kKeyType), 0);
  int checked = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const fs::path target = fs::read_symlink(entry.path(), gone);
    if (target == kPackage || target == kDestination) {
      const int fd = std::stoi(entry.path().filename().string());
      EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << target;
      ++checked;
    }
  }
  EXPECT_EQ(checked, 2);
}

}  // namespace
}  // namespace tolm::testing
