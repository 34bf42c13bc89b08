#ifndef TOLM_OPERATION_DOWNLOAD_BOUNDS_H_
#define TOLM_OPERATION_DOWNLOAD_BOUNDS_H_

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "operation/download_limit.h"
#include "operation/platform_calls.h"

namespace tolm::operation {

/// Says how large downloads may become by the space that there is (see LimitFor) and remembers why
/// the last one failed, and why the last package was refused. To be told of each download: Fits,
/// Ended.
class DownloadBounds {
 public:
  /// False when it cannot fit, and must not begin.
  bool Fits(const Step& step);
  /// How large the one that fits may become; nothing where that is not known.
  std::optional<std::uint64_t> MostBytes() const {
    return limit_ ? std::make_optional(limit_->bytes) : std::nullopt;
  }
  void Ended(const Step& step, const DownloadResult& result);

  /// The package was not accepted or not unpacked.
  void PackageRefused(const PackageRefusal& refusal);

  /// The library's message with the reason in words behind it, where the message is about the
  /// download that failed last or about a package that was not accepted.
  std::string WithReason(const std::string& message) const;
  /// Of the last download, and of the last package that was refused; both may be of no failure.
  const Failure& failure() const { return failure_; }
  const Failure& package_failure() const { return package_failure_; }
  /// Why the library has thrown that: what is remembered, where it is about that, else what the
  /// error itself tells.
  Failure Explain(const std::exception& error) const;

 private:
  bool HasRoom(const Step& step, std::optional<std::uint64_t> offered_bytes);

  std::optional<DownloadLimit> limit_;
  std::string url_;
  std::string failure_reason_;
  Failure failure_;
  std::string package_;  ///< The one that was refused last, and why.
  Failure package_failure_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_BOUNDS_H_
