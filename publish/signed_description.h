#ifndef TOLM_PUBLISH_SIGNED_DESCRIPTION_H_
#define TOLM_PUBLISH_SIGNED_DESCRIPTION_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "offer/signed_offer.h"
#include "package/signature.h"
#include "publish/catalog.h"
#include "publish/description.h"
#include "publish/settings.h"

namespace tolm::publish {

/// A signed description that ends so soon was not signed anew as it should have been: in seconds,
/// ten days, or five sevenths of the time that this repository gives them.
std::int64_t DescriptionCareSeconds(const Settings& settings);

/// Signs descriptions. What may fail fails when it is made, before anything was changed.
class DescriptionSigner {
 public:
  /// Loads and proves key, certificate and revocations of the settings, which must have them; see
  /// LoadInfoSigner, LoadRevocations. Throws Error, package::Error, also when devices that have had
  /// the @p served description would refuse what follows it: it brought a newer revocation list, or
  /// it was issued, below the same certificate, after the end of what is signed now.
  DescriptionSigner(const Settings& settings, const std::string& served, std::int64_t now);

  /// The description of the catalog with its signed text, issued @p now under this counter.
  std::string Sign(const Catalog& catalog, const Settings& settings, std::uint64_t counter,
                   std::int64_t now) const;
  /// When what is signed now ends: after the days of the settings, or with the certificate.
  std::int64_t ExpiryOf(const Settings& settings, std::int64_t now) const;

 private:
  void RequireTimeGoesOn(const std::string& served, const Settings& settings,
                         std::int64_t now) const;

  package::Signer signer_;
  std::string revocations_;
};

/// What a description's signed text says, verified at @p now as a device does that has the
/// repository's root and revocations; nothing when it is not signed. Throws offer::Error, Error for
/// what is no JSON, package::Error when the root cannot be read.
std::optional<offer::VerifiedOffer> VerifyDescription(const std::string& text,
                                                      const Settings& settings, std::int64_t now);

/// The staged versions that its signed text names, by database, whoever has signed it. Nothing of
/// what is not signed, or cannot be read.
std::map<std::string, Offer> StagedOffersIn(const std::string& description);

/// Of the description to be signed next: above that of the served one, if its signature is good,
/// and above the one that the catalog remembers; not below the time.
std::uint64_t NextCounter(const std::string& served, const Catalog& catalog,
                          const Settings& settings, std::int64_t now);

/// Whether a served description says what the catalog says, and, where descriptions are signed, its
/// signature is good and its signed text says it as well, whatever its times, under a counter that
/// is not below the one that the catalog remembers.
bool IsDescriptionOf(const Catalog& catalog, const Settings& settings, const std::string& served,
                     std::int64_t now);

/// The same of all but the members that sign it, which may be missing.
bool IsUnsignedDescriptionOf(const Catalog& catalog, const Settings& settings,
                             const std::string& served);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SIGNED_DESCRIPTION_H_
