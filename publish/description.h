#ifndef TOLM_PUBLISH_DESCRIPTION_H_
#define TOLM_PUBLISH_DESCRIPTION_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "publish/catalog.h"
#include "publish/settings.h"

namespace tolm::publish {

/// The document that devices ask for (docs/formats/description.md), with the stable versions: what
/// is staged stands in the signed text alone. The same catalog and base URL give the same text.
std::string DescribeCatalog(const Catalog& catalog, const BaseUrl& base_url);

/// The path as it follows a base URL: everything is percent-encoded that an address does not hold
/// as it is.
std::string EncodePath(const std::string& path);

/// Where a device finds a package: the base URL, then @p path encoded.
std::string PackageLink(const BaseUrl& base_url, const std::string& path);

/// When an offered release was fetched, as devices hold it: in 32 bits.
int FetchTimeOf(const Database& database, const Release& release);

/// Why the full package of @p version cannot have this link, empty when it can. A device that is
/// told to force-install an older version rewrites every occurrence of the offered version's text
/// in the link, so that text must occur once only.
std::string LinkProblem(const std::string& link, int version);

/// What a description says of one package.
struct OfferedPackage {
  std::string link;
  std::optional<std::uint64_t> size_bytes;
  std::optional<std::string> sha384;
};

struct Offer {
  int version = 0;
  OfferedPackage full;
  std::map<int, OfferedPackage> deltas;  ///< by the version that each produces
};

/// Sentences about a description that comes near a bound beyond which devices refuse it, or is
/// beyond it. How deeply it is nested is the format's matter and no catalog's.
std::vector<std::string> DescriptionWarnings(const std::string& text);

/// Reads a description back, by database. Throws Error that begins with @p where.
std::map<std::string, Offer> ParseDescription(const std::string& text, const std::string& where);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_DESCRIPTION_H_
