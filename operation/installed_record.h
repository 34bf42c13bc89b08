#ifndef TOLM_OPERATION_INSTALLED_RECORD_H_
#define TOLM_OPERATION_INSTALLED_RECORD_H_

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "operation/installed_tree.h"

namespace tolm::operation {

/// A file that was installed, as it was then.
struct RecordedFile {
  TreeFile seen;
  std::string
      sha384;  ///< Of the contents; of a link, of the path in it. 96 hexadecimal characters.
};

/// Everything that is installed of a database: what installed.json holds.
struct InstalledRecord {
  int version = 0;
  std::string version_file;  ///< SHA-384 of the version.json that it belongs to.
  std::uint64_t fingerprint = 0;
  std::map<std::string, RecordedFile> files;  ///< By name below the directory.
};

/// What there is of a record of a database.
enum class RecordState {
  kMissing,
  kOutdated,  ///< The version.json is another one by now: another program has installed.
  kDamaged,
  kUnreadable,  ///< A disk does not give it, or the version.json: nothing is known of it.
  kCurrent
};

/// The record's beginning, without its files: quick, however many there are.
struct RecordHead {
  RecordState state;
  std::uint64_t fingerprint = 0;  ///< When it is current.
  int version = 0;                ///< When it is current: what stands in version.json, too.
};
RecordHead ReadRecordHead(const std::string& name);

/// The whole record when it is current. None of these throws for what stands in the file. Throws
/// base::FileError, or as FileDigest does, where a disk does not give it or the version.json.
std::optional<InstalledRecord> ReadRecord(const std::string& name);

/// Replaces the record at once, and syncs it. Everybody may read it. Throws base::FileError.
void WriteRecord(const std::string& name, const InstalledRecord& record);

/// SHA-384 of the file or, of a link, of the path in it. Throws as FileDigest does; `step` as
/// there.
std::string DigestOf(const std::string& directory, const TreeFile& file,
                     const std::function<void()>& step);

/// The version in the database's version.json, which is not taken apart where a current record
/// tells it; kNeverInstalled when there is none, or none that can be read. Writes nothing into the
/// log, as the library does whenever it reads the file.
int InstalledVersionOf(const std::string& name) noexcept;

/// SHA-384 of the database's version.json. Throws as FileDigest does.
std::string VersionFileDigest(const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INSTALLED_RECORD_H_
