#include "package/packing.h"

namespace tolm::package {
namespace {

constexpr CompressionChoice kChoices[] = {CompressionChoice::kAuto, CompressionChoice::kXz,
                                          CompressionChoice::kZstd};

constexpr std::uint64_t kXzPercentAtMost = 97;

}  // namespace

const char* CompressionChoiceText(CompressionChoice choice) {
  switch (choice) {
    case CompressionChoice::kAuto:
      return "auto";
    case CompressionChoice::kXz:
      return "xz";
    case CompressionChoice::kZstd:
      return "zstd";
  }
  return "";
}

std::optional<CompressionChoice> ParseCompressionChoice(const std::string& text) {
  for (const CompressionChoice choice : kChoices) {
    if (text == CompressionChoiceText(choice)) {
      return choice;
    }
  }
  return std::nullopt;
}

bool IsWindowSize(int mebibytes) {
  return mebibytes >= kLeastWindowMebibytes && mebibytes <= kMostWindowMebibytes &&
         (mebibytes & (mebibytes - 1)) == 0;
}

bool XzPays(std::uint64_t xz_bytes, std::uint64_t zstd_bytes) {
  return xz_bytes * 100 <= zstd_bytes * kXzPercentAtMost;
}

std::uint64_t MostZstdBytesBeside(std::uint64_t xz_bytes) {
  return (xz_bytes * 100 - 1) / kXzPercentAtMost;
}

}  // namespace tolm::package
