#ifndef TOLM_TESTS_OPERATOR_VERSIONED_DEVICE_H_
#define TOLM_TESTS_OPERATOR_VERSIONED_DEVICE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/vcdiff_delta.h"
#include "tests/tools/device.h"

namespace tolm::testing {

/// A device whose database has versions with files of every kind that a delta can change, and whose
/// whole state can be kept and brought back.
class VersionedDeviceTest : public DeviceTest {
 protected:
  // Texts that occur nowhere else in a link, not even in a port.
  static constexpr int kOther = 70000;  ///< Has files of other names.
  static constexpr int kOld = 70001;
  static constexpr int kBetween = 70002;
  static constexpr int kNew = 70003;

  struct Sizes {
    std::size_t patched_bytes = 10000;  ///< Of the file that is patched by vcdiff.
    int kept_files = 4;                 ///< Of every version; at most 10.
    int tiny_files = 3;                 ///< Of one byte, which the newest version adds.
  };

  VersionedDeviceTest() : VersionedDeviceTest(Sizes()) {}
  explicit VersionedDeviceTest(const Sizes& sizes)
      : kept_files_(sizes.kept_files),
        before_(Noise(sizes.patched_bytes)),
        between_(before_.substr(sizes.patched_bytes / 2) + "inserted" +
                 before_.substr(0, sizes.patched_bytes / 2)),
        after_(between_.substr(10) + "end") {
    for (int i = 0; i < sizes.tiny_files; ++i) {
      tiny_["tiny/" + std::to_string(i)] = "t";
    }
  }

  void SetUp() override {
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    std::filesystem::create_directories(kPlugins);
    std::filesystem::create_symlink("/usr/bin/true", kPlugins / "true");
    PackVersions();
  }

  void Install(int version) {
    Clear();
    publisher_.Offer("oui", version);
    const CommandResult result = Tool({"update", "oui"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
  }

  /// Nothing was ever installed.
  static void Clear() {
    for (const std::filesystem::path directory :
         {"/volume1/@database", "/var/lib/data_update", "/volume1/@tmp", "/var/cache/data_update",
          "/run/data_update"}) {
      if (std::filesystem::exists(directory)) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
          std::filesystem::remove_all(entry);
        }
        std::error_code is_mounted;
        std::filesystem::remove(directory, is_mounted);
      }
    }
  }

  void OfferNewByDeltas() { publisher_.Offer("oui", kNew, {kBetween, kNew}); }
  void OfferNewInFull() { publisher_.Offer("oui", kNew); }

  /// What is installed now is what Restore() brings back.
  static void Keep() {
    for (const auto& [place, kept] : State()) {
      std::filesystem::remove_all(kept);
      std::filesystem::create_directories(kept);
      std::filesystem::copy(place, kept, std::filesystem::copy_options::recursive);
    }
  }

  static void Restore() {
    Clear();
    for (const auto& [place, kept] : State()) {
      std::filesystem::copy(kept, place, std::filesystem::copy_options::recursive);
    }
  }

  bool HasNewVersion() {
    if (!std::filesystem::exists(prefix_) || !std::filesystem::exists(version_file_) ||
        ReadTree(prefix_) != new_) {
      return false;
    }
    const std::string recorded = ReadFile(version_file_);
    return recorded == recorded_in_full_ || recorded == recorded_by_deltas_;
  }

  void ExpectNewVersion() {
    EXPECT_TRUE(HasNewVersion()) << ::testing::PrintToString(ListTree(prefix_));
    ExpectNothingLeft();
  }

  inline static const std::filesystem::path kPlugins =
      "/usr/tolm/lib/plugins/database_autoupdate/version_change";
  Tree other_ = {{"other/", ""}, {"other/link -> file0", ""}};
  Tree new_;

