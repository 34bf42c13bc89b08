#ifndef TOLM_PUBLISH_UPGRADE_H_
#define TOLM_PUBLISH_UPGRADE_H_

#include <cstdint>
#include <string>

#include "publish/repository.h"

namespace tolm::publish {

/// What brings a repository to signed descriptions: either the root's key, or a key and a
/// certificate that were made before.
struct UpgradeRequest {
  std::string repository;
  std::string root_key;       ///< see LoadSigner
  std::string root_path;      ///< its certificate; the repository's root when it is empty
  std::string passphrase;     ///< of the root's key; see LoadKey
  KeyFiles keys;              ///< the info key and its certificate
  std::string refresh_group;  ///< see ShareForRefresh; may be empty
};

struct UpgradeReport {
  bool is_signed_already = false;  ///< then nothing but what the group may do was changed
  std::string info_key;            ///< where it is, or its URI
  std::size_t databases = 0;
  std::int64_t expires = 0;  ///< of the first signed description
};

/// Makes info.key and info.pem beside the key that signs packages, unless they are given or there
/// already, and signs the description from then on: complete, or not at all. Ended in between, the
/// same again completes it. Throws Error, package::Error.
UpgradeReport UpgradeRepository(const UpgradeRequest& request, std::int64_t now,
                                const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_UPGRADE_H_
