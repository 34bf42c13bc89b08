#ifndef TOLM_PUBLISH_REPOSITORY_H_
#define TOLM_PUBLISH_REPOSITORY_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "publish/catalog.h"
#include "publish/settings.h"
#include "publish/signed_description.h"

namespace tolm::publish {

/// Told what the person at the terminal should know, one sentence at a time.
using Notes = std::function<void(const std::string&)>;

/// Where everything of a repository lies; docs/formats/repository.md.
class RepositoryPaths {
 public:
  explicit RepositoryPaths(const std::string& root);

  const std::string& Root() const { return root_; }
  std::string Public() const { return root_ + "/public"; }
  /// A path as the catalog has it.
  std::string InPublic(const std::string& relative) const { return Public() + '/' + relative; }
  std::string Description(const Settings& settings) const;
  std::string State() const { return root_ + "/state"; }
  std::string SettingsFile() const { return State() + "/settings.json"; }
  std::string CatalogFile() const { return State() + "/catalog.json"; }
  std::string Lock() const { return State() + "/lock"; }
  /// Stands while a command changes the public tree; holds the command.
  std::string Unfinished() const { return State() + "/unfinished"; }
  std::string Work() const { return State() + "/work"; }
  /// What `check` remembers, in a directory for each database.
  std::string Checked() const { return State() + "/checked"; }
  /// Of the account that may refresh and nothing else, which no other command reads or writes.
  std::string RefreshWork() const { return State() + "/refresh"; }

 private:
  std::string root_;
};

/// What `init` is told.
struct InitRequest {
  std::string repository;
  Settings settings;          ///< paths as they were given; the identity is made
  std::string refresh_group;  ///< see ShareForRefresh; may be empty
};

/// The names that the key and the certificate have that sign descriptions, where nothing else is
/// said: beside the key that signs packages.
inline constexpr char kInfoKeyName[] = "info.key";
inline constexpr char kInfoCertificateName[] = "info.pem";

/// Takes those of these names when none are given and both are there.
void TakeInfoFilesBesideKey(Settings& settings);

/// Makes an empty repository whose description offers nothing yet: complete, or not at all. Proves
/// before that what the key signs is accepted below the root, and what the info key signs, where
/// there is one. Throws Error when there is something already, or package::Error.
void InitRepository(const InitRequest& request, std::int64_t now);

/// The command that was interrupted and has not been completed yet; empty when there is none.
std::string UnfinishedCommand(const RepositoryPaths& paths);

/// Throws Error when the directory is no repository.
void RequireRepository(const RepositoryPaths& paths);

/// Held while a command works on a repository. Never waits: throws Error that names the process
/// that is at work, when another one is. Ends with this object or with the process; the file then
/// says what it said before.
class RepositoryLock {
 public:
  explicit RepositoryLock(const RepositoryPaths& paths);
  ~RepositoryLock();
  RepositoryLock(const RepositoryLock&) = delete;
  RepositoryLock& operator=(const RepositoryLock&) = delete;

 private:
  base::Descriptor file_;
  std::string before_;
};

/// Throws Error when there is none of that name, or none any more.
void RequireDatabase(const RepositoryPaths& paths, const Catalog& catalog, const std::string& name);

/// What a RepositoryChange is for.
enum class Purpose {
  kChange,
  kTrial,  ///< everything up to the change itself: nothing but the work directory is written to
  /// A change of what the present settings cannot sign without: the signer of descriptions is not
  /// loaded before Begin(), and a description that is to be completed is left to Commit().
  kNewKeys,
};

/// A repository while one command changes it.
///
/// The order of a change: Begin(); packages are moved into the public tree; the catalog member is
/// changed; Commit(). A process that ends anywhere in between leaves a public tree that serves the
/// old state or the new one; the next RepositoryChange completes what is left to do.
class RepositoryChange {
 public:
  /// Takes the lock, completes what an interrupted command has left (each step is noted), and
  /// empties the work directory. Changes nothing in a repository whose packages the catalog does
  /// not all know without such a command: its state is an older copy. A trial completes nothing,
  /// says that a change would, and throws what a change would meet in a public tree that cannot be
  /// written to. Loads what signs descriptions before it changes anything. Throws Error,
  /// package::Error.
  RepositoryChange(const std::string& repository, Notes notes, Purpose purpose = Purpose::kChange);
  /// Empties the work directory; nothing else is undone.
  ~RepositoryChange();
  RepositoryChange(const RepositoryChange&) = delete;
  RepositoryChange& operator=(const RepositoryChange&) = delete;

  const RepositoryPaths& paths() const { return paths_; }
  const Notes& notes() const { return notes_; }

  /// As RequireDatabase().
  Database& DatabaseNamed(const std::string& name);

  /// Throws Error when an offered release cannot have its link under these settings; see
  /// LinkProblem.
  void RequireGoodLinks() const;

  /// From here on the public tree may be changed, and never for a trial; @p command is what another
  /// command says when this one was interrupted. Loads what signs descriptions when the settings
  /// have changed; nothing was written when that fails.
  void Begin(const std::string& command);
  /// Throws Error when a package of this path was published, by whatever the catalog has forgotten.
  void RequireUnpublished(const std::string& public_path) const;
  /// Moves a package from the work directory into the public tree. Both lie on one file system.
  /// Throws Error when it is not what the record says.
  void Publish(const std::string& work_file, const PackageRecord& record);
  /// What settings and catalog say becomes what the repository is: settings, catalog, description,
  /// signed anew, in this order; then packages that the catalog does not name are removed.
  void Commit();
  /// When a description ends that is signed now.
  std::int64_t DescriptionExpires() const;

  Settings settings;
  Catalog catalog;

 private:
  void Complete();
  void LoadDescriptionSigner();
  void RequireChangeable() const;
  std::string NewDescription(const std::string& served);
  void WriteDescription(const std::string& text);
  std::vector<std::string> RemoveUnnamedPackages();

  RepositoryPaths paths_;
  Notes notes_;
  Purpose purpose_;
  RepositoryLock lock_;
  std::string loaded_settings_;              // as text
  std::optional<DescriptionSigner> signer_;  // absent where descriptions are not signed
};

/// Throws Error when a package lies in the public tree that the catalog does not name and no
/// interrupted command has left: the state is an older copy.
void RequireNothingUnknown(const RepositoryPaths& paths, const Catalog& catalog);

/// Throws Error when the file in the work directory is not the one that was recorded when it was
/// made; package::Error when it is not there.
void RequireAsMade(const std::string& work_file, const PackageRecord& record);

/// What lies in the public tree, as paths relative to it, sorted; directories are left out.
std::vector<std::string> ListPublic(const RepositoryPaths& paths);

/// Whether the relative path is one that packages of this program have.
bool IsPackagePath(const std::string& path);

/// The text of the description as it is served now; empty when there is none, or something that
/// this program would not put there: a link, no file, one of many times what devices read.
std::string ServedDescription(const RepositoryPaths& paths, const Settings& settings);

/// What the served description's signed text says; nothing when it is not signed, or not so that
/// devices accept it at @p now.
std::optional<offer::Offer> ServedOffer(const RepositoryPaths& paths, const Settings& settings,
                                        std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPOSITORY_H_
