#ifndef TOLM_PUBLISH_KEY_GENERATOR_H_
#define TOLM_PUBLISH_KEY_GENERATOR_H_

#include <cstdint>
#include <string>

#include "package/scope.h"

namespace tolm::publish {

/// What may be asked for besides.
struct KeysOptions {
  std::string passphrase;  ///< that encrypts root.key; empty: none does
  package::Scope scope;    ///< the databases that the signing certificate is limited to
};

/// Makes an authority and two keys below it, for packages and for descriptions: root.key, root.pem,
/// signing.key, signing.pem, info.key and info.pem in @p directory, which is created (mode 0700)
/// when missing. Keys are ECDSA P-256, PKCS #8 PEM (RFC 5958), mode 0600; root.key may be encrypted
/// (PBES2 with scrypt and AES-256-CBC: RFC 8018, RFC 7914). The root is valid for 20 years from
/// @p now, the others for kSigningDays and kInfoDays, all from a day earlier on, so that a device
/// with a slow clock accepts them at once.
///
/// All of them or none: every file is written and synced under another name first, an existing file
/// is never overwritten, and what was put into place before a failure is taken away again. Throws
/// package::Error.
void GenerateKeys(const std::string& directory, std::int64_t now, const KeysOptions& options = {});

inline constexpr int kSigningDays = 3 * 365;
inline constexpr int kInfoDays = 2 * 365;

struct SigningKeyRequest {
  std::string directory;
  std::string root_key;    ///< see LoadSigner
  std::string root_path;   ///< its certificate; the first one of the file
  std::string passphrase;  ///< of the root's key; see LoadKey
  int days = kSigningDays;
  package::Scope scope;
};

/// Makes signing.key and signing.pem alone, below an authority that is there, likewise. The
/// certificate ends with the authority's own at the latest. Throws package::Error, also for what is
/// no authority.
void GenerateSigningKey(const SigningKeyRequest& request, std::int64_t now);

/// Makes info.key and info.pem, which sign descriptions, likewise; `days` and `scope` count for
/// nothing. Of a lone info.key, which an ended process may have left, the certificate alone.
void GenerateInfoKey(const SigningKeyRequest& request, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_KEY_GENERATOR_H_
