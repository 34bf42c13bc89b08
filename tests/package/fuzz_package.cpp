// A target for libFuzzer. The first byte says what the rest is: a whole package file, a payload, a
// seal, a file name to compare with one. Whatever the bytes are: no crash, no access beyond what is
// there, and nothing written outside of the directory that is unpacked into.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/extract.h"
#include "package/package.h"
#include "package/seal.h"
#include "package/trust.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using namespace tolm;
namespace fs = std::filesystem;

constexpr std::int64_t kAt = 4000000000;  // Within the validity of the certificates of the corpus.
constexpr char kRoot[] = "/tmp/fuzz-package";
constexpr rlim_t kMostFileBytes = 4 << 20;

void Expect(bool holds) {
  if (!holds) {
    std::abort();
  }
}

const package::Trust& Trusted() {
  static const package::Trust trust =
      package::Trust::Load(TOLM_TEST_SOURCE_DIR "/tests/data/package/root.pem", "");
  return trust;
}

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// A directory to unpack into, and beside it what no package may touch.
class Ground {
 public:
  Ground() {
    fs::remove_all(kRoot);
    fs::create_directories(Target());
    Write(Canary(), "canary");
    Write(Target() + "/before", "before");
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
    Expect(names <= 3);  // Target, canary, and the package where there is one.
  }
  Ground(const Ground&) = delete;
  Ground& operator=(const Ground&) = delete;

  static std::string Target() { return std::string(kRoot) + "/target"; }
  static std::string Canary() { return std::string(kRoot) + "/canary"; }
  static std::string PackageFile() { return std::string(kRoot) + "/oui_v7"; }
};

base::Descriptor OpenTarget() {
  return base::Descriptor(open(Ground::Target().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

void ReadWhole(const std::string& bytes) {
  const Ground ground;
  Write(Ground::PackageFile(), bytes);
  const package::Package file(Ground::PackageFile());
  try {
    file.ReadSigner();
    file.CheckSigner(Trusted(), kAt);
  } catch (const package::Error&) {
    // Verifying says it, too.
  }
  file.ReadCompression();
  file.Verify(Trusted(), kAt);
  file.CheckName();
  file.ForEachMember([](const package::Member& member) { Expect(!member.name.empty()); });
  file.Extract(OpenTarget().Get(), nullptr);
}

void UnpackPayload(const std::string& bytes) {
  const Ground ground;
  Write(Ground::PackageFile(), bytes);
  const base::Descriptor file(open(Ground::PackageFile().c_str(), O_RDONLY | O_CLOEXEC));
  package::ExtractPayload(file.Get(), bytes.size(), OpenTarget().Get(), nullptr);
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
  if (size == 0 || !bounded) {
    return 0;
  }
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    switch (data[0]) {
      case 'f':
        ReadWhole(rest);
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
