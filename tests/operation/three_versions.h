#ifndef TOLM_TESTS_OPERATOR_THREE_VERSIONS_H_
#define TOLM_TESTS_OPERATOR_THREE_VERSIONS_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/vcdiff_delta.h"
#include "tests/tools/device.h"

namespace tolm::testing {

// Texts that occur nowhere else in a link, not even in a port.
inline constexpr int kOldest = 70001;
inline constexpr int kMiddle = 70002;
inline constexpr int kNewest = 70003;
inline const std::vector<int> kVersions = {kOldest, kMiddle, kNewest};

/// Bytes that do not compress, with the version's number in every page of them.
inline std::string BinaryOf(int version, std::size_t pages) {
  constexpr std::size_t kPage = 4096;
  std::string content;
  std::uint32_t state = 1;
  while (content.size() < pages * kPage) {
    if (content.size() % kPage == 0) {
      content += std::to_string(version);
    }
    state = state * 1664525 + 1013904223;
    content += static_cast<char>(state >> 24);
  }
  return content;
}

/// All versions have files of the same names, and no file is the same in two of them.
inline Tree FilesOf(int version) {
  const std::string number = std::to_string(version);
  return {{"blocks.bin", BinaryOf(version, 100)},
          {"countries.csv", "country," + number + "\n"},
          {"index/", ""},
          {"index/index.bin", BinaryOf(version, 20)},
          {"index/names.txt", "names of " + number},
          {"notes.txt", number}};
}

/// A device whose database "oui" has the three versions: each as a full package, and the two newer
/// ones also as deltas from the one before. A delta touches every file.
class ThreeVersionsTest : public DeviceTest {
 protected:
  void SetUp() override {
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    for (const int version : kVersions) {
      publisher_.PackFull("oui", version, FilesOf(version));
    }
    PackDelta(kOldest, kMiddle);
    PackDelta(kMiddle, kNewest);
    ASSERT_EQ(Tool({"init"}).exit_status, 0);
  }

  void Install(int version) {
    std::filesystem::remove_all(prefix_);
    std::filesystem::remove(version_file_);
    std::filesystem::remove("/var/lib/data_update/trust.json");
    publisher_.Offer("oui", version);
    const CommandResult result = Tool({"update", "oui"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    ExpectWhole(version);
  }

  /// The files and the record are those of this version, and nothing else is left anywhere.
  void ExpectWhole(int version) {
    EXPECT_EQ(InstalledVersion("oui"), std::to_string(version));
    EXPECT_TRUE(ReadTree(prefix_) == FilesOf(version))
        << ::testing::PrintToString(ListTree(prefix_));
    EXPECT_FALSE(std::filesystem::exists(aside_));
    ExpectNothingLeft();
  }

 private:
  void PackDelta(int from, int to) {
    Tree before = FilesOf(from);
    Tree after = FilesOf(to);
    publisher_.PackDelta(
        "oui", to,
        R"({"/blocks.bin": {"operation": "update", "input_file": "blocks.vcdiff"},
            "/countries.csv": {"operation": "create", "input_file": "countries"},
            "/index/index.bin": {"operation": "update", "input_file": "index.vcdiff"},
            "/index/names.txt": {"operation": "create", "input_file": "names"},
            "/notes.txt": {"operation": "create", "input_file": "notes"}})",
        {{"blocks.vcdiff", VcdiffDelta(before["blocks.bin"], after["blocks.bin"])},
         {"countries", after["countries.csv"]},
         {"index.vcdiff", VcdiffDelta(before["index/index.bin"], after["index/index.bin"])},
         {"names", after["index/names.txt"]},
         {"notes", after["notes.txt"]}});
  }
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_OPERATOR_THREE_VERSIONS_H_