 private:
  /// Everything that an operation leaves anywhere, by where it is and where a copy is kept.
  static std::vector<std::pair<std::filesystem::path, std::filesystem::path>> State() {
    return {{"/volume1/@database", "/tmp/scene/volume"},
            {"/var/lib/data_update", "/tmp/scene/lib"}};
  }

  static std::string MakeDatabase() {
    EXPECT_EQ(RunCommand({"sqlite3", "/tmp/old.db",
                          "CREATE TABLE t(v); WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT "
                          "i+1 FROM n WHERE i<500) INSERT INTO t SELECT 'row '||i FROM n;"})
                  .exit_status,
              0);
    return ReadFile("/tmp/old.db");
  }

  /// The newest version's files are those that the deltas make, as with every good publisher.
  void PackVersions() {
    Tree old = {{"a.bin", before_}, {"d/", ""}, {"d/x.db", MakeDatabase()}, {"gone", "x"}};
    for (int i = 0; i < kept_files_; ++i) {
      const std::string number = std::to_string(i);
      old["keep/" + number] = std::string(3000, number[0]);
      other_["other/file" + number] = std::string(2000, number[0]);
    }
    publisher_.PackFull("oui", kOther, other_);
    publisher_.PackFull("oui", kOld, old);
    PackDeltas();
    Install(kOld);
    OfferNewByDeltas();
    ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
    new_ = ReadTree(prefix_);
    CheckNewVersion();
    recorded_by_deltas_ = ReadFile(version_file_);
    publisher_.PackFull("oui", kNew, new_);
    Install(kNew);
    ASSERT_EQ(ReadTree(prefix_), new_);
    recorded_in_full_ = ReadFile(version_file_);
  }

  void PackDeltas() {
    publisher_.PackDelta(
        "oui", kBetween,
        R"({"/a.bin": {"operation": "update", "input_file": "a.vcdiff"},
            "/d/x.db": {"operation": "update", "input_file": "x.sqlitediff"},
            "/new/one": {"operation": "create", "input_file": "one"}})",
        {{"a.vcdiff", VcdiffDelta(before_, between_)},
         {"x.sqlitediff", "INSERT INTO t VALUES('new')\nDELETE FROM t WHERE v = 'row 7'\n"},
         {"one", "one"}});
    Tree inputs = {{"a.vcdiff", VcdiffDelta(between_, after_)}, {"keep", "kept"}, {"two", "two"}};
    std::string patches = R"("/a.bin": {"operation": "update", "input_file": "a.vcdiff"},
                             "/gone": {"operation": "delete"},
                             "/keep/0": {"operation": "create", "input_file": "keep"},
                             "/new/two": {"operation": "create", "input_file": "two"})";
    for (const auto& [name, content] : tiny_) {
      inputs[name] = content;
      patches += R"(, "/)" + name + R"(": {"operation": "create", "input_file": ")" + name + "\"}";
    }
    publisher_.PackDelta("oui", kNew, "{" + patches + "}", inputs);
  }

  void CheckNewVersion() {
    EXPECT_TRUE(new_["a.bin"] == after_);
    EXPECT_EQ(new_["new/one"], "one");
    EXPECT_EQ(new_["new/two"], "two");
    EXPECT_EQ(new_["keep/0"], "kept");
    EXPECT_EQ(new_.count("gone"), 0u);
    const std::size_t tiny_entries = tiny_.empty() ? 0 : 1 + tiny_.size();
    EXPECT_EQ(new_.size(), 7 + static_cast<std::size_t>(kept_files_) + tiny_entries);
    EXPECT_EQ(RunCommand({"sqlite3", prefix_ / "d/x.db",
                          "SELECT count(*), sum(v = 'new'), sum(v = 'row 7') FROM t"})
                  .out,
              "500|1|0\n");
  }

  const int kept_files_;
  const std::string before_;
  const std::string between_;
  const std::string after_;
  Tree tiny_;
  std::string recorded_by_deltas_;
  std::string recorded_in_full_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_OPERATOR_VERSIONED_DEVICE_H_
