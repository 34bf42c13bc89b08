#include "publish/signed_description.h"

#include <algorithm>
#include <exception>

#include "package/certificate.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/revocations.h"

namespace tolm::publish {
namespace {

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;
constexpr std::int64_t kCareDays = 10;

offer::PackageOffer OfferOf(const PackageRecord& package) {
  return {EncodePath(package.path), package.size_bytes, package.sha384};
}

offer::NextOffer NextOf(const Database& database) {
  const Release& newest = database.releases.back();
  offer::NextOffer made;
  made.version = newest.version;
  made.last_fetch_time = FetchTimeOf(database, newest);
  made.full = OfferOf(newest.full);
  made.plan = database.rollout->plan;
  return made;
}

// The deltas are one chain, which is split at the stable version.
offer::DatabaseOffer OfferOf(const Database& database) {
  const Release& stable = StableRelease(database);
  offer::DatabaseOffer made;
  made.version = stable.version;
  made.last_fetch_time = FetchTimeOf(database, stable);
  made.deprecated = database.deprecated;
  made.full = OfferOf(stable.full);
  if (database.rollout) {
    made.next = NextOf(database);
  }
  for (const Release* release : OfferedChain(database)) {
    auto& deltas = release->version > stable.version ? made.next->deltas : made.deltas;
    deltas[release->version] = OfferOf(release->delta->package);
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

// What nobody believes counts for nothing.
std::optional<offer::VerifiedOffer> VerifiedOrNothing(const std::string& served,
                                                      const Settings& settings, std::int64_t now) {
  try {
    return VerifyDescription(served, settings, now);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// Whoever has signed it.
std::optional<offer::Offer> ReadOffer(const std::string& served) {
  try {
    const auto signed_text = offer::SignedTextIn(ParseJson(served, "the description"));
    return signed_text ? std::optional<offer::Offer>(offer::ParseOffer(signed_text->text))
                       : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// Lists prove themselves.
std::string RevocationsIn(const std::string& served) {
  const std::optional<offer::Offer> read = ReadOffer(served);
  return read ? read->revocations : "";
}

OfferedPackage PackageOf(const offer::Offer& all, const offer::PackageOffer& package) {
  return {LinkOf(all, package), package.size_bytes, package.sha384};
}

}  // namespace

std::int64_t DescriptionCareSeconds(const Settings& settings) {
  return std::min(kCareDays * kDaySeconds, settings.description_days * kDaySeconds * 5 / 7);
}

DescriptionSigner::DescriptionSigner(const Settings& settings, const std::string& served,
                                     std::int64_t now)
    : signer_(LoadInfoSigner(settings, now)) {
  if (!settings.revocations_path.empty()) {
    const Revocations revocations = LoadRevocations(settings.RevocationsFile(), settings, now);
    RequireNoneOlder(revocations, RevocationsIn(served), settings);
    revocations_ = revocations.pem;
  }
  RequireTimeGoesOn(served, settings, now);
}

// Of one signer, devices let no time go back; a newer one begins anew.
void DescriptionSigner::RequireTimeGoesOn(const std::string& served, const Settings& settings,
                                          std::int64_t now) const {
  const auto before = VerifiedOrNothing(served, settings, now);
  if (!before || before->offer.issued <= ExpiryOf(settings, now) ||
      before->signer.not_before < package::DetailsOf(signer_.certificate.get()).not_before) {
    return;
  }
  throw Error("the served description was issued on " + TimeText(before->offer.issued) +
              " UTC, and this machine's clock says " + TimeText(now) +
              " UTC: devices that have had it refuse what is signed now. Set the clock if it is "
              "wrong; if it was, \"tolmdbpub keygen DIR --root-key KEY --root FILE --info\" and "
              "\"tolmdbpub set " +
              settings.directory + " --info-key KEY --info-cert FILE\" begin anew");
}

std::int64_t DescriptionSigner::ExpiryOf(const Settings& settings, std::int64_t now) const {
  std::int64_t end =
      std::min<std::int64_t>(now + settings.description_days * kDaySeconds,
                             package::DetailsOf(signer_.certificate.get()).not_after);
  for (const package::X509Ptr& authority : signer_.chain) {
    end = std::min(end, package::DetailsOf(authority.get()).not_after);
  }
  return std::max(end, now + 1);
}

std::string DescriptionSigner::Sign(const Catalog& catalog, const Settings& settings,
                                    std::uint64_t counter, std::int64_t now) const {
  offer::Offer made = OfferOf(catalog, settings);
  made.counter = counter;
  made.issued = now;
  made.expires = ExpiryOf(settings, now);
  made.revocations = revocations_;
  Json::Value document = ParseJson(DescribeCatalog(catalog, settings.base_url), "description");
  AddTo(document, offer::Sign(FormatOffer(made), signer_));
  return FormatCompactJson(document);
}

std::optional<offer::VerifiedOffer> VerifyDescription(const std::string& text,
                                                      const Settings& settings, std::int64_t now) {
  const auto signed_text = offer::SignedTextIn(ParseJson(text, "the description"));
  if (!signed_text) {
    return std::nullopt;
  }
  return Verify(*signed_text, package::Trust::Load(settings.RootFile(), settings.RevocationsFile()),
                package::VerificationTime(now));
}

std::map<std::string, Offer> StagedOffersIn(const std::string& description) {
  std::map<std::string, Offer> staged;
  const std::optional<offer::Offer> read = ReadOffer(description);
  if (!read) {
    return staged;
  }
  for (const auto& [name, database] : read->databases) {
    if (!database.next) {
      continue;
    }
    Offer& made = staged[name];
    made.version = database.next->version;
    made.full = PackageOf(*read, database.next->full);
    for (const auto& [version, delta] : database.next->deltas) {
      made.deltas[version] = PackageOf(*read, delta);
    }
  }
  return staged;
}

std::uint64_t NextCounter(const std::string& served, const Catalog& catalog,
                          const Settings& settings, std::int64_t now) {
  std::uint64_t last = catalog.counter;
  if (const auto verified = VerifiedOrNothing(served, settings, now)) {
    last = std::max(last, verified->offer.counter);
  }
  return std::max(last + 1, static_cast<std::uint64_t>(std::max<std::int64_t>(now, 0)));
}

bool IsDescriptionOf(const Catalog& catalog, const Settings& settings, const std::string& served,
                     std::int64_t now) {
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
