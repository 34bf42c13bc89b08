#ifndef TOLM_PUBLISH_RESIGN_H_
#define TOLM_PUBLISH_RESIGN_H_

#include <ctime>
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
  std::string part;  ///< where they lie now
  /// They are signed by the present certificate already and valid: they stay as they are.
  bool is_signed_already = false;
  package::CertificateDetails signer;
};

/// Makes a new package with the same payload and a new signature for everything that is released,
/// under a new part of the public directory, and offers these from then on; the old ones are
/// retired. Key, certificate and root that are given become the settings'. Old signatures are not
/// judged: their signer may have expired or been revoked; the files must be what was released.
/// Signs nothing when all that is offered was signed with the certificate that it would be signed
/// with, and is good. Throws Error, package::Error.
ResignReport ResignRepository(const ResignRequest& request, std::time_t now, const Notes& notes,
                              const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_RESIGN_H_
