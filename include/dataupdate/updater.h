#ifndef TOLM_DATAUPDATE_UPDATER_H_
#define TOLM_DATAUPDATE_UPDATER_H_

#include <map>
#include <set>
#include <string>

#include "dataupdate/export.h"
#include "dataupdate/records.h"

namespace tolm::dataupdate {

// Three paths keep their meaning throughout the engine: cur_volume is the volume on which temporary
// data lies, install_prefix the directory of the installed files, root_directory the path whose
// file system is checked for free space.

/// True when every listed file exists below `dir` and has exactly the listed digest. Stops at, and
/// logs, the first that does not. Throws boost::filesystem::filesystem_error when a file's status
/// cannot be read, UpdateError when its content cannot.
TOLM_DATAUPDATE_API bool CheckStatus(const std::map<std::string, FileStatus>& expected,
                                     const std::string& dir);

/// The digest of each listed file that exists below `dir`; a missing one is left out. Throws like
/// CheckStatus.
TOLM_DATAUPDATE_API std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                                      const std::string& dir);

/// Decides whether an installation is damaged and repairs it with the complete package. It is a
/// value made for one repair and never owned through a pointer, so its destructor is not virtual.
class TOLM_DATAUPDATE_API Fixer {
 public:
  Fixer(const std::string& name, const RemoteInfo& remote, const std::string& cur_volume,
        const std::string& install_prefix, const std::string& root_directory);

  /// True for a database that was never installed and for one whose recorded files do not all
  /// match. Throws like CheckStatus.
  virtual bool IsFixNeeded(const DatabaseStatus& installed) const;
  /// Installs the offered version in full and returns the new state; the caller stores it. Throws
  /// UpdateError, and like CheckStatus when the new files are measured.
  virtual DatabaseStatus Fix() const;

 private:
  std::string name_;
  RemoteInfo remote_;
  std::string cur_volume_;
  std::string install_prefix_;
  std::string root_directory_;
};

/// Updates one database: by deltas, and by the complete package when the deltas cannot be prepared.
/// Stateless.
class TOLM_DATAUPDATE_API Updater {
 public:
  virtual ~Updater();

  /// Brings the database to the offered version, with hooks around the change of files, and returns
  /// the new state; the caller stores it. After a delta update the state lists only the files that
  /// the deltas touched. Throws UpdateError, and like CheckStatus when the new files are measured;
  /// a failure after the preparation never falls back.
  virtual DatabaseStatus Update(const std::string& name, const DatabaseStatus& installed,
                                const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                                const std::string& cur_volume, const std::string& install_prefix,
                                const std::string& root_directory) const;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_UPDATER_H_
