#include "publish/withdraw.h"

#include <algorithm>
#include <climits>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "package/error.h"
#include "publish/list.h"

namespace tolm::publish {
namespace {

using package::Kind;

std::string Text(int version) {
  return std::to_string(version);
}

class Withdrawer {
 public:
  Withdrawer(const WithdrawRequest& request, std::int64_t now, const Notes& notes,
             const Steps& steps)
      : request_(request),
        shop_(request.repository, request.name,
              request.dry_run ? Purpose::kTrial : Purpose::kChange, request.jobs, now, notes,
              steps),
        database_(shop_.change().DatabaseNamed(request.name)) {}

  WithdrawReport Run() {
    Release& bad = Named();
    if (bad.version != Newest().version) {
      RequireNotStable(bad);
      RequireOtherFiles(bad);
      bad.withdrawn = shop_.now();
      const int stable = StableRelease(database_).version;
      report_.newest = bad.version < stable ? stable : Newest().version;
      Commit();
      return report_;
    }
    good_ = FindGood();
    bad.withdrawn = shop_.now();
    MakeFull();
    OfferEarlierDeltas();
    MakeSteps();
    Record();
    ProveChains();
    DropUnoffered();
    Report();
    Commit();
    return report_;
  }

 private:
  Release& Newest() { return database_.releases.back(); }
  std::size_t Last() const { return database_.releases.size() - 1; }

  Release& Named() {
    for (Release& release : database_.releases) {
      if (release.version != request_.version) {
        continue;
      }
      if (release.withdrawn != 0) {
        throw Error("version " + Text(release.version) + " was withdrawn already, on " +
                    TimeText(release.withdrawn));
      }
      return release;
    }
    throw Error(WhyUnknown());
  }

  std::string WhyUnknown() {
    const std::string version = "version " + Text(request_.version);
    const int oldest = database_.releases.front().version;
    if (request_.version < oldest) {
      return version + " is not kept here: it was retired, or never released; the oldest one is " +
             Text(oldest);
    }
    return version + " was never released; the newest one is " + Text(Newest().version);
  }

  // Most devices have it, and nothing else could be offered to them.
  void RequireNotStable(const Release& bad) {
    if (!database_.rollout || bad.version != database_.rollout->stable) {
      return;
    }
    const std::string of = ' ' + shop_.change().paths().Root() + ' ' + request_.name;
    const std::string stable = Text(bad.version);
    const std::string next = Text(Newest().version);
    throw Error(stable + " is the stable version while " + next + " is rolled out. If " + next +
                " is good, \"tolmdbpub rollout finish" + of + "\" makes it the stable one, and " +
                stable + " can be withdrawn then; otherwise withdraw " + next +
                " before, and then the version that takes its place");
  }

  // Devices would go on with the same files, and the mark would say otherwise.
  void RequireOtherFiles(const Release& bad) {
    if (bad.content == Newest().content) {
      throw Error("version " + Text(Newest().version) + ", the newest one, has the same files as " +
                  Text(bad.version) + "; withdraw that one");
    }
    if (const Release& stable = StableRelease(database_); bad.content == stable.content) {
      throw Error("version " + Text(stable.version) + ", the stable one, has the same files as " +
                  Text(bad.version) + "; withdraw that one when the rollout is over");
    }
  }

  // Its place among the releases.
  std::size_t FindGood() {
    std::set<std::string> bad = {Newest().content};
    for (const WithdrawnFiles& files : WithdrawnFilesOf(database_)) {
      bad.insert(files.content);
    }
    for (std::size_t at = Last(); at-- > 0;) {
      const Release& release = database_.releases[at];
      if (database_.rollout && release.version != database_.rollout->stable) {
        continue;
      }
      if (bad.count(release.content) == 0) {
        return at;
      }
    }
    if (database_.rollout) {
      const std::string of = ' ' + shop_.change().paths().Root() + ' ' + request_.name;
      throw Error("version " + Text(database_.rollout->stable) +
                  ", the stable one, has files that were withdrawn, or those of " +
                  Text(request_.version) + "; \"tolmdbpub rollout finish" + of +
                  (database_.rollout->plan.stopped ? " --yes" : "") +
                  "\" before takes the files of an earlier one");
    }
    throw Error("no good version before " + Text(request_.version) +
                " is kept, whose files could take its place; release good ones by \"release\", "
                "then withdraw " +
                Text(request_.version) + " to mark it");
  }

