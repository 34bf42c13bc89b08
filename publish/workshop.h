#ifndef TOLM_PUBLISH_WORKSHOP_H_
#define TOLM_PUBLISH_WORKSHOP_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "package/package.h"
#include "publish/delta.h"
#include "publish/error.h"
#include "publish/patches.h"
#include "publish/replay.h"
#include "publish/repository.h"
#include "publish/work_budget.h"

namespace tolm::publish {

/// Told what is being done now, for a progress line: "packing", 12 MiB; "delta", file 3 of 20.
struct Step {
  const char* what;
  std::uint64_t done;
  std::uint64_t total;  ///< 0: not known, and @ref done is in bytes
};
using Steps = std::function<void(const Step&)>;

/// No delta can be offered; what() is the reason as a part of a sentence. The release goes without.
class NoDelta : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A released package is not there, cannot be read or is another one by now; what() names it.
class Damaged : public Error {
 public:
  using Error::Error;
};

/// A delta to be made from the version before.
struct DeltaOrder {
  int version = 0;  ///< that it leads to
  const Tree* before = nullptr;
  const Tree* after = nullptr;
  /// Whose deltas a device may apply together with it, oldest first.
  std::vector<const DeltaRecord*> chain;
  std::set<std::string> directories_left_behind;  ///< see DeltaRequest
};

struct MadeDelta {
  DeltaRecord delta;  ///< its package lies in the work directory
  std::vector<FileDelta> files;
};

/// What releases are made with: a repository that is being changed, its signer and what devices
/// trust; every package lies in the work directory until it is published.
class Workshop {
 public:
  /// Takes the repository's lock until its end. Does up to @p jobs things at a time. Throws Error,
  /// package::Error.
  Workshop(const std::string& repository, std::string name, Purpose purpose, int jobs,
           std::int64_t now, const Notes& notes, const Steps& steps);

  RepositoryChange& change() { return change_; }
  const RepositoryChange& change() const { return change_; }
  void Note(const std::string& text) const { notes_(text); }
  void Say(const char* what) const { steps_({what, 0, 0}); }
  std::int64_t now() const { return now_; }
  int jobs() const { return budget_.jobs(); }
  /// What works beside WorkAhead() takes its share of it.
  WorkBudget& budget() { return budget_; }
  /// Null while nothing of this name is released.
  Database* database() { return database_; }

  /// A path in the work directory.
  std::string Work(const std::string& name) const { return change_.paths().Work() + '/' + name; }
  std::string WorkPackage(package::Kind kind, int version) const;
  std::string PublicPath(package::Kind kind, int version) const;
  /// Removes everything from the work directory but this package.
  void ClearWorkBut(package::Kind kind, int version) const;

  /// Throws Error when devices could not be told of this version; see LinkProblem.
  void RequireGoodLink(int version) const;

  /// Packs and signs a directory. Meanwhile, and while the package is unpacked, one other thread
  /// may unpack what was released and work ahead.
  PackageRecord Pack(const std::string& directory, package::Kind kind, int version);
  /// Unpacks the full package that Pack() made, into the work directory.
  Tree UnpackPacked(int version, const std::string& directory);
  /// The same with one that was released; @p quietly tells no step. Throws Damaged.
  Tree UnpackReleased(const Release& release, const std::string& directory, bool quietly = false);

  /// Of the order's chain the place of the first delta that the new one can follow, together with
  /// all later ones; @p unfit is told why each before it cannot. Throws NoDelta when the new delta
  /// could not even be applied by itself.
  std::size_t FirstFit(const DeltaOrder& order,
                       const std::function<void(std::size_t, const std::string&)>& unfit) const;
  /// Makes patches before MakeDelta() needs them, between a released tree and one that is likely to
  /// be the next. Ends early when something fails, and begins nothing more once budget() is
  /// stopped: MakeDelta() makes what is missing, and tells what is wrong. A patch of a file that
  /// was changed meanwhile is not kept. Tells its steps from the time on when @p may_tell is set.
  void WorkAhead(const Tree& before, const Tree& likely, const std::atomic<bool>& may_tell);
  /// Makes, packs and proves a delta that follows all of the order's chain, by applying it as
  /// devices do. Throws NoDelta; Error when one of the two trees is not what it was any more.
  MadeDelta MakeDelta(const DeltaOrder& order);
  /// Why these packages, applied as devices do, do not give @p after; empty when they do.
  std::string ReplayProblem(const Tree& before, int version,
                            const std::vector<ReplayPackage>& packages, const Tree& after) const;

 private:
  void ForgetUnlessAsRead(const Tree& tree, const std::set<std::string>& keys);
  void Prove(const DeltaOrder& order, MadeDelta& made);
  std::set<std::string> Try(const DeltaOrder& order, const std::set<std::string>& whole,
                            bool nearly_last, MadeDelta& made);
  std::vector<FileDelta> Build(const DeltaOrder& order, const std::set<std::string>& whole);
  std::set<std::string> Replay(const DeltaOrder& order, const std::vector<FileDelta>& files) const;
  std::set<std::string> KeysToBlame(const std::vector<FileDelta>& files,
                                    const ReplayError& error) const;
  ReplayRequest ReplayFrom(const Tree& before, int version,
                           const std::vector<ReplayPackage>& packages) const;

  const std::string name_;
  const std::int64_t now_;
  const Notes& notes_;
  const Steps& steps_;
  RepositoryChange change_;
  package::Signer signer_;
  package::Trust trust_;
  Database* database_;
  WorkBudget budget_;
  Patches patches_;  // of the delta that is being made
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_WORKSHOP_H_
