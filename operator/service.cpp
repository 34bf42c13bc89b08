#include "operator/service.h"

#include <stdexcept>
#include <utility>

#include "dataupdate/io_utils.h"
#include "dataupdate/updater.h"
#include "operator/recovery.h"

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
  try {
    return InfoGetter::GetRemoteInfo(name);
  } catch (const std::logic_error&) {
    throw std::runtime_error("the version that the server offers is no number");
  }
}

std::map<int, dataupdate::DiffInfo> RecordingInfoGetter::GetDiffInfos(
    const std::string& name) const {
  try {
    return InfoGetter::GetDiffInfos(name);
  } catch (const std::logic_error&) {
    throw std::runtime_error("a version that the server offers a delta for is no number");
  }
}

Service BuildService(Report report) {
  const auto io = std::make_shared<dataupdate::IOUtils>();
  const auto config =
      std::make_shared<dataupdate::ServiceConfig>(std::make_shared<dataupdate::Config>(io));
  const auto info = std::make_shared<RecordingInfoGetter>(io, config);
  const auto updater = std::make_shared<dataupdate::Updater>();
  return {config, info,
          std::make_shared<RecoveringUpdate>(updater, info, config, std::move(report)),
          std::make_shared<dataupdate::Checker>(config),
          std::make_shared<dataupdate::VolumeHandler>(config)};
}

}  // namespace tolm::operation
