#ifndef TOLM_VCDIFF_ERROR_H_
#define TOLM_VCDIFF_ERROR_H_

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tolm::vcdiff {

enum class ErrorKind {
  kBadInput,  ///< The delta is not valid, not supported, beyond a limit, or not for this source.
  kIo,        ///< A file could not be opened, read, written or renamed.
};

/// The only exception of this library besides std::bad_alloc. what() is one line that names the
/// file and, for bad input, the offset, the field by RFC 3284's name for it, its value and what it
/// was measured against.
class Error : public std::runtime_error {
 public:
  Error(ErrorKind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  ErrorKind Kind() const noexcept { return kind_; }

 private:
  ErrorKind kind_;
};

/// Where bytes come from, for messages. The name must outlive it.
struct Origin {
  const std::string* file = nullptr;
  std::uint64_t offset = 0;   ///< of the first byte, in the file
  bool decompressed = false;  ///< The bytes were decompressed from what begins at the offset.
};

/// A field of a delta, for messages: the byte at @p position of the bytes from @p origin.
struct Place {
  Origin origin;
  std::uint64_t position;
  const char* field;
};

/// Each throws Error(kBadInput) about one field.
[[noreturn]] void ThrowAbove(const Place& place, std::uint64_t value, std::uint64_t limit);
[[noreturn]] void ThrowUnequal(const Place& place, std::uint64_t value, std::uint64_t expected);
[[noreturn]] void ThrowTruncated(const Place& place, std::uint64_t wanted, std::uint64_t left);
[[noreturn]] void ThrowOverlong(const Place& place);
/// @p what completes "value N ".
[[noreturn]] void ThrowRefused(const Place& place, std::uint64_t value, const char* what);

/// Throws Error(kIo): what was tried, and why the system refused (an errno value).
[[noreturn]] void ThrowIo(const std::string& file, const char* tried, int error);
/// Throws Error(kIo) for a file that is not as it must be.
[[noreturn]] void ThrowUnusable(const std::string& file, const char* why);

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_ERROR_H_
