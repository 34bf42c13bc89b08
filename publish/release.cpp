#include "publish/release.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <ctime>
#include <exception>
#include <map>
#include <utility>

#include "base/human_text.h"
#include "package/error.h"
#include "package/payload_writer.h"
#include "publish/chain_rules.h"
#include "publish/list.h"
#include "publish/plausibility.h"
#include "publish/test_command.h"

namespace tolm::publish {
namespace {

using package::Kind;

class Releaser {
 public:
  Releaser(const ReleaseRequest& request, std::int64_t now, const Notes& notes, const Steps& steps)
      : request_(request),
        shop_(request.repository, request.name,
              request.dry_run ? Purpose::kTrial : Purpose::kChange, request.jobs, now, notes,
              steps),
        database_(shop_.database()) {}

  ReleaseReport Run() {
    RequireStageable();
    shop_.Say("reading files");
    const Tree source = ScanTree(request_.directory, {request_.follow_links, request_.jobs});
    if (source.files.empty()) {
      throw Error(request_.directory + ": no files in it");
    }
    for (const std::string& warning : source.warnings) {
      shop_.Note(warning);
    }
    if (IsReleased(TreeDigest(source))) {
      report_.unchanged = true;
      report_.version = database_->releases.back().version;
      return report_;
    }
    FinishRolloutBefore();
    release_.version = report_.version = ChooseVersion();
    shop_.RequireGoodLink(release_.version);
    if (MayWorkAhead()) {
      base::ForEach(2, 2,
                    [&](std::size_t task) { task == 0 ? MakeFull(source) : WorkAhead(source); });
    } else {
      MakeFull(source);
    }
    CompareWithNewest();
    Judge();
    MakeDeltaOrSayWhyNot();
    Record();
    if (request_.dry_run) {
      RequireUnpublished();
    } else {
      Put();
    }
    return report_;
  }

 private:
  bool IsStaged() const { return !request_.stages.empty(); }

  void RequireStageable() const {
    if (!IsStaged()) {
      return;
    }
    const std::string& root = shop_.change().paths().Root();
    if (!shop_.change().settings.IsSigned()) {
      throw Error(root +
                  ": its descriptions are not signed, and only a signed one can say whom a staged "
                  "version is for; \"tolmdbpub upgrade " +
                  root + " --root-key KEY\" begins with it");
    }
    if (database_ == nullptr) {
      throw Error(
          "nothing is stable yet that devices could stay with: a first release reaches all "
          "of them, without --stages");
    }
  }

  // One that has reached all devices has nothing left to do: beside it a staged release would be
  // offered to all of them at once. Another one was to prevent what a release without stages does.
  void FinishRolloutBefore() {
    if (database_ == nullptr || !database_->rollout) {
      return;
    }
    const std::string open = std::to_string(database_->releases.back().version);
    if (ShareAt(database_->rollout->plan, shop_.now()) == offer::kWholeShare) {
      shop_.Note(open + " is offered to all devices: its rollout is finished with this release");
      EndRollout(*database_, shop_.now());
    } else if (!IsStaged()) {
      const std::string of = ' ' + shop_.change().paths().Root() + ' ' + request_.name;
      throw Error("the rollout of " + open +
                  " is open, and without --stages this release would reach all devices. "
                  "\"tolmdbpub rollout finish" +
                  of + "\" makes " + open + " the stable version before; \"tolmdbpub rollout stop" +
                  of + "\" and \"tolmdbpub withdraw" + of + ' ' + open +
                  "\" take it back; --stages lets this release take its place");
    }
  }

  // An older release with this content does not count: going back to it is a release of its own.
  bool IsReleased(const std::string& content) const {
    return database_ != nullptr && database_->releases.back().content == content &&
           request_.version.value_or(database_->releases.back().version) ==
               database_->releases.back().version;
  }

  // That devices may have; none when this is the first.
  std::optional<int> NewestVersion() {
    if (database_ != nullptr) {
      return database_->releases.back().version;
    }
    const auto& removed = shop_.change().catalog.removed;
    const auto found = removed.find(request_.name);
    return found == removed.end() ? std::nullopt : std::optional<int>(found->second.newest);
  }

