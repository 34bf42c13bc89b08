#include "publish/likeness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "base/descriptor.h"
#include "package/error.h"

namespace tolm::publish {
namespace {

using base::Descriptor;

// xdelta3 -9 takes nothing shorter from the old file.
constexpr std::size_t kMatchBytes = 9;
// What a delta needs to say that it does, about.
constexpr double kMatchCostBytes = 4;

constexpr std::size_t kMostSamples = std::size_t{128} * 1024;
// Of a file that repeats itself there may be so few that they say nothing.
constexpr std::size_t kFewestSamples = 1024;
constexpr std::size_t kPieceBytes = std::size_t{1024} * 1024;

// For how well the new file compresses. Pieces compress worse than the whole, which errs on the
// side of a delta.
constexpr std::uint64_t kBlocks = 64;
constexpr std::size_t kBlockBytes = std::size_t{128} * 1024;
constexpr int kBlockLevel = 3;

Descriptor OpenToRead(const std::string& path) {
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.IsOpen()) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  return file;
}

// Returns fewer bytes only at the end of the file.
std::size_t ReadPiece(const Descriptor& file, std::uint64_t offset, char* to, std::size_t size,
                      const std::string& path) {
  const std::int64_t count = base::ReadAt(file.Get(), to, size, offset);
  if (count < 0) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  return static_cast<std::size_t>(count);
}

std::uint64_t SizeOf(const Descriptor& file, const std::string& path) {
  struct stat status {};
  if (::fstat(file.Get(), &status) != 0) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t HashOf(const char* content) {
  static_assert(kMatchBytes == sizeof(std::uint64_t) + 1);
  std::uint64_t hash = 0;
  std::memcpy(&hash, content, sizeof hash);
  hash ^= static_cast<std::uint64_t>(static_cast<unsigned char>(content[sizeof hash])) << 56;
  hash ^= hash >> 32;
  hash *= 0x9E3779B97F4A7C15U;
  hash ^= hash >> 29;
  hash *= 0xBF58476D1CE4E5B9U;
  return hash ^ hash >> 32;
}

// Different contents of a file, each once: those whose hash ends with so many zero bits.
class Samples {
 public:
  explicit Samples(const std::string& path) {
    const Descriptor file = OpenToRead(path);
    for (std::uint64_t size = SizeOf(file, path); size >> bits_ > kMostSamples;) {
      ++bits_;
    }
    std::vector<char> piece(kPieceBytes);
    for (std::uint64_t offset = 0;;) {
      const std::size_t size = ReadPiece(file, offset, piece.data(), piece.size(), path);
      if (size < kMatchBytes) {
        break;
      }
      const std::size_t positions = size - kMatchBytes + 1;
      for (std::size_t at = 0; at < positions; ++at) {
        Add(HashOf(piece.data() + at));
      }
      offset += positions;
    }
    Tidy();
  }

  int bits() const { return bits_; }

  void Thin(int bits) {
    bits_ = bits;
    hashes_.erase(std::remove_if(hashes_.begin(), hashes_.end(),
                                 [this](std::uint64_t hash) { return !IsTaken(hash); }),
                  hashes_.end());
  }

  // The share of these that are in the others, too; both are as thin.
  double ShareIn(const Samples& others) const {
    std::vector<std::uint64_t> common;
    std::set_intersection(hashes_.begin(), hashes_.end(), others.hashes_.begin(),
                          others.hashes_.end(), std::back_inserter(common));
    return hashes_.empty()
               ? 0
               : static_cast<double>(common.size()) / static_cast<double>(hashes_.size());
  }

  std::size_t size() const { return hashes_.size(); }

 private:
  bool IsTaken(std::uint64_t hash) const { return (hash & ((std::uint64_t{1} << bits_) - 1)) == 0; }

  void Add(std::uint64_t hash) {
    if (IsTaken(hash)) {
      hashes_.push_back(hash);
      if (hashes_.size() >= 2 * kMostSamples) {
        Tidy();
      }
    }
  }

  void Tidy() {
    std::sort(hashes_.begin(), hashes_.end());
    hashes_.erase(std::unique(hashes_.begin(), hashes_.end()), hashes_.end());
    while (hashes_.size() > kMostSamples) {
      Thin(bits_ + 1);
    }
  }

  int bits_ = 0;
  std::vector<std::uint64_t> hashes_;  // in their order, each once, but for the latest
};

// What zstd leaves of the file, as a share.
double CompressedShare(const std::string& path) {
  const Descriptor file = OpenToRead(path);
  const std::uint64_t size = SizeOf(file, path);
  std::vector<char> block(kBlockBytes);
  std::vector<char> packed(ZSTD_compressBound(kBlockBytes));
  double read = 0;
  double left = 0;
  for (std::uint64_t number = 0; number < kBlocks; ++number) {
    const std::uint64_t offset = std::max(size / kBlocks * number, number * kBlockBytes);
    const std::size_t count = ReadPiece(file, offset, block.data(), block.size(), path);
    const std::size_t result =
        ZSTD_compress(packed.data(), packed.size(), block.data(), count, kBlockLevel);
    if (ZSTD_isError(result) != 0) {
      throw package::Error(package::Code::kInternal,
                           std::string("zstd: ") + ZSTD_getErrorName(result));
    }
    read += static_cast<double>(count);
    left += count == 0 ? 0 : static_cast<double>(result);
  }
  return read == 0 ? 1 : std::min(left / read, 1.0);
}

}  // namespace

double MostThatADeltaSaves(const std::string& old_path, const std::string& new_path) {
  Samples before(old_path);
  Samples after(new_path);
  const int bits = std::max(before.bits(), after.bits());
  before.Thin(bits);
  after.Thin(bits);
  if (after.size() < kFewestSamples) {
    return 1;
  }
  const double compressed = CompressedShare(new_path);
  // Where a match that is as short as can be begins, the delta saves what it would have become,
  // less its own cost; where a long one goes on, one byte more.
  const double saved = std::max(kMatchBytes * compressed - kMatchCostBytes, compressed);
  return after.ShareIn(before) * saved / compressed;
}

}  // namespace tolm::publish
