#ifndef TOLM_SRC_PATHS_H_
#define TOLM_SRC_PATHS_H_

/// What goes before the absolute paths of locks and of files to be measured. Nothing on devices;
/// the publisher, which applies deltas with this code, stays in a directory of its own.
#ifndef TOLM_ROOT
#define TOLM_ROOT ""
#endif

/// Every fixed path of the system. Those with a placeholder are filled through NoexceptFormat.
namespace tolm::dataupdate::paths {

inline constexpr char kWget[] = "/usr/bin/wget";
inline constexpr char kVcdiffDecoder[] = "/usr/tolm/sbin/tolmdbudvcdiff";

inline constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf";
inline constexpr char kServiceOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
inline constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
inline constexpr char kDatabaseOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

inline constexpr char kCacheDirectory[] = "/var/cache/data_update";
inline constexpr char kDatabaseInfo[] = "/var/cache/data_update/database_info.json";
inline constexpr char kVersionFile[] = "/var/lib/data_update/%s/version.json";  // database

inline constexpr char kConfigLock[] = TOLM_ROOT "/run/data_update/config.lock";
inline constexpr char kFreshInfoLock[] = TOLM_ROOT "/run/data_update/fresh_info.lock";
inline constexpr char kUpdateAnyLock[] = TOLM_ROOT "/run/data_update/update_any.lock";
inline constexpr char kUpdateLock[] = TOLM_ROOT "/run/data_update/update_%s.lock";  // database
inline constexpr char kUsingLock[] = TOLM_ROOT "/run/data_update/using_%s.lock";    // database

inline constexpr char kVolumeDatabases[] = "%s/@database/autoupdate";  // volume
inline constexpr char kRootFsDatabases[] = "/var/db";

inline constexpr char kTemporaryRoot[] = "%s/@tmp/data_update";         // volume
inline constexpr char kPackageFile[] = "%s/@tmp/data_update/%s_%s";     // volume, database, tag
inline constexpr char kUnpackedTree[] = "%s/@tmp/data_update/%s_full";  // volume, database
inline constexpr char kWorkCopies[] = "%s/@tmp/data_update/%s_sum";     // volume, database
inline constexpr char kUnpackedDelta[] =
    "%s/@tmp/data_update/%s_delta_%s";  // volume, database, version

}  // namespace tolm::dataupdate::paths

#endif  // TOLM_SRC_PATHS_H_
