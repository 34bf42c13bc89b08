#include "operator/service.h"

#include "dataupdate/io_utils.h"
#include "dataupdate/updater.h"

namespace tolm::operation {

void RecordingInfoGetter::SetDatabaseStatus(const std::string& name,
                                            const dataupdate::DatabaseStatus& status) const {
  InfoGetter::SetDatabaseStatus(name, status);
  stored_versions_[name] = status.data_version;
}

Service BuildService() {
  const auto io = std::make_shared<dataupdate::IOUtils>();
  const auto config =
      std::make_shared<dataupdate::ServiceConfig>(std::make_shared<dataupdate::Config>(io));
  const auto info = std::make_shared<RecordingInfoGetter>(io, config);
  const auto updater = std::make_shared<dataupdate::Updater>();
  return {config, info, std::make_shared<dataupdate::Update>(updater, info, config)};
}

}  // namespace tolm::operation
