#ifndef TOLM_DATAUPDATE_CONFIG_H_
#define TOLM_DATAUPDATE_CONFIG_H_

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "dataupdate/export.h"

namespace tolm::dataupdate {

class IOUtils;

/// A key-value store in two layers of JSON files: read-only defaults and overrides. A value is
/// addressed by section and key. An override counts only when it has the wanted type; otherwise the
/// default answers. Nothing is cached: every call reads the files, so another process's change is
/// seen by the next call. After Init, any thread may call any operation.
class TOLM_DATAUPDATE_API Config {
 public:
  explicit Config(std::shared_ptr<IOUtils> io);
  virtual ~Config();

  /// Sets the two files, once, before anything else; touches neither.
  virtual void Init(const std::string& default_path, const std::string& override_path) const;

  /// Throw UpdateError when the key is in neither file, or the default is of another type or
  /// unreadable.
  virtual std::string Get(const std::string& section, const std::string& key) const;
  /// Accepts 0 to 4294967295 only, although the type is wider.
  virtual unsigned long long GetAsUInt64(const std::string& section, const std::string& key) const;
  virtual bool GetAsBool(const std::string& section, const std::string& key) const;

  /// Write to the override file, under the lock of all configuration writes (waits up to 600 s).
  /// Throw UpdateError when the lock is not had or the file cannot be written.
  virtual void Set(const std::string& section, const std::string& key,
                   const std::string& value) const;
  virtual void Set(const std::string& section, const std::string& key, const char* value) const;
  virtual void Set(const std::string& section, const std::string& key,
                   unsigned long long value) const;
  virtual void Set(const std::string& section, const std::string& key, bool value) const;

  /// The override file's sections, sorted; the default file's only when the override cannot be
  /// read. A readable override therefore hides every section that it does not hold.
  virtual std::vector<std::string> GetSections() const;

 private:
  template <typename T>
  T __Get(const std::string& section, const std::string& key) const;
  template <typename T>
  void __Set(const std::string& section, const std::string& key, const T& value) const;
  template <typename T>
  static T GetAs(const Json::Value& value);

  // Init is const, like every operation; the two paths are set by it once.
  mutable std::string default_path_;
  mutable std::string override_path_;
  std::shared_ptr<IOUtils> io_;
};

/// The settings of one database, the section of its ID in databases.conf. Errors are those of
/// Config.
class TOLM_DATAUPDATE_API DatabaseConfig {
 public:
  /// Makes `config` the store of databases.conf. `volume` is the volume's mount path, kept as it
  /// is: a later change of the current volume is not seen.
  DatabaseConfig(const std::string& id, const std::string& volume, std::shared_ptr<Config> config);
  virtual ~DatabaseConfig();

  /// Whether the database is updated automatically; true unless it is set to false.
  virtual bool GetScheduled() const;
  virtual void SetScheduled(bool scheduled) const;
  virtual std::string GetFormatVersion() const;
  /// The directory that holds the installed files.
  virtual std::string GetInstallPrefix() const;
  /// The path whose file system must keep free space: the volume, or "/".
  virtual std::string GetRootDirectory() const;
  /// Bytes that a volume must have for this database; 0 when not (validly) set.
  virtual unsigned long long GetMinReservedSpaceInbytes() const;

 private:
  std::string id_;
  std::string volume_;
  std::shared_ptr<Config> config_;
};

/// The service's settings, data_update.conf, and the list of databases. Errors are those of Config.
class TOLM_DATAUPDATE_API ServiceConfig {
 public:
  /// Makes `config` the store of data_update.conf.
  explicit ServiceConfig(std::shared_ptr<Config> config);
  virtual ~ServiceConfig();

  /// All databases, sorted by name.
  virtual std::vector<std::string> GetDatabaseIDs() const;
  /// A new, independent view of one database with the present volume. The ID is not checked.
  virtual std::shared_ptr<DatabaseConfig> GetDatabaseConfig(const std::string& id) const;
  /// Throws UpdateError "Project <id> not supported" unless the database is listed.
  virtual void CheckSupported(const std::string& id) const;
  virtual std::string GetDownloadScheme() const;
  virtual std::string GetDBInfoDomainName() const;
  virtual std::string GetDBInfoVersion() const;
  /// Mount path of the volume that holds the databases; empty when none is chosen.
  virtual std::string GetCurVolume() const;
  virtual void SetCurVolume(const std::string& volume) const;

 private:
  std::shared_ptr<Config> config_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_CONFIG_H_
