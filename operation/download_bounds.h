#ifndef TOLM_OPERATION_DOWNLOAD_BOUNDS_H_
#define TOLM_OPERATION_DOWNLOAD_BOUNDS_H_

#include <memory>
#include <optional>
#include <string>

#include "operation/download_limit.h"
#include "operation/platform_calls.h"

namespace tolm::operation {

/// Bounds the downloads of this process by the space that there is (see LimitFor) and remembers why
/// the last one failed. To be told of each download: Fits, Begin, Ended.
class DownloadBounds {
 public:
  /// False when it cannot fit, or its link is none to be followed, and it must not begin.
  bool Fits(const Step& step);
  /// It begins: from now on the bound holds.
  void Begin();
  void Ended(const DownloadResult& result);

  /// It is not begun, for that reason.
  void Refuse(const std::string& reason) { failure_reason_ = reason; }

  /// The library's message with the reason in words behind it, where the message is about the
  /// download that failed last or about a package that was not accepted.
  std::string WithReason(const std::string& message) const;

 private:
  std::optional<DownloadLimit> limit_;
  std::unique_ptr<FileSizeLimit> file_size_limit_;
  std::string url_;
  std::string failure_reason_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_BOUNDS_H_