  int ChooseVersion() {
    const std::optional<int> newest = NewestVersion();
    if (!newest) {
      return request_.version.value_or(kFirstVersion);
    }
    if (request_.version && *request_.version <= *newest) {
      throw Error("version " + std::to_string(*request_.version) + " does not follow " +
                  std::to_string(*newest) + ", the newest one; what was released stays as it is");
    }
    if (!request_.version && *newest == INT_MAX) {
      throw Error("there is no version after " + std::to_string(*newest));
    }
    return request_.version.value_or(*newest + 1);
  }

  // Not before a test, which must find nothing that it could change.
  bool MayWorkAhead() const {
    return request_.jobs > 1 && FollowsTheNewest() && !request_.follow_links &&
           TestOf(shop_.change().settings, request_.name).empty();
  }

  // Sees to it that the other task ends soon when this one fails, and is told of otherwise.
  void MakeFull(const Tree& source) {
    WorkBudget::Share share(shop_.budget(),
                            package::PackingMemoryBytes(shop_.change().settings.packing));
    try {
      PackFull(source);
      share.GiveBackMemory();
      RunTest();
      UnpackFull();
    } catch (...) {
      shop_.budget().Stop();
      throw;
    }
    is_full_made_ = true;
  }

  // Beside the making of the full package. What goes wrong is told when its turn comes.
  void WorkAhead(const Tree& source) {
    try {
      old_tree_ = shop_.UnpackReleased(database_->releases.back(), "old", true);
    } catch (const std::exception&) {
      old_failure_ = std::current_exception();
      return;
    }
    is_old_unpacked_ = true;
    if (IsLikelyToBeReleased(source)) {
      shop_.WorkAhead(old_tree_, source, is_full_made_);
    }
  }

  // Whether the judge would let these files pass: no work for what is refused.
  bool IsLikelyToBeReleased(const Tree& source) {
    if (FindWithdrawn(TreeDigest(source)) && !request_.allow_withdrawn) {
      return false;
    }
    try {
      return request_.allow_shrink ||
             FindShrinkage(old_tree_, source, MaxShrink()).findings.empty();
    } catch (const std::exception&) {
      return false;
    }
  }

  // What is packed is what is unpacked again and used from there on, so it does not matter when the
  // directory changes meanwhile.
  void PackFull(const Tree& source) {
    if (request_.follow_links) {
      CopyTree(source, shop_.Work("source"));
    }
    release_.full = shop_.Pack(request_.follow_links ? shop_.Work("source") : request_.directory,
                               Kind::kFull, release_.version);
    report_.full_bytes = release_.full.size_bytes;
  }

  // The test gets files of its own, and nothing else is unpacked yet that it, or what it leaves
  // running, could change: a delta made from such files would lead to others than the package has.
  void RunTest() {
    const std::string command = TestOf(shop_.change().settings, request_.name);
    if (command.empty()) {
      return;
    }
    const Tree tree = shop_.UnpackPacked(release_.version, "test");
    shop_.Say("testing");
    test_lines_ = RunTestCommand({command, request_.name, release_.version, shop_.Work("test")});
    if (const std::string change = ChangeByTest(tree); !change.empty()) {
      test_lines_.push_back("its test has changed what it should only look at: " + change);
    }
    shop_.ClearWorkBut(Kind::kFull, release_.version);
    RequireAsMade(shop_.WorkPackage(Kind::kFull, release_.version), release_.full);
  }

  void UnpackFull() {
    new_tree_ = shop_.UnpackPacked(release_.version, "new");
    release_.content = TreeDigest(new_tree_);
    report_.files = new_tree_.files.size();
  }

  bool FollowsTheNewest() const {
    return database_ != nullptr && release_.version - 1 == database_->releases.back().version;
  }

  void CompareWithNewest() {
    if (database_ == nullptr || (!FollowsTheNewest() && request_.allow_shrink)) {
      return;
    }
    try {
      UnpackNewest();
    } catch (const Damaged& damaged) {
      if (!request_.allow_shrink) {
        throw Error(damaged.what() + std::string("; --allow-shrink releases without a comparison "
                                                 "with it and without a delta from it"));
      }
      shop_.Note(damaged.what());
      is_newest_damaged_ = true;
      return;
    }
    report_.changes = ChangesOf(old_tree_, new_tree_);
  }

