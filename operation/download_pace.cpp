#include "operation/download_pace.h"

#include "base/rules.h"

namespace tolm::operation {

bool DownloadPace::IsTooSlow(TimePoint now, std::uint64_t bytes) {
  constexpr std::chrono::seconds kSpan{rules::kPaceSeconds};
  constexpr std::uint64_t kLeast = rules::kLeastBytesPerSecond * rules::kPaceSeconds;
  gained_ += bytes > last_bytes_ ? bytes - last_bytes_ : 0;
  last_bytes_ = bytes;
  while (samples_.size() > 1 && now - samples_[1].time >= kSpan) {
    samples_.pop_front();
  }
  const Sample& first = samples_.front();
  const bool is_too_slow = now - first.time >= kSpan && gained_ - first.gained < kLeast;
  samples_.push_back({now, gained_});
  return is_too_slow;
}

}  // namespace tolm::operation
