#ifndef TOLM_TESTS_SRC_SERVICE_DOUBLES_H_
#define TOLM_TESTS_SRC_SERVICE_DOUBLES_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace tolm::testing {

/// What several doubles write down, in one order.
using Journal = std::vector<std::string>;

/// The settings of one database, in memory.
class FakeDatabaseConfig : public dataupdate::DatabaseConfig {
 public:
  FakeDatabaseConfig(const std::string& id, Journal& journal)
      : DatabaseConfig(id, "", NewConfig()), journal_(journal) {}

  bool GetScheduled() const override {
    journal_.push_back("GetScheduled");
    return scheduled;
  }
  void SetScheduled(bool) const override { throw std::logic_error("settings are not written"); }
  std::string GetFormatVersion() const override { return format_version; }
  std::string GetInstallPrefix() const override {
    journal_.push_back("GetInstallPrefix");
    return install_prefix;
  }
  std::string GetRootDirectory() const override {
    journal_.push_back("GetRootDirectory");
    return root_directory;
  }
  unsigned long long GetMinReservedSpaceInbytes() const override { return 0; }

  bool scheduled = true;
  std::string format_version = "1";
  std::string install_prefix = "/volume1/db/x";
  std::string root_directory = "/volume1";

 private:
  static std::shared_ptr<dataupdate::Config> NewConfig() {
    return std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>());
  }

  Journal& journal_;
};

/// The service's settings, in memory. Databases are those that Add() made, in their order.
class FakeServiceConfig : public dataupdate::ServiceConfig {
 public:
  explicit FakeServiceConfig(Journal& journal)
      : ServiceConfig(
            std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>())),
        journal_(journal) {}

  FakeDatabaseConfig& Add(const std::string& id) {
    ids.push_back(id);
    configs_[id] = std::make_shared<FakeDatabaseConfig>(id, journal_);
    return *configs_[id];
  }

  std::vector<std::string> GetDatabaseIDs() const override {
    journal_.push_back("GetDatabaseIDs");
    return ids;
  }
  std::shared_ptr<dataupdate::DatabaseConfig> GetDatabaseConfig(
      const std::string& id) const override {
    journal_.push_back("GetDatabaseConfig " + id);
    return configs_.at(id);
  }
  void CheckSupported(const std::string& id) const override {
    journal_.push_back("CheckSupported " + id);
    if (configs_.count(id) == 0) {
      throw dataupdate::UpdateError("Project " + id + " not supported");
    }
  }
  std::string GetDownloadScheme() const override { return scheme; }
  std::string GetDBInfoDomainName() const override { return netloc; }
  std::string GetDBInfoVersion() const override { return version; }
  std::string GetCurVolume() const override {
    journal_.push_back("GetCurVolume");
    if (volume_missing) {
      throw dataupdate::UpdateError("section-key: 'config'-'cur_volume' not found");
    }
    return volume;
  }
  void SetCurVolume(const std::string&) const override {
    throw std::logic_error("settings are not written");
  }

  std::vector<std::string> ids;
  std::string scheme = "http";
  std::string netloc = "host:1";
  std::string version = "v1";
  std::string volume = "/volume1";
  bool volume_missing = false;

 private:
  std::map<std::string, std::shared_ptr<FakeDatabaseConfig>> configs_;
  Journal& journal_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SRC_SERVICE_DOUBLES_H_