  void MakeFull() {
    const Release& good = database_.releases[good_];
    if (request_.version == INT_MAX) {
      throw Error("there is no version after " + Text(request_.version));
    }
    release_.version = request_.version + 1;
    release_.restores = good.version;
    shop_.RequireGoodLink(release_.version);
    good_tree_ = shop_.UnpackReleased(good, "good");
    release_.full = shop_.Pack(shop_.Work("good"), Kind::kFull, release_.version);
    new_tree_ = shop_.UnpackPacked(release_.version, "new");
    release_.content = TreeDigest(new_tree_);
    if (release_.content != good.content) {
      throw Error("the package of version " + Text(good.version) +
                  " does not have the files that were released");
    }
  }

  // Makes a delta an offered one, as far as it is concerned.
  void Offer(std::size_t at, DeltaRecord delta) {
    Release& release = database_.releases[at];
    before_.emplace(release.version, release.delta);
    delta.withdrawn = 0;
    release.delta = std::move(delta);
    chain_.push_back(at);
  }

  // That were offered while the good version was the newest one: what came after it has driven them
  // out, for their size or because nothing led on.
  void OfferEarlierDeltas() {
    const std::int64_t until = database_.releases[good_ + 1].released;
    std::size_t first = good_ + 1;
    for (; first > 0; --first) {
      const Release& release = database_.releases[first - 1];
      const bool leads_on = release.version ==
                            database_.releases[good_].version - static_cast<int>(good_ + 1 - first);
      if (!leads_on || !release.delta ||
          (release.delta->withdrawn != 0 && release.delta->withdrawn < until)) {
        break;
      }
    }
    for (std::size_t at = first; at <= good_; ++at) {
      Offer(at, *database_.releases[at].delta);
    }
  }

  // From the good version by all bad ones to the new one. Only the good one's package is
  // indispensable: what is damaged may be just what makes a version bad.
  void MakeSteps() {
    std::optional<Tree> before = good_tree_;
    for (std::size_t at = good_ + 1; at <= Last(); ++at) {
      const Release& release = database_.releases[at];
      std::optional<Tree> after = UnpackStep(release);
      if (before && after && release.version == database_.releases[at - 1].version + 1) {
        LeadBy(at, *before, *after);
      } else {
        chain_.clear();
      }
      before = std::move(after);
    }
    try {
      if (!before) {
        throw NoDelta("the full package of version " + Text(request_.version) + " is damaged");
      }
      MadeDelta made = shop_.MakeDelta(OrderOf(release_.version, *before, new_tree_));
      release_.delta = std::move(made.delta);
      report_.release.file_deltas = std::move(made.files);
    } catch (const NoDelta& none) {
      release_.no_delta_reason = report_.release.no_delta_reason = none.what();
    }
    if (before) {
      report_.release.changes = ChangesOf(*before, new_tree_);
    }
  }

  std::optional<Tree> UnpackStep(const Release& release) {
    try {
      return shop_.UnpackReleased(release, "step-" + Text(release.version));
    } catch (const Damaged& damaged) {
      shop_.Note(std::string(damaged.what()) + "; no delta leads there or on from there");
      return std::nullopt;
    }
  }

