#ifndef TOLM_PUBLISH_SIGNER_H_
#define TOLM_PUBLISH_SIGNER_H_

#include <string>

#include "package/signature.h"

namespace tolm::publish {

/// Loads a private key: a file (PEM or DER), or any URI that OpenSSL's configured providers open. A
/// pass phrase that it needs and that is not given is asked for on the terminal. Throws
/// package::Error(kArgument) that names the file.
package::KeyPtr LoadKey(const std::string& key, const std::string& passphrase = "");

/// Loads what signs. @p key as of LoadKey(). @p certificate_path is a PEM file: the signer's
/// certificate first, then the authorities between it and the root, if any. Throws package::Error
/// (kArgument, kKeyring) that names the file.
package::Signer LoadSigner(const std::string& key, const std::string& certificate_path,
                           const std::string& passphrase = "");

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SIGNER_H_
