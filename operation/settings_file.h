#ifndef TOLM_OPERATION_SETTINGS_FILE_H_
#define TOLM_OPERATION_SETTINGS_FILE_H_

#include <json/value.h>

#include <optional>
#include <string>

namespace tolm::operation {

/// The JSON object in a file of settings; nothing when the file is missing or holds none.
std::optional<Json::Value> ReadSettings(const std::string& path);

/// Whether there is a file, or a link, that ReadSettings makes nothing of.
bool IsDamagedSettings(const std::string& path);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SETTINGS_FILE_H_
