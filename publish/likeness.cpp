#include "publish/likeness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
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

// For how well the new file compresses.
constexpr std::uint64_t kBlocks = 64;
constexpr std::size_t kBlockBytes = std::size_t{128} * 1024;
constexpr int kBlockLevel = 3;
// Of what that leaves of pieces, a package needs as little as this for the whole, about.
constexpr double kLeastOfPieces = 2.0 / 3;

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
  hash *= 0x9E3779B97F4A7C15U;
  hash ^= hash >> 32;
  hash += static_cast<unsigned char>(content[sizeof hash]) * std::uint64_t{0xD6E8FEB86659FD93U};
  hash ^= hash >> 29;
  hash *= 0xBF58476D1CE4E5B9U;
  return hash ^ hash >> 32;
}

// How many bytes content takes in a compressed file, about: by how often one byte follows another
// in it. Where content is like little of the rest, that is as much as without compression.
class ByteCosts {
 public:
  void Count(const char* content, std::size_t size) {
    for (std::size_t at = 1; at < size; ++at) {
      ++pairs_[IndexOf(content + at)];
      ++bytes_[static_cast<unsigned char>(content[at])];
      ++befores_[static_cast<unsigned char>(content[at - 1])];
      ++total_;
    }
  }

  double BytesFor(const char* content, std::size_t size) const {
    double bits = -std::log2(ShareOf(content[0]));
    for (std::size_t at = 1; at < size; ++at) {
      const double share = (pairs_[IndexOf(content + at)] + kDoubt * ShareOf(content[at])) /
                           (befores_[static_cast<unsigned char>(content[at - 1])] + kDoubt);
      bits += std::min(-std::log2(share), 8.0);
    }
    return bits / 8;
  }

 private:
  // So often a byte was seen before what follows it counts as much as what the file has.
  static constexpr double kDoubt = 16;

  // Of this byte behind the one before it.
  static std::size_t IndexOf(const char* at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(at[-1])) << 8 |
           static_cast<unsigned char>(at[0]);
  }

  double ShareOf(char byte) const {
    return (bytes_[static_cast<unsigned char>(byte)] + 1.0) / (static_cast<double>(total_) + 256);
  }

  std::vector<std::uint32_t> pairs_ = std::vector<std::uint32_t>(std::size_t{1} << 16);
  std::array<std::uint32_t, 256> bytes_{};
  std::array<std::uint32_t, 256> befores_{};
  std::uint64_t total_ = 0;
};

// What a file is like where one looked into it.
struct Content {
  double compressed = 1;  // what zstd leaves, as a share
  ByteCosts costs;
};

Content LookInto(const std::string& path) {
  const Descriptor file = OpenToRead(path);
  const std::uint64_t size = SizeOf(file, path);
  std::vector<char> block(kBlockBytes);
  std::vector<char> packed(ZSTD_compressBound(kBlockBytes));
  double read = 0;
  double left = 0;
  Content content;
  for (std::uint64_t number = 0; number < kBlocks; ++number) {
    const std::uint64_t offset = std::max(size / kBlocks * number, number * kBlockBytes);
    const std::size_t count = ReadPiece(file, offset, block.data(), block.size(), path);
    const std::size_t result =
        ZSTD_compress(packed.data(), packed.size(), block.data(), count, kBlockLevel);
    if (ZSTD_isError(result) != 0) {
      throw package::Error(package::Code::kInternal,
                           std::string("zstd: ") + ZSTD_getErrorName(result));
    }
    content.costs.Count(block.data(), count);
    read += static_cast<double>(count);
    left += count == 0 ? 0 : static_cast<double>(result);
  }
  content.compressed = read == 0 ? 1 : std::min(left / read, 1.0);
  return content;
}

struct Sample {
  std::uint64_t hash;
  float saved;  // bytes, for each place in which a delta takes it from the old file
};

bool operator<(const Sample& left, const Sample& right) {
  return left.hash < right.hash;
}
bool operator==(const Sample& left, const Sample& right) {
  return left.hash == right.hash;
}

// Different contents of a file, each once: those whose hash ends with so many zero bits.
class Samples {
 public:
  // @p costs may be null: then nothing is known of what they save.
  Samples(const std::string& path, const ByteCosts* costs) : costs_(costs) {
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
        Add(piece.data() + at);
      }
      offset += positions;
    }
    Tidy();
  }

  int bits() const { return bits_; }

  void Thin(int bits) {
    bits_ = bits;
    samples_.erase(std::remove_if(samples_.begin(), samples_.end(),
                                  [this](const Sample& sample) { return !IsTaken(sample.hash); }),
                   samples_.end());
  }

  // What those that are in the others, too, save together, for each of all, which are some; both
  // are as thin.
  double SavedBy(const Samples& others) const {
    std::vector<Sample> common;
    std::set_intersection(samples_.begin(), samples_.end(), others.samples_.begin(),
                          others.samples_.end(), std::back_inserter(common));
    double saved = 0;
    for (const Sample& sample : common) {
      saved += sample.saved;
    }
    return saved / static_cast<double>(samples_.size());
  }

  std::size_t size() const { return samples_.size(); }

 private:
  bool IsTaken(std::uint64_t hash) const { return (hash & ((std::uint64_t{1} << bits_) - 1)) == 0; }

  void Add(const char* content) {
    const std::uint64_t hash = HashOf(content);
    if (!IsTaken(hash)) {
      return;
    }
    samples_.push_back({hash, costs_ == nullptr ? 0 : SavedAt(content)});
    if (samples_.size() >= 2 * kMostSamples) {
      Tidy();
    }
  }

  // Where a match that is as short as can be begins, the delta saves what it would have become,
  // less its own cost; where a long one goes on, one byte more.
  float SavedAt(const char* content) const {
    const double bytes = costs_->BytesFor(content, kMatchBytes);
    return static_cast<float>(std::max(bytes - kMatchCostBytes, bytes / kMatchBytes));
  }

  void Tidy() {
    std::sort(samples_.begin(), samples_.end());
    samples_.erase(std::unique(samples_.begin(), samples_.end()), samples_.end());
    while (samples_.size() > kMostSamples) {
      Thin(bits_ + 1);
    }
  }

  const ByteCosts* const costs_;
  int bits_ = 0;
  std::vector<Sample> samples_;  // in the order of hashes, each once, but for the latest
};

}  // namespace

double MostThatADeltaSaves(const std::string& old_path, const std::string& new_path) {
  const Content content = LookInto(new_path);
  Samples before(old_path, nullptr);
  Samples after(new_path, &content.costs);
  const int bits = std::max(before.bits(), after.bits());
  before.Thin(bits);
  after.Thin(bits);
  if (after.size() < kFewestSamples) {
    return 1;
  }
  return after.SavedBy(before) / (content.compressed * kLeastOfPieces);
}

}  // namespace tolm::publish
