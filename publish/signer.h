#ifndef TOLM_PUBLISH_SIGNER_H_
#define TOLM_PUBLISH_SIGNER_H_

#include <string>

#include "package/signature.h"

namespace tolm::publish {

/// Loads what signs packages. @p key is a private key file (PEM or DER; a pass phrase is asked for
/// on the terminal) or any URI that OpenSSL's configured providers open. @p certificate_path is a
/// PEM file: the signer's certificate first, then the authorities between it and the root, if any.
/// Throws package::Error (kArgument, kKeyring) that names the file.
package::Signer LoadSigner(const std::string& key, const std::string& certificate_path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SIGNER_H_