  void LeadBy(std::size_t at, const Tree& before, const Tree& after) {
    const Release& release = database_.releases[at];
    try {
      const DeltaOrder order = OrderOf(release.version, before, after);
      if (release.delta) {
        Offer(at, *release.delta);
        return;
      }
      Offer(at, shop_.MakeDelta(order).delta);
      made_.insert(release.version);
    } catch (const NoDelta& none) {
      shop_.Note("no delta leads to version " + Text(release.version) + ": " + none.what());
      chain_.clear();
    }
  }

  // Leaves out of the chain what the delta cannot follow.
  DeltaOrder OrderOf(int version, const Tree& before, const Tree& after) {
    DeltaOrder order;
    order.version = version;
    order.before = &before;
    order.after = &after;
    order.directories_left_behind = database_.directories;
    for (const std::string& directory : DirectoriesOf(good_tree_)) {
      order.directories_left_behind.insert(directory);
    }
    for (const std::size_t at : chain_) {
      order.chain.push_back(&*database_.releases[at].delta);
    }
    const auto first =
        static_cast<std::ptrdiff_t>(shop_.FirstFit(order, [](std::size_t, const std::string&) {}));
    chain_.erase(chain_.begin(), chain_.begin() + first);
    order.chain.erase(order.chain.begin(), order.chain.begin() + first);
    return order;
  }

  void Record() {
    for (std::size_t at = 0; at <= Last(); ++at) {
      if (std::find(chain_.begin(), chain_.end(), at) == chain_.end()) {
        TakeBack(at);
      }
    }
    release_.released = shop_.now();
    for (const std::string& directory : DirectoriesOf(new_tree_)) {
      database_.directories.insert(directory);
    }
    database_.last_fetch_time = shop_.now();
    if (database_.rollout) {
      report_.has_ended_rollout = true;
      EndRollout(database_, shop_.now());
    }
    database_.releases.push_back(release_);
    Trim();
  }

  void Trim() { TrimChain(database_, shop_.change().settings.chain_share_percent, shop_.now()); }

  // Offers it no longer: as it was before, when it was not offered then.
  void TakeBack(std::size_t at) {
    Release& release = database_.releases[at];
    const auto found = before_.find(release.version);
    const std::optional<DeltaRecord> before =
        found == before_.end() ? release.delta : found->second;
    const bool was_offered = before && before->withdrawn == 0;
    release.delta = before;
    if (was_offered) {
      release.delta->withdrawn = shop_.now();
      dropped_.insert(release.version);
    }
  }

  // From the oldest release that a chain leads on from, wherever a gap has put it, and from the
  // good one. What does not lead to the new files is not offered.
  void ProveChains() {
    const std::vector<const Release*> chain = OfferedChain(database_);
    if (chain.empty()) {
      return;
    }
    const int oldest = std::max(chain.front()->version - 1, database_.releases.front().version);
    const int good = *release_.restores;
    if (oldest != good && !IsProved(oldest)) {
      TakeBackUpTo(oldest < good ? good : request_.version);
    }
    if (oldest <= good && !IsProved(good)) {
      TakeBackUpTo(request_.version);
    }
  }

  bool IsProved(int version) {
    std::vector<ReplayPackage> packages;
    for (const Release* release : OfferedChain(database_)) {
      if (release->version > version) {
        packages.push_back({release->version, PathOf(*release)});
      }
    }
    const auto start =
        std::find_if(database_.releases.begin(), database_.releases.end(),
                     [version](const Release& release) { return release.version == version; });
    if (packages.empty() || start == database_.releases.end()) {
      return true;
    }
    const std::string problem = ReplayProblem(*start, packages);
    if (!problem.empty()) {
      shop_.Note("by deltas from " + Text(version) + ": " + problem + "; they are not offered");
    }
    return problem.empty();
  }

  std::string ReplayProblem(const Release& start, const std::vector<ReplayPackage>& packages) {
    try {
      const Tree before =
          start.version == *release_.restores ? good_tree_ : shop_.UnpackReleased(start, "start");
      return shop_.ReplayProblem(before, start.version, packages, new_tree_);
    } catch (const Damaged& damaged) {
      return damaged.what();
    }
  }

