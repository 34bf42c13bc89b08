#include "operation/own_ground.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <utility>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "operation/operator_settings.h"
#include "operation/write_rights.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using base::Owners;
using base::TrustedDirectory;
using dataupdate::NoexceptFormat;

constexpr char kLogSource[] = "own_ground";
constexpr mode_t kPrivate = 0700;
constexpr mode_t kPublic = 0755;
constexpr int kMostTries = 10000;

OwnGround* in_force = nullptr;

std::string RootOf(const std::string& volume) {
  return volume.empty() ? "/" : volume;
}

Owners OwnersOn(const std::string& volume) {
  return ReadOperatorSettings().ownerless_volumes.count(volume) == 0 ? Owners::kRequired
                                                                     : Owners::kIgnored;
}

bool LiesIn(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size(), directory) == 0 &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

std::string MainDirectoryOf(const std::string& volume) {
  return (NoexceptFormat(paths::kVolumeDatabases) % volume).str();
}

// Goes on to that directory; where others could make it, it is made. Returns false where it is
// missing and only root can make it.
bool Secure(TrustedDirectory& at, const std::string& name, mode_t mode, MadeDirectories& made) {
  if (!at.IsShared()) {
    return at.Enter(name);
  }
  if (at.Make(name, mode)) {
    made.Add(at);
  }
  return true;
}

// The same for all of them.
void SecureAll(TrustedDirectory& at, const fs::path& names, MadeDirectories& made) {
  for (const fs::path& name : names) {
    if (!Secure(at, name, kPublic, made)) {
      return;
    }
  }
  at.RequireOwn();
}

std::string UnpredictableName() {
  std::uint64_t words[2] = {};
  if (getrandom(words, sizeof words, 0) != static_cast<ssize_t>(sizeof words)) {
    throw base::FileError(errno, "find a name in", paths::kTemporaryBelowVolume);
  }
  char text[64];
  std::snprintf(text, sizeof text, ".data_update-%016jx%016jx", std::uintmax_t{words[0]},
                std::uintmax_t{words[1]});
  return text;
}

// An empty directory, a file or a link goes; what has content is its owner's to remove.
void RemoveExchanged(const TrustedDirectory& parent, const std::string& name) {
  if (unlinkat(parent.Get(), name.c_str(), AT_REMOVEDIR) != 0 &&
      unlinkat(parent.Get(), name.c_str(), 0) != 0) {
    syslog(LOG_WARNING, "%s:%d What stood in the way was put aside as %s/%s", TOLM_LOG_HERE,
           parent.path().c_str(), name.c_str());
  }
}

// Puts a new directory of root's in the place of whatever stands there, in one step. Returns false
// when nothing stands there any more.
bool Exchange(const TrustedDirectory& parent, const std::string& name) {
  const std::string fresh = UnpredictableName();
  if (mkdirat(parent.Get(), fresh.c_str(), kPrivate) != 0) {
    throw base::FileError(errno, "make", parent.path() + '/' + fresh);
  }
  if (renameat2(parent.Get(), fresh.c_str(), parent.Get(), name.c_str(), RENAME_EXCHANGE) != 0) {
    const int reason = errno;
    unlinkat(parent.Get(), fresh.c_str(), AT_REMOVEDIR);
    // Not every file system exchanges: what stands there goes aside then, and the place is free.
    if (reason == ENOENT || (reason == EINVAL && renameat(parent.Get(), name.c_str(), parent.Get(),
                                                          fresh.c_str()) == 0)) {
      return false;
    }
    throw base::FileError(reason, "replace", parent.path() + '/' + name);
  }
  RemoveExchanged(parent, fresh);
  return true;
}

// Enters the private directory, which is made where it is missing. When somebody else's stands
// there, an own one does afterwards, and ForeignGround is thrown.
bool MakePrivate(TrustedDirectory& at, const std::string& name) {
  for (int tries = 0;; ++tries) {
    try {
      return at.Make(name, kPrivate, true);
    } catch (const ForeignGround&) {
      if (Exchange(at, name) || tries == kMostTries) {
        throw;
      }
    } catch (const base::FileError&) {
      // Mostly it has become something else between two looks at it.
      if (tries == kMostTries) {
        throw;
      }
    }
  }
}

[[noreturn]] void ThrowWithoutVolume(const std::string& what) {
  throw ExplainedError(what, dataupdate::UpdateError::kGeneral,
                       {reasons::kNoVolume, what, "\"tolmdbud volume show\" tells what is there"});
}

