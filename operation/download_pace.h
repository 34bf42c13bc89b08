#ifndef TOLM_OPERATION_DOWNLOAD_PACE_H_
#define TOLM_OPERATION_DOWNLOAD_PACE_H_

#include <chrono>
#include <cstdint>
#include <deque>

namespace tolm::operation {

/// Whether a download is so slow that it is not waited for any longer: it has gained less than
/// rules::kLeastBytesPerSecond on average in the last rules::kPaceSeconds. A file that became
/// smaller, for a new attempt, has gained nothing by it and loses nothing.
class DownloadPace {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `bytes` is what the file has before.
  explicit DownloadPace(TimePoint begin, std::uint64_t bytes = 0)
      : samples_{{begin, 0}}, last_bytes_(bytes) {}

  /// What the file has at a moment, of which none is before the last one.
  bool IsTooSlow(TimePoint now, std::uint64_t bytes);

 private:
  struct Sample {
    TimePoint time;
    std::uint64_t gained;
  };

  std::deque<Sample> samples_;  ///< The first one is as old as the span, or as the download.
  std::uint64_t last_bytes_;
  std::uint64_t gained_ = 0;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_PACE_H_
