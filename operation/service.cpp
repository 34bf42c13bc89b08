#include "operation/service.h"

#include <stdexcept>
#include <utility>

#include "dataupdate/io_utils.h"
#include "dataupdate/updater.h"
#include "operation/description_reader.h"
#include "operation/directory_types.h"
#include "operation/installed_record.h"
#include "operation/offers.h"
#include "operation/operation_info.h"
#include "operation/platform_calls.h"
#include "operation/recovery.h"
#include "operation/server_config.h"

namespace tolm::operation {
void RecordingInfoGetter::SetDatabaseStatus(const std::string& name,
                                            const dataupdate::DatabaseStatus& status) const {
  InfoGetter::SetDatabaseStatus(name, status);
  stored_versions_[name] = status.data_version;
}

dataupdate::DatabaseStatus RecordingInfoGetter::GetDatabaseStatus(const std::string& name) const {
  try {
    return InfoGetter::GetDatabaseStatus(name);
  } catch (const std::logic_error&) {
    throw std::runtime_error("the version recorded in version.json is no number");
  }
}

dataupdate::RemoteInfo RecordingInfoGetter::GetRemoteInfo(const std::string& name) const {
  return OfferIn(GetDatabaseInfo(), name);
}

std::map<int, dataupdate::DiffInfo> RecordingInfoGetter::GetDiffInfos(
    const std::string& name) const {
  return DeltasIn(GetDatabaseInfo(), name);
}

void RecordingInfoGetter::BeginOperation(const std::string& name) {
  stored_versions_.erase(name);
  versions_before_[name] = InstalledVersionOf(name);
}

int RecordingInfoGetter::VersionBefore(const std::string& name) const {
  const auto found = versions_before_.find(name);
  return found == versions_before_.end() ? kNeverInstalled : found->second;
}

Service BuildService(Report report) {
  RequirePrecedence();
  const auto io = std::make_shared<DescriptionKeeper>();
  const auto config = std::make_shared<ServerConfig>();
  const auto info = std::make_shared<OperationInfo>(io, config);
  const auto updater = std::make_shared<dataupdate::Updater>();
  return {config, info,
          std::make_shared<RecoveringUpdate>(updater, info, config, std::move(report)),
          std::make_shared<dataupdate::Checker>(config), std::make_shared<TypedVolumes>(config)};
}

}  // namespace tolm::operation