[[noreturn]] void ThrowGone(const std::string& volume) {
  ThrowWithoutVolume("the volume " + volume + " has gone away meanwhile");
}

// Returns what stat() tells of its root, or nothing where there is none. Throws for a disk that
// fails, which has not gone.
std::optional<struct stat> LookAtRoot(const std::string& volume) {
  struct stat root {};
  if (stat(RootOf(volume).c_str(), &root) == 0) {
    return root;
  }
  if (errno != ENOENT && errno != ENOTDIR) {
    ThrowWithoutVolume(base::FileError(errno, "examine", RootOf(volume)).what());
  }
  return std::nullopt;
}

}  // namespace

// ---- What was made and not used ----

void MadeDirectories::Add(const TrustedDirectory& directory) {
  struct stat status;
  if (fstat(directory.Get(), &status) == 0) {
    made_.push_back({directory.path(), status.st_dev, status.st_ino});
  }
}

bool MadeDirectories::Holds(const std::string& path) const {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    return false;
  }
  for (const Made& made : made_) {
    if (made.path == path && made.device == status.st_dev && made.inode == status.st_ino) {
      return true;
    }
  }
  return false;
}

MadeDirectories::~MadeDirectories() {
  for (auto made = made_.rbegin(); made != made_.rend(); ++made) {
    if (Holds(made->path)) {
      rmdir(made->path.c_str());  // It stays when it was used.
    }
  }
}

// ---- The ground of an operation ----

OwnGround::OwnGround(const std::string& volume, const std::string& install_directory)
    : volume_(volume),
      temporary_((NoexceptFormat(paths::kTemporaryRoot) % volume).str()),
      installation_(install_directory),
      owners_(OwnersOn(volume)) {
  // Where there is none, the question below says so.
  if (const std::optional<struct stat> root = LookAtRoot(volume_)) {
    device_ = root->st_dev;
    inode_ = root->st_ino;
  }
  // After that look: what it has seen was the volume, and not what is below its mount point.
  TOLMMountVolInfo record;
  if (!volume_.empty() && TOLMMountVolInfoGet(volume_.c_str(), &record) == -1) {
    ThrowGone(volume_);
  }
  SecureTemporary(false);
  SecureInstallation();
  in_force = this;
}

OwnGround::~OwnGround() {
  in_force = nullptr;
}

OwnGround* OwnGround::InForce() noexcept {
  return in_force;
}

// Somebody else's is only put aside once the operation has begun.
void OwnGround::SecureTemporary(bool takes_over) {
  TrustedDirectory at(RootOf(volume_), owners_);
  const fs::path below(paths::kTemporaryBelowVolume);
  if (!Secure(at, below.parent_path(), kPublic, made_)) {
    return;
  }
  if (takes_over && at.IsShared()) {
    if (MakePrivate(at, below.filename())) {
      made_.Add(at);
    }
    return;
  }
  if (Secure(at, below.filename(), kPrivate, made_)) {
    at.RequireOwn();
  }
}

void OwnGround::SecureInstallation() {
  const fs::path directory(installation_);
  if (IsInstalledOnVolume()) {
    TrustedDirectory at(RootOf(volume_), owners_);
    SecureAll(at, fs::path(paths::kDatabasesBelowVolume) / directory.filename(), made_);
    return;
  }
  TrustedDirectory at("/", Owners::kTrusted);
  for (const fs::path& name : directory.parent_path().relative_path()) {
    if (!at.EnterFollowing(name)) {
      return;
    }
  }
  SecureAll(at, directory.filename(), made_);
}

void OwnGround::CloseInstallation() const {
  if (!IsInstalledOnVolume() || owners_ != Owners::kIgnored) {
    TakeWriteFromOthersBelow(installation_);
  }
}

bool OwnGround::RemoveLeftOvers() {
  std::error_code ignored;
  if (!fs::exists(fs::symlink_status(temporary_, ignored)) || made_.Holds(temporary_)) {
    return false;
  }
  // Not by the library: what packages have made there may be open to others, and this one follows
  // nobody who changes it meanwhile.
  fs::remove_all(temporary_);
  SecureTemporary(true);
  return true;
}

bool OwnGround::IsInstalledOnVolume() const {
  return fs::path(installation_).parent_path() == MainDirectoryOf(volume_);
}

