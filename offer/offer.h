#ifndef TOLM_OFFER_OFFER_H_
#define TOLM_OFFER_OFFER_H_

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "offer/rollout.h"

namespace tolm::offer {

/// The format of the signed text (docs/formats/description.md).
inline constexpr int kFormat = 1;

struct PackageOffer {
  std::string link;  ///< an address, or a path below Offer::base
  std::uint64_t size_bytes = 0;
  std::string sha384;  ///< 96 lower-case hexadecimal digits
};

/// A version that does not reach all devices at once.
struct NextOffer {
  int version = 0;          ///< above the stable one
  int last_fetch_time = 0;  ///< seconds since 1970
  PackageOffer full;
  /// By the version that each produces, above the stable one: they go on where its deltas end.
  std::map<int, PackageOffer> deltas;
  RolloutPlan plan;
};

struct DatabaseOffer {
  int version = 0;          ///< the stable one
  int last_fetch_time = 0;  ///< seconds since 1970
  bool deprecated = false;
  PackageOffer full;
  std::map<int, PackageOffer> deltas;  ///< by the version that each produces
  std::optional<NextOffer> next = {};
};

/// What a repository offers, as its signed text says it.
struct Offer {
  std::string repository;     ///< the repository's identity, 32 lower-case hexadecimal digits
  std::string info_version;   ///< of the description's form, as devices ask for it
  std::uint64_t counter = 0;  ///< above that of every earlier one of the same signer
  std::int64_t issued = 0;    ///< seconds since 1970
  std::int64_t expires = 0;   ///< seconds since 1970; after issued
  std::string base;           ///< address, without a slash at its end, that paths of links follow
  std::string revocations;    ///< lists of revoked certificates, PEM; empty when there are none
  std::map<std::string, DatabaseOffer> databases;
};

/// The version that a decimal text says: 0 or more, written in no other way than a program writes
/// it. Nothing for any other text.
std::optional<int> ParseVersion(const std::string& text);

/// The text to be signed: compact JSON. The same offer gives the same text.
std::string FormatOffer(const Offer& offer);

/// Reads it. Nothing is read of what is beyond the bounds of a description (base/rules.h), has a
/// member twice, or is not complete in itself; members that are unknown are passed over. Throws
/// Error(kForm).
Offer ParseOffer(const std::string& text);

/// The address of a package.
std::string LinkOf(const Offer& offer, const PackageOffer& package);

/// Whether the next version is what a device is offered that has this version installed and is at
/// this position. Who has it stays with it, whatever became of the plan; who has more than the
/// stable one, staged before it, is offered it unless it was stopped.
bool TakesNext(const DatabaseOffer& database, int installed, int position, std::int64_t at);

/// The document in which devices look for what is offered, made of the offer alone: "db_list" and
/// the rest, with addresses, sizes and digests; and as "signed" an object with repository, base,
/// issued and expires. The databases that are named in @p takes_next are offered in their next
/// version.
Json::Value DocumentOf(const Offer& offer, const std::set<std::string>& takes_next = {});

/// Whether it was made by that, and is not a server's own: its sizes and digests are signed.
bool IsDocumentOfOffer(const Json::Value& document);

}  // namespace tolm::offer

#endif  // TOLM_OFFER_OFFER_H_
