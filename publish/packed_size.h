#ifndef TOLM_PUBLISH_PACKED_SIZE_H_
#define TOLM_PUBLISH_PACKED_SIZE_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "package/encoder.h"
#include "package/packing.h"

namespace tolm::publish {

/// Measures how large files become when they are compressed as payloads are, each by itself. Inside
/// a package a file also profits from its neighbours, which no measure of one file can know.
class PackedSizeMeter {
 public:
  explicit PackedSizeMeter(const package::Packing& packing);

  /// The memory that measuring a file of that size takes: one encoder's, with a window as large as
  /// the file, or the packing's where that is smaller.
  static std::uint64_t MemoryBytes(const package::Packing& packing, std::uint64_t file_bytes);

  /// The file's size in bytes when it is compressed as hard as @p effort (package::EffortFor), by
  /// what the packing takes; nothing when it exceeds @p limit, mostly found out soon. Throws
  /// package::Error(kRead).
  std::optional<std::uint64_t> Measure(
      const std::string& path, const package::Effort& effort,
      std::uint64_t limit = std::numeric_limits<std::uint64_t>::max());

 private:
  std::optional<std::uint64_t> MeasureAs(package::Compression compression, const std::string& path,
                                         const package::Effort& effort, std::uint64_t limit);
  std::optional<std::uint64_t> MeasureSmaller(const std::string& path,
                                              const package::Effort& effort, std::uint64_t limit);

  const package::Packing packing_;
  std::vector<char> input_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PACKED_SIZE_H_