  void UnpackNewest() {
    if (old_failure_) {
      std::rethrow_exception(old_failure_);
    }
    if (!is_old_unpacked_) {
      old_tree_ = shop_.UnpackReleased(database_->releases.back(), "old");
    }
  }

  // All reasons at once, so that they are not met one by one.
  void Judge() {
    std::string refusal;
    const auto add = [&refusal](const std::string& reason) {
      refusal += (refusal.empty() ? "" : "; ") + reason;
    };
    if (FindShrunk()) {
      add("it has lost too much (--allow-shrink releases it all the same)");
    }
    if (AreWithdrawn()) {
      add("its files were withdrawn (--allow-withdrawn releases them all the same)");
    }
    if (!test_lines_.empty()) {
      report_.findings.insert(report_.findings.end(), test_lines_.begin(), test_lines_.end());
      add("its test was not passed");
    }
    if (!refusal.empty() && !request_.dry_run) {
      throw Refused("refused: " + refusal, report_.findings);
    }
    report_.refusal = refusal;
  }

  int MaxShrink() { return MaxShrinkOf(shop_.change().settings, request_.name); }

  bool FindShrunk() {
    shop_.Say("counting");
    Shrinkage shrinkage;
    try {
      shrinkage = FindShrinkage(old_tree_, new_tree_, MaxShrink());
    } catch (const package::Error& error) {
      if (!request_.allow_shrink || error.code() != package::Code::kRead) {
        throw;
      }
      shop_.Note(error.what());
    }
    for (const std::string& note : shrinkage.notes) {
      shop_.Note(note);
    }
    if (request_.allow_shrink) {
      for (const std::string& finding : shrinkage.findings) {
        shop_.Note(finding);
      }
      return false;
    }
    report_.findings = shrinkage.findings;
    return !shrinkage.findings.empty();
  }

  std::vector<WithdrawnFiles> Withdrawn() {
    if (database_ != nullptr) {
      return WithdrawnFilesOf(*database_);
    }
    const auto& removed = shop_.change().catalog.removed;
    const auto found = removed.find(request_.name);
    return found == removed.end() ? std::vector<WithdrawnFiles>() : found->second.forgotten;
  }

  std::optional<WithdrawnFiles> FindWithdrawn(const std::string& content) {
    for (const WithdrawnFiles& release : Withdrawn()) {
      if (release.content == content) {
        return release;
      }
    }
    return std::nullopt;
  }

  bool AreWithdrawn() {
    const std::optional<WithdrawnFiles> release = FindWithdrawn(release_.content);
    if (!release) {
      return false;
    }
    const std::string finding = "the files are those of version " +
                                std::to_string(release->version) + ", which was withdrawn on " +
                                TimeText(release->withdrawn);
    if (request_.allow_withdrawn) {
      shop_.Note(finding);
      return false;
    }
    report_.findings.push_back(finding);
    return true;
  }

  // The package was made before: what the test leaves is not published.
  std::string ChangeByTest(const Tree& before) const {
    try {
      const std::set<std::string> keys = TouchedKeys(before, ScanTree(shop_.Work("test")));
      return keys.empty() ? "" : *keys.begin();
    } catch (const package::Error& error) {
      return error.what();
    }
  }

  void MakeDeltaOrSayWhyNot() {
    try {
      if (database_ == nullptr) {
        throw NoDelta(NewestVersion() ? "it is the first release since the database was removed"
                                      : "it is the first release");
      }
      if (!FollowsTheNewest()) {
        throw NoDelta("there is a gap after version " +
                      std::to_string(database_->releases.back().version) +
                      ", and a device steps from one version to the next");
      }
      if (is_newest_damaged_) {
        throw NoDelta("the full package of version " +
                      std::to_string(database_->releases.back().version) + " is damaged");
      }
      MadeDelta made = shop_.MakeDelta(OrderThatFits());
      release_.delta = std::move(made.delta);
      report_.file_deltas = std::move(made.files);
      CheckDeltaSize();
    } catch (const NoDelta& none) {
      release_.delta.reset();
      release_.no_delta_reason = report_.no_delta_reason = none.what();
      report_.file_deltas.clear();
      if (database_ != nullptr) {
        shop_.Note("no delta leads to version " + std::to_string(release_.version) +
                   ", every device takes the full package: " + none.what());
      }
    }
  }

