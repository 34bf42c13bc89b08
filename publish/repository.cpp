#include "publish/repository.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>
#include <filesystem>
#include <utility>

#include "base/rules.h"
#include "package/error.h"
#include "package/file_io.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/new_tree.h"
#include "publish/refresh.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxNoteBytes = 4096;
constexpr off_t kMaxServedBytes = 16 * rules::kDescriptionBytes;

std::string FileText(const std::string& path) {
  return fs::exists(path) ? package::ReadSmallFile(path, kMaxNoteBytes, package::Code::kRead) : "";
}

// What another account may have written there is no reason to fail.
std::string HolderIn(const std::string& lock) {
  try {
    return FileText(lock);
  } catch (const package::Error&) {
    return "";
  }
}

std::string WithoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

void RequireUnpublished(const RepositoryPaths& paths, const std::string& public_path) {
  const std::string target = paths.InPublic(public_path);
  if (fs::exists(target)) {
    throw Error(target + ": exists, and the catalog does not name it; was " + paths.State() +
                " restored from an older copy? Published packages are never replaced");
  }
}

void WriteStateFile(const std::string& path, const std::string& content) {
  ReplaceFile(path, content, path + ".new");
}

}  // namespace

RepositoryPaths::RepositoryPaths(const std::string& root)
    : root_(WithoutSlashes(fs::absolute(root).lexically_normal().string())) {}

std::string RepositoryPaths::Description(const Settings& settings) const {
  return InPublic("database_info/" + settings.info_version);
}

void TakeInfoFilesBesideKey(Settings& settings) {
  const fs::path directory = fs::path(settings.key).parent_path();
  if (settings.info_key.empty() && settings.info_certificate_path.empty() &&
      fs::exists(settings.key) &&  // A URI is not beside anything.
      fs::exists(directory / kInfoKeyName) && fs::exists(directory / kInfoCertificateName)) {
    settings.info_key = directory / kInfoKeyName;
    settings.info_certificate_path = directory / kInfoCertificateName;
  }
}

namespace {

Settings SettingsOf(const InitRequest& request, const std::string& directory) {
  Settings settings = request.settings;
  settings.directory = directory;
  TakeKeyFiles({request.settings.key, request.settings.certificate_path, request.settings.root_path,
                request.settings.info_key, request.settings.info_certificate_path},
               settings);
  if (settings.IsSigned()) {
    settings.identity = NewIdentity();
  }
  if (const std::string problem = InfoVersionProblem(settings.info_version); !problem.empty()) {
    throw Error(problem);
  }
  return settings;
}

std::string FirstDescription(const Settings& settings, Catalog& catalog, std::int64_t now) {
  if (!settings.IsSigned()) {
    return DescribeCatalog(catalog, settings.base_url);
  }
  catalog.counter = NextCounter("", catalog, settings, now);
  return DescriptionSigner(settings, "", now).Sign(catalog, settings, catalog.counter, now);
}

}  // namespace

void InitRepository(const InitRequest& request, std::int64_t now) {
  const RepositoryPaths target(request.repository);
  const Settings settings = SettingsOf(request, target.Root());
  LoadTrustedSigner(settings, now);
  Catalog catalog;
  const std::string description = FirstDescription(settings, catalog, now);
  MakeDirectories(fs::path(target.Root()).parent_path());
  NewTree tree(target.Root());
  const RepositoryPaths paths(tree.path());
  MakeDirectories(fs::path(paths.Description(settings)).parent_path());
  MakeDirectories(paths.InPublic(catalog.part));
  MakeDirectories(paths.Work());
  catalog.replaces = Sha384OfText(description);
  ReplaceFile(paths.Description(settings), description, paths.Work() + "/description");
  WriteStateFile(paths.CatalogFile(), FormatCatalog(catalog));
  WriteStateFile(paths.SettingsFile(), FormatSettings(settings));
  WriteStateFile(paths.Lock(), "");
  if (!request.refresh_group.empty()) {
    ShareForRefresh(paths, settings, request.refresh_group);
  }
  tree.PutInPlace();
}

std::string UnfinishedCommand(const RepositoryPaths& paths) {
  return FileText(paths.Unfinished());
}

void RequireRepository(const RepositoryPaths& paths) {
  if (!fs::exists(paths.SettingsFile())) {
    throw Error(paths.Root() + ": no repository (made by \"init\") is there");
  }
}

