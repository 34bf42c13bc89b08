#ifndef TOLM_OPERATION_DEVICE_TRUST_H_
#define TOLM_OPERATION_DEVICE_TRUST_H_

#include <string>

#include "package/trust.h"

namespace tolm::operation {

/// Of what packages and descriptions are trusted for: <key type><ending> in the keyring's
/// directory.
std::string KeyringFile(const char* ending);

/// Whom this device believes: the certificates of its keyring, less what the revocation lists
/// beside it, those that descriptions have brought and @p further_revocations (PEM) revoke; of two
/// lists of one authority the newer one counts. Nothing is kept of it: it is read anew each time.
/// Throws package::Error(kKeyring) when the keyring or a list cannot be used.
package::Trust DeviceTrust(const std::string& further_revocations = "");

/// Judges the revocation lists that a description brings, before it is accepted. One that is not
/// signed by a certificate of the keyring, or is older than the one of that authority that the
/// device has, is passed over, as if it had not been brought. Returns what the device is to keep
/// from then on, for KeepRevocations(); the signer of the description, too, is to be judged by
/// DeviceTrust() with it. Empty when there is nothing that the device does not have: what was
/// learned before stays. Throws offer::Error: kForm for what is no list or a part of one, kKeyring
/// when the device's own files cannot be used.
std::string JudgeRevocations(const std::string& pem);

/// Keeps what JudgeRevocations() has returned, whole and on the disk when this returns: before the
/// description is recorded as accepted. Nothing to do for an empty text. For root; throws
/// base::FileError, std::filesystem::filesystem_error.
void KeepRevocations(const std::string& judged);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DEVICE_TRUST_H_
