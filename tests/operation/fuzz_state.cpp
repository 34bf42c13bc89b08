// A target for libFuzzer: files that other programs, former releases or a failing disk have left
// where this system reads its own. The first byte says which file the rest is. Whatever the bytes
// are: no crash, no access beyond what is there, and what is written afterwards is read again.

#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/paths.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/cool_down.h"
#include "operation/demands.h"
#include "operation/description_reader.h"
#include "operation/doctor.h"
#include "operation/history.h"
#include "operation/installed_record.h"
#include "operation/last_verification.h"
#include "operation/offered_package.h"
#include "operation/offers.h"
#include "operation/operation_info.h"
#include "operation/operator_settings.h"
#include "operation/rollout.h"
#include "operation/server_config.h"
#include "operation/service.h"
#include "operation/settings_check.h"
#include "operation/survey.h"
#include "operation/timers.h"
#include "operation/trust_state.h"
#include "operation/verification.h"
#include "tests/support/fuzzing.h"

namespace {

using namespace tolm;
using namespace tolm::operation;
using tolm::testing::Expect;
using tolm::testing::Get;
using tolm::testing::Put;

constexpr char kName[] = "oui";
constexpr char kSystemd[] = "/run/systemd/system";
constexpr char kSystemctlScript[] = "#!/bin/sh\nexec cat /tmp/fuzz-timers\n";
constexpr char kDirectory[] = "/var/lib/data_update/oui";
constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
constexpr char kVerifiedFile[] = "/var/lib/data_update/oui/verified.json";
constexpr char kRecord[] = "/var/lib/data_update/oui/installed.json";

void ReadInstalledRecord() {
  const RecordHead head = ReadRecordHead(kName);
  const auto record = ReadRecord(kName);
  Expect(!record || head.state == RecordState::kCurrent);
  if (record) {
    WriteRecord(kName, *record);
    const auto again = ReadRecord(kName);
    Expect(again && again->files.size() == record->files.size() &&
           again->fingerprint == record->fingerprint);
  }
  InstalledVersionOf(kName);
}

void ReadTrust() {
  LookForFloor(kName);
  LookForAuthorized(kName);
  LookForSignedState();
  FloorOf(kName);
  ReadSignedState();
  SetFloor(kName, 41);
  RaiseFloor(kName, 40);
  Expect(FloorOf(kName) == 41);
}

void ReadHistory() {
  LastOf(kName);
  HistoryEntry entry;
  entry.time = TimeText(0);
  entry.operation = "update";
  entry.database = kName;
  entry.outcome = kUpdated;
  entry.to = 41;
  AppendToHistory(entry);
  const auto last = LastOf(kName);
  Expect(last && last->to == 41 && last->time == entry.time);
}

void ReadCoolDowns() {
  constexpr std::int64_t kNow = 1800000000;
  const CoolDownTimes times;
  for (const ServerCoolDown& one : CoolDown::LookForAll(times, kNow)) {
    Expect(one.until > kNow && one.until <= kNow + times.longest_seconds && one.failures > 0);
  }
  CoolDown cool_down(
      "server:80", times, [] { return kNow; }, [] { return 0.5; });
  const auto held = cool_down.Ask();
  Expect(!held || (held->until > kNow && held->until <= kNow + times.longest_seconds));
  cool_down.BeginAttempt();
  Expect(cool_down.Ask().has_value());
  cool_down.Succeed();
  Expect(!cool_down.Ask());
}

// The time of the installation that it is of is always this.
void ReadVerified(const std::string& bytes) {
  Put(kVersionFile, R"({"data_version":7,"last_fetch_time":1,"file_statuses":{}})");
  const timespec times[] = {{1700000000, 5}, {1700000000, 5}};
  Expect(utimensat(AT_FDCWD, kVersionFile, times, 0) == 0);
  Put(kVerifiedFile, bytes);
  LookForVerification(kName);
  Verification verification{};
  verification.version = 7;
  verification.checked_files = 3;
  RememberVerification(kName, verification);
  const auto again = LookForVerification(kName);
  Expect(again && again->checked_files == 3 && again->damaged_files == 0);
}

// As systemctl would tell it.
void ReadTimers(const std::string& bytes) {
  std::filesystem::create_directories(kSystemd);
  Put("/tmp/fuzz-timers", bytes);
  if (Get(paths::kSystemctl) != kSystemctlScript) {
    std::filesystem::remove(paths::kSystemctl);
    Put(paths::kSystemctl, kSystemctlScript);
    std::filesystem::permissions(paths::kSystemctl, std::filesystem::perms::owner_all);
  }
  const Timers timers = ExamineTimers();
  Expect(timers.is_known != timers.is_silent);
  Expect(!timers.update.next || *timers.update.next > 0);
}

void ReadSettings() {
  CheckSettingsFiles();
  const auto io = std::make_shared<dataupdate::IOUtils>();
  const dataupdate::ServiceConfig config(std::make_shared<dataupdate::Config>(io));
  config.GetCurVolume();
  for (const std::string& name : config.GetDatabaseIDs()) {
    const auto database = config.GetDatabaseConfig(name);
    database->GetInstallPrefix();
    database->GetRootDirectory();
    database->GetMinReservedSpaceInbytes();
  }
}

void ReadDescriptionFile() {
  const Json::Value document = DescriptionReader().ReadJson(paths::kDatabaseInfo);
  // It is not signed.
  Expect(SignedPackagesIn(document, kName).empty() && !RolloutIn(document, kName));
  OfferIn(document, kName);
  DeltasIn(document, kName);
}

// ---- What a delta says it patches ----

constexpr char kInstalled[] = "/volume1/@database/autoupdate/oui";
constexpr char kAltered[] = "directory/altered";
constexpr char kPatches[] = "/volume1/@tmp/data_update/oui_delta_2/patch_infos.json";

using Names = std::vector<std::string>;

// Of three files one has another content than is recorded, and a directory has become a link.
void InstallAltered() {
  std::filesystem::remove_all(kInstalled);
  Put(kVersionFile, R"({"data_version":1,"last_fetch_time":1,"file_statuses":{}})");
  InstalledRecord record;
  record.version = 1;
  record.version_file = VersionFileDigest(kName);
  for (const std::string name : {"plain", "directory/plain", kAltered}) {
    Put(std::string(kInstalled) + '/' + name, "as it was installed");
    RecordedFile& file = record.files[name];
    file.seen.name = name;
    file.seen.mode = S_IFREG | 0644;
    file.sha384 = DigestOf(kInstalled, file.seen, [] {});
  }
  WriteRecord(kName, record);
  Put(std::string(kInstalled) + '/' + kAltered, "altered since then");
  std::filesystem::create_directory_symlink("directory", std::string(kInstalled) + "/link");
}

// The name below the directory; empty when it leads out of that, which the library refuses.
std::string NameOf(const std::string& key) {
  Names parts;
  std::istringstream rest(key);
  for (std::string part; std::getline(rest, part, '/');) {
    if (part == ".." && parts.empty()) {
      return "";
    }
    if (part == "..") {
      parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
  }
  std::string name;
  for (const std::string& part : parts) {
    name += (name.empty() ? "" : "/") + part;
  }
  return name;
}

// However it spells the name: what is accepted patches nothing that has changed, and nothing behind
// a link.
void ReadDelta(const std::string& bytes) {
  InstallAltered();
  Put(kPatches, bytes);
  OperationInfo info(std::make_shared<dataupdate::IOUtils>(), std::make_shared<ServerConfig>());
  info.Begin(kName, {OperationKind::kUpdate}, kInstalled, [] {});
  std::string said;
  const Installation installation{kName, "/volume1", kInstalled};
  const std::function<void(const std::string&)> say = [&said](const std::string& why) {
    said += why;
  };
  Demands demands(installation, OperationKind::kUpdate, 0, info, say);
  const bool is_accepted = demands.Accepts("/volume1/@tmp/data_update/oui_d2");
  Expect(is_accepted == said.empty());
  if (!is_accepted) {
    return;
  }
  const Json::Value patches = dataupdate::IOUtils().ReadJson(kPatches);
  for (const std::string& key : patches.isObject() ? patches.getMemberNames() : Names()) {
    const std::string name = NameOf(key);
    Expect(name.rfind("link/", 0) != 0);
    Expect(name != kAltered || !patches[key].isObject() || patches[key]["operation"] != "update");
  }
}

void Read(char kind, const std::string& bytes) {
  switch (kind) {
    case 'v':
      Put(kVersionFile, bytes);
      InstalledVersionOf(kName);
      return;
    case 'i':
      Put(kVersionFile, R"({"data_version":7,"last_fetch_time":1,"file_statuses":{}})");
      Put(kRecord, bytes);
      return ReadInstalledRecord();
    case 't':
      Put(paths::kTrustState, bytes);
      return ReadTrust();
    case 'h':
      Put(paths::kHistory, bytes);
      return ReadHistory();
    case 'c':
      Put(paths::kCoolDowns, bytes);
      return ReadCoolDowns();
    case 'o':
      Put(paths::kOperationSettings, bytes);
      CheckSettingsFiles();
      ReadOperatorSettings();
      return;
    case 's':
      Put(paths::kServiceOverrides, bytes);
      return ReadSettings();
    case 'd':
      Put(paths::kDatabaseOverrides, bytes);
      return ReadSettings();
    case 'D':
      Put(paths::kDatabaseInfo, bytes);
      return ReadDescriptionFile();
    case 'V':
      return ReadVerified(bytes);
    case 'T':
      return ReadTimers(bytes);
    case 'p':
      return ReadDelta(bytes);
    default:
      return;
  }
}

// Looks at all of it, and throws nothing.
void LookAtDevice() {
  static const Service service = BuildService([](const std::string&) {});
  Expect(!Diagnose(service, false).empty());
  ExamineDetails(kName);
}

void Clear() {
  for (const char* path :
       {"/var/lib/data_update", "/usr/tolm/etc/data_update", "/var/cache/data_update", kSystemd}) {
    std::filesystem::remove_all(path);
  }
  std::filesystem::create_directories(kDirectory);
  std::filesystem::create_directories(paths::kLockDirectory);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  Clear();
  try {
    Read(kind, rest);
  } catch (const dataupdate::UpdateError&) {
    // What is wrong is told like this, or by one of the standard's, as the headers say.
  } catch (const std::runtime_error&) {
  } catch (const std::logic_error&) {
  }
  LookAtDevice();
  return 0;
}
