#include "publish/signed_description.h"

#include <algorithm>
#include <exception>

#include "publish/description.h"
#include "publish/json_object.h"
#include "publish/revocations.h"

namespace tolm::publish {
namespace {

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;
constexpr std::int64_t kCareDays = 10;

offer::PackageOffer OfferOf(const PackageRecord& package) {
  return {EncodePath(package.path), package.size_bytes, package.sha384};
}

offer::DatabaseOffer OfferOf(const Database& database) {
  const Release& newest = database.releases.back();
  offer::DatabaseOffer made;
  made.version = newest.version;
  made.last_fetch_time = FetchTimeOf(database);
  made.deprecated = database.deprecated;
  made.full = OfferOf(newest.full);
  for (const Release* release : OfferedChain(database)) {
    made.deltas[release->version] = OfferOf(release->delta->package);
  }
  return made;
}

// Without counter, times and revocations.
offer::Offer OfferOf(const Catalog& catalog, const Settings& settings) {
  offer::Offer made;
  made.repository = settings.identity;
  made.info_version = settings.info_version;
  made.base = settings.base_url.Text();
  for (const auto& [name, database] : catalog.databases) {
    made.databases[name] = OfferOf(database);
  }
  return made;
}

bool SaysTheSame(const offer::VerifiedOffer& verified, const Catalog& catalog,
                 const Settings& settings) {
  offer::Offer expected = OfferOf(catalog, settings);
  expected.counter = verified.offer.counter;
  expected.issued = verified.offer.issued;
  expected.expires = verified.offer.expires;
  expected.revocations = verified.offer.revocations;
  return verified.offer.counter >= catalog.counter &&
         FormatOffer(expected) == FormatOffer(verified.offer);
}

}  // namespace

std::int64_t DescriptionCareSeconds(const Settings& settings) {
  return std::min(kCareDays * kDaySeconds, settings.description_days * kDaySeconds * 5 / 7);
}

DescriptionSigner::DescriptionSigner(const Settings& settings, std::time_t now)
    : signer_(LoadInfoSigner(settings, now)) {
  if (!settings.revocations_path.empty()) {
    revocations_ = LoadRevocations(settings.RevocationsFile(), settings, now).pem;
  }
}

std::string DescriptionSigner::Sign(const Catalog& catalog, const Settings& settings,
                                    std::uint64_t counter, std::time_t now) const {
  offer::Offer made = OfferOf(catalog, settings);
  made.counter = counter;
  made.issued = now;
  made.expires = now + settings.description_days * kDaySeconds;
  made.revocations = revocations_;
  Json::Value document = ParseJson(DescribeCatalog(catalog, settings.base_url), "description");
  AddTo(document, offer::Sign(FormatOffer(made), signer_));
  return FormatCompactJson(document);
}

std::optional<offer::VerifiedOffer> VerifyDescription(const std::string& text,
                                                      const Settings& settings, std::time_t now) {
  const auto signed_text = offer::SignedTextIn(ParseJson(text, "the description"));
  if (!signed_text) {
    return std::nullopt;
  }
  return Verify(*signed_text, package::Trust::Load(settings.RootFile(), settings.RevocationsFile()),
                package::VerificationTime(now));
}

std::uint64_t NextCounter(const std::string& served, const Catalog& catalog,
                          const Settings& settings, std::time_t now) {
  std::uint64_t last = catalog.counter;
  try {
    if (const auto verified = VerifyDescription(served, settings, now)) {
      last = std::max(last, verified->offer.counter);
    }
  } catch (const std::exception&) {
    // What nobody believes counts for nothing.
  }
  return std::max(last + 1, static_cast<std::uint64_t>(std::max<std::time_t>(now, 0)));
}

bool IsDescriptionOf(const Catalog& catalog, const Settings& settings, const std::string& served,
                     std::time_t now) {
  if (!settings.IsSigned()) {
    return served == DescribeCatalog(catalog, settings.base_url);
  }
  if (!IsUnsignedDescriptionOf(catalog, settings, served)) {
    return false;
  }
  try {
    const auto verified = VerifyDescription(served, settings, now);
    return verified && SaysTheSame(*verified, catalog, settings);
  } catch (const std::exception&) {
    return false;
  }
}

bool IsUnsignedDescriptionOf(const Catalog& catalog, const Settings& settings,
                             const std::string& served) {
  try {
    Json::Value document = ParseJson(served, "the description");
    if (FormatCompactJson(document) != served) {
      return false;
    }
    document.removeMember(offer::kSignedMember);
    document.removeMember(offer::kSignatureMember);
    return FormatCompactJson(document) == DescribeCatalog(catalog, settings.base_url);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tolm::publish
