#include "dataupdate/strategy.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <json/value.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <cstring>
#include <exception>
#include <fstream>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "digest_stream.h"
#include "error_text.h"
#include "file_system.h"
#include "rehearsal.h"
#include "root.h"
#include "tolm/archive.h"
#include "tolm/exec.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

constexpr char kLogSource[] = "strategy";
constexpr char kPatchInfos[] = "patch_infos.json";
constexpr double kMinimumFreeShare = 0.05;
constexpr int kPackageKeyType = 6;
constexpr int kExtractFlags = 4;
constexpr int kExecOptions = 187;

enum Operation : std::int32_t { kOverride = 1, kDelete = 2 };

std::string TemporaryRoot(const std::string& volume) {
  return (NoexceptFormat(paths::kTemporaryRoot) % volume).str();
}

std::string PackageFile(const std::string& volume, const std::string& name,
                        const std::string& tag) {
  return (NoexceptFormat(paths::kPackageFile) % volume % name % tag).str();
}

FileLock LockOutReaders(const std::string& name) {
  return FileLock(kRoot + (NoexceptFormat(paths::kUsingLock) % name).str(),
                  rules::kLockWaitSeconds);
}

// Where a file system's listings do not tell the types of their entries, a walk hands over the
// directory itself and the one above it too.
bool IsDotOrDotDot(const std::string& entry) {
  const std::string name = entry.substr(entry.rfind('/') + 1);
  return name == "." || name == "..";
}

void CreateParents(const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
}

std::set<std::string> Keys(const std::map<std::string, ModifyInfo>& plan) {
  std::set<std::string> keys;
  for (const auto& entry : plan) {
    keys.insert(entry.first);
  }
  return keys;
}

// For destructors: what cannot be removed is said and stays.
void CleanTarball(const std::string& path) {
  if (path.empty()) {
    return;
  }
  try {
    fs::remove(path);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to clean tarball '%s': %s", TOLM_LOG_HERE, path.c_str(),
           TextOf(error));
  }
}

// The path is made here because that may fail too.
template <typename MakePath>
void RemoveTemporaryData(const char* verb, MakePath make_path) {
  try {
    IOUtils().RmRf(make_path());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to %s tmp data: %s", TOLM_LOG_HERE, verb, TextOf(error));
  }
}

// A signed package being read; the platform's handle is released on every path.
class Archive {
 public:
  Archive(const std::string& package, const std::string& dest)
      : package_(package), handle_(tolmarchive_init(dest.c_str())) {
    if (handle_ == nullptr) {
      throw UpdateError("Failed to extract package at tolmarchive_init");
    }
  }
  ~Archive() { tolmarchive_free(handle_); }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  void Open() const {
    if (tolmarchive_open_with_keytype(handle_, package_.c_str(), kPackageKeyType) == 0) {
      Fail("tolmarchive_open %s failed, ret: %d");
    }
  }
  void ExtractAll() const {
    if (tolmarchive_extract_multiple(handle_, nullptr, kExtractFlags) == 0) {
      Fail("tolmarchive_extract %s failed, ret: %d");
    }
  }

 private:
  [[noreturn]] void Fail(const char* message) const {
    std::uint32_t words[3];  // the third is the last error
    std::memcpy(words, handle_, sizeof words);
    throw UpdateError((NoexceptFormat(message) % package_ % words[2]).str());
  }

  std::string package_;
  tolmarchive* handle_;
};

std::string StringMember(const Json::Value& value, const char* name) {
  return value.isObject() && value[name].isString() ? value[name].asString() : std::string();
}

// From the last "." on, also when the name begins with it.
std::string Extension(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot);
}

void RequireRegularFile(const std::string& path) {
  boost::system::error_code error;
  const fs::file_type type = fs::symlink_status(path, error).type();
  if (type != fs::regular_file && type != fs::file_not_found) {
    throw UpdateError("Not a regular file: " + path);
  }
}

void RequireIn(const std::string& root, const std::string& resolved) {
  if (!LiesIn(root, resolved)) {
    throw UpdateError("path not in base");
  }
}

// A delta may name only what lies below the directory it is applied to.
void RequireBelow(const std::string& relative) {
  if (!StaysBelow(relative)) {
    throw UpdateError("path not in base");
  }
}

// What a delta brings must be a file of its own: not a directory, and not reached through a link to
// elsewhere. A missing one is left to whoever reads it.
void RequireMember(const std::string& base, const std::string& relative) {
  RequireBelow(relative);
  const std::string path = base + "/" + relative;
  boost::system::error_code error;
  const std::string root = fs::canonical(base, error).string();
  if (error) {
    throw UpdateError("path not in base");
  }
  const std::string resolved = fs::canonical(path, error).string();
  if (!error) {
    RequireIn(root, resolved);
  }
  RequireRegularFile(path);
}

