#ifndef TOLM_PUBLISH_PAGE_H_
#define TOLM_PUBLISH_PAGE_H_

#include <cstdint>
#include <optional>
#include <string>

#include "offer/offer.h"
#include "publish/catalog.h"
#include "publish/certificates.h"

namespace tolm::publish {

/// What a page tells of a repository. Nothing of it is a path on the publisher's machine: a page
/// may be put on a public server.
struct PageContent {
  std::string address;  ///< of the public tree, without the scheme
  Catalog catalog;
  RepositoryCertificates certificates;
  bool is_signed = false;             ///< descriptions are to be
  std::optional<offer::Offer> offer;  ///< see ServedOffer()
  std::int64_t description_care_seconds = 0;
  bool has_all = false;  ///< tables of all releases, and not of the newest kPageReleases
};

inline constexpr std::size_t kPageReleases = 20;

/// The page, as it is at @p now. Throws nothing but std::bad_alloc.
std::string FormatPage(const PageContent& content, std::int64_t now);

struct PageRequest {
  std::string repository;
  std::string directory;  ///< is made when it is missing
  bool has_all = false;
};

/// Writes the page as index.html into the directory, which is not the repository's, and returns its
/// path. Takes no lock, as ListRepository(). Throws Error, package::Error, base::FileError,
/// std::runtime_error; a page that was there before then stays.
std::string WritePageOf(const PageRequest& request, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PAGE_H_
