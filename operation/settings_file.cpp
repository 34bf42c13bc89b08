#include "operation/settings_file.h"

#include <filesystem>
#include <system_error>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {

std::optional<Json::Value> ReadSettings(const std::string& path) {
  try {
    Json::Value document = dataupdate::IOUtils().ReadJson(path);
    if (document.isObject()) {
      return document;
    }
  } catch (const dataupdate::UpdateError&) {
    // As good as none.
  }
  return std::nullopt;
}

bool IsDamagedSettings(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored)) &&
         !ReadSettings(path).has_value();
}

}  // namespace tolm::operation
