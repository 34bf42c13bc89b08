#include "operation/download_bounds.h"

#include <csignal>
#include <cstdint>
#include <filesystem>

#include "base/paths.h"
#include "operation/description_reader.h"
#include "operation/download_failure.h"
#include "operation/offered_size.h"
#include "operation/package_reason.h"
#include "operation/partial_downloads.h"
#include "operation/room.h"
#include "operation/sources.h"

namespace tolm::operation {
namespace {

constexpr int kSignalled = 128;
constexpr int kNotFound = 404;

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

// What is offered is no more than the limit where the server has sent more than it had offered.
Failure Beyond(const DownloadLimit& limit, const Step& step,
               std::optional<std::uint64_t> offered_bytes) {
  const bool is_known = offered_bytes && *offered_bytes > limit.bytes;
  Failure failure = limit.is_room
                        ? NoRoom(std::filesystem::path(step.file).parent_path(), limit.bytes,
                                 is_known ? offered_bytes : std::nullopt)
                        : Failure{reasons::kTooLarge, ShownUrl(step.url) + " is " + limit.reason};
  failure.item = ItemOf(step.file);
  return failure;
}

}  // namespace

bool DownloadBounds::Fits(const Step& step) {
  url_ = step.url;
  failure_reason_.clear();
  failure_ = {};
  const std::optional<std::uint64_t> offered = OfferedBytes(step.url);
  if (!HasRoom(step, offered)) {
    failure_reason_ = "it has " + limit_->reason;
    failure_ = Beyond(*limit_, step, offered);
    return false;
  }
  limit_ = LimitFor(step.file, SignedBytes(step.url), KeptBytesOf(step.url));
  return true;
}

// What is kept of other packages goes first, and that of this one where it is no help.
bool DownloadBounds::HasRoom(const Step& step, std::optional<std::uint64_t> offered_bytes) {
  const auto fits = [&] {
    limit_ = LimitFor(step.file, std::nullopt, KeptBytesOf(step.url));
    return !limit_ || (limit_->bytes != 0 && offered_bytes.value_or(0) <= limit_->bytes);
  };
  if (fits()) {
    return true;
  }
  RemoveOtherPartials(step.url);
  if (fits()) {
    return true;
  }
  RemoveOtherPartials("");
  return fits();
}

void DownloadBounds::Ended(const Step& step, const DownloadResult& result) {
  if (limit_ && result.exit_status == kSignalled + SIGXFSZ) {
    failure_reason_ = "the server sends " + limit_->reason;
    failure_ = Beyond(*limit_, step, OfferedBytes(step.url));
  } else {
    failure_reason_ = result.reason.empty() ? ReasonOf(result.exit_status) : result.reason;
    failure_ = result.failure;
    failure_.item = ItemOf(step.file);
    if (failure_.http_status == kNotFound && IsPlaceOfDescription(step.file)) {
      failure_.remedy = "is " + SettingOfSource() + " right?";
    }
  }
  failure_reason_ = WithFurther(failure_reason_, result.further);
  failure_.text = WithFurther(failure_.text, result.further);
}

void DownloadBounds::PackageRefused(const PackageRefusal& refusal) {
  package_ = refusal.named;
  package_failure_ = PackageFailure(refusal.opened, refusal.code, refusal.detail);
}

std::string DownloadBounds::WithReason(const std::string& message) const {
  const bool is_about_it = !failure_reason_.empty() && message.find(url_) != std::string::npos;
  return is_about_it ? message + " (" + failure_reason_ + ')' : WithPackageReason(message);
}

Failure DownloadBounds::Explain(const std::exception& error) const {
  const std::string message = error.what();
  const auto is_about = [&message](const std::string& what) {
    return !what.empty() && message.find(what) != std::string::npos;
  };
  if (!failure_.reason.empty() && is_about(url_)) {
    return failure_;
  }
  return is_about(package_) ? package_failure_ : FailureOf(error);
}

}  // namespace tolm::operation
