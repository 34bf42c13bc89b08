// The whole service in one program: choose a volume, bring every scheduled database up to date.
#include <dataupdate/config.h>
#include <dataupdate/io_utils.h>
#include <dataupdate/update.h>
#include <dataupdate/updater.h>

#include <exception>
#include <iostream>
#include <memory>

using namespace tolm::dataupdate;

int main() try {
  InitService();
  const auto io = std::make_shared<IOUtils>();
  const auto config = std::make_shared<ServiceConfig>(std::make_shared<Config>(io));
  const auto info = std::make_shared<InfoGetter>(io, config);
  std::cout << "volume " << config->GetCurVolume() << std::endl;
  Update(std::make_shared<Updater>(), info, config).UpdateAllProjects();
  std::cout << "running " << Checker(config).IsAnyUpdating() << std::endl;
} catch (const std::exception& error) {
  std::cout << "error " << error.what() << std::endl;
  return 1;
}
