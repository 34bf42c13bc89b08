#include "offer/signed_offer.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "base/digest.h"
#include "base/rules.h"
#include "offer/error.h"
#include "package/error.h"
#include "package/layout.h"

namespace tolm::offer {
namespace {

// Of so many bytes; the last ones may be padding.
constexpr std::size_t kBase64Group = 4;
constexpr std::size_t kBase64Bytes = 3;

Code CodeOf(package::Code code) {
  switch (code) {
    case package::Code::kSignatureSize:
    case package::Code::kSignatureForm:
    case package::Code::kEmbeddedContent:
    case package::Code::kNoSigner:
    case package::Code::kBadSignature:
      return Code::kSignature;
    case package::Code::kWeakDigest:
    case package::Code::kUntrusted:
    case package::Code::kRevoked:
      return Code::kNotTrusted;
    case package::Code::kWrongUsage:
      return Code::kWrongUsage;
    case package::Code::kExpired:
    case package::Code::kNotYetValid:
      return Code::kSignerNotValid;
    case package::Code::kKeyring:
      return Code::kKeyring;
    default:
      return Code::kInternal;
  }
}

template <typename Action>
auto Translated(Action action) {
  try {
    return action();
  } catch (const package::Error& error) {
    throw Error(CodeOf(error.code()), error.what());
  }
}

std::string ToBase64(const std::string& data) {
  std::vector<unsigned char> text((data.size() + 2) / kBase64Bytes * kBase64Group + 1);
  const int size = EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(data.data()),
                                   static_cast<int>(data.size()));
  return std::string(text.begin(), text.begin() + size);
}

// What is decoded and encoded again is the same: no white space, nothing behind the padding.
std::string FromBase64(const std::string& text) {
  if (text.empty() || text.size() > 2 * package::kMaxSignatureBytes) {
    throw Error(Code::kSignature, "its signature has an impossible length");
  }
  std::vector<unsigned char> data(text.size());
  const int size = EVP_DecodeBlock(data.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  std::string decoded(data.begin(), data.begin() + std::max(size, 0));
  // The bytes that padding stands for are decoded as zeros.
  const std::size_t padding = text.size() - 1 - text.find_last_not_of('=');
  decoded.resize(decoded.size() - std::min(padding, decoded.size()));
  if (ToBase64(decoded) != text) {
    throw Error(Code::kSignature, "its signature is no base64");
  }
  return decoded;
}

void RequireWithin(const package::Scope& scope, const Offer& offer) {
  for (const auto& [name, database] : offer.databases) {
    if (!package::IsWithin(scope, name)) {
      throw Error(Code::kWrongUsage, "its signer's certificate is for " +
                                         package::ScopeText(*scope) + " and not for \"" + name +
                                         '"');
    }
  }
}

}  // namespace

SignedText Sign(const std::string& text, const package::Signer& signer) {
  return {text, package::SignText(kSignaturePrefix + text, signer)};
}

void AddTo(Json::Value& document, const SignedText& signed_text) {
  document[kSignedMember] = signed_text.text;
  document[kSignatureMember] = ToBase64(signed_text.signature);
}

std::optional<SignedText> SignedTextIn(const Json::Value& document) {
  if (!document.isObject() ||
      (!document.isMember(kSignedMember) && !document.isMember(kSignatureMember))) {
    return std::nullopt;
  }
  if (!document[kSignedMember].isString() || !document[kSignatureMember].isString()) {
    throw Error(Code::kForm, "its signed part, or the signature, is missing or no text");
  }
  return SignedText{document[kSignedMember].asString(),
                    FromBase64(document[kSignatureMember].asString())};
}

package::CertificateDetails SignerOf(const SignedText& signed_text) {
  return Translated([&] { return package::ReadSignerCertificate(signed_text.signature); });
}

VerifiedOffer Verify(const SignedText& signed_text, const package::Trust& trust, std::int64_t at) {
  // Before it is signed by anyone whom it concerns, nothing of it is parsed.
  const package::VerifiedSigner signer = Translated([&] {
    return package::VerifyText(kSignaturePrefix + signed_text.text, signed_text.signature, trust,
                               at);
  });
  VerifiedOffer verified;
  verified.offer = ParseOffer(signed_text.text);
  RequireWithin(signer.scope, verified.offer);
  verified.signer = signer.certificate;
  base::Sha384 digest;
  digest.Add(signed_text.text.data(), signed_text.text.size());
  verified.digest = digest.Hex();
  return verified;
}

}  // namespace tolm::offer
