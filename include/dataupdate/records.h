#ifndef TOLM_DATAUPDATE_RECORDS_H_
#define TOLM_DATAUPDATE_RECORDS_H_

#include <json/value.h>

#include <map>
#include <string>

#include "dataupdate/export.h"

// The records that describe what the server offers and what is installed, with their JSON forms.
//
// Every FromJson throws UpdateError "Invalid json object for <record>" when the value is not an
// object or a member is missing or of another type; members that it does not know are ignored. Data
// versions stand in JSON as strings and are converted like std::stoi does: leading white space and
// trailing characters are accepted, and a string without a leading number (or with one outside int)
// raises std::invalid_argument (or std::out_of_range), which is not an UpdateError.

namespace tolm::dataupdate {

/// The server's present offer for one database.
struct TOLM_DATAUPDATE_API RemoteInfo {
  RemoteInfo(int data_version, int last_fetch_time, bool deprecated,
             const std::string& download_link);

  static RemoteInfo FromJson(const Json::Value& value);
  static Json::Value ToJson(const RemoteInfo& info);
  bool operator==(const RemoteInfo& other) const;

  int data_version;
  int last_fetch_time;  ///< When the server fetched the data, in seconds since 1970.
  bool deprecated;
  std::string download_link;  ///< URL of the full package.
};

/// One delta package that the server offers.
struct TOLM_DATAUPDATE_API DiffInfo {
  DiffInfo(const std::string& download_link, int file_size);

  static DiffInfo FromJson(const Json::Value& value);
  /// One entry per member, keyed by the data version that the delta produces. Of several names for
  /// one number ("07" and "7") the first in byte order wins. Anything but an object yields an empty
  /// map.
  static std::map<int, DiffInfo> BatchFromJson(const Json::Value& value);
  bool operator==(const DiffInfo& other) const;

  std::string download_link;
  int file_size;  ///< In bytes, as the server states it.
};

/// What is known of one installed file.
struct TOLM_DATAUPDATE_API FileStatus {
  explicit FileStatus(const std::string& sha384_digest);

  static FileStatus FromJson(const Json::Value& value);
  static Json::Value ToJson(const FileStatus& status);
  /// One entry per member. Throws UpdateError "Invalid json object for FileStatuses" when the value
  /// is not an object.
  static std::map<std::string, FileStatus> BatchFromJson(const Json::Value& value);
  /// Always an object, `{}` for an empty map.
  static Json::Value BatchToJson(const std::map<std::string, FileStatus>& statuses);
  bool operator==(const FileStatus& other) const;
  bool operator!=(const FileStatus& other) const;

  std::string sha384_digest;  ///< 96 lower-case hexadecimal characters; compared byte for byte.
};

/// The installed state of one database: the content of its version.json.
struct TOLM_DATAUPDATE_API DatabaseStatus {
  /// The state of a database that was never installed.
  DatabaseStatus() = default;
  DatabaseStatus(int data_version, int last_fetch_time,
                 const std::map<std::string, FileStatus>& file_statuses);

  /// "file_statuses" that is absent or not an object reads as no files.
  static DatabaseStatus FromJson(const Json::Value& value);
  static Json::Value ToJson(const DatabaseStatus& status);
  /// The fetch time takes part in the comparison.
  bool operator==(const DatabaseStatus& other) const;
  bool operator!=(const DatabaseStatus& other) const;

  int data_version = -1;
  int last_fetch_time = 0;
  std::map<std::string, FileStatus> file_statuses;  ///< Keyed by path below the install prefix.
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_RECORDS_H_