  // Of the offered chain the longest end that this delta can follow: what a device could not apply
  // together with it is withdrawn, and the step itself still offered. What is staged takes nothing
  // from devices with the stable version, or with one before it.
  DeltaOrder OrderThatFits() {
    const std::vector<const Release*> chain = ChainToNewest(*database_);
    DeltaOrder order;
    order.version = release_.version;
    order.before = &old_tree_;
    order.after = &new_tree_;
    order.directories_left_behind = database_->directories;
    for (const Release* release : chain) {
      order.chain.push_back(&*release->delta);
    }
    std::map<int, std::string> unfit;
    const std::size_t first = shop_.FirstFit(order, [&](std::size_t at, const std::string& why) {
      unfit.emplace(chain[at]->version, why);
    });
    KeepStable(unfit, first < chain.size() ? chain[first]->version : release_.version);
    order.chain.erase(order.chain.begin(),
                      order.chain.begin() + static_cast<std::ptrdiff_t>(first));
    return order;
  }

  // @p first leads to this version.
  void KeepStable(const std::map<int, std::string>& unfit, int first) {
    const int stable = IsStaged() ? StableRelease(*database_).version : -1;
    if (!unfit.empty() && unfit.begin()->first <= stable && first <= stable + 1) {
      throw NoDelta(
          "it cannot be applied in one update with the delta to " +
          std::to_string(unfit.rbegin()->first) +
          ", which devices with older versions need for the stable one: " + unfit.rbegin()->second);
    }
    for (const auto& [version, why] : unfit) {
      if (version > stable) {
        withdrawn_.emplace(version, why);
      }
    }
  }

  void CheckDeltaSize() {
    const std::uint64_t bytes = release_.delta->package.size_bytes;
    const int percent = shop_.change().settings.chain_share_percent;
    if (bytes > ShareOf(release_.full.size_bytes, percent)) {
      throw NoDelta("with " + std::to_string(bytes) + " bytes it exceeds " +
                    std::to_string(percent) + " % of the full package");
    }
  }

  void Record() {
    release_.released = shop_.now();
    Database& database = shop_.change().catalog.databases[request_.name];
    TakeOverRemoved(database);
    if (!release_.delta && !IsStaged()) {  // Others go on by deltas meanwhile.
      database.directories.clear();
    }
    for (const std::string& directory : DirectoriesOf(new_tree_)) {
      database.directories.insert(directory);
    }
    WithdrawUnfit(database);
    database.last_fetch_time = shop_.now();
    if (IsStaged()) {
      NoteWhatIsFollowed(database);
      NoteShortSteps();
      database.rollout = Rollout{StableRelease(database).version, PlanFrom(shop_.now())};
    }
    database.releases.push_back(release_);
    report_.rollout = RolloutOf(request_.name, database);
    const std::string withdrawn =
        TrimChain(database, shop_.change().settings.chain_share_percent, shop_.now());
    if (!withdrawn.empty()) {
      shop_.Note(withdrawn);
    }
    for (const Release* release : ChainToNewest(database)) {
      ++report_.offered_deltas;
      report_.offered_bytes += release->delta->package.size_bytes;
    }
    report_.loads = LoadsOf(database);
    if (release_.delta) {
      report_.delta_bytes = release_.delta->package.size_bytes;
    }
  }

  void NoteWhatIsFollowed(const Database& database) const {
    if (database.rollout) {
      const std::string before = std::to_string(database.releases.back().version);
      shop_.Note("this release takes the place of " + before +
                 ", which is staged still: devices that have " + before +
                 " are offered it at once, all others by its own steps");
    }
  }

  // Not an error: devices may have timers of their own.
  void NoteShortSteps() const {
    constexpr std::int64_t kDaySeconds = 24 * 60 * 60;
    std::int64_t shortest = kDaySeconds;
    for (const offer::RolloutStep& step : request_.stages) {
      shortest = step.seconds == 0 ? shortest : std::min(shortest, step.seconds);
    }
    if (shortest < kDaySeconds) {
      shop_.Note("a step of " + base::HumanDuration(shortest) +
                 " is shorter than a day: devices with the shipped timer ask once a day, so only "
                 "some of those that it reaches take this version before the next step begins");
    }
  }

