#include "publish/packed_size.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "package/error.h"

namespace tolm::publish {
namespace {

using package::Compression;
using package::CompressionChoice;

constexpr std::size_t kInputBytes = 128 * 1024;

}  // namespace

PackedSizeMeter::PackedSizeMeter(const package::Packing& packing)
    : packing_(packing), input_(kInputBytes) {}

std::uint64_t PackedSizeMeter::MemoryBytes(const package::Packing& packing,
                                           std::uint64_t file_bytes) {
  return package::MostEncoderBytes(Compression::kXz, std::min(file_bytes, packing.WindowBytes()));
}

std::optional<std::uint64_t> PackedSizeMeter::Measure(const std::string& path,
                                                      const package::Effort& effort,
                                                      std::uint64_t limit) {
  switch (packing_.compression) {
    case CompressionChoice::kXz:
      return MeasureAs(Compression::kXz, path, effort, limit);
    case CompressionChoice::kZstd:
      return MeasureAs(Compression::kZstd, path, effort, limit);
    case CompressionChoice::kAuto:
      break;
  }
  return MeasureSmaller(path, effort, limit);
}

// By the rule of payloads. zstd needs to be followed only until it is certain that xz is taken.
std::optional<std::uint64_t> PackedSizeMeter::MeasureSmaller(const std::string& path,
                                                             const package::Effort& effort,
                                                             std::uint64_t limit) {
  const std::optional<std::uint64_t> xz = MeasureAs(Compression::kXz, path, effort, limit);
  if (!xz) {
    return MeasureAs(Compression::kZstd, path, effort, limit);
  }
  const std::optional<std::uint64_t> zstd =
      MeasureAs(Compression::kZstd, path, effort, package::MostZstdBytesBeside(*xz));
  const std::uint64_t taken = zstd.value_or(*xz);
  return taken > limit ? std::nullopt : std::make_optional(taken);
}

std::optional<std::uint64_t> PackedSizeMeter::MeasureAs(Compression compression,
                                                        const std::string& path,
                                                        const package::Effort& effort,
                                                        std::uint64_t limit) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  std::uint64_t packed = 0;
  const auto encoder = package::NewEncoder(
      compression, {effort, static_cast<std::uint64_t>(status.st_size), packing_.WindowBytes()},
      [&packed](const char*, std::size_t size) { packed += size; });
  for (std::uint64_t read = 0; packed <= limit;) {
    const std::int64_t count = base::ReadAt(file.Get(), input_.data(), input_.size(), read);
    if (count < 0) {
      throw package::SystemError(package::Code::kRead, path, errno);
    }
    if (count == 0) {
      encoder->Finish();
      return packed > limit ? std::nullopt : std::make_optional(packed);
    }
    encoder->Write(input_.data(), static_cast<std::size_t>(count));
    read += static_cast<std::uint64_t>(count);
  }
  return std::nullopt;
}

}  // namespace tolm::publish
