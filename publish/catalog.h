#ifndef TOLM_PUBLISH_CATALOG_H_
#define TOLM_PUBLISH_CATALOG_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "offer/rollout.h"
#include "package/seal.h"

namespace tolm::publish {

/// One package file below the public directory.
struct PackageRecord {
  std::string path;  ///< "packages/oui/oui_v1000001"
  std::uint64_t size_bytes = 0;
  std::string sha384;
};

/// How a delta was made and whether it is still offered.
struct DeltaRecord {
  PackageRecord package;
  std::set<std::string> keys;  ///< what it touches, as in patch_infos.json
  std::int64_t withdrawn = 0;  ///< when it left the description, seconds since 1970; 0: offered
};

struct Release {
  int version = 0;
  std::int64_t released = 0;  ///< seconds since 1970
  std::string content;        ///< digest of the released tree
  PackageRecord full;
  std::optional<DeltaRecord> delta;  ///< from the version before
  std::string no_delta_reason;       ///< when there is none
  std::int64_t withdrawn = 0;        ///< when it was found bad, seconds since 1970; 0: it was not
  std::optional<int> restores;       ///< the version whose files it has, when it replaced a bad one
  /// When its full package left the description, seconds since 1970; 0: when the next version was
  /// released. Another time than that has what was stable while later versions were staged.
  std::int64_t offered_until = 0;
};

/// The newest release does not reach all devices at once.
struct Rollout {
  int stable = 0;  ///< the version of an earlier release, which all devices may have
  offer::RolloutPlan plan;
};

/// A package that is not offered any more and is removed after a grace period.
struct RetiredPackage {
  PackageRecord package;
  std::int64_t since = 0;  ///< when it left the description, seconds since 1970
};

/// What is remembered of a withdrawn release when it is not kept any more.
struct WithdrawnFiles {
  int version = 0;
  std::int64_t withdrawn = 0;  ///< seconds since 1970
  std::string content;         ///< as of a Release
};

struct Database {
  bool deprecated = false;
  std::int64_t last_fetch_time = 0;  ///< seconds since 1970
  std::vector<Release> releases;     ///< by version, the newest last; never empty
  /// Directories of the releases since the last one without a delta; see DeltaRequest.
  std::set<std::string> directories;
  std::vector<RetiredPackage> retired;
  std::vector<WithdrawnFiles> forgotten;  ///< of releases that are not kept
  std::optional<Rollout> rollout;         ///< while it is open
};

/// What is left of a database that is not offered any more. Its name keeps the newest version for
/// ever: devices may have it installed and take nothing that is not newer.
struct RemovedDatabase {
  std::int64_t since = 0;  ///< seconds since 1970
  int newest = 0;
  std::vector<RetiredPackage> retired;
  std::vector<WithdrawnFiles> forgotten;
};

/// All that a repository has released, and nothing else has a say: state/catalog.json.
struct Catalog {
  std::map<std::string, Database> databases;
  std::map<std::string, RemovedDatabase> removed;  ///< no name is in both
  /// Where new packages go, below the public directory: "packages", later "packages-2" and on.
  std::string part = "packages";
  /// SHA-384 of the description that was served when this catalog was written. Between the two
  /// steps of a commit it tells the old description from a damaged one.
  std::string replaces;
  /// Of the newest description that a change has signed; a later one counts on from there. 0 where
  /// none was ever signed.
  std::uint64_t counter = 0;
  /// PEM: what was the root when some of what is released was signed, and is it no more.
  std::string former_roots;
};

/// Throws Error or package::Error that names the file; the result is sound in itself: versions
/// grow, no database is without a release, paths are what PackagePath gives.
Catalog LoadCatalog(const std::string& path);
/// In the first format while it has nothing that the first version of this program did not know; in
/// the third with one of the last two members; in the fourth with a rollout, or what one has left.
std::string FormatCatalog(const Catalog& catalog);

/// "packages/oui/oui_v7" or "..._d7".
std::string PackagePath(const std::string& part, const std::string& name, package::Kind kind,
                        int version);
/// Whether the path is one that PackagePath can give for this name.
bool IsPackagePathOf(const std::string& name, const std::string& path);

/// Why a database cannot have this name, empty when it can: package::NameProblem, and names that
/// begin with ".".
std::string DatabaseNameProblem(const std::string& name);

/// Every package that the catalog knows, retired ones too, by path.
std::map<std::string, PackageRecord> PackagesOf(const Catalog& catalog);

/// The files of every release that was withdrawn, kept or not.
std::vector<WithdrawnFiles> WithdrawnFilesOf(const Database& database);

/// The release that every device may have: the newest one, or the stable one while a rollout is
/// open. The versions above it are staged.
const Release& StableRelease(const Database& database);

/// The releases whose full packages are offered: the stable one, and the newest one when that is
/// another.
std::vector<const Release*> OfferedReleases(const Database& database);

/// When the full package of the release at this place left the description, or @p now when it is
/// offered still.
std::int64_t OfferedUntil(const Database& database, std::size_t place, std::int64_t now);

/// The rollout is over: the newest release is the stable one from @p now on.
void EndRollout(Database& database, std::int64_t now);

/// The releases whose deltas are offered, oldest first; they lead to the stable one step by step,
/// and those after it likewise to the newest one.
std::vector<const Release*> OfferedChain(const Database& database);

/// Of these the ones without a gap between them that lead to this version.
std::vector<const Release*> ChainTo(const Database& database, int version);
/// The same to the newest release.
std::vector<const Release*> ChainToNewest(const Database& database);

/// Withdraws the deltas that should not lead to the newest release any more: those before a release
/// without an offered delta, and the older ones when all from there on together exceed
/// @p share_percent of the newest full package. A step of a way back, to a release that was
/// withdrawn, to one that replaced such a one, or between the two, stays as long as all from there
/// on together are smaller than the newest full package, unless the share is 0. What is withdrawn
/// is offered again only when the release that drove it out is itself withdrawn. While a rollout is
/// open, that is done apart with the deltas to the stable release and with those after it: what is
/// staged takes nothing from the devices that it has not reached. Returns a sentence about what was
/// withdrawn now; empty when nothing was.
std::string TrimChain(Database& database, int share_percent, std::int64_t now);

/// So many percent of @p bytes, rounded down.
std::uint64_t ShareOf(std::uint64_t bytes, int percent);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CATALOG_H_
