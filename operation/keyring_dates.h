#ifndef TOLM_OPERATION_KEYRING_DATES_H_
#define TOLM_OPERATION_KEYRING_DATES_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolm::operation {

/// What a certificate says of itself; times in seconds since 1970, 0 for what is no time.
struct CertificateDates {
  std::string subject;
  std::int64_t not_before;
  std::int64_t not_after;
};

/// What a revocation list says of itself.
struct RevocationDates {
  std::string issuer;
  std::int64_t next_update;  ///< Seconds since 1970; 0 where it does not say.
};

/// Everything of that kind in a PEM file, in its order; the last one is nothing where the file
/// cannot be read on from there. Nothing is judged. Both throw base::FileError, and
/// std::runtime_error for a file beyond the keyring's bounds. The file must be a regular one: who
/// opens a pipe waits for its other end.
std::vector<std::optional<CertificateDates>> ReadCertificateDates(const std::string& file);
std::vector<std::optional<RevocationDates>> ReadRevocationDates(const std::string& file);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_KEYRING_DATES_H_
