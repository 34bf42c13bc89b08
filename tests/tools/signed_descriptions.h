#ifndef TOLM_TESTS_TOOLS_SIGNED_DESCRIPTIONS_H_
#define TOLM_TESTS_TOOLS_SIGNED_DESCRIPTIONS_H_

#include <json/value.h>
#include <json/writer.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "base/digest.h"
#include "offer/offer.h"
#include "offer/signed_offer.h"
#include "package/scope.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/publisher.h"

namespace tolm::testing {

/// Options of a certificate for who signs descriptions, a newer signer with a later notBefore.
inline CertificateOptions ForDescriptions(std::time_t not_before = kLongAgo,
                                          std::time_t not_after = kFarFuture) {
  CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  options.not_before = not_before;
  options.not_after = not_after;
  return options;
}

inline offer::PackageOffer PackageOfferOf(const std::filesystem::path& package) {
  const std::string content = ReadFile(package);
  base::Sha384 digest;
  digest.Add(content.data(), content.size());
  return {Publisher::PathOf(package).substr(1), content.size(), digest.Hex()};
}

/// What a publisher offers of "oui": that version, in full, issued an hour ago and good for a
/// month.
inline offer::Offer OfferOf(Publisher& publisher, int version, std::uint64_t counter) {
  constexpr std::time_t kHour = 3600;
  constexpr std::time_t kMonth = 30 * 24 * kHour;
  const std::time_t now = std::time(nullptr);
  offer::Offer made;
  made.repository = std::string(32, 'a');
  made.info_version = "1";
  made.counter = counter;
  made.issued = now - kHour;
  made.expires = now + kMonth;
  made.base = publisher.Server().Url("");
  offer::DatabaseOffer& database = made.databases["oui"];
  database.version = version;
  database.last_fetch_time = 1700000000;
  database.full = PackageOfferOf(publisher.FullPackage("oui", version));
  return made;
}

/// The members for devices that know of no signatures.
inline Json::Value LegacyOf(const offer::Offer& offer) {
  Json::Value document = offer::DocumentOf(offer);
  document.removeMember(offer::kSignedMember);
  return document;
}

/// The whole document, signed.
inline std::string Describe(const Json::Value& legacy, const offer::SignedText& signed_text) {
  Json::Value document = legacy;
  offer::AddTo(document, signed_text);
  return Json::writeString(Json::StreamWriterBuilder(), document);
}
inline std::string Describe(const offer::Offer& offer, const package::Signer& signer) {
  return Describe(LegacyOf(offer), offer::Sign(offer::FormatOffer(offer), signer));
}

/// The device trusts this root, too.
inline void AddToKeyring(const std::string& pem) {
  const std::filesystem::path keyring = "/usr/tolm/etc/keyring/6.pem";
  WriteFile(keyring, ReadFile(keyring) + pem);
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_SIGNED_DESCRIPTIONS_H_