void OwnGround::RequireVolume() const {
  const std::optional<struct stat> root = LookAtRoot(volume_);
  if (!root || root->st_dev != device_ || root->st_ino != inode_) {
    ThrowGone(volume_);
  }
}

void OwnGround::RequireInstallation() const {
  if (IsInstalledOnVolume()) {
    RequireVolume();
  }
}

void OwnGround::Explaining(const std::function<void()>& action) const {
  try {
    action();
  } catch (const dataupdate::UpdateError& error) {
    if (refusal_.empty()) {
      throw;
    }
    throw ExplainedError(std::string(error.what()) + ": " + refusal_, error.code(), failure_);
  }
}

// ---- The library's directories ----

bool OwnGround::IsTemporary(const std::string& path) const {
  return LiesIn(path, temporary_);
}

bool OwnGround::IsInstallation(const std::string& path) const {
  return LiesIn(path, installation_);
}

bool OwnGround::Make(const std::string& path) noexcept {
  try {
    if (IsTemporary(path)) {
      RequireVolume();
      MakeTemporary(path);
    } else {
      RequireInstallation();
      MakeInstallation(path);
    }
    return true;
  } catch (const ForeignGround& error) {
    refusal_ = error.reason();
    failure_ = {reasons::kUnsafeDirectory, refusal_};
  } catch (const std::exception& error) {
    refusal_ = error.what();
    failure_ = FailureOf(error);
  }
  syslog(LOG_ERR, "%s:%d %s", TOLM_LOG_HERE, refusal_.c_str());
  return false;
}

void OwnGround::MakeTemporary(const std::string& path) {
  const fs::path below(paths::kTemporaryBelowVolume);
  TrustedDirectory at(RootOf(volume_), owners_);
  at.Make(below.parent_path(), kPublic);
  MakePrivate(at, below.filename());
  for (const fs::path& name : fs::path(path).lexically_relative(temporary_)) {
    if (name != ".") {
      at.Make(name, kPublic);
    }
  }
}

void OwnGround::MakeInstallation(const std::string& path) {
  const fs::path main = fs::path(installation_).parent_path();
  const bool on_volume = IsInstalledOnVolume();
  TrustedDirectory at(on_volume ? RootOf(volume_) : "/", on_volume ? owners_ : Owners::kTrusted);
  const fs::path above = on_volume ? paths::kDatabasesBelowVolume : main.relative_path();
  for (const fs::path& name : above) {
    if (on_volume || !at.EnterFollowing(name)) {
      at.Make(name, kPublic);
    }
  }
  for (const fs::path& name : fs::path(path).lexically_relative(main)) {
    at.Make(name, kPublic);
  }
  at.RequireOwn();
}

// ---- Volumes ----

void RequireOwnVolume(const std::string& volume) {
  const Owners owners = OwnersOn(volume);
  TrustedDirectory(volume, owners).Enter(fs::path(paths::kTemporaryBelowVolume).parent_path());
  TrustedDirectory at(volume, owners);
  for (const fs::path& name : fs::path(paths::kDatabasesBelowVolume)) {
    if (!at.Enter(name)) {
      return;
    }
  }
  at.RequireOwn();
}

void MakeOwnMainDirectory(const std::string& volume) {
  TrustedDirectory at(volume, OwnersOn(volume));
  for (const fs::path& name : fs::path(paths::kDatabasesBelowVolume)) {
    at.Make(name, kPublic);
  }
  at.RequireOwn();
}

std::optional<PartialsDirectory> EnterPartials(const std::string& volume, bool is_made) {
  if (in_force != nullptr && in_force->volume() == volume) {
    in_force->RequireVolume();
  }
  const Owners owners = OwnersOn(volume);
  TrustedDirectory at(volume, owners);
  const fs::path below(paths::kPartialsBelowVolume);
  const std::string name = below.filename();
  if (is_made) {
    at.Make(below.parent_path(), kPublic);
    at.Make(name, kPrivate, true);
  } else if (!at.Enter(below.parent_path()) || !at.Enter(name)) {
    return std::nullopt;
  }
  at.RequireOwn();
  const bool keeps_owners = owners != Owners::kIgnored;
  if (keeps_owners && fchmod(at.Get(), kPrivate) != 0) {
    throw base::FileError(errno, "close", at.path());
  }
  return PartialsDirectory{std::move(at), keeps_owners};
}

}  // namespace tolm::operation
