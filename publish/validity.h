#ifndef TOLM_PUBLISH_VALIDITY_H_
#define TOLM_PUBLISH_VALIDITY_H_

#include <cstdint>
#include <string>

#include "package/certificate.h"

namespace tolm::publish {

/// Whole days from @p now to @p end; negative when it is past.
std::int64_t DaysLeft(std::int64_t end, std::int64_t now);

/// "3 days", "1 day", "less than a day"; of a negative number of days, those that have passed.
std::string DaysText(std::int64_t days);

/// "is valid until 2026-01-31 23:59 UTC, 3 days from now", "expired on 2026-01-31 23:59 UTC, 3 days
/// ago" or "is not valid before 2026-01-31 23:59 UTC, 3 days from now".
std::string ValidityText(const package::CertificateDetails& certificate, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_VALIDITY_H_
