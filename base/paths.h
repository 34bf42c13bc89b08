#ifndef TOLM_BASE_PATHS_H_
#define TOLM_BASE_PATHS_H_

/// Every fixed path of the system's own files and of the programs that it runs, each once; what a
/// machine's own files are called stands with who reads them. Those with a placeholder are filled
/// by boost::format or NoexceptFormat, in the order in which their comments name what goes in.
namespace tolm::paths {

inline constexpr char kWget[] = "/usr/bin/wget";
inline constexpr char kMove[] = "/bin/mv";
inline constexpr char kShell[] = "/bin/sh";
inline constexpr char kSystemctl[] = "/usr/bin/systemctl";
inline constexpr char kVcdiffDecoder[] = "/usr/tolm/sbin/tolmdbudvcdiff";

// What the system's own programs have wget read in place of the machine's settings.
inline constexpr char kWgetSystemSettings[] = "/usr/share/data_update/wgetrc";
inline constexpr char kWgetUserSettings[] = "/usr/share/data_update/wgetrc.empty";

inline constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf";
inline constexpr char kServiceOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
inline constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
inline constexpr char kDatabaseOverrides[] = "/usr/tolm/etc/data_update/databases.conf";
/// What the operations around the library let the operator decide.
inline constexpr char kOperationSettings[] = "/usr/tolm/etc/data_update/operation.conf";

/// In it: <key type>.pem, the trusted certificates, and perhaps <key type>.crl.pem, revocations.
inline constexpr char kKeyringDirectory[] = "/usr/tolm/etc/keyring/";
inline constexpr char kPluginDirectory[] = "/usr/tolm/lib/plugins/";
inline constexpr char kVolumePatterns[] = "/usr/tolm/etc/volumes.conf";

/// The table for cron that an administrator may have put there in place of systemd's timers.
inline constexpr char kCronTable[] = "/etc/cron.d/tolmdbud";

inline constexpr char kStateDirectory[] = "/var/lib/data_update";
inline constexpr char kLockDirectory[] = "/run/data_update";
inline constexpr char kCacheDirectory[] = "/var/cache/data_update";
inline constexpr char kDatabaseInfo[] = "/var/cache/data_update/database_info.json";
/// The server's answer, before it is known to be a description.
inline constexpr char kDatabaseInfoAnswer[] = "/var/cache/data_update/database_info.json.new";

// What the device remembers. version.json belongs to the library, the rest to the operations around
// it.
inline constexpr char kVersionFile[] = "/var/lib/data_update/%s/version.json";        // database
inline constexpr char kRecoveryMark[] = "/var/lib/data_update/%s/recovery.mark";      // database
inline constexpr char kInstalledRecord[] = "/var/lib/data_update/%s/installed.json";  // database
/// What the last look at all installed files has found.
inline constexpr char kVerified[] = "/var/lib/data_update/%s/verified.json";  // database
/// Which volumes' databases are being moved to which.
inline constexpr char kMoveMark[] = "/var/lib/data_update/move.json";
inline constexpr char kTrustState[] = "/var/lib/data_update/trust.json";
/// Revocation lists that descriptions have brought, PEM.
inline constexpr char kLearnedRevocations[] = "/var/lib/data_update/revocations.pem";
inline constexpr char kHistory[] = "/var/lib/data_update/history.jsonl";
inline constexpr char kCoolDowns[] = "/var/lib/data_update/cooldown.json";

inline constexpr char kUpdateAnyLock[] = "/run/data_update/update_any.lock";
inline constexpr char kUpdateLock[] = "/run/data_update/update_%s.lock";  // database
inline constexpr char kUsingLock[] = "/run/data_update/using_%s.lock";    // database
inline constexpr char kFreshInfoLock[] = "/run/data_update/fresh_info.lock";
inline constexpr char kConfigLock[] = "/run/data_update/config.lock";
/// Held around a whole operation or volume event, with what is done before and after it; taken
/// before any other.
inline constexpr char kOperatorLock[] = "/run/data_update/operator.lock";
/// Held for the moment in which the history, the cool-downs or trust.json are read and written; no
/// other lock is taken meanwhile.
inline constexpr char kNotesLock[] = "/run/data_update/notes.lock";

inline constexpr char kVolumeDatabases[] = "%s/@database/autoupdate";  // volume
inline constexpr char kRootFsDatabases[] = "/var/db";

/// What lies on a volume from its root on: what stands directly in it, in that order.
inline constexpr char kTemporaryBelowVolume[] = "@tmp/data_update";
inline constexpr char kDatabasesBelowVolume[] = "@database/autoupdate";
/// What was received of packages whose download ended early. Not below @tmp, which an appliance may
/// empty when it starts, and which others may write; on the same file system as that, so that one
/// file can have a name in both.
inline constexpr char kPartialsBelowVolume[] = "@database/partial-downloads";

inline constexpr char kTemporaryRoot[] = "%s/@tmp/data_update";         // volume
inline constexpr char kPackageFile[] = "%s/@tmp/data_update/%s_%s";     // volume, database, tag
inline constexpr char kUnpackedTree[] = "%s/@tmp/data_update/%s_full";  // volume, database
inline constexpr char kWorkCopies[] = "%s/@tmp/data_update/%s_sum";     // volume, database
inline constexpr char kUnpackedDelta[] =
    "%s/@tmp/data_update/%s_delta_%s";  // volume, database, version

}  // namespace tolm::paths

#endif  // TOLM_BASE_PATHS_H_
