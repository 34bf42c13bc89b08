#ifndef TOLM_PACKAGE_LAYOUT_H_
#define TOLM_PACKAGE_LAYOUT_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tolm::package {

/// The largest signature that is read or written.
inline constexpr std::size_t kMaxSignatureBytes = 64 * 1024;
inline constexpr std::size_t kTrailerBytes = 16;

/// Where the parts of a package lie: the payload from 0, the signature behind it, the trailer at
/// the end.
struct Layout {
  std::uint64_t payload_bytes = 0;
  std::size_t signature_bytes = 0;
};

/// Reads the trailer of an open package of @p file_bytes bytes; nothing else of the file is read.
/// Throws Error (kNotAPackage, kSignatureSize, kRead).
Layout ReadLayout(int fd, std::uint64_t file_bytes);

/// Reads the signature. Throws Error (kRead, or kChanged when the file became shorter).
std::string ReadSignature(int fd, const Layout& layout);

/// The trailer that ends a package with a signature of that length.
std::string FormatTrailer(std::size_t signature_bytes);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_LAYOUT_H_
