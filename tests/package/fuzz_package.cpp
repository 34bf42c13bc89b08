// A target for libFuzzer. The first byte says what the rest is: a whole package file, a payload,
// one that is signed here, a tar archive whose headers get good checksums and that is signed here,
// a seal, a file name to compare with one. Whatever the bytes are: no crash, no access beyond what
// is there, and nothing written outside of the directory that is unpacked into.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/extract.h"
#include "package/package.h"
#include "package/seal.h"
#include "package/trust.h"
#include "tests/package/authority.h"
#include "tests/support/fuzzing.h"

namespace {

using namespace tolm;
using tolm::testing::Expect;
using tolm::testing::Put;
namespace fs = std::filesystem;

constexpr std::int64_t kAt = 4000000000;  // Within the validity of the certificates of the corpus.
constexpr char kRoot[] = "/tmp/fuzz-package";
constexpr rlim_t kMostFileBytes = 4 << 20;

const package::Trust& Trusted() {
  static const package::Trust trust =
      package::Trust::Load(TOLM_TEST_SOURCE_DIR "/tests/data/package/root.pem", "");
  return trust;
}

// A directory to unpack into, and beside it what no package may touch.
class Ground {
 public:
  Ground() {
    fs::remove_all(kRoot);
    fs::create_directories(Target());
    fs::create_directories(Empty());
    Put(Canary(), "canary");
    Put(Target() + "/before", "before");
    fs::create_symlink("../canary", Target() + "/link");
  }
  ~Ground() {
    std::ifstream in(Canary());
    std::string text;
    Expect(std::getline(in, text) && text == "canary");
    std::size_t names = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(kRoot)) {
      ++names;
    }
    Expect(names <= 4);  // Targets, canary, and the package where there is one.
  }
  Ground(const Ground&) = delete;
  Ground& operator=(const Ground&) = delete;

  static std::string Target() { return std::string(kRoot) + "/target"; }
  static std::string Empty() { return std::string(kRoot) + "/empty"; }
  static std::string Canary() { return std::string(kRoot) + "/canary"; }
  static std::string PackageFile() { return std::string(kRoot) + "/oui_v7"; }
};

// Of a directory where all of it comes into place at the end, nothing stays when it fails.
void UnpackTwice(const std::function<void(int directory)>& unpack) {
  const auto open_directory = [](const std::string& path) {
    return base::Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  };
  try {
    unpack(open_directory(Ground::Empty()).Get());
  } catch (const package::Error&) {
    Expect(fs::is_empty(Ground::Empty()));
  }
  unpack(open_directory(Ground::Target()).Get());
}

void ReadWhole(const std::string& bytes, const package::Trust& trust) {
  const Ground ground;
  Put(Ground::PackageFile(), bytes);
  const package::Package file(Ground::PackageFile());
  try {
    file.ReadSigner();
    file.CheckSigner(trust, kAt);
  } catch (const package::Error&) {
    // Verifying says it, too.
  }
  file.ReadCompression();
  file.Verify(trust, kAt);
  file.CheckName();
  file.ForEachMember([](const package::Member& member) { Expect(!member.name.empty()); });
  UnpackTwice([&](int directory) { file.Extract(directory, nullptr); });
}

// ---- Signed here ----

const tolm::testing::Authority& Root() {
  static const tolm::testing::Authority root;
  return root;
}

void ReadSigned(const std::string& payload) {
  static const package::Signer signer = Root().NewSigner();
  static const package::Trust trust = package::Trust::InCertificate(Root().certificate());
  ReadWhole(tolm::testing::SignedPackage(payload, signer), trust);
}

constexpr std::size_t kBlock = 512;

// Of the file behind the header; whatever is no such number counts as none.
std::size_t SizeIn(const std::string& tar, std::size_t header) {
  constexpr std::size_t kSizeAt = 124;
  constexpr std::size_t kSizeDigits = 11;
  return std::strtoul(tar.substr(header + kSizeAt, kSizeDigits).c_str(), nullptr, 8);
}

std::string WithGoodChecksums(std::string tar) {
  constexpr std::size_t kSumAt = 148;
  constexpr std::size_t kSumBytes = 8;
  for (std::size_t at = 0; at + kBlock <= tar.size();
       at += kBlock + (SizeIn(tar, at) + kBlock - 1) / kBlock * kBlock) {
    if (tar.find_first_not_of('\0', at) >= at + kBlock) {
      continue;  // The end.
    }
    tar.replace(at + kSumAt, kSumBytes, kSumBytes, ' ');
    unsigned sum = 0;
    for (std::size_t i = at; i < at + kBlock; ++i) {
      sum += static_cast<unsigned char>(tar[i]);
    }
    char digits[kSumBytes];
    std::snprintf(digits, sizeof digits, "%06o", sum);
    tar.replace(at + kSumAt, kSumBytes - 1, digits, kSumBytes - 1);
  }
  return tar;
}

void UnpackPayload(const std::string& bytes) {
  const Ground ground;
  Put(Ground::PackageFile(), bytes);
  const base::Descriptor file(open(Ground::PackageFile().c_str(), O_RDONLY | O_CLOEXEC));
  UnpackTwice([&](int directory) {
    package::ExtractPayload(file.Get(), bytes.size(), directory, nullptr);
  });
}

void ReadSeal(const std::string& text) {
  const package::Seal seal = package::ParseSeal(text);
  const std::string written = package::FormatSeal(seal);
  Expect(package::FormatSeal(package::ParseSeal(written)) == written);
}

void ReadName(const std::string& name) {
  package::CheckFileName({"oui", package::Kind::kFull, 7}, name);
}

void BoundFiles() {
  const rlimit limit{kMostFileBytes, kMostFileBytes};
  setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool bounded = (BoundFiles(), true);
  Expect(bounded);
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  try {
    switch (kind) {
      case 'f':
        ReadWhole(rest, Trusted());
        break;
      case 'p':
        ReadSigned(rest);
        break;
      case 't':
        ReadSigned(WithGoodChecksums(rest));
        break;
      case 'y':
        UnpackPayload(rest);
        break;
      case 's':
        ReadSeal(rest);
        break;
      case 'n':
        ReadName(rest);
        break;
      default:
        break;
    }
  } catch (const package::Error&) {
    // What is wrong is told like this.
  }
  return 0;
}
