#include <memory>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/update.h"
#include "dataupdate/volume_handler.h"

namespace tolm::dataupdate {

void InitService() {
  const auto io_utils = std::make_shared<IOUtils>();
  const auto config = std::make_shared<Config>(io_utils);
  const auto service_config = std::make_shared<ServiceConfig>(config);
  const VolumeHandler volume_handler(service_config);
  volume_handler.InitVolume();
}

}  // namespace tolm::dataupdate
