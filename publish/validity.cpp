#include "publish/validity.h"

#include "publish/list.h"

namespace tolm::publish {
namespace {

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;

std::string Day(std::int64_t time) {
  return TimeText(time) + " UTC";
}

}  // namespace

std::int64_t DaysLeft(std::int64_t end, std::int64_t now) {
  const std::int64_t left = end - now;
  return left >= 0 ? left / kDaySeconds : -((-left + kDaySeconds - 1) / kDaySeconds);
}

std::string DaysText(std::int64_t days) {
  const std::int64_t whole = days >= 0 ? days : -days - 1;
  if (whole == 0) {
    return "less than a day";
  }
  return std::to_string(whole) + (whole == 1 ? " day" : " days");
}

std::string ValidityText(const package::CertificateDetails& certificate, std::int64_t now) {
  if (now < certificate.not_before) {
    return "is not valid before " + Day(certificate.not_before) + ", " +
           DaysText(DaysLeft(certificate.not_before, now)) + " from now";
  }
  const std::string days = DaysText(DaysLeft(certificate.not_after, now));
  return now > certificate.not_after
             ? "expired on " + Day(certificate.not_after) + ", " + days + " ago"
             : "is valid until " + Day(certificate.not_after) + ", " + days + " from now";
}

}  // namespace tolm::publish