  offer::RolloutPlan PlanFrom(std::int64_t start) const {
    offer::RolloutPlan plan;
    plan.start = start;
    plan.steps = request_.stages;
    return plan;
  }

  // It begins now, however long the release has taken.
  void StartRollout() {
    if (IsStaged()) {
      Database& database = shop_.change().catalog.databases.at(request_.name);
      database.rollout->plan.start = std::max<std::int64_t>(shop_.now(), std::time(nullptr));
      report_.rollout = RolloutOf(request_.name, database);
    }
  }

  // Its packages wait for their end as before.
  void TakeOverRemoved(Database& database) {
    auto& removed = shop_.change().catalog.removed;
    const auto found = removed.find(request_.name);
    if (found != removed.end()) {
      database.retired = std::move(found->second.retired);
      database.forgotten = std::move(found->second.forgotten);
      removed.erase(found);
    }
  }

  void WithdrawUnfit(Database& database) {
    for (Release& release : database.releases) {
      const auto found = withdrawn_.find(release.version);
      if (release_.delta && found != withdrawn_.end()) {
        release.delta->withdrawn = shop_.now();
        shop_.Note("the delta to " + std::to_string(release.version) +
                   " is not offered any more: " + found->second);
      }
    }
  }

  // Unless an interrupted command has left it, which a change would have removed before.
  void RequireUnpublished() {
    const RepositoryChange& change = shop_.change();
    if (UnfinishedCommand(change.paths()).empty()) {
      change.RequireUnpublished(release_.full.path);
      change.RequireUnpublished(shop_.PublicPath(Kind::kDelta, release_.version));
    }
  }

  void Put() {
    RepositoryChange& change = shop_.change();
    shop_.Say("publishing");
    StartRollout();
    change.Begin("release of " + request_.name + ' ' + std::to_string(release_.version));
    change.Publish(shop_.WorkPackage(Kind::kFull, release_.version), release_.full);
    if (release_.delta) {
      change.Publish(shop_.WorkPackage(Kind::kDelta, release_.version), release_.delta->package);
    }
    change.Commit();
  }

  const ReleaseRequest& request_;
  Workshop shop_;
  Database* database_;  // null before the first release
  Release release_;
  std::map<int, std::string> withdrawn_;  // versions whose deltas this one cannot follow, and why
  std::vector<std::string> test_lines_;   // why its test was not passed
  bool is_newest_damaged_ = false;        // its package
  std::atomic<bool> is_full_made_{false};
  bool is_old_unpacked_ = false;
  std::exception_ptr old_failure_;  // why the newest release could not be unpacked
  Tree old_tree_;
  Tree new_tree_;
  ReleaseReport report_;
};

}  // namespace

ReleaseReport MakeRelease(const ReleaseRequest& request, std::int64_t now, const Notes& notes,
                          const Steps& steps) {
  const std::string what = "release " + request.name + ": ";
  try {
    return Releaser(request, now, notes, steps).Run();
  } catch (const package::Error& error) {
    throw package::Error(error.code(), what + error.what(), error.errno_value());
  } catch (const Refused& refused) {
    throw Refused(what + refused.what(), refused.findings());
  } catch (const Error& error) {
    throw Error(what + error.what());
  }
}

std::vector<Load> LoadsOf(const Database& database) {
  return LoadsTo(database, database.releases.back().version);
}

std::vector<Load> LoadsTo(const Database& database, int version) {
  std::vector<Load> loads;
  const std::vector<const Release*> chain = ChainTo(database, version);
  Load load;
  for (auto release = chain.rbegin(); release != chain.rend(); ++release) {
    load.version = (*release)->version - 1;
    load.deltas += 1;
    load.bytes += (*release)->delta->package.size_bytes;
    load.withdrawn = false;
    for (const Release& start : database.releases) {
      load.withdrawn = load.withdrawn || (start.version == load.version && start.withdrawn != 0);
    }
    loads.push_back(load);
  }
  return loads;
}

}  // namespace tolm::publish
