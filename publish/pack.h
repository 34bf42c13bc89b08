#ifndef TOLM_PUBLISH_PACK_H_
#define TOLM_PUBLISH_PACK_H_

#include <cstdint>
#include <string>

#include "package/packing.h"
#include "package/payload_writer.h"
#include "package/seal.h"

namespace tolm::publish {

struct PackRequest {
  std::string source_directory;
  std::string package_path;
  package::Seal seal;
  package::Packing packing = {};
  std::string key;  ///< see LoadSigner
  std::string certificate_path;
};

/// Makes one signed package. On failure no package is there that was not there before. Throws
/// package::Error; the text names the package first.
void Pack(const PackRequest& request, std::int64_t now, const package::Progress& progress);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PACK_H_
