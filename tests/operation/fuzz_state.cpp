// A target for libFuzzer: files that other programs, former releases or a failing disk have left
// where this system reads its own. The first byte says which file the rest is. Whatever the bytes
// are: no crash, no access beyond what is there, and what is written afterwards is read again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "base/paths.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/cool_down.h"
#include "operation/description_reader.h"
#include "operation/history.h"
#include "operation/installed_record.h"
#include "operation/offers.h"
#include "operation/operator_settings.h"
#include "operation/settings_check.h"
#include "operation/trust_state.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using namespace tolm;
using namespace tolm::operation;

constexpr char kName[] = "oui";
constexpr char kDirectory[] = "/var/lib/data_update/oui";
constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
constexpr char kRecord[] = "/var/lib/data_update/oui/installed.json";

void Expect(bool holds) {
  if (!holds) {
    std::abort();
  }
}

void Write(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

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
  OfferIn(document, kName);
  DeltasIn(document, kName);
}

void Read(char kind, const std::string& bytes) {
  switch (kind) {
    case 'v':
      Write(kVersionFile, bytes);
      InstalledVersionOf(kName);
      return;
    case 'i':
      Write(kVersionFile, R"({"data_version":7,"last_fetch_time":1,"file_statuses":{}})");
      Write(kRecord, bytes);
      return ReadInstalledRecord();
    case 't':
      Write(paths::kTrustState, bytes);
      return ReadTrust();
    case 'h':
      Write(paths::kHistory, bytes);
      return ReadHistory();
    case 'c':
      Write(paths::kCoolDowns, bytes);
      return ReadCoolDowns();
    case 'o':
      Write(paths::kOperationSettings, bytes);
      CheckSettingsFiles();
      ReadOperatorSettings();
      return;
    case 's':
      Write(paths::kServiceOverrides, bytes);
      return ReadSettings();
    case 'd':
      Write(paths::kDatabaseOverrides, bytes);
      return ReadSettings();
    case 'D':
      Write(paths::kDatabaseInfo, bytes);
      return ReadDescriptionFile();
    default:
      return;
  }
}

void Clear() {
  for (const char* path :
       {"/var/lib/data_update", "/usr/tolm/etc/data_update", "/var/cache/data_update"}) {
    std::filesystem::remove_all(path);
  }
  std::filesystem::create_directories(kDirectory);
  std::filesystem::create_directories(paths::kLockDirectory);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  Clear();
  try {
    Read(static_cast<char>(data[0]),
         std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  } catch (const dataupdate::UpdateError&) {
    // What is wrong is told like this, or by one of the standard's, as the headers say.
  } catch (const std::runtime_error&) {
  } catch (const std::logic_error&) {
  }
  return 0;
}
