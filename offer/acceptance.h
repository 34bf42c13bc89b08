#ifndef TOLM_OFFER_ACCEPTANCE_H_
#define TOLM_OFFER_ACCEPTANCE_H_

#include <cstdint>
#include <string>

#include "offer/signed_offer.h"

namespace tolm::offer {

/// What a device remembers of the newest description that it has accepted. Without one the
/// repository is empty and the rest counts for nothing.
struct Accepted {
  std::string repository;
  std::int64_t epoch = 0;  ///< the signer's notBefore, seconds since 1970
  std::uint64_t counter = 0;
  std::string digest;  ///< SHA-384 of the signed text
  std::int64_t issued = 0;
  std::int64_t expires = 0;
};

/// The latest of the system's time, the day on which this was built and the newest accepted
/// `issued`: none of them lets time go back.
std::int64_t TimeOf(const Accepted& accepted, std::int64_t now);

/// The time at which the certificates of who claims to have signed are judged, whose own begins to
/// be valid at @p signer_since (see SignerOf()): TimeOf(), but of a signer newer than the accepted
/// one's the system's time, or the day on which this was built. A signer that has put dates into
/// the future is replaced by that.
std::int64_t TimeFor(std::int64_t signer_since, const Accepted& accepted, std::int64_t now);

/// What follows from the one before.
struct Acceptance {
  Accepted accepted;            ///< what is to be remembered from now on
  bool is_new = false;          ///< it differs from what was remembered
  bool is_newer_epoch = false;  ///< a newer signer has taken the older one's place
};

/// Judges a verified offer by what was accepted before. In this order: the repository and the
/// version of the form are the same; its signer is the same or newer by the certificate's
/// notBefore; of the same signer, the counter is higher, or the same under the same content; its
/// time is not over. A newer signer begins to count anew. Throws Error: kOtherRepository,
/// kOtherForm, kOlderSigner, kOlder, kAltered, kExpired.
Acceptance Judge(const VerifiedOffer& verified, const Accepted& accepted,
                 const std::string& info_version, std::int64_t now);

/// Why one whose time is over is of no use, or nothing: "it ended on 2026-01-31 23:59 UTC". The
/// clock is named where it is so far ahead that it is the probable reason.
std::string EndText(std::int64_t expires, std::int64_t at);

}  // namespace tolm::offer

#endif  // TOLM_OFFER_ACCEPTANCE_H_
