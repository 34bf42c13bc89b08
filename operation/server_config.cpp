#include "operation/server_config.h"

#include <exception>
#include <memory>

#include "dataupdate/io_utils.h"
#include "operation/credentials.h"

namespace tolm::operation {

std::string ServerConfig::GetDBInfoDomainName() const {
  const std::string before = GetDownloadScheme() + "://";
  return RememberCredentials(before + ServiceConfig::GetDBInfoDomainName(),
                             StatedBy::kConfiguration)
      .substr(before.size());
}

std::optional<Url> ConfiguredServer() {
  try {
    const ServerConfig config(
        std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>()));
    return ParseUrl(config.GetDownloadScheme() + "://" + config.GetDBInfoDomainName());
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace tolm::operation
