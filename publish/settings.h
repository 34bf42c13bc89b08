#ifndef TOLM_PUBLISH_SETTINGS_H_
#define TOLM_PUBLISH_SETTINGS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "package/packing.h"
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
inline constexpr int kDefaultMinCertificateDays = 14;
inline constexpr int kMaxMinCertificateDays = 36500;
inline constexpr int kDefaultMaxShrinkPercent = 20;
inline constexpr char kDefaultOldestSqlite[] = "3.33.0";
inline constexpr char kDefaultInfoVersion[] = "1";
inline constexpr int kDefaultDescriptionDays = 14;
inline constexpr int kMaxDescriptionDays = 366;

/// What one database has of its own.
struct DatabaseSettings {
  std::optional<int> max_shrink_percent;  ///< in place of the repository's
  std::string test;                       ///< command that a release must pass; empty: none

  bool IsEmpty() const { return !max_shrink_percent && test.empty(); }
};

/// How a repository is run; state/settings.json. docs/formats/repository.md explains each member.
struct Settings {
  BaseUrl base_url;
  std::string info_version = kDefaultInfoVersion;
  /// As they are kept: absolute paths, paths from the repository's directory on, and for the key
  /// also a URI; see LoadSigner.
  std::string key;
  std::string certificate_path;
  std::string root_path;
  /// The deltas offered together are at most so large, compared with the newest full package.
  int chain_share_percent = kDefaultChainSharePercent;
  std::string oldest_sqlite = kDefaultOldestSqlite;  ///< that SQL scripts must run on
  /// With fewer days left of a certificate `check` ends with a status of its own.
  int min_certificate_days = kDefaultMinCertificateDays;

  /// A release that has lost more than so much of anything that is counted is refused.
  int max_shrink_percent = kDefaultMaxShrinkPercent;
  std::map<std::string, DatabaseSettings> databases;  ///< by name, released already or not

  package::Packing packing;  ///< of packages that are made from now on

  /// What signs descriptions, kept like the others; both are empty where descriptions are not
  /// signed, and then the rest counts for nothing.
  std::string info_key;
  std::string info_certificate_path;
  std::string identity;  ///< offer::Offer::repository
  int description_days = kDefaultDescriptionDays;
  std::string revocations_path;  ///< lists that descriptions bring; may be empty

  std::string directory;  ///< the repository's, where relative paths begin; not kept

  /// Whether descriptions are signed.
  bool IsSigned() const { return !info_key.empty(); }

  /// Where they are: absolute paths, or the URI.
  std::string KeyLocation() const;
  std::string CertificateFile() const;
  std::string RootFile() const;
  std::string InfoKeyLocation() const;
  std::string InfoCertificateFile() const;
  std::string RevocationsFile() const;  ///< empty when there is none
};

/// Files as a command is given them: relative to the current directory. Empty ones are not given.
struct KeyFiles {
  std::string key;  ///< may be the URI of something else than a file
  std::string certificate_path;
  std::string root_path;
  std::string info_key = {};  ///< may be a URI, too
  std::string info_certificate_path = {};
  bool AreGiven() const;     ///< one of the first three
  bool IsInfoGiven() const;  ///< one of the other two
};

/// What holds for this database.
int MaxShrinkOf(const Settings& settings, const std::string& name);
/// Empty when there is none.
std::string TestOf(const Settings& settings, const std::string& name);

/// "20" or "20%", from 0 to 100. Throws Error.
int ParsePercent(const std::string& text);

/// Throws Error or package::Error that names the file.
Settings LoadSettings(const std::string& path);
/// In the first format while it has nothing that the first version of this program did not know, in
/// the second while descriptions are not signed, in the third while packages are packed as usual.
std::string FormatSettings(const Settings& settings);

/// Keeps the files that are given. What lies in the directory that holds the repository, or deeper,
/// is kept as a path from the repository on, so that both can be moved together; all else, and what
/// lies beside a repository in the root directory, as an absolute path. Whatever links lead to the
/// repository, what is kept leads to the file that was given. Without any root it becomes
/// "root.pem" beside the certificate. Throws Error for a key in what is served.
void TakeKeyFiles(const KeyFiles& given, Settings& settings);

/// Loads the signer and the root, and proves that devices that trust this root accept what this
/// signer signs: a few bytes are signed and verified. Throws package::Error, which for a file that
/// is not there names it as it is kept and as it was looked for, and for a certificate that is not
/// valid now says since or from when.
package::Signer LoadTrustedSigner(const Settings& settings, std::int64_t now);

/// As LoadTrustedSigner(); throws package::Error(kOutOfScope) when the signer may not sign for one
/// of these databases.
package::Signer LoadSignerFor(const Settings& settings, const std::set<std::string>& names,
                              std::int64_t now);

/// The same for what signs descriptions, by devices that have the root and the revocations. That
/// key must not sign packages.
package::Signer LoadInfoSigner(const Settings& settings, std::int64_t now);

/// Keeps a file of revocation lists likewise; see TakeKeyFiles.
void TakeRevocations(const std::string& given, Settings& settings);

/// 16 random bytes as Settings::identity has them.
std::string NewIdentity();

/// What devices of this repository trust. Throws package::Error.
package::Trust LoadRoot(const Settings& settings);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SETTINGS_H_
