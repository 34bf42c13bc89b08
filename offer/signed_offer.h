#ifndef TOLM_OFFER_SIGNED_OFFER_H_
#define TOLM_OFFER_SIGNED_OFFER_H_

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

#include "offer/offer.h"
#include "package/signature.h"
#include "package/trust.h"

namespace tolm::offer {

/// The two members of a description by which it is signed, as they stand there.
inline constexpr char kSignedMember[] = "signed";
inline constexpr char kSignatureMember[] = "signature";

/// What stands before the signed text in what the signature is made over, so that nothing else that
/// the same key may sign one day passes for a description.
inline constexpr char kSignaturePrefix[] = "TOLMINFO1\n";

struct SignedText {
  std::string text;       ///< of an Offer
  std::string signature;  ///< detached CMS SignedData (RFC 5652), DER, over prefix and text
};

/// Signs a text. Throws package::Error as package::SignText() does.
SignedText Sign(const std::string& text, const package::Signer& signer);

/// Puts both members into the document.
void AddTo(Json::Value& document, const SignedText& signed_text);

/// Reads both members; nothing when the document has neither. Throws Error(kForm) when one of them
/// is missing or not of its form.
std::optional<SignedText> SignedTextIn(const Json::Value& document);

/// An offer whose signature was verified.
struct VerifiedOffer {
  Offer offer;
  std::string digest;  ///< SHA-384 of the signed text, as of files
  package::CertificateDetails signer;
};

/// What the certificate says of who claims to have signed; nothing is verified. Throws
/// Error(kSignature).
package::CertificateDetails SignerOf(const SignedText& signed_text);

/// Verifies the signature, with certificates judged at @p at, and reads the text. The revocations
/// that it may bring are the caller's to take. Throws Error: kSignature, kNotTrusted, kWrongUsage,
/// kSignerNotValid, kKeyring, kForm, kInternal.
VerifiedOffer Verify(const SignedText& signed_text, const package::Trust& trust, std::int64_t at);

}  // namespace tolm::offer

#endif  // TOLM_OFFER_SIGNED_OFFER_H_
