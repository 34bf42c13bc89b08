// A target for libFuzzer: the patterns of volumes. Whatever they are: no crash, and every volume
// that is listed is one that is mounted.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "base/paths.h"
#include "tests/support/fuzzing.h"
#include "tolm/volume.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace paths = tolm::paths;
  tolm::testing::Put(paths::kVolumePatterns,
                     std::string(reinterpret_cast<const char*>(data), size));
  TOLMMountVolInfo* const volumes = TOLMMountVolAllEnum(0, 0, 0);
  for (const TOLMMountVolInfo* volume = volumes; volume != nullptr; volume = volume->next) {
    tolm::testing::Expect(std::filesystem::is_directory(volume->mount_path));
    TOLMVolumeServicePolicy(volume);
  }
  TOLMMountVolInfoFree(volumes);
  return 0;
}
