// Each public header of the operations, used by a source that includes nothing else of ours. Here
// is what such a source would get from elsewhere in its program.

#include <filesystem>
#include <fstream>

#include "operation/service.h"

namespace tolm::testing {

/// A device with one database, "x", on /volume1, which the cached description offers at a place
/// that is none.
void MakeDevice() {
  for (const char* directory : {"/usr/share/data_update", "/var/cache/data_update"}) {
    std::filesystem::create_directories(directory);
  }
  std::ofstream("/usr/share/data_update/databases.conf")
      << R"({"x": {"format_version": "2", "install_dest": "%VOLUME%"}})";
  std::ofstream("/usr/share/data_update/data_update.conf")
      << R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1", "db_ver": "v1",
                        "cur_volume": "/volume1"}})";
  std::ofstream("/var/cache/data_update/database_info.json")
      << R"({"deprecated": false, "db_list": {"x": {
               "data_version": "7", "last_fetch_time": 70, "download_link": "-no-url7",
               "diff_files": {"7": {"download_link": "-no-url", "file_size": 1}}}}})";
}

operation::Service MakeService() {
  MakeDevice();
  return operation::BuildService([](const std::string&) {});
}

std::shared_ptr<dataupdate::ServiceConfig> MakeConfig() {
  return MakeService().config;
}

}  // namespace tolm::testing
