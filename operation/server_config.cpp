#include "operation/server_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/credentials.h"
#include "operation/settings_reader.h"

namespace tolm::operation {
namespace {

constexpr char kEndsHost[] = "/?#@";

std::string Encoded(char c) {
  char text[8];
  std::snprintf(text, sizeof text, "%%%02X", static_cast<unsigned int>(c));
  return text;
}

}  // namespace

ServerConfig::ServerConfig() : ServiceConfig(NewSettings()) {}

std::vector<std::string> ServerConfig::GetDatabaseIDs() const {
  const std::shared_ptr<dataupdate::Config> settings = NewSettings();
  settings->Init(paths::kDatabaseDefaults, paths::kDatabaseOverrides);
  return settings->GetSections();
}

std::shared_ptr<dataupdate::DatabaseConfig> ServerConfig::GetDatabaseConfig(
    const std::string& id) const {
  return std::make_shared<dataupdate::DatabaseConfig>(id, GetCurVolume(), NewSettings());
}

std::string ServerConfig::GetDBInfoDomainName() const {
  const std::string before = GetDownloadScheme() + "://";
  std::string stated = ServiceConfig::GetDBInfoDomainName();
  // No path follows, so everything up to the last "@" is user name and password, whatever it holds.
  const std::size_t at = std::min(stated.rfind('@'), stated.size());
  for (std::size_t i = at == stated.size() ? 0 : at; i > 0; --i) {
    if (std::strchr(kEndsHost, stated[i - 1]) != nullptr) {
      stated.replace(i - 1, 1, Encoded(stated[i - 1]));
    }
  }
  return RememberCredentials(before + stated, StatedBy::kConfiguration).substr(before.size());
}

std::optional<Url> ConfiguredServer() {
  try {
    const ServerConfig config;
    return ParseUrl(config.GetDownloadScheme() + "://" + config.GetDBInfoDomainName());
  } catch (const dataupdate::UpdateError&) {
    return std::nullopt;
  }
}

}  // namespace tolm::operation
