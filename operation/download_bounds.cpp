#include "operation/download_bounds.h"

#include <csignal>
#include <cstdint>

#include "operation/offered_size.h"
#include "operation/package_reason.h"

namespace tolm::operation {
namespace {

constexpr int kSignalled = 128;

// What wget's exit status tells.
std::string ReasonOf(int exit_status) {
  switch (exit_status) {
    case 1:
    case 2:
      return "wget failed, the system log says why";
    case 3:
      return "the file cannot be written";
    case 4:
      return "the server is not reached or breaks off";
    case 5:
      return "the server's certificate is not trusted";
    case 6:
      return "the server asks for a password";
    case 7:
      return "the server breaks the protocol";
    case 8:
      return "the server answers with an error";
    default:
      return "";
  }
}

}  // namespace

bool DownloadBounds::Fits(const Step& step) {
  url_ = step.url;
  failure_reason_.clear();
  limit_ = LimitFor(step.file);
  const std::uint64_t offered = OfferedBytes(step.url).value_or(0);
  if (limit_ && (limit_->bytes == 0 || offered > limit_->bytes)) {
    failure_reason_ = "it has " + limit_->reason;
    return false;
  }
  failure_reason_ = RefusalOfLink(step.url);
  return failure_reason_.empty();
}

void DownloadBounds::Begin() {
  if (limit_) {
    file_size_limit_ = std::make_unique<FileSizeLimit>(limit_->bytes);
  }
}

void DownloadBounds::Ended(const DownloadResult& result) {
  file_size_limit_.reset();
  if (limit_ && result.exit_status == kSignalled + SIGXFSZ) {
    failure_reason_ = "the server sends " + limit_->reason;
  } else {
    failure_reason_ = result.reason.empty() ? ReasonOf(result.exit_status) : result.reason;
  }
}

std::string DownloadBounds::WithReason(const std::string& message) const {
  const bool is_about_it = !failure_reason_.empty() && message.find(url_) != std::string::npos;
  return is_about_it ? message + " (" + failure_reason_ + ')' : WithPackageReason(message);
}

}  // namespace tolm::operation