RepositoryLock::RepositoryLock(const RepositoryPaths& paths) {
  RequireRepository(paths);
  file_ = base::Descriptor(::open(paths.Lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!file_.IsOpen()) {
    throw package::WriteError(paths.Lock(), errno);
  }
  if (::flock(file_.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      throw package::WriteError(paths.Lock(), errno);
    }
    const std::string process = HolderIn(paths.Lock());
    throw Error(paths.Root() + ": another tolmdbpub is at work on it" +
                (process.empty() ? "" : ", process " + process));
  }
  before_ = HolderIn(paths.Lock());
  const std::string process = std::to_string(::getpid());
  if (::ftruncate(file_.Get(), 0) != 0) {
    throw package::WriteError(paths.Lock(), errno);
  }
  package::WriteAll(file_.Get(), process.data(), process.size(), paths.Lock());
}

RepositoryLock::~RepositoryLock() {
  // Without it the file names a process that has gone, which nobody takes for a holder.
  if (::ftruncate(file_.Get(), 0) == 0) {
    const ssize_t ignored = ::pwrite(file_.Get(), before_.data(), before_.size(), 0);
    static_cast<void>(ignored);
  }
}

RepositoryChange::RepositoryChange(const std::string& repository, Notes notes, Purpose purpose)
    : paths_(repository), notes_(std::move(notes)), purpose_(purpose), lock_(paths_) {
  settings = LoadSettings(paths_.SettingsFile());
  loaded_settings_ = FormatSettings(settings);
  catalog = LoadCatalog(paths_.CatalogFile());
  RequireGoodLinks();
  RequireNothingUnknown(paths_, catalog);
  if (purpose != Purpose::kNewKeys) {
    LoadDescriptionSigner();
  }
  EmptyDirectory(paths_.Work());
  if (purpose != Purpose::kTrial) {
    Complete();
  } else {
    RequireChangeable();
  }
}

RepositoryChange::~RepositoryChange() {
  try {
    EmptyDirectory(paths_.Work());
  } catch (const std::exception&) {
    // What is left there is removed by the next change.
  }
}

void RequireDatabase(const RepositoryPaths& paths, const Catalog& catalog,
                     const std::string& name) {
  if (catalog.removed.count(name) != 0) {
    throw Error(paths.Root() + ": \"" + name + "\" was removed");
  }
  if (catalog.databases.count(name) == 0) {
    throw Error(paths.Root() + ": no database \"" + name + "\" was ever released here");
  }
}

Database& RepositoryChange::DatabaseNamed(const std::string& name) {
  RequireDatabase(paths_, catalog, name);
  return catalog.databases.at(name);
}

void RepositoryChange::LoadDescriptionSigner() {
  if (settings.IsSigned()) {
    signer_.emplace(settings, ServedDescription(paths_, settings), std::time(nullptr));
  }
}

void RepositoryChange::Begin(const std::string& command) {
  if (purpose_ == Purpose::kNewKeys || FormatSettings(settings) != loaded_settings_) {
    LoadDescriptionSigner();
  }
  WriteStateFile(paths_.Unfinished(), command);
}

void RepositoryChange::RequireUnpublished(const std::string& public_path) const {
  publish::RequireUnpublished(paths_, public_path);
}

void RepositoryChange::Publish(const std::string& work_file, const PackageRecord& record) {
  RequireAsMade(work_file, record);
  const std::string target = paths_.InPublic(record.path);
  MakeDirectories(fs::path(target).parent_path());
  RequireUnpublished(record.path);
  MoveFile(work_file, target);
}

void RepositoryChange::Commit() {
  const std::string served = ServedDescription(paths_, settings);
  const std::string description = NewDescription(served);
  catalog.replaces = Sha384OfText(served);
  if (const std::string text = FormatSettings(settings); text != loaded_settings_) {
    WriteStateFile(paths_.SettingsFile(), text);
  }
  WriteStateFile(paths_.CatalogFile(), FormatCatalog(catalog));
  WriteDescription(description);
  RemoveUnnamedPackages();
  RemoveFile(paths_.Unfinished());
}

std::int64_t RepositoryChange::DescriptionExpires() const {
  return signer_.value().ExpiryOf(settings, std::time(nullptr));
}

void RepositoryChange::RequireGoodLinks() const {
  for (const auto& [name, database] : catalog.databases) {
    for (const Release* release : OfferedReleases(database)) {
      const std::string problem =
          LinkProblem(PackageLink(settings.base_url, release->full.path), release->version);
      if (!problem.empty()) {
        throw Error(name + ": " + problem);
      }
    }
  }
}

void RepositoryChange::Complete() {
  const std::string interrupted = UnfinishedCommand(paths_);
  if (!interrupted.empty()) {
    notes_("an earlier command was interrupted: " + interrupted);
    for (const std::string& path : RemoveUnnamedPackages()) {
      notes_("removed " + path + ", which it had not released");
    }
  }
  const std::string served = ServedDescription(paths_, settings);
  if (!IsDescriptionOf(catalog, settings, served, std::time(nullptr))) {
    if (settings.IsSigned() && !signer_) {
      return;  // Commit() does it, with another signer.
    }
    notes_("the description was not what the catalog says, and is written anew");
    WriteDescription(NewDescription(served));
  }
  RemoveFile(paths_.Unfinished());
}

void RepositoryChange::RequireChangeable() const {
  if (const std::string interrupted = UnfinishedCommand(paths_); !interrupted.empty()) {
    notes_("an earlier command was interrupted (" + interrupted +
           "); the next one that changes something completes it");
  }
  for (const std::string& directory :
       {paths_.Public(), paths_.InPublic(catalog.part),
        fs::path(paths_.Description(settings)).parent_path().string()}) {
    if (fs::exists(directory) && ::access(directory.c_str(), W_OK) != 0) {
      throw package::WriteError(directory, errno);
    }
  }
}

// The counter is the catalog's from here on.
std::string RepositoryChange::NewDescription(const std::string& served) {
  if (!settings.IsSigned()) {
    return DescribeCatalog(catalog, settings.base_url);
  }
  const std::int64_t now = std::time(nullptr);
  catalog.counter = NextCounter(served, catalog, settings, now);
  return signer_.value().Sign(catalog, settings, catalog.counter, now);
}

void RepositoryChange::WriteDescription(const std::string& text) {
  const std::string path = paths_.Description(settings);
  MakeDirectories(fs::path(path).parent_path());
  ReplaceFile(path, text, paths_.Work() + "/description");
  for (const std::string& warning : DescriptionWarnings(text)) {
    notes_(warning);
  }
}

std::vector<std::string> RepositoryChange::RemoveUnnamedPackages() {
  const auto named = PackagesOf(catalog);
  std::vector<std::string> removed;
  for (const std::string& path : ListPublic(paths_)) {
    if (IsPackagePath(path) && named.count(path) == 0) {
      RemoveFile(paths_.InPublic(path));
      removed.push_back(path);
    }
  }
  return removed;
}

// Without the mark, a package that the catalog does not name is no left-over: the state is older
// than the public tree. What was published once must not be replaced, nor may an older description
// take the newer one's place.
void RequireNothingUnknown(const RepositoryPaths& paths, const Catalog& catalog) {
  if (!UnfinishedCommand(paths).empty()) {
    return;
  }
  const auto named = PackagesOf(catalog);
  for (const std::string& path : ListPublic(paths)) {
    if (IsPackagePath(path) && named.count(path) == 0) {
      RequireUnpublished(paths, path);
    }
  }
}

void RequireAsMade(const std::string& work_file, const PackageRecord& record) {
  if (MeasureFile(work_file).sha384 != record.sha384) {
    throw Error(work_file + ": was changed by another process after it was made and signed");
  }
}

std::vector<std::string> ListPublic(const RepositoryPaths& paths) {
  std::vector<std::string> files;
  std::error_code error;
  fs::recursive_directory_iterator entry(paths.Public(), error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    if (!fs::is_directory(entry->symlink_status())) {
      files.push_back(entry->path().lexically_relative(paths.Public()).string());
    }
  }
  if (error) {
    throw package::SystemError(package::Code::kRead, paths.Public(), error.value());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool IsPackagePath(const std::string& path) {
  const std::size_t name = path.find('/') + 1;
  const std::size_t end = path.find('/', name);
  return name != 0 && end != std::string::npos && end > name &&
         IsPackagePathOf(path.substr(name, end - name), path);
}

std::string ServedDescription(const RepositoryPaths& paths, const Settings& settings) {
  const std::string path = paths.Description(settings);
  const base::Descriptor file(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0) {
    if (errno == ENOENT || errno == ELOOP || errno == ENXIO) {
      return "";
    }
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  if (!S_ISREG(status.st_mode) || status.st_size > kMaxServedBytes) {
    return "";
  }
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const std::int64_t count = base::ReadAt(file.Get(), text.data(), text.size(), 0);
  if (count < 0) {
    throw package::SystemError(package::Code::kRead, path, errno);
  }
  text.resize(static_cast<std::size_t>(count));
  return text;
}

std::optional<offer::Offer> ServedOffer(const RepositoryPaths& paths, const Settings& settings,
                                        std::int64_t now) {
  if (!settings.IsSigned()) {
    return std::nullopt;
  }
  try {
    const auto verified = VerifyDescription(ServedDescription(paths, settings), settings, now);
    return verified ? std::optional<offer::Offer>(verified->offer) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;  // What is wrong with it is the matter of `check`.
  }
}

}  // namespace tolm::publish
