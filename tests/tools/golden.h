#ifndef TOLM_TESTS_TOOLS_GOLDEN_H_
#define TOLM_TESTS_TOOLS_GOLDEN_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/publisher.h"
#include "tests/support/unique_descriptor.h"
#include "tests/tools/device.h"

namespace tolm::testing {

inline constexpr char kServerDefaults[] = "/usr/share/data_update/data_update.conf";
inline constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
inline constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";
inline constexpr char kDescription[] = "/var/cache/data_update/database_info.json";
inline constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
inline constexpr char kMark[] = "/var/lib/data_update/oui/recovery.mark";
inline constexpr char kTemporary[] = "/volume1/@tmp/data_update";
// What stands at the end of many lines.
inline const std::string kAnew = "; \"tolmdbpub install-config\" makes it anew\n";
inline const std::string kCheckIt =
    "; the publisher's \"tolmdbpub check\" tells what the server has\n";
inline constexpr char kUnknown[] = "tolmdbud: nope: there is no such database; configured: oui\n";

/// The device on which a command's whole output is looked at. One database "oui" is configured on
/// the volume; the server offers its version 70001 in full and can offer 70002, in full or by a
/// delta. Nothing is installed.
class GoldenDevice {
 public:
  static constexpr int kFirst = 70001;  ///< Texts that occur nowhere else in a link.
  static constexpr int kSecond = 70002;

  GoldenDevice();
  ~GoldenDevice();

  /// Installs the first version, by an update.
  void Install();
  void OfferSecond();
  void OfferSecondByDelta();
  /// The description with these JSON texts as the version and as further members of the record.
  void Describe(const std::string& version, const std::string& more = "");
  void ServerFails();
  /// Not even a connection is to be had.
  void ServerIsGone();
  static void ForgetDescription() { std::filesystem::remove(kDescription); }
  /// Until the end of this object.
  void Hold(const std::string& lock);
  void Mount(ScopedMount mount) { mounts_.push_back(std::move(mount)); }
  void WithoutAVolume() { ConfigureDevice(publisher, {{"oui", kOnVolume}}, ""); }
  static void MustRun(const std::vector<std::string>& arguments);

  static std::filesystem::path Installed(const std::string& file) {
    return kVolumePrefix / "oui" / file;
  }

  Publisher publisher;
  std::vector<std::string> environment;  ///< Of the command.

 private:
  std::vector<UniqueDescriptor> held_;
  std::vector<ScopedMount> mounts_;
};

// What many rows arrange.
inline void Nothing(GoldenDevice&) {}
void Install(GoldenDevice& device);
/// A machine that systemd runs, which says this of the timer of the daily run.
void RunBySystemd(const std::string& update_timer);
inline constexpr char kWaitingTimer[] =
    "NextElapseUSecRealtime=Thu 2099-01-01 03:12:45 UTC\nId=tolmdbud-update.timer\n"
    "LoadState=loaded\nActiveState=active\nUnitFileState=enabled";

/// Whoever waits for a lock has waited for it in vain at once.
void SkipWaits(GoldenDevice& device);

/// One command line in one situation, and all that comes of it. In the outputs $URL stands for the
/// server's address, $QUERY for what it is asked for, $TIME for a time, $CLOCK for a time of day,
/// $AGO and "$AGE days" for how long that was ago, $WAIT for how long it will be, $N for a number
/// of bytes that is another on each machine or a line number in the log.
struct GoldenRow {
  std::string name;
  std::vector<std::string> command;
  std::function<void(GoldenDevice&)> arrange;
  int exit_status;
  std::string out;
  std::string err;
};

std::string NameOf(const ::testing::TestParamInfo<GoldenRow>& info);

class GoldenTest : public ::testing::TestWithParam<GoldenRow> {
 protected:
  GoldenTest();
  ~GoldenTest() override;

  std::string Normalised(std::string text);

  void Expect(const GoldenRow& row);

  GoldenDevice device_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_GOLDEN_H_
