#include "operation/settings_reader.h"

#include "dataupdate/error.h"
#include "operation/settings_check.h"
#include "operation/settings_file.h"

namespace tolm::operation {

Json::Value SettingsReader::ReadJson(const std::string& path) const {
  try {
    return IOUtils::ReadJson(path);
  } catch (const dataupdate::UpdateError& error) {
    const std::string problem = DiskProblem(path, error);
    if (!problem.empty()) {
      throw DamagedSettings(path + ": " + problem);
    }
    throw;
  }
}

std::shared_ptr<dataupdate::Config> NewSettings() {
  return std::make_shared<dataupdate::Config>(std::make_shared<SettingsReader>());
}

}  // namespace tolm::operation
