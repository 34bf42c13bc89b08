#ifndef TOLM_PUBLISH_SETTINGS_H_
#define TOLM_PUBLISH_SETTINGS_H_

#include <ctime>
#include <string>

#include "package/signature.h"
#include "package/trust.h"

namespace tolm::publish {

/// Where the public tree is found by devices.
struct BaseUrl {
  std::string scheme;  ///< "http" or "https"
  std::string netloc;  ///< host, with a port and a path prefix when there are any; ends without "/"

  std::string Text() const { return scheme + "://" + netloc; }
};

/// Takes an address apart; slashes at its end are dropped. Throws Error for another scheme, a
/// missing host, a user name, a query, a fragment, and characters that an address cannot hold.
BaseUrl ParseBaseUrl(const std::string& text);

/// Why @p text cannot be the version of the description's form, which is one component of a path;
/// empty when it can.
std::string InfoVersionProblem(const std::string& text);

/// "3.33.0" or "3.33" as SQLite's own number, 3033000. Throws Error.
int ParseSqliteVersion(const std::string& text);

inline constexpr int kDefaultChainSharePercent = 70;
inline constexpr int kMaxChainSharePercent = 1000;
inline constexpr char kDefaultOldestSqlite[] = "3.33.0";
inline constexpr char kDefaultInfoVersion[] = "1";

/// How a repository is run; state/settings.json. docs/formats/repository.md explains each member.
struct Settings {
  BaseUrl base_url;
  std::string info_version = kDefaultInfoVersion;
  std::string key;  ///< absolute path, or a URI; see LoadSigner
  std::string certificate_path;
  std::string root_path;
  /// The deltas offered together are at most so large, compared with the newest full package.
  int chain_share_percent = kDefaultChainSharePercent;
  std::string oldest_sqlite = kDefaultOldestSqlite;  ///< that SQL scripts must run on
};

/// Throws Error or package::Error that names the file.
Settings LoadSettings(const std::string& path);
std::string FormatSettings(const Settings& settings);

/// Makes the file names absolute, so that the repository does not depend on where a command was
/// called. A key that is the URI of something else than a file stays as it is; an empty root
/// becomes "root.pem" beside the certificate.
void MakePathsAbsolute(Settings& settings);

/// Loads the signer and the root, and proves that devices that trust this root accept what this
/// signer signs: a few bytes are signed and verified. Throws package::Error.
package::Signer LoadTrustedSigner(const Settings& settings, std::time_t now);

/// What devices of this repository trust. Throws package::Error.
package::Trust LoadRoot(const Settings& settings);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SETTINGS_H_
