#include "package/compression.h"

namespace tolm::package {
namespace {

using namespace std::string_view_literals;

struct Mark {
  std::string_view bytes;
  Compression compression;
};

constexpr Mark kMarks[] = {{"\xfd"
                            "7zXZ\0"sv,
                            Compression::kXz},
                           {"\x28\xb5\x2f\xfd"sv, Compression::kZstd},
                           {"\x1f\x8b"sv, Compression::kGzip}};

}  // namespace

const char* CompressionText(Compression compression) {
  switch (compression) {
    case Compression::kNone:
      return "none";
    case Compression::kGzip:
      return "gzip";
    case Compression::kXz:
      return "xz";
    case Compression::kZstd:
      return "zstd";
  }
  return "";
}

Compression CompressionOf(std::string_view first_bytes) {
  for (const Mark& mark : kMarks) {
    if (first_bytes.substr(0, mark.bytes.size()) == mark.bytes) {
      return mark.compression;
    }
  }
  return Compression::kNone;
}

}  // namespace tolm::package
