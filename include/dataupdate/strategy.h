#ifndef TOLM_DATAUPDATE_STRATEGY_H_
#define TOLM_DATAUPDATE_STRATEGY_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "dataupdate/export.h"
#include "dataupdate/records.h"

namespace tolm::dataupdate {

/// What is to be done with one installed file.
struct TOLM_DATAUPDATE_API ModifyInfo {
  /// 1: replaced by source_path; 2: deleted; 0: nothing decided yet.
  std::int32_t operation = 0;
  std::string source_path;  ///< Absolute path of the new content.
};

/// One way to change the installed files of one database, in two phases. PrepareUpdate does
/// everything that can fail without touching an installed file, in a temporary directory on the
/// current volume; ApplyUpdate replaces the installed files while it holds the database's "using"
/// lock, which keeps readers away. Order of calls: PrepareUpdate, GetModifiedFiles, ApplyUpdate,
/// destruction, once each.
///
/// All strategies of a volume share one temporary directory, which every destructor removes: never
/// let two live at once (the update locks see to it). Destructors never throw. Not thread-safe.
class TOLM_DATAUPDATE_API BaseStrategy {
 public:
  virtual ~BaseStrategy();

  /// Throws UpdateError; the installed files are then untouched.
  virtual void PrepareUpdate();
  /// Throws UpdateError; there is no rollback, so the installation may then be incomplete. Waits up
  /// to 600 s for readers.
  virtual void ApplyUpdate();
  /// Paths below the install prefix that ApplyUpdate replaces or deletes; known after
  /// PrepareUpdate.
  virtual std::set<std::string> GetModifiedFiles() const;
  /// Bytes that the update frees, negative when it needs more; known after PrepareUpdate.
  virtual long long GetDeltaSize() const;

 protected:
  /// Whether the file has exactly this SHA-384.
  static bool _CheckDigest(const std::string& path, const std::string& digest);
  /// Whether more than five per cent of the file system's capacity stay free after `delta` more
  /// bytes are freed on it.
  static bool _IsSpaceEnough(const std::string& path, long long delta);
  /// Verifies a signed package and unpacks it into an existing directory. Throws UpdateError.
  static void _ExtractTarballTo(const std::string& tarball, const std::string& dest);
};

/// Replaces the whole installation by a complete package.
class TOLM_DATAUPDATE_API FullStrategy : public BaseStrategy {
 public:
  FullStrategy(const std::string& name, const RemoteInfo& remote, const std::string& cur_volume,
               const std::string& install_prefix, const std::string& root_directory);
  ~FullStrategy() override;

  void PrepareUpdate() override;
  void ApplyUpdate() override;
  std::set<std::string> GetModifiedFiles() const override;
  long long GetDeltaSize() const override;

 private:
  void _CalModifyInfo();
  void AddToPlan(const std::string& entry);
  void EmptyInstallDirectory() const;
  void InstallFiles() const;

  std::string name_;
  RemoteInfo remote_;
  std::string cur_volume_;
  std::string install_prefix_;
  std::string root_directory_;
  std::string tarball_path_;
  std::string extract_dir_;
  std::map<std::string, ModifyInfo> modify_infos_;
};

/// Unpacks the package behind a link over the installed files; installed files that the package
/// lacks stay. Makes no version, space or digest check of its own.
class TOLM_DATAUPDATE_API ForceInstallByLink : public BaseStrategy {
 public:
  ForceInstallByLink(const std::string& name, const std::string& link,
                     const std::string& cur_volume, const std::string& install_prefix,
                     const std::string& root_directory);
  ~ForceInstallByLink() override;

  void PrepareUpdate() override;
  void ApplyUpdate() override;

 private:
  std::string name_;
  std::string link_;
  std::string cur_volume_;
  std::string install_prefix_;
  std::string root_directory_;
  std::string tarball_path_;
};

/// Brings an installation forward by one delta package per version, applied to copies of the
/// touched files.
class TOLM_DATAUPDATE_API DiffStrategy : public BaseStrategy {
 public:
  DiffStrategy(const std::string& name, const DatabaseStatus& installed, const RemoteInfo& remote,
               const std::map<int, DiffInfo>& diffs, const std::string& cur_volume,
               const std::string& install_prefix, const std::string& root_directory);
  ~DiffStrategy() override;

  /// Throws UpdateError also when no unbroken chain of deltas is offered.
  void PrepareUpdate() override;
  void ApplyUpdate() override;
  std::set<std::string> GetModifiedFiles() const override;
  long long GetDeltaSize() const override;

 private:
  bool _IsDiffUpdateAvailable() const;
  void _DoDiffUpdateTo(int version);
  void _PatchFile(const std::string& key, const std::string& operation, const std::string& input);
  void UpdateWorkCopy(const std::string& work, const std::string& installed,
                      const std::string& input) const;
  void _DoVcPatch(const std::string& target, const std::string& patch) const;
  void _DoSqlitePatch(const std::string& target, const std::string& patch) const;
  void RemoveOldFiles() const;
  void InstallNewFiles() const;

  std::string name_;
  DatabaseStatus installed_;
  RemoteInfo remote_;
  std::map<int, DiffInfo> diffs_;  ///< Keyed by the version that the delta produces.
  std::string cur_volume_;
  std::string install_prefix_;
  std::string root_directory_;
  std::map<std::string, ModifyInfo> modify_infos_;
  std::map<int, std::string> tarball_paths_;
  std::string sum_dir_;  ///< The work copies of all touched files, flat.
  std::map<int, std::string> delta_dirs_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_STRATEGY_H_
