#ifndef TOLM_SRC_PATHS_H_
#define TOLM_SRC_PATHS_H_

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

inline constexpr char kConfigLock[] = "/run/data_update/config.lock";
inline constexpr char kFreshInfoLock[] = "/run/data_update/fresh_info.lock";
inline constexpr char kUpdateAnyLock[] = "/run/data_update/update_any.lock";
inline constexpr char kUpdateLock[] = "/run/data_update/update_%s.lock";  // database
inline constexpr char kUsingLock[] = "/run/data_update/using_%s.lock";    // database

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
