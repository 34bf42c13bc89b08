#include <SQLiteCpp/SQLiteCpp.h>
#include <json/value.h>
#include <sqlite3.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <exception>
#include <fstream>

#include "base/paths.h"
#include "base/rules.h"
#include "chain_rules.h"
#include "dataupdate/error.h"
#include "dataupdate/strategy.h"
#include "file_system.h"
#include "root.h"
#include "strategy_support.h"
#include "tolm/exec.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

constexpr char kPatchInfos[] = "patch_infos.json";

// From the last "." on, also when the name begins with it.
std::string Extension(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot);
}

bool WorkCopyExists(const std::string& work) {
  try {
    return fs::exists(work);
  } catch (const fs::filesystem_error&) {
    throw UpdateError("Fail to get exists info from " + work);
  }
}

}  // namespace

DiffStrategy::DiffStrategy(const std::string& name, const DatabaseStatus& installed,
                           const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                           const std::string& cur_volume, const std::string& install_prefix,
                           const std::string& root_directory)
    : name_(name),
      installed_(installed.data_version, installed.last_fetch_time, {}),  // Files may be many.
      remote_(remote),
      diffs_(diffs),
      cur_volume_(cur_volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

DiffStrategy::~DiffStrategy() {
  if (!sum_dir_.empty()) {
    RemoveTemporaryData("clear", [this] { return sum_dir_; });
  }
  for (const auto& tarball : tarball_paths_) {
    RemoveTemporaryData("clear", [&tarball] { return tarball.second; });
  }
  for (const auto& directory : delta_dirs_) {
    RemoveTemporaryData("clear", [&directory] { return directory.second; });
  }
  RemoveTemporaryData("clear", [this] { return TemporaryRoot(cur_volume_); });
}

bool DiffStrategy::_IsDiffUpdateAvailable() const {
  if (installed_.data_version >= remote_.data_version || diffs_.empty()) {
    return false;
  }
  // 64 bits: the offered version may be the largest int.
  const long long last = remote_.data_version;
  for (long long version = installed_.data_version + 1LL; version <= last; ++version) {
    if (diffs_.count(static_cast<int>(version)) == 0) {
      return false;
    }
  }
  return true;
}

void DiffStrategy::PrepareUpdate() {
  if (!_IsDiffUpdateAvailable()) {
    throw UpdateError("No sufficient diff patched");
  }
  const IOUtils io;
  sum_dir_ = (NoexceptFormat(paths::kWorkCopies) % cur_volume_ % name_).str();
  io.TolmMkdir(sum_dir_);
  for (int version = installed_.data_version; version < remote_.data_version;) {
    _DoDiffUpdateTo(++version);
  }
  RequireInstallable(modify_infos_, install_prefix_);
  FinishPreparation(*this, install_prefix_, root_directory_);
}

void DiffStrategy::_DoDiffUpdateTo(int version) {
  const IOUtils io;
  const DiffInfo& diff = diffs_.at(version);
  const std::string number = std::to_string(version);
  const std::string tarball = PackageFile(cur_volume_, name_, "d" + number);
  const std::string delta_dir =
      (NoexceptFormat(paths::kUnpackedDelta) % cur_volume_ % name_ % number).str();
  tarball_paths_[version] = tarball;
  delta_dirs_[version] = delta_dir;

  io.TolmMkdir(delta_dir);
  io.Download(tarball, diff.download_link);
  _ExtractTarballTo(tarball, delta_dir);
  const std::string description = delta_dir + "/" + kPatchInfos;
  const Json::Value patches = io.ReadJson(description);
  if (!patches.isObject()) {
    throw UpdateError("Fail to decode: " + description);
  }
  RequireFitsPlan(modify_infos_, patches);
  for (const std::string& key : patches.getMemberNames()) {
    const std::string operation = StringMember(patches[key], "operation");
    const std::string input = StringMember(patches[key], "input_file");
    RequireBelow(key);
    // An update that names no input is one by an unsupported kind of patch.
    if (operation == "create" || (operation == "update" && !input.empty())) {
      RequireMember(delta_dir, input);
    }
    _PatchFile(key, operation, delta_dir + "/" + input);
  }
  io.RmRf(delta_dir);
}

void DiffStrategy::_PatchFile(const std::string& key, const std::string& operation,
                              const std::string& input) {
  const std::string work = sum_dir_ + "/" + FlatFileName(key);
  const std::string installed = install_prefix_ + key;
  std::int32_t code = kOverride;
  if (operation == "create") {
    IOUtils().CopyFile(input, work);
  } else if (operation == "update") {
    if (WorkCopyExists(work)) {
      RequireNoForeignWorkCopy(modify_infos_, key);
    }
    UpdateWorkCopy(work, installed, input);
  } else if (operation == "delete") {
    code = kDelete;
  } else {
    throw UpdateError(
        (NoexceptFormat("Unknown operation %s for file %s") % work % installed).str());
  }
  modify_infos_[key].operation = code;
  modify_infos_[key].source_path = work;
}

void DiffStrategy::UpdateWorkCopy(const std::string& work, const std::string& installed,
                                  const std::string& input) const {
  if (!WorkCopyExists(work)) {
    IOUtils().CopyFile(installed, work);
    // A link would be patched where it leads to, which may be an installed file.
    RequireRegularFile(work);
  }
  const std::string extension = Extension(input);
  if (extension == ".vcdiff") {
    _DoVcPatch(work, input);
  } else if (extension == ".sqlitediff") {
    _DoSqlitePatch(work, input);
  } else {
    throw UpdateError("Unsupported diff type: " + extension);
  }
}

void DiffStrategy::_DoVcPatch(const std::string& target, const std::string& patch) const {
  const std::string out = target + ".patchout";
  if (TLIBCExecl(paths::kVcdiffDecoder, rules::kExecOptions, "decode", target.c_str(), out.c_str(),
                 patch.c_str(), static_cast<const char*>(nullptr)) != 0) {
    throw UpdateError("Fail to apply vcdiff on " + target);
  }
  IOUtils().CopyFile(out, target);
  if (unlink(out.c_str()) != 0) {
    throw UpdateError("Failt to delete " + out);
  }
}

void DiffStrategy::_DoSqlitePatch(const std::string& target, const std::string& patch) const {
  try {
    SQLite::Database database(target, SQLite::OPEN_READWRITE);
    // A script changes this file only: no ATTACH, and no VACUUM INTO, which attaches too.
    sqlite3_limit(database.getHandle(), SQLITE_LIMIT_ATTACHED, 0);
    SQLite::Transaction transaction(database);
    std::ifstream script(patch);
    std::string line;
    while (std::getline(script, line)) {
      database.exec(line);
    }
    transaction.commit();
  } catch (const std::exception& error) {
    throw UpdateError((NoexceptFormat("Fail apply sql cmd: %s") % TextOf(error)).str());
  }
}

// Adds what stands at each key itself, not below the install prefix.
long long DiffStrategy::GetDeltaSize() const {
  const IOUtils io;
  long long delta = 0;
  for (const auto& [key, info] : modify_infos_) {
    delta += static_cast<long long>(io.GetSize(kRoot + key)) -
             static_cast<long long>(io.GetSize(info.source_path));
  }
  return delta;
}

std::set<std::string> DiffStrategy::GetModifiedFiles() const {
  return Keys(modify_infos_);
}

void DiffStrategy::ApplyUpdate() {
  try {
    const FileLock lock = LockOutReaders(name_);
    RemoveOldFiles();
    InstallNewFiles();
  } catch (const std::exception& error) {
    throw UpdateError(std::string("Fail to diff update: ") + TextOf(error));
  }
}

void DiffStrategy::RemoveOldFiles() const {
  for (const auto& entry : modify_infos_) {
    fs::remove(JoinPath(install_prefix_, entry.first));
  }
}

void DiffStrategy::InstallNewFiles() const {
  ParentDirectories parents;
  for (const auto& [key, info] : modify_infos_) {
    if (info.operation == kOverride) {
      const std::string destination = JoinPath(install_prefix_, key);
      parents.Create(destination);
      CopyRegularFile(info.source_path, destination);
    }
  }
}

}  // namespace tolm::dataupdate
