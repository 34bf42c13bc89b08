#ifndef TOLM_VCDIFF_TARGET_WINDOW_H_
#define TOLM_VCDIFF_TARGET_WINDOW_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "vcdiff/block_cache.h"
#include "vcdiff/input.h"
#include "vcdiff/output.h"
#include "vcdiff/window.h"
#include "vcdiff/window_buffer.h"

namespace tolm::vcdiff {

/// Carries out the instructions of one window after the other; a sink of InstructionReader, which
/// has checked every size and address.
///
/// Long pieces that lie in memory elsewhere (in a mapped source or delta) are not copied: the
/// window has a hole there, which is written straight from where the bytes are and filled only when
/// a later copy refers to it. The memory of a hole that is never filled is never touched.
///
/// What is made is summed up and given to the sink in pieces that the processor's cache still has,
/// before the window is complete.
class TargetWindow {
 public:
  /// Whatever is made goes to @p sink.
  explicit TargetWindow(Sink& sink) : sink_(sink) {}

  /// Starts a window. @p segment is the input of the window's segment, null when it has none; @p
  /// sum is where an Adler-32 checksum begins. Both inputs must stay as they are until Finish() has
  /// returned. Throws Error(kIo).
  void Begin(const Window& window, Input* segment, std::uint32_t sum);

  /// To be called after each instruction. Throws Error(kIo).
  void Done() {
    if (Size() >= write_at_) {
      WriteOut();
    }
  }

  /// Gives the rest of the window to the sink. Returns the checksum of the window when it has one
  /// to be compared with, otherwise something. Throws Error(kIo).
  std::uint32_t Finish();

  void Add(const std::uint8_t* data, std::size_t size, std::size_t readable) {
    if (size <= kWide && readable >= kWide) {
      std::memcpy(next_, data, kWide);
      next_ += size;
    } else {
      Append(data, size);
    }
  }

  void Run(std::uint8_t byte, std::size_t size) {
    std::memset(next_, byte, size);
    next_ += size;
  }

  void Copy(std::uint64_t address, std::size_t size) {
    if (address >= segment_size_) {
      CopyFromTarget(static_cast<std::size_t>(address - segment_size_), size);
      return;
    }
    const std::uint64_t there = segment_size_ - address;
    if (size <= kWide && there >= kWide && segment_ != nullptr) {
      std::memcpy(next_, segment_ + address, kWide);
      next_ += size;
      return;
    }
    CopyFromSegment(address, size, there);
  }

 private:
  /// A short copy moves this many bytes, whatever its size. The buffer has room for it.
  static constexpr std::size_t kWide = 32;
  static constexpr std::size_t kWriteBytes = 256U << 10;
  /// Shorter pieces are not worth a write of their own.
  static constexpr std::size_t kHoleBytes = 64U << 10;

  struct Hole {
    std::size_t start;
    std::size_t size;
    const std::uint8_t* bytes;
    bool is_filled;
  };

  std::size_t Size() const { return static_cast<std::size_t>(next_ - buffer_.Get()); }

  void CopyFromTarget(std::size_t from, std::size_t size) {
    const std::size_t distance = Size() - from;
    if (!holes_.empty()) {
      FillHoles(from, from + size);
    }
    const std::uint8_t* source = buffer_.Get() + from;
    if (size <= kWide && distance >= kWide) {
      std::memcpy(next_, source, kWide);
      next_ += size;
    } else if (distance >= size) {
      std::memcpy(next_, source, size);
      next_ += size;
    } else {
      Repeat(source, distance, size);
    }
  }

  void Append(const std::uint8_t* bytes, std::size_t size);
  void CopyFromSegment(std::uint64_t address, std::size_t size, std::uint64_t there);
  void Repeat(const std::uint8_t* period, std::size_t length, std::size_t size);
  void FillHoles(std::size_t start, std::size_t end);
  void WriteOut();
  void WritePiece(const std::uint8_t* bytes, std::size_t size);

  Sink& sink_;
  WindowBuffer buffer_;
  std::uint8_t* next_ = nullptr;
  const std::uint8_t* segment_ = nullptr;  // null when it is not in memory
  std::uint64_t segment_size_ = 0;
  std::uint64_t segment_position_ = 0;
  BlockCache cache_;
  std::vector<Hole> holes_;  // by start
  std::size_t first_unwritten_hole_ = 0;
  std::size_t written_ = 0;
  std::size_t write_at_ = 0;
  bool has_sum_ = false;
  std::uint32_t sum_ = 0;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_TARGET_WINDOW_H_
