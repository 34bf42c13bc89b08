#ifndef TOLM_OPERATION_SETTINGS_READER_H_
#define TOLM_OPERATION_SETTINGS_READER_H_

#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {

/// What the library's settings are read with here. The library goes on with the defaults whatever
/// is wrong with the overrides; where a disk does not give a file, that would be with other
/// settings than the operator has made.
class SettingsReader : public dataupdate::IOUtils {
 public:
  /// Throws DamagedSettings for a file that is there and, for another reason than its rights,
  /// cannot be read: its name, and why. Otherwise as the library's.
  Json::Value ReadJson(const std::string& path) const override;
};

/// The library's store over it, without files yet.
std::shared_ptr<dataupdate::Config> NewSettings();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SETTINGS_READER_H_
