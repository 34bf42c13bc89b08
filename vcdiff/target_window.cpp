#include "vcdiff/target_window.h"

#include <libdeflate.h>

#include <algorithm>

namespace tolm::vcdiff {

void TargetWindow::Begin(const Window& window, Input* segment, std::uint32_t sum) {
  const auto size = static_cast<std::size_t>(window.target_size);
  buffer_.Reserve(size + kWide);
  next_ = buffer_.Get();
  holes_.clear();
  first_unwritten_hole_ = 0;
  written_ = 0;
  write_at_ = kWriteBytes;
  has_sum_ = window.checksum.has_value();
  sum_ = sum;
  segment_size_ = window.segment_size;
  segment_position_ = window.segment_position;
  segment_ = nullptr;
  if (segment != nullptr) {
    segment_ = segment->Map(segment_position_, segment_size_);
    cache_.Attach(*segment);
  }
}

void TargetWindow::Append(const std::uint8_t* bytes, std::size_t size) {
  if (size >= kHoleBytes) {
    holes_.push_back({Size(), size, bytes, false});
  } else {
    std::copy_n(bytes, size, next_);
  }
  next_ += size;
}

void TargetWindow::CopyFromSegment(std::uint64_t address, std::size_t size, std::uint64_t there) {
  const std::size_t first = there < size ? static_cast<std::size_t>(there) : size;
  if (segment_ != nullptr) {
    Append(segment_ + address, first);
  } else {
    cache_.Read(segment_position_ + address, next_, first);
    next_ += first;
  }
  if (size > first) {
    CopyFromTarget(0, size - first);
  }
}

/// Appends @p size bytes that repeat the @p length bytes before the end.
void TargetWindow::Repeat(const std::uint8_t* period, std::size_t length, std::size_t size) {
  if (length == 1) {
    Run(*period, size);
    return;
  }
  while (size > 0) {
    // What is there doubles with every step and is never overlapped by what is appended.
    const std::size_t piece = std::min(length, size);
    std::memcpy(next_, period, piece);
    next_ += piece;
    size -= piece;
    length += piece;
  }
}

void TargetWindow::FillHoles(std::size_t start, std::size_t end) {
  auto hole = std::upper_bound(holes_.begin(), holes_.end(), start,
                               [](std::size_t at, const Hole& other) { return at < other.start; });
  if (hole != holes_.begin()) {
    --hole;
  }
  for (; hole != holes_.end() && hole->start < end; ++hole) {
    if (!hole->is_filled && hole->start + hole->size > start) {
      std::memcpy(buffer_.Get() + hole->start, hole->bytes, hole->size);
      hole->is_filled = true;
    }
  }
}

void TargetWindow::WriteOut() {
  for (; first_unwritten_hole_ < holes_.size(); ++first_unwritten_hole_) {
    const Hole& hole = holes_[first_unwritten_hole_];
    WritePiece(buffer_.Get() + written_, hole.start - written_);
    WritePiece(hole.bytes, hole.size);
    written_ = hole.start + hole.size;
  }
  WritePiece(buffer_.Get() + written_, Size() - written_);
  written_ = Size();
  write_at_ = written_ + kWriteBytes;
}

void TargetWindow::WritePiece(const std::uint8_t* bytes, std::size_t size) {
  while (size > 0) {
    const std::size_t piece = std::min(size, kWriteBytes);
    if (has_sum_) {
      sum_ = libdeflate_adler32(sum_, bytes, piece);
    }
    sink_.Write(bytes, piece);
    bytes += piece;
    size -= piece;
  }
}

std::uint32_t TargetWindow::Finish() {
  WriteOut();
  sink_.Settle();
  return sum_;
}

}  // namespace tolm::vcdiff
