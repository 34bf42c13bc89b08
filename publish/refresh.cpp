#include "publish/refresh.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <set>

#include "package/error.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/signed_description.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kLockMode = 0660;
constexpr mode_t kWorkMode = 02770;
constexpr mode_t kDescriptionDirectoryMode = 02775;
constexpr mode_t kKeyMode = 0640;

void RequireSigned(const RepositoryPaths& paths, const Settings& settings) {
  if (!settings.IsSigned()) {
    throw Error(paths.Root() + ": its descriptions are not signed; \"tolmdbpub upgrade " +
                paths.Root() + " --root-key KEY\" begins with it");
  }
}

gid_t GroupNamed(const std::string& name) {
  if (const group* entry = ::getgrnam(name.c_str()); entry != nullptr) {
    return entry->gr_gid;
  }
  gid_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (name.empty() || error != std::errc() || end != name.data() + name.size()) {
    throw Error("there is no group \"" + name + '"');
  }
  return number;
}

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw package::WriteError(path, errno);
  }
  return status;
}

// The mode last: a change of the group takes some of it away.
void Give(const std::string& path, gid_t group, mode_t mode) {
  const struct stat before = StatusOf(path);
  if (before.st_gid != group && ::chown(path.c_str(), static_cast<uid_t>(-1), group) != 0) {
    throw package::WriteError(path, errno);
  }
  if (StatusOf(path).st_mode % 010000 != mode && ::chmod(path.c_str(), mode) != 0) {
    throw package::WriteError(path, errno);
  }
}

// Where everybody may pass, the group may.
void OpenWay(const std::string& directory, gid_t group) {
  const mode_t mode = StatusOf(directory).st_mode % 010000;
  if ((mode & S_IXOTH) == 0) {
    Give(directory, group, mode | S_IXGRP);
  }
}

// Who may write to the work directory never does so where an account may that may do less.
std::string StagingFor(const RepositoryPaths& paths) {
  const bool is_own = ::faccessat(AT_FDCWD, paths.Work().c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  if (!is_own && errno != EACCES && errno != EPERM && errno != EROFS && errno != ENOENT) {
    throw package::SystemError(package::Code::kRead, paths.Work(), errno);
  }
  return (is_own ? paths.Work() : paths.RefreshWork()) + "/refreshed";
}

}  // namespace

RefreshReport RefreshDescription(const std::string& repository, std::int64_t now) {
  const RepositoryPaths paths(repository);
  const RepositoryLock lock(paths);
  const Settings settings = LoadSettings(paths.SettingsFile());
  RequireSigned(paths, settings);
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  RequireNothingUnknown(paths, catalog);
  const std::string served = ServedDescription(paths, settings);
  const DescriptionSigner signer(settings, served, now);
  const std::uint64_t counter = NextCounter(served, catalog, settings, now);
  const std::string staging = StagingFor(paths);
  RemoveFile(staging);
  ReplaceFile(paths.Description(settings), signer.Sign(catalog, settings, counter, now), staging);
  return {catalog.databases.size(), signer.ExpiryOf(settings, now)};
}

void ShareForRefresh(const RepositoryPaths& paths, const Settings& settings,
                     const std::string& group) {
  RequireSigned(paths, settings);
  const gid_t id = GroupNamed(group);
  std::set<std::string> ways = {paths.Root(), paths.State(), paths.Public()};
  for (const std::string& file :
       {settings.InfoKeyLocation(), settings.InfoCertificateFile(), settings.RootFile(),
        settings.CertificateFile(), settings.RevocationsFile()}) {
    if (!file.empty() && fs::exists(file)) {  // Not so of a URI.
      ways.insert(fs::path(file).parent_path().string());
    }
  }
  for (const std::string& way : ways) {
    OpenWay(way, id);
  }
  Give(paths.Lock(), id, kLockMode);
  MakeDirectories(paths.RefreshWork());
  Give(paths.RefreshWork(), id, kWorkMode);
  Give(fs::path(paths.Description(settings)).parent_path(), id, kDescriptionDirectoryMode);
  if (const std::string key = settings.InfoKeyLocation(); fs::exists(key)) {
    Give(key, id, kKeyMode);
  }
}

}  // namespace tolm::publish
