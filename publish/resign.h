#ifndef TOLM_PUBLISH_RESIGN_H_
#define TOLM_PUBLISH_RESIGN_H_

#include <cstdint>
#include <map>
#include <string>

#include "package/certificate.h"
#include "publish/release.h"

namespace tolm::publish {

struct ResignRequest {
  std::string repository;
  KeyFiles keys;       ///< those that are not given stay as the settings have them
  bool force = false;  ///< also when all is signed already
};

struct ResignReport {
  std::size_t packages = 0;
  /// How many of them have each compression, by its text; signing does not change it.
  std::map<std::string, std::size_t> compressions;
  std::string part;  ///< where they lie now
  /// They are signed by the present certificate already and valid: they stay as they are.
  bool is_signed_already = false;
  package::CertificateDetails signer;
};

/// Makes a new package with the same payload and a new signature for everything that is released,
/// under a new part of the public directory, and offers these from then on; the old ones are
/// retired. Keys, certificates and the root that are given become the settings'. Every package must
/// be what was released, and signed below what was the root then (or the one before, or a former
/// root that the catalog knows) by who might sign at that time: a signer that has expired since, or
/// was revoked, is no reason not to sign anew. Signs nothing when all that is offered was signed
/// with the certificate that it would be signed with, and is good. The description is signed anew
/// in any case, where it is signed. Throws Error, package::Error; then nothing was changed.
ResignReport ResignRepository(const ResignRequest& request, std::int64_t now, const Notes& notes,
                              const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_RESIGN_H_
