#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <exception>
#include <map>
#include <optional>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/strategy.h"
#include "file_system.h"
#include "strategy_support.h"
#include "walk.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

// Where a file system's listings do not tell the types of their entries, a walk hands over the
// directory itself and the one above it too.
bool IsDotOrDotDot(const std::string& entry) {
  const std::string name = entry.substr(entry.rfind('/') + 1);
  return name == "." || name == "..";
}

// What a walk through the tree has found is, resolved, where it stands: a walk enters no links. So
// nothing has to be resolved for what is no link itself.
bool IsFileItself(const WalkEntry& entry) {
  struct stat status;
  return entry.type == DT_REG ||
         (entry.type == DT_UNKNOWN &&
          fstatat(entry.directory, entry.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISREG(status.st_mode));
}

// By which name of the tree what a link leads to is to be installed; none for what is no file.
std::optional<std::string> NameOf(const std::string& entry, const std::string& tree) {
  if (!fs::is_regular_file(entry)) {
    return std::nullopt;
  }
  const std::string root = fs::canonical(tree).string();
  const std::string resolved = fs::canonical(entry).string();
  RequireIn(root, resolved);
  return resolved.substr(std::min(root.size() + 1, resolved.size()));
}

void Plan(std::map<std::string, ModifyInfo>& plan, const std::string& name,
          const std::string& source) {
  ModifyInfo& info = plan[name];
  info.operation = kOverride;
  info.source_path = source;
}

}  // namespace

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
  FinishPreparation(*this, install_prefix_, root_directory_);
}

void FullStrategy::_CalModifyInfo() {
  try {
    WalkTree(extract_dir_, [this](const WalkEntry& entry) {
      const std::string path = entry.Path();
      if (IsFileItself(entry)) {
        Plan(modify_infos_, path.substr(extract_dir_.size() + 1), path);
      } else {
        AddToPlan(path);
      }
    });
  } catch (const fs::filesystem_error& error) {
    throw UpdateError(std::string("Fail to calculate modify info: ") + error.what());
  }
}

void FullStrategy::AddToPlan(const std::string& entry) {
  const std::optional<std::string> name = NameOf(entry, extract_dir_);
  if (name) {
    Plan(modify_infos_, *name, entry);
  }
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
      RemoveAll(entry);
    }
  };
  IOUtils().IterateDirectory(install_prefix_, remove_entry, false);
}

void FullStrategy::InstallFiles() const {
  ParentDirectories parents;
  for (const auto& [name, info] : modify_infos_) {
    const std::string destination = JoinPath(install_prefix_, name);
    if (info.operation != kOverride) {
      throw UpdateError("operation not set to override");
    }
    parents.Create(destination);
    CopyRegularFile(info.source_path, destination);
  }
}

}  // namespace tolm::dataupdate
