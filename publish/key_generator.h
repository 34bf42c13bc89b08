#ifndef TOLM_PUBLISH_KEY_GENERATOR_H_
#define TOLM_PUBLISH_KEY_GENERATOR_H_

#include <ctime>
#include <string>

namespace tolm::publish {

/// Makes an authority and a signing key below it: root.key, root.pem, signing.key and signing.pem
/// in
/// @p directory, which is created (mode 0700) when missing. Keys are ECDSA P-256, PKCS #8 PEM
/// without a pass phrase, mode 0600. The root is valid for 20 years from @p now, the signing
/// certificate for 3, both from a day earlier on, so that a device with a slow clock accepts them
/// at once.
///
/// All four or none: every file is written and synced under another name first, an existing file is
/// never overwritten, and what was put into place before a failure is taken away again. Throws
/// package::Error.
void GenerateKeys(const std::string& directory, std::time_t now);

inline constexpr int kSigningDays = 3 * 365;

struct SigningKeyRequest {
  std::string directory;
  std::string root_key;   ///< see LoadSigner
  std::string root_path;  ///< its certificate; the first one of the file
  int days = kSigningDays;
};

/// Makes signing.key and signing.pem alone, below an authority that is there, likewise. The
/// certificate ends with the authority's own at the latest. Throws package::Error, also for what is
/// no authority.
void GenerateSigningKey(const SigningKeyRequest& request, std::time_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_KEY_GENERATOR_H_
