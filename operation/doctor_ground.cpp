// Looks at volumes, room, rights and plug-ins.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <filesystem>
#include <system_error>

#include "base/human_text.h"
#include "base/paths.h"
#include "base/rules.h"
#include "base/trusted_directory.h"
#include "operation/directory_types.h"
#include "operation/doctor_looks.h"
#include "operation/download_limit.h"
#include "operation/offers.h"
#include "operation/operator_settings.h"
#include "operation/own_ground.h"
#include "operation/survey.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using base::Owners;
using base::TrustedDirectory;

constexpr char kVolume[] = "volume";
constexpr char kRoom[] = "room";
constexpr char kRights[] = "rights";
constexpr char kPlugins[] = "plug-ins";
constexpr char kPluginsOfUpdates[] = "database_autoupdate/version_change";
constexpr unsigned int kReadWrite = 1;
constexpr mode_t kOthersWrite = 022;
constexpr mode_t kOthersAll = 077;

// ---- The volume ----

bool NeedsVolume(const Patient& patient) {
  return std::any_of(patient.names.begin(), patient.names.end(), [&](const std::string& name) {
    try {
      return patient.service.config->GetDatabaseConfig(name)->GetRootDirectory() != "/";
    } catch (const std::exception&) {
      return false;
    }
  });
}

// Why databases cannot be kept there; empty for a reason that is none of these.
std::string Unfitness(const TOLMMountVolInfo& record) {
  if (record.is_local == 0) {
    return "is a network volume";
  }
  if (record.is_healthy == 0) {
    return "does not answer";
  }
  if ((record.flags & kReadWrite) == 0) {
    return "is mounted read-only";
  }
  return TOLMVolumeServicePolicy(&record) == 0 ? "is closed to services by .no-services" : "";
}

void LookAtMounted(const Patient& patient, const TOLMMountVolInfo& record, Findings& findings) {
  const std::string unfitness = Unfitness(record);
  if (!unfitness.empty()) {
    findings.Problem(kVolume, patient.volume, "it " + unfitness,
                     "mend that, or choose another: tolmdbud volume unmounting " + patient.volume);
    return;
  }
  const bool is_own = findings.Try(kVolume, patient.volume, "choose another volume", [&] {
    RequireTypes(patient.volume);
    RequireOwnVolume(patient.volume);
  });
  if (is_own) {
    findings.Ok(kVolume, patient.volume,
                "it is mounted, " + base::HumanSize(record.available) + " free");
  }
}

// ---- Room ----

// The bytes of the largest download of an update that is offered; 0 for none.
std::uint64_t NeededFor(const Patient& patient, const std::string& name) {
  try {
    const dataupdate::RemoteInfo remote = OfferIn(*patient.offers, name);
    const Json::Value& size = (*patient.offers)["db_list"][name]["file_size"];
    const UpdatePlan plan = PlanUpdate(
        RecordedVersion(patient.service, name), remote.data_version,
        DeltasIn(*patient.offers, name),
        size.isUInt64() ? std::make_optional<std::uint64_t>(size.asUInt64()) : std::nullopt);
    return plan.bytes.value_or(0);
  } catch (const std::exception&) {
    return 0;  // Said of the offers.
  }
}

void LookAtRoomIn(const Patient& patient, const std::string& place, Findings& findings) {
  const std::optional<DownloadLimit> limit = LimitFor(place + "/x");
  if (!limit) {
    return;
  }
  std::uint64_t needed = 1;
  for (const std::string& name : patient.offers ? patient.names : std::vector<std::string>()) {
    needed = std::max(needed, NeededFor(patient, name));
  }
  const std::string free = base::HumanSize(limit->bytes) + " free beyond the " +
                           std::to_string(100 / rules::kFreePart) + " % reserve";
  if (limit->bytes < needed) {
    findings.Problem(kRoom, place, base::HumanSize(needed) + " needed, " + free, "make room there");
  } else {
    findings.Ok(kRoom, place, free);
  }
}

// ---- Rights ----

// A directory that may be missing, and every one above it.
void RequireOwn(const std::string& directory) {
  TrustedDirectory at("/", Owners::kTrusted);
  for (const fs::path& name : fs::path(directory).relative_path()) {
    if (!at.EnterFollowing(name)) {
      return;
    }
  }
  at.RequireOwn();
}

std::string OctalWithout(mode_t mode, mode_t taken) {
  return (boost::format("%o") % (mode & 0777 & ~taken)).str();
}

// Nobody else may have these rights to a file of the system's own.
void LookAtFile(const std::string& file, mode_t forbidden, const std::string& what,
                Findings& findings) {
  struct stat status;
  if (lstat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return;
  }
  if (status.st_uid != 0) {
    findings.Problem(kRights, file, "it belongs to user " + std::to_string(status.st_uid),
                     "chown root " + file);
  } else if ((status.st_mode & forbidden) != 0) {
    findings.Problem(kRights, file, what,
                     "chmod " + OctalWithout(status.st_mode, forbidden) + ' ' + file);
  }
}

