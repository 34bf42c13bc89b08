#ifndef TOLM_PACKAGE_PACKAGE_WRITER_H_
#define TOLM_PACKAGE_PACKAGE_WRITER_H_

#include <cstdint>
#include <string>

#include "package/payload_writer.h"
#include "package/seal.h"
#include "package/signature.h"

namespace tolm::package {

/// Packs the tree below @p source_directory into the package file @p target under @p seal, signed
/// by @p signer. The package is written beside its target, synced, verified as a device would
/// (trusting the signer's own certificate at @p now) and renamed; on failure the target is as it
/// was. Replaces an existing file. While it works, twice the room of the payload may be taken
/// there. Throws Error: see WritePayload, SignPayload and Package::Verify; kArgument when the
/// target would lie inside the tree.
void WritePackage(const std::string& source_directory, const std::string& target, const Seal& seal,
                  const Packing& packing, const Signer& signer, std::int64_t now,
                  const Progress& progress = {});

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PACKAGE_WRITER_H_