// Two spellings of one path would be two entries of the plan, each with a work copy of its own.
void RequireDifferentFiles(const std::set<std::string>& keys) {
  std::map<std::string, std::string> owners;
  for (const std::string& key : keys) {
    const std::string& owner = owners.emplace(NormalPath(key), key).first->second;
    if (owner != key) {
      throw UpdateError((NoexceptFormat("Same file for %s and %s") % owner % key).str());
    }
  }
}

[[noreturn]] void ThrowSameWorkCopy(const std::string& key, const std::string& other) {
  throw UpdateError(
      (NoexceptFormat("Same work copy for %s and %s") % std::min(key, other) % std::max(key, other))
          .str());
}

// What the plan installs once the delta's changes are added to it.
std::set<std::string> InstalledKeys(const std::map<std::string, ModifyInfo>& plan,
                                    const Json::Value& patches) {
  std::set<std::string> keys;
  for (const auto& [key, info] : plan) {
    if (info.operation == kOverride) {
      keys.insert(key);
    }
  }
  for (const std::string& key : patches.getMemberNames()) {
    if (StringMember(patches[key], "operation") == "delete") {
      keys.erase(key);
    } else {
      keys.insert(key);
    }
  }
  return keys;
}

// Different keys may have the same flat name ("a.b" and "a_b"): of the files that are to be
// installed in the end, one would be the other's work copy.
void RequireOwnWorkCopies(const std::set<std::string>& installed_keys) {
  std::map<std::string, std::string> owners;
  for (const std::string& key : installed_keys) {
    const std::string& owner = owners.emplace(FlatFileName(key), key).first->second;
    if (owner != key) {
      ThrowSameWorkCopy(owner, key);
    }
  }
}

// What exists as the work copy of a key that the plan does not install may be what another key
// left there, and would be patched as if it were the installed file.
void RequireNoForeignWorkCopy(const std::map<std::string, ModifyInfo>& plan,
                              const std::string& key) {
  const auto own = plan.find(key);
  if (own != plan.end() && own->second.operation == kOverride) {
    return;
  }
  const std::string flat = FlatFileName(key);
  for (const auto& entry : plan) {
    if (entry.first != key && FlatFileName(entry.first) == flat) {
      ThrowSameWorkCopy(entry.first, key);
    }
  }
}

// Nobody can go back once old files are removed, so what cannot be done must be known before.
void Rehearse(const std::map<std::string, ModifyInfo>& plan, const std::string& install_prefix) {
  Rehearsal rehearsal(install_prefix);
  for (const auto& entry : plan) {
    rehearsal.Remove(entry.first);
  }
  for (const auto& [key, info] : plan) {
    if (info.operation == kOverride) {
      rehearsal.Install(key);
    }
  }
}

bool WorkCopyExists(const std::string& work) {
  try {
    return fs::exists(work);
  } catch (const fs::filesystem_error&) {
    throw UpdateError("Fail to get exists info from " + work);
  }
}

}  // namespace

BaseStrategy::~BaseStrategy() = default;

void BaseStrategy::PrepareUpdate() {}

void BaseStrategy::ApplyUpdate() {}

std::set<std::string> BaseStrategy::GetModifiedFiles() const {
  return {};
}

long long BaseStrategy::GetDeltaSize() const {
  return 0;
}

bool BaseStrategy::_CheckDigest(const std::string& path, const std::string& digest) {
  DigestStream in(path);
  return GetSha384(in) == digest;
}

bool BaseStrategy::_IsSpaceEnough(const std::string& path, long long delta) {
  const auto [available, capacity] = IOUtils().GetFsSize(path);
  syslog(LOG_DEBUG, "%s:%d capacity: %ju", TOLM_LOG_HERE, std::uintmax_t{capacity});
  syslog(LOG_DEBUG, "%s:%d available: %jd", TOLM_LOG_HERE, std::intmax_t{available});
  syslog(LOG_DEBUG, "%s:%d delta: %jd", TOLM_LOG_HERE, static_cast<std::intmax_t>(delta));
  return static_cast<double>(delta + available) / static_cast<double>(capacity) > kMinimumFreeShare;
}

void BaseStrategy::_ExtractTarballTo(const std::string& tarball, const std::string& dest) {
  const Archive archive(tarball, dest);
  archive.Open();
  archive.ExtractAll();
}