void LookAtFilesIn(const std::string& directory, Findings& findings,
                   const std::function<void(const fs::path&)>& look) {
  findings.Try(kRights, directory, "", [&] {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
      look(entry.path());
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      throw std::system_error(error, directory);
    }
  });
}

void LookAtLockFile(const fs::path& file, bool group_opens_all, Findings& findings) {
  const bool is_readers = file.filename().string().compare(0, 6, "using_") == 0;
  if (file.extension() != ".lock") {
    return;
  }
  if (is_readers) {
    LookAtFile(file, kOthersWrite, "others can write it", findings);
  } else {
    LookAtFile(file, group_opens_all ? kOthersAll & ~mode_t{070} : kOthersAll,
               "others can open it, and hold up every operation for ever", findings);
  }
}

void LookAtLockFiles(Findings& findings) {
  bool group_opens_all = false;
  try {
    group_opens_all = ReadOperatorSettings().group_opens_all_locks;
  } catch (const std::exception&) {
    // LookAtSettings says so.
  }
  LookAtFilesIn(paths::kLockDirectory, findings,
                [&](const fs::path& file) { LookAtLockFile(file, group_opens_all, findings); });
}

void LookAtStateFiles(const std::string& directory, Findings& findings) {
  LookAtFilesIn(directory, findings, [&](const fs::path& file) {
    const bool is_secret = file == paths::kTrustState;
    LookAtFile(file, is_secret ? kOthersAll : kOthersWrite,
               is_secret ? "it is for root's eyes only" : "others can write it", findings);
  });
}

// ---- Plug-ins ----

// By the rules by which the platform runs them.
bool IsPlugin(const fs::path& path) {
  const std::string name = path.filename();
  std::error_code ignored;
  return name.front() != '.' && name.back() != '~' && !fs::is_directory(path, ignored);
}

bool LookAtPlugin(const fs::path& path, Findings& findings) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && (status.st_mode & 0111) == 0) {
    findings.Problem(kPlugins, path, "it is not run, since it is not executable",
                     "chmod 755 " + path.string() + ", or remove it");
    return false;
  }
  return findings.Try(kPlugins, path, "mend or remove it",
                      [&] { base::RequireTrustedProgram(path); });
}

}  // namespace

void LookAtVolume(const Patient& patient, Findings& findings) {
  TOLMMountVolInfo record;
  if (!patient.has_settings) {
    findings.Skipped(kVolume, "", "the settings do not tell it");
  } else if (patient.volume.empty()) {
    if (NeedsVolume(patient)) {
      findings.Problem(kVolume, "", "none is chosen, nothing is updated",
                       "tolmdbud init, which says what keeps it from choosing one");
    } else {
      findings.Note(kVolume, "", "none is chosen, and no database is kept on one");
    }
  } else if (TOLMMountVolInfoGet(patient.volume.c_str(), &record) == -1) {
    findings.Problem(
        kVolume, patient.volume, "it is chosen and not mounted, nothing is updated",
        "mount it; when it is gone for good: tolmdbud volume unmounting " + patient.volume);
  } else {
    LookAtMounted(patient, record, findings);
  }
}

void LookAtRoom(const Patient& patient, Findings& findings) {
  TOLMMountVolInfo record;
  if (!patient.volume.empty() && TOLMMountVolInfoGet(patient.volume.c_str(), &record) == 0) {
    LookAtRoomIn(patient, patient.volume, findings);
  }
}

void LookAtRights(const Patient& patient, Findings& findings) {
  std::vector<std::string> directories = {paths::kStateDirectory, paths::kLockDirectory,
                                          paths::kCacheDirectory, paths::kRootFsDatabases};
  for (const std::string& name : patient.names) {
    directories.push_back(std::string(paths::kStateDirectory) + '/' + name);
  }
  for (const std::string& directory : directories) {
    findings.Try(kRights, directory, "", [&] { RequireOwn(directory); });
  }
  LookAtLockFiles(findings);
  LookAtStateFiles(paths::kStateDirectory, findings);
  for (const std::string& name : patient.names) {
    LookAtStateFiles(std::string(paths::kStateDirectory) + '/' + name, findings);
  }
  if (findings.IsWell(kRights)) {
    findings.Ok(kRights, "", "what operations stand on is root's alone");
  }
}

void LookAtPlugins(const Patient&, Findings& findings) {
  const std::string directory = std::string(paths::kPluginDirectory) + kPluginsOfUpdates;
  std::size_t count = 0;
  findings.Try(kPlugins, directory, "", [&] {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
      if (IsPlugin(entry.path())) {
        count += LookAtPlugin(entry.path(), findings) ? 1 : 0;
      }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      throw std::system_error(error, directory);
    }
  });
  if (findings.IsWell(kPlugins)) {
    findings.Ok(kPlugins, "",
                count == 0 ? "there are none" : std::to_string(count) + " would be run");
  }
}

}  // namespace tolm::operation
