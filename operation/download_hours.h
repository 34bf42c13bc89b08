#ifndef TOLM_OPERATION_DOWNLOAD_HOURS_H_
#define TOLM_OPERATION_DOWNLOAD_HOURS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace tolm::operation {

/// The hours of the day, in local time, in which scheduled runs begin to download: from the first
/// minute to the one before the second, over midnight where that is the earlier one.
class DownloadHours {
 public:
  /// From "22:00-06:00"; nothing for what has another form, or is no time of the day, or where both
  /// are the same.
  static std::optional<DownloadHours> Parse(const std::string& text);

  bool Hold(std::int64_t moment) const;
  /// As it was parsed.
  const std::string& text() const noexcept { return text_; }

 private:
  DownloadHours(std::string text, int begin_minute, int end_minute)
      : text_(std::move(text)), begin_minute_(begin_minute), end_minute_(end_minute) {}

  std::string text_;
  int begin_minute_;  ///< Of the day.
  int end_minute_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_HOURS_H_