  std::string PathOf(const Release& release) const {
    return release.version == release_.version || made_.count(release.version) != 0
               ? shop_.WorkPackage(Kind::kDelta, release.version)
               : shop_.change().paths().InPublic(release.delta->package.path);
  }

  void TakeBackUpTo(int version) {
    for (std::size_t at = 0; at <= Last(); ++at) {
      if (database_.releases[at].version <= version) {
        TakeBack(at);
      }
    }
  }

  // What the limit has left out is as it was before.
  void DropUnoffered() {
    for (std::size_t at = 0; at < Last(); ++at) {
      const Release& release = database_.releases[at];
      if (before_.count(release.version) != 0 && release.delta && release.delta->withdrawn != 0) {
        TakeBack(at);
      }
    }
    Release& newest = Newest();
    if (newest.delta && newest.delta->withdrawn != 0) {
      newest.no_delta_reason = shop_.change().settings.chain_share_percent == 0
                                   ? "no deltas are wanted (the chain share is 0 %)"
                                   : "with " + std::to_string(newest.delta->package.size_bytes) +
                                         " bytes it is not smaller than the full package";
      newest.delta.reset();
      report_.release.no_delta_reason = newest.no_delta_reason;
      report_.release.file_deltas.clear();
    }
    if (!newest.delta) {
      database_.directories = DirectoriesOf(new_tree_);
      shop_.Note("no delta leads to version " + Text(newest.version) +
                 ", every device takes the full package: " + newest.no_delta_reason);
    } else if (!dropped_.empty()) {
      shop_.Note("deltas to " + Text(*dropped_.rbegin()) + " and older are not offered any more");
    }
  }

  void Report() {
    ReleaseReport& release = report_.release;
    report_.newest = release.version = release_.version;
    report_.restored = release_.restores;
    release.files = new_tree_.files.size();
    release.full_bytes = release_.full.size_bytes;
    if (Newest().delta) {
      release.delta_bytes = Newest().delta->package.size_bytes;
    }
    for (const Release* offered : OfferedChain(database_)) {
      ++release.offered_deltas;
      release.offered_bytes += offered->delta->package.size_bytes;
    }
    release.loads = LoadsOf(database_);
  }

  void Commit() {
    RepositoryChange& change = shop_.change();
    if (request_.dry_run) {
      return;
    }
    shop_.Say("publishing");
    change.Begin("withdrawal of " + request_.name + ' ' + Text(request_.version));
    for (const Release& release : database_.releases) {
      const bool is_new = release_.restores && release.version == release_.version;
      if (is_new) {
        change.Publish(shop_.WorkPackage(Kind::kFull, release.version), release.full);
      }
      if (release.delta && (is_new || made_.count(release.version) != 0)) {
        change.Publish(shop_.WorkPackage(Kind::kDelta, release.version), release.delta->package);
      }
    }
    change.Commit();
  }

  const WithdrawRequest& request_;
  Workshop shop_;
  Database& database_;
  std::size_t good_ = 0;            // place of the good version
  std::vector<std::size_t> chain_;  // places of releases whose deltas lead on, the oldest first
  std::map<int, std::optional<DeltaRecord>> before_;  // of those whose delta is offered anew
  std::set<int> made_;                                // versions whose delta was made now
  std::set<int> dropped_;                             // whose delta was offered until now
  Release release_;
  Tree good_tree_;
  Tree new_tree_;
  WithdrawReport report_;
};

}  // namespace

WithdrawReport WithdrawRelease(const WithdrawRequest& request, std::int64_t now, const Notes& notes,
                               const Steps& steps) {
  const std::string what = "withdraw " + request.name + ": ";
  try {
    return Withdrawer(request, now, notes, steps).Run();
  } catch (const package::Error& error) {
    throw package::Error(error.code(), what + error.what(), error.errno_value());
  } catch (const Error& error) {
    throw Error(what + error.what());
  }
}

}  // namespace tolm::publish
