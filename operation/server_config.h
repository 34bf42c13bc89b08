#ifndef TOLM_OPERATION_SERVER_CONFIG_H_
#define TOLM_OPERATION_SERVER_CONFIG_H_

#include <optional>
#include <string>

#include "dataupdate/config.h"
#include "operation/link_rules.h"

namespace tolm::operation {

/// The service's settings, of which the library sees the server without user name and password.
/// These are remembered (see credentials.h).
class ServerConfig : public dataupdate::ServiceConfig {
 public:
  using ServiceConfig::ServiceConfig;
  std::string GetDBInfoDomainName() const override;
};

/// The server that the operator has configured, as scheme, host and port; nothing where the
/// settings name none.
std::optional<Url> ConfiguredServer();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SERVER_CONFIG_H_
