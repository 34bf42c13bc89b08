#ifndef TOLM_OPERATION_SERVER_CONFIG_H_
#define TOLM_OPERATION_SERVER_CONFIG_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dataupdate/config.h"
#include "operation/link_rules.h"

namespace tolm::operation {

/// The service's settings, of which the library sees the server without user name and password.
/// These are remembered (see credentials.h). Where a disk does not give a file of settings, all
/// throw DamagedSettings (see settings_reader.h).
class ServerConfig : public dataupdate::ServiceConfig {
 public:
  ServerConfig();
  std::string GetDBInfoDomainName() const override;
  std::vector<std::string> GetDatabaseIDs() const override;
  std::shared_ptr<dataupdate::DatabaseConfig> GetDatabaseConfig(
      const std::string& id) const override;
};

/// The server that the operator has configured, as scheme, host and port; nothing where the
/// settings name none. Throws DamagedSettings where a disk does not give them.
std::optional<Url> ConfiguredServer();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SERVER_CONFIG_H_
