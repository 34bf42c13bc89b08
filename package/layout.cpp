#include "package/layout.h"

#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/file_io.h"

namespace tolm::package {
namespace {

constexpr char kMagic[] = "TOLMPKG1";
constexpr std::size_t kLengthBytes = 8;
constexpr std::size_t kMagicBytes = sizeof(kMagic) - 1;
static_assert(kLengthBytes + kMagicBytes == kTrailerBytes);

std::uint64_t DecodeLength(const char* bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

void ReadExactly(int fd, char* buffer, std::size_t size, std::uint64_t offset, const char* what) {
  const std::int64_t count = base::ReadAt(fd, buffer, size, offset);
  if (count < 0) {
    throw UnreadPart(what, fd, errno);
  }
  if (static_cast<std::size_t>(count) != size) {
    throw Error(Code::kChanged, std::string(what) + ": the file became shorter");
  }
}

}  // namespace

Layout ReadLayout(int fd, std::uint64_t file_bytes) {
  if (file_bytes < kTrailerBytes) {
    throw Error(Code::kNotAPackage, "too short for a package");
  }
  char trailer[kTrailerBytes];
  ReadExactly(fd, trailer, sizeof trailer, file_bytes - kTrailerBytes, "trailer");
  if (std::memcmp(trailer + kLengthBytes, kMagic, kMagicBytes) != 0) {
    throw Error(Code::kNotAPackage, "no package trailer at its end");
  }
  const std::uint64_t signature_bytes = DecodeLength(trailer);
  if (signature_bytes == 0 || signature_bytes > kMaxSignatureBytes) {
    throw Error(Code::kSignatureSize, "a signature of " + std::to_string(signature_bytes) +
                                          " bytes, allowed are 1 to " +
                                          std::to_string(kMaxSignatureBytes));
  }
  if (signature_bytes >= file_bytes - kTrailerBytes) {
    throw Error(Code::kSignatureSize, "the signature leaves no room for a payload");
  }
  return {file_bytes - kTrailerBytes - signature_bytes, static_cast<std::size_t>(signature_bytes)};
}

std::string ReadSignature(int fd, const Layout& layout) {
  std::string signature(layout.signature_bytes, '\0');
  ReadExactly(fd, signature.data(), signature.size(), layout.payload_bytes, "signature");
  return signature;
}

std::string FormatTrailer(std::size_t signature_bytes) {
  std::string trailer(kLengthBytes, '\0');
  std::uint64_t rest = signature_bytes;
  for (std::size_t i = kLengthBytes; i-- > 0; rest >>= 8) {
    trailer[i] = static_cast<char>(rest & 0xff);
  }
  return trailer + kMagic;
}

}  // namespace tolm::package
