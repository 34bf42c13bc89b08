#ifndef TOLM_DATAUPDATE_UPDATE_H_
#define TOLM_DATAUPDATE_UPDATE_H_

#include <json/value.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "dataupdate/export.h"
#include "dataupdate/records.h"

namespace tolm::dataupdate {

class IOUtils;
class ServiceConfig;
class Updater;

/// At the start of the service: when no storage volume is chosen, chooses and prepares one, as
/// VolumeHandler::InitVolume does. Having found none is no failure, the system log says so.
TOLM_DATAUPDATE_API void InitService();

/// Knows where the two kinds of state live: the server's description of all databases, cached for
/// an hour, and each database's version.json. Operations throw UpdateError. Data versions are texts
/// in both: where one has no leading number, or one outside int, the operation that reads it throws
/// std::invalid_argument or std::out_of_range instead.
class TOLM_DATAUPDATE_API InfoGetter {
 public:
  InfoGetter(std::shared_ptr<IOUtils> io_utils, std::shared_ptr<ServiceConfig> service_config);
  virtual ~InfoGetter();

  /// What the server offers for the database. A service-wide deprecation wins over the database's
  /// own.
  virtual RemoteInfo GetRemoteInfo(const std::string& name) const;
  /// The delta packages offered, keyed by the version that each produces.
  virtual std::map<int, DiffInfo> GetDiffInfos(const std::string& name) const;
  /// The installed state; the never-installed one (version -1) when the record is missing or
  /// damaged (no JSON, or not of a record's form), which the system log says. A version text that
  /// is no number is not among that: it throws, see above.
  virtual DatabaseStatus GetDatabaseStatus(const std::string& name) const;
  virtual void SetDatabaseStatus(const std::string& name, const DatabaseStatus& status) const;
  /// The server's description, downloaded anew when the cached one is older than an hour. Waits up
  /// to 600 s for another process that is refreshing it.
  virtual Json::Value GetDatabaseInfo() const;
  /// The URL of the description.
  virtual std::string GetDatabaseUrl() const;
  /// The URL's query, with the leading "?"; names and values are not escaped.
  virtual std::string GetQueryString() const;

 private:
  std::shared_ptr<IOUtils> io_utils_;
  std::shared_ptr<ServiceConfig> service_config_;
};

/// The operations on one database or on all. Each holds the update locks while it runs (waiting up
/// to 600 s for another process) and writes the database's version.json only after it succeeded.
/// Each works in the caller's thread. A run without a volume ends normally with a warning in the
/// system log.
///
/// Failures are thrown as UpdateError, but for two kinds that pass as they are: a data version in
/// the description or in version.json that is no number (std::invalid_argument, std::out_of_range),
/// and an installed file whose status cannot be read (boost::filesystem::filesystem_error). Catch
/// std::exception to see them all.
class TOLM_DATAUPDATE_API Update {
 public:
  Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
         std::shared_ptr<ServiceConfig> service_config);
  virtual ~Update();

  /// Every scheduled database, in order; the first failure ends the run.
  virtual void UpdateAllProjects() const;
  /// Brings the database to the offered version when that is newer than the installed one.
  virtual void UpdateProject(const std::string& name) const;
  virtual void FixAllProjects() const;
  /// Reinstalls the database in full when it is damaged or was never installed.
  virtual void FixProject(const std::string& name) const;
  /// Installs a version from the server whatever is installed: the given one, the newest for 0, and
  /// for a negative number that many before the newest. The link is the newest version's with the
  /// version's text replaced wherever it occurs.
  virtual void ForceInstall(const std::string& name, int version) const;

  /// Runs the operation on every scheduled database. An UpdateError of one is thrown on as
  /// "Fail on project '<name>': <text>"; everything else passes as it is. An empty operation throws
  /// std::bad_function_call as soon as there is a database to run it on.
  void OperateAllProjects(const std::function<void(const std::string&)>& operation) const;

 private:
  std::shared_ptr<Updater> updater_;
  std::shared_ptr<InfoGetter> info_getter_;
  std::shared_ptr<ServiceConfig> service_config_;
};

/// Tells whether an operation is running, in any process. Never waits. Each question takes the
/// operations' lock for a moment when it is free (making the lock file when missing), and an
/// operation that starts at this moment tries again 100 ms later. When that fails for whatever
/// reason, the answer is "running": the safe one for who wants to keep out of the way.
class TOLM_DATAUPDATE_API Checker {
 public:
  explicit Checker(std::shared_ptr<ServiceConfig> service_config);
  virtual ~Checker();

  /// An update, repair or forced installation of the database. Throws UpdateError when the database
  /// is not configured or the configuration cannot be read.
  virtual bool IsUpdating(const std::string& name) const;
  /// One of any database.
  virtual bool IsAnyUpdating() const;

 private:
  std::shared_ptr<ServiceConfig> service_config_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_UPDATE_H_
