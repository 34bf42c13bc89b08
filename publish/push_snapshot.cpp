#include "publish/push_snapshot.h"

#include <filesystem>
#include <vector>

#include "offer/signed_offer.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/file_copy.h"
#include "publish/files.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

// A disk that does not answer says nothing about what is there.
bool TellsWhatIsThere(const std::error_code& error) {
  return !error || error == std::errc::no_such_file_or_directory ||
         error == std::errc::not_a_directory || error == std::errc::is_a_directory ||
         error == std::errc::not_supported || error == std::errc::too_many_symbolic_link_levels;
}

void RequireNamed(const PackageRecord& record, const OfferedPackage& offered,
                  const std::string& path, const RepositoryPaths& paths) {
  std::error_code error;
  const std::uint64_t size = fs::file_size(paths.InPublic(path), error);
  if (!TellsWhatIsThere(error)) {
    throw Error(paths.InPublic(path) + ": cannot be looked at: " + error.message());
  }
  if (error || size != record.size_bytes || size != offered.size_bytes.value_or(size)) {
    throw Error(paths.InPublic(path) +
                ": the description names it, and it is not there as it was released; \"tolmdbpub "
                "check " +
                paths.Root() + "\" says more");
  }
}

// Links that lead elsewhere are not this repository's to bring anywhere.
void RequireAllNamed(const PushSnapshot& snapshot,
                     const std::map<std::string, PackageRecord>& released, const Settings& settings,
                     const RepositoryPaths& paths) {
  std::map<std::string, const PackageRecord*> by_link;
  for (const auto& [path, record] : released) {
    by_link[PackageLink(settings.base_url, path)] = &record;
  }
  const auto require = [&](const OfferedPackage& offered) {
    const auto found = by_link.find(offered.link);
    if (found == by_link.end()) {
      throw Error(paths.Root() + ": the description leads to " + offered.link +
                  ", which this repository has not released; \"tolmdbpub check " + paths.Root() +
                  "\" says more");
    }
    RequireNamed(*found->second, offered, found->second->path, paths);
  };
  for (const OfferedPackage& offered : PackagesNamedIn(snapshot.description, paths.Root())) {
    require(offered);
  }
}

// What stands in the signed text alone.
void AddStaged(const std::string& description, const std::string& where,
               std::vector<OfferedPackage>& packages) {
  const auto signed_text = offer::SignedTextIn(ParseJson(description, where));
  if (!signed_text) {
    return;
  }
  const offer::Offer offer = offer::ParseOffer(signed_text->text);
  const auto add = [&](const offer::PackageOffer& package) {
    packages.push_back({LinkOf(offer, package), package.size_bytes, package.sha384});
  };
  for (const auto& [name, database] : offer.databases) {
    if (database.next) {
      add(database.next->full);
      for (const auto& [version, delta] : database.next->deltas) {
        add(delta);
      }
    }
  }
}

}  // namespace

std::vector<OfferedPackage> PackagesNamedIn(const std::string& description,
                                            const std::string& where) {
  std::vector<OfferedPackage> packages;
  for (const auto& [name, offer] : ParseDescription(description, where)) {
    packages.push_back(offer.full);
    for (const auto& [version, delta] : offer.deltas) {
      packages.push_back(delta);
    }
  }
  AddStaged(description, where, packages);
  return packages;
}

PushSnapshot TakeSnapshot(const RepositoryPaths& paths, const Settings& settings,
                          const std::string& directory, const Notes& notes) {
  const RepositoryLock lock(paths);
  if (const std::string unfinished = UnfinishedCommand(paths); !unfinished.empty()) {
    throw Error(paths.Root() + ": an earlier command was interrupted (" + unfinished +
                "); give it again, or another one that changes something, before what is served "
                "goes elsewhere");
  }
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  RequireNothingUnknown(paths, catalog);
  PushSnapshot snapshot;
  const std::string description = paths.Description(settings);
  snapshot.description_path = description.substr(paths.Public().size() + 1);
  snapshot.description = ServedDescription(paths, settings);
  if (snapshot.description.empty()) {
    throw Error(description + ": there is no description");
  }
  const std::map<std::string, PackageRecord> released = PackagesOf(catalog);
  RequireAllNamed(snapshot, released, settings, paths);
  for (const auto& [path, record] : released) {
    if (!fs::exists(paths.InPublic(path))) {
      notes(paths.InPublic(path) + ": is not there, and is not brought over");
      continue;
    }
    snapshot.packages[path] = record;
    if (!directory.empty()) {
      MakeDirectories(fs::path(directory + '/' + path).parent_path());
      LinkOrCopyFile(paths.InPublic(path), directory + '/' + path);
    }
  }
  return snapshot;
}

}  // namespace tolm::publish
