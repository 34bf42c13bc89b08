#ifndef TOLM_PUBLISH_PACKED_SIZE_H_
#define TOLM_PUBLISH_PACKED_SIZE_H_

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct ZSTD_CCtx_s;

namespace tolm::publish {

/// Measures how large files become when they are compressed as payloads are, each by itself. Inside
/// a package a file also profits from its neighbours, which no measure of one file can know.
class PackedSizeMeter {
 public:
  PackedSizeMeter();
  ~PackedSizeMeter();
  PackedSizeMeter(const PackedSizeMeter&) = delete;
  PackedSizeMeter& operator=(const PackedSizeMeter&) = delete;

  /// The file's size in bytes when it is compressed at @p level (package::CompressionLevel);
  /// nothing as soon as it is certain to exceed @p limit. Throws package::Error(kRead).
  std::optional<std::uint64_t> Measure(
      const std::string& path, int level,
      std::uint64_t limit = std::numeric_limits<std::uint64_t>::max());

 private:
  struct ContextDelete {
    void operator()(ZSTD_CCtx_s* context) const noexcept;
  };

  std::uint64_t Compress(const char* data, std::size_t size, bool is_last);

  std::unique_ptr<ZSTD_CCtx_s, ContextDelete> context_;
  std::vector<char> input_;
  std::vector<char> output_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PACKED_SIZE_H_
