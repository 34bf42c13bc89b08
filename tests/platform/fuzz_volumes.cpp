// A target for libFuzzer: the patterns of volumes. Whatever they are: no crash, and every volume
// that is listed is one that is mounted.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/paths.h"
#include "tolm/volume.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace paths = tolm::paths;
  std::filesystem::create_directories(std::filesystem::path(paths::kVolumePatterns).parent_path());
  std::ofstream(paths::kVolumePatterns, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  TOLMMountVolInfo* const volumes = TOLMMountVolAllEnum(0, 0, 0);
  for (const TOLMMountVolInfo* volume = volumes; volume != nullptr; volume = volume->next) {
    if (!std::filesystem::is_directory(volume->mount_path)) {
      std::abort();
    }
    TOLMVolumeServicePolicy(volume);
  }
  TOLMMountVolInfoFree(volumes);
  return 0;
}
