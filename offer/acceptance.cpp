#include "offer/acceptance.h"

#include <algorithm>
#include <tuple>

#include "base/human_text.h"
#include "base/rules.h"
#include "offer/error.h"
#include "package/trust.h"

namespace tolm::offer {
namespace {

void RequireSameKind(const Offer& offer, const Accepted& accepted,
                     const std::string& info_version) {
  if (!accepted.repository.empty() && offer.repository != accepted.repository) {
    throw Error(Code::kOtherRepository, "it is of repository " + offer.repository +
                                            ", and this device follows " + accepted.repository);
  }
  if (offer.info_version != info_version) {
    throw Error(Code::kOtherForm, "it is for devices that ask for version \"" + offer.info_version +
                                      "\", and this one asks for \"" + info_version + '"');
  }
}

void RequireNotBefore(const VerifiedOffer& verified, const Accepted& accepted) {
  const Offer& offer = verified.offer;
  if (verified.signer.not_before < accepted.epoch) {
    throw Error(Code::kOlderSigner,
                "its signer's certificate, of " + base::UtcMinutes(verified.signer.not_before) +
                    " UTC, was replaced by one of " + base::UtcMinutes(accepted.epoch) + " UTC");
  }
  if (verified.signer.not_before > accepted.epoch) {
    return;
  }
  if (offer.counter < accepted.counter) {
    throw Error(Code::kOlder, "it is the one of " + base::UtcMinutes(offer.issued) +
                                  " UTC, older than that of " + base::UtcMinutes(accepted.issued) +
                                  " UTC, which was accepted before");
  }
  if (offer.counter == accepted.counter && verified.digest != accepted.digest) {
    throw Error(Code::kAltered, "it has another content than the one with the same counter, " +
                                    std::to_string(offer.counter) + ", that was accepted before");
  }
}

auto Fields(const Accepted& accepted) {
  return std::tie(accepted.repository, accepted.epoch, accepted.counter, accepted.digest,
                  accepted.issued, accepted.expires);
}

std::int64_t Latest(std::int64_t now) {
  return package::VerificationTime(now);
}

// By a signer whose clock was ahead, or whose key was stolen.
std::string AheadText(std::int64_t expires, std::int64_t issued) {
  return "it ends on " + base::UtcMinutes(expires) + " UTC, and one that says it was issued on " +
         base::UtcMinutes(issued) + " UTC was accepted before";
}

}  // namespace

std::int64_t TimeOf(const Accepted& accepted, std::int64_t now) {
  return std::max<std::int64_t>(Latest(now), accepted.repository.empty() ? 0 : accepted.issued);
}

std::int64_t TimeFor(std::int64_t signer_since, const Accepted& accepted, std::int64_t now) {
  return signer_since > accepted.epoch ? Latest(now) : TimeOf(accepted, now);
}

Acceptance Judge(const VerifiedOffer& verified, const Accepted& accepted,
                 const std::string& info_version, std::int64_t now) {
  const bool is_first = accepted.repository.empty();
  const Offer& offer = verified.offer;
  RequireSameKind(offer, accepted, info_version);
  if (!is_first) {
    RequireNotBefore(verified, accepted);
  }
  Acceptance acceptance;
  acceptance.is_newer_epoch = !is_first && verified.signer.not_before > accepted.epoch;
  const bool begins_anew = is_first || acceptance.is_newer_epoch;
  const std::int64_t issued = begins_anew ? offer.issued : std::max(offer.issued, accepted.issued);
  acceptance.accepted = {offer.repository, verified.signer.not_before,
                         offer.counter,    verified.digest,
                         issued,           offer.expires};
  // What it says of the time counts for itself as well.
  const std::int64_t at = TimeOf(acceptance.accepted, now);
  if (at > offer.expires) {
    throw Error(Code::kExpired, Latest(now) > offer.expires ? EndText(offer.expires, Latest(now))
                                                            : AheadText(offer.expires, at));
  }
  acceptance.is_new = is_first || Fields(acceptance.accepted) != Fields(accepted);
  return acceptance;
}

std::string EndText(std::int64_t expires, std::int64_t at) {
  const std::int64_t ago = at - expires;
  std::string text =
      "it ended on " + base::UtcMinutes(expires) + " UTC, " + base::HumanDuration(ago) + " ago";
  if (ago > rules::kClockDoubtSeconds) {
    text += "; this machine's clock says " + base::UtcMinutes(at) + " UTC, which is probably wrong";
  }
  return text;
}

}  // namespace tolm::offer