FullStrategy::FullStrategy(const std::string& name, const RemoteInfo& remote,
                           const std::string& cur_volume, const std::string& install_prefix,
                           const std::string& root_directory)
    : name_(name),
      remote_(remote),
      cur_volume_(cur_volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

FullStrategy::~FullStrategy() {
  CleanTarball(tarball_path_);
  if (!extract_dir_.empty()) {
    RemoveTemporaryData("clean", [this] { return extract_dir_; });
  }
  RemoveTemporaryData("clean", [this] { return TemporaryRoot(cur_volume_); });
}

void FullStrategy::PrepareUpdate() {
  const IOUtils io;
  // Known before anything can fail, so that the destructor cleans up.
  tarball_path_ = PackageFile(cur_volume_, name_, "v" + std::to_string(remote_.data_version));
  io.TolmMkdir(TemporaryRoot(cur_volume_));
  io.Download(tarball_path_, remote_.download_link);
  extract_dir_ = (NoexceptFormat(paths::kUnpackedTree) % cur_volume_ % name_).str();
  io.TolmMkdir(extract_dir_);
  _ExtractTarballTo(tarball_path_, extract_dir_);
  _CalModifyInfo();
  io.TolmMkdir(install_prefix_);
  const long long delta = GetDeltaSize();
  if (!_IsSpaceEnough(root_directory_, delta)) {
    throw UpdateError("Disk space is too low");
  }
}

void FullStrategy::_CalModifyInfo() {
  try {
    IOUtils().IterateDirectory(
        extract_dir_, [this](const std::string& entry) { AddToPlan(entry); }, true);
  } catch (const fs::filesystem_error& error) {
    throw UpdateError(std::string("Fail to calculate modify info: ") + error.what());
  }
}

void FullStrategy::AddToPlan(const std::string& entry) {
  if (!fs::is_regular_file(entry)) {
    return;
  }
  const std::string root = fs::canonical(extract_dir_).string();
  const std::string resolved = fs::canonical(entry).string();
  RequireIn(root, resolved);
  ModifyInfo& info = modify_infos_[resolved.substr(std::min(root.size() + 1, resolved.size()))];
  info.operation = kOverride;
  info.source_path = entry;
}

std::set<std::string> FullStrategy::GetModifiedFiles() const {
  return Keys(modify_infos_);
}

long long FullStrategy::GetDeltaSize() const {
  const IOUtils io;
  return static_cast<long long>(io.GetSize(install_prefix_)) -
         static_cast<long long>(io.GetSize(extract_dir_));
}

void FullStrategy::ApplyUpdate() {
  try {
    const FileLock lock = LockOutReaders(name_);
    EmptyInstallDirectory();
    InstallFiles();
  } catch (const std::exception& error) {
    throw UpdateError(std::string("Fail to full update: ") + TextOf(error));
  }
}

void FullStrategy::EmptyInstallDirectory() const {
  const auto remove_entry = [](const std::string& entry) {
    if (!IsDotOrDotDot(entry)) {
      fs::remove_all(entry);
    }
  };
  IOUtils().IterateDirectory(install_prefix_, remove_entry, false);
}

void FullStrategy::InstallFiles() const {
  for (const auto& [name, info] : modify_infos_) {
    const std::string destination = JoinPath(install_prefix_, name);
    if (info.operation != kOverride) {
      throw UpdateError("operation not set to override");
    }
    CreateParents(destination);
    CopyRegularFile(info.source_path, destination);
  }
}

ForceInstallByLink::ForceInstallByLink(const std::string& name, const std::string& link,
                                       const std::string& cur_volume,
                                       const std::string& install_prefix,
                                       const std::string& root_directory)
    : name_(name),
      link_(link),
      cur_volume_(cur_volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

ForceInstallByLink::~ForceInstallByLink() {
  CleanTarball(tarball_path_);
  RemoveTemporaryData("clean", [this] { return TemporaryRoot(cur_volume_); });
}

void ForceInstallByLink::PrepareUpdate() {
  const IOUtils io;
  tarball_path_ = PackageFile(cur_volume_, name_, "debug");
  io.TolmMkdir(TemporaryRoot(cur_volume_));
  io.Download(tarball_path_, link_);
  io.TolmMkdir(install_prefix_);
}

void ForceInstallByLink::ApplyUpdate() {
  try {
    const FileLock lock = LockOutReaders(name_);
    _ExtractTarballTo(tarball_path_, install_prefix_);
  } catch (const std::exception& error) {
    throw UpdateError(std::string("Fail to force install: ") + TextOf(error));
  }
}

DiffStrategy::DiffStrategy(const std::string& name, const DatabaseStatus& installed,
                           const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                           const std::string& cur_volume, const std::string& install_prefix,
                           const std::string& root_directory)
    : name_(name),
      installed_(installed),
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
  Rehearse(modify_infos_, install_prefix_);
  io.TolmMkdir(install_prefix_);
  const long long delta = GetDeltaSize();
  if (!_IsSpaceEnough(root_directory_, delta)) {
    throw UpdateError("Disk space is too low");
  }
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
  const std::vector<std::string> names = patches.getMemberNames();
  std::set<std::string> touched = GetModifiedFiles();
  touched.insert(names.begin(), names.end());
  RequireDifferentFiles(touched);
  RequireOwnWorkCopies(InstalledKeys(modify_infos_, patches));
  for (const std::string& key : names) {
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
  if (TLIBCExecl(paths::kVcdiffDecoder, kExecOptions, "decode", target.c_str(), out.c_str(),
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
  for (const auto& [key, info] : modify_infos_) {
    if (info.operation == kOverride) {
      const std::string destination = JoinPath(install_prefix_, key);
      CreateParents(destination);
      CopyRegularFile(info.source_path, destination);
    }
  }
}

}  // namespace tolm::dataupdate
