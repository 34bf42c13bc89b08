#include "publish/check_chain.h"

#include <climits>
#include <filesystem>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>

#include "base/parallel.h"
#include "package/error.h"
#include "publish/chain_rules.h"
#include "publish/files.h"
#include "publish/replay.h"
#include "publish/unpack.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

// What the deltas so far have made of a device.
struct Carried {
  int version = 0;
  int origin = 0;        // the version that it had installed in full
  int compared = 0;      // the last one of which it is known to have the release
  std::string digest;    // of its files
  bool exact = false;    // whether they have the bytes of the release
  bool is_made = false;  // or only known, from what was proved before
  Tree tree;             // when it is made
};

struct Outcome {
  std::string problem;  // empty: it gave the release
  std::set<std::string> touched;
  Tree tree;
};

constexpr char kNotReleased[] = "not the package that was released";

bool IsAsReleased(const ChainPackage& package) {
  return MeasureFile(package.path).sha384 == package.sha384;
}

// Nothing is known of a package when this is the reason why it was not unpacked.
bool IsOfThisMachine(package::Code code) {
  return code == package::Code::kInternal || code == package::Code::kKeyring ||
         code == package::Code::kNoSpace || code == package::Code::kWrite;
}

std::string RangeText(int from, int to) {
  const std::string range = "from " + std::to_string(from) + " to " + std::to_string(to) + ": ";
  return (to - from == 1 ? "by the delta " : "by deltas ") + range;
}

std::string DifferenceText(const std::vector<std::string>& keys) {
  if (keys.empty()) {
    return "";
  }
  const std::size_t others = keys.size() - 1;
  return "differs at " + keys.front() +
         (others == 0 ? "" : " and " + std::to_string(others) + " others");
}

// Whether one of these files has other bytes in the one tree than in the other.
bool DifferAt(const std::set<std::string>& keys, const Tree& one, const Tree& other) {
  for (const std::string& key : keys) {
    const auto found = one.files.find(key);
    const auto other_found = other.files.find(key);
    const bool is_there = found != one.files.end();
    if (is_there != (other_found != other.files.end()) ||
        (is_there && found->second.sha384 != other_found->second.sha384)) {
      return true;
    }
  }
  return false;
}

// @p base with the files of @p over in the place of its own.
Tree Overlaid(const Tree& base, const Tree& over) {
  Tree tree = base;
  for (const auto& [key, file] : over.files) {
    tree.files[key] = file;
  }
  return tree;
}

class ChainProver {
 public:
  ChainProver(const ChainOrder& order, ProvedChain& proved)
      : order_(order),
        before_(proved),
        proved_(proved),
        device_(order.name, Work("device"), order.trust, order.now),
        other_(order.name, Work("other"), order.trust, order.now) {}

  ChainReport Run() {
    ForgetOlder();
    for (const ChainDelta& delta : order_.deltas) {
      order_.progress();
      Step(delta);
    }
    ProveTogether();
    KeepCarried();
    report_.remembered = static_cast<std::uint64_t>(
        std::distance(remembered_.lower_bound(order_.since), remembered_.end()));
    return std::move(report_);
  }

 private:
  // What led to the oldest version stays: it says what the first delta was applied to.
  void ForgetOlder() {
    const int first = order_.deltas.empty() ? INT_MAX : order_.deltas.front().version - 1;
    proved_.steps.erase(proved_.steps.begin(), proved_.steps.lower_bound(first));
    proved_.together.clear();
  }

  void Step(const ChainDelta& delta) {
    touched_[delta.version] = delta.keys;
    if (carried_ && carried_->version != delta.version - 1) {
      carried_.reset();  // No delta leads on from there.
    }
    if (delta.package.path.empty()) {
      proved_.steps.erase(delta.version);
      Fail(delta.version - 1, delta.version,
           "the delta to " + std::to_string(delta.version) + " cannot be used");
    } else if (!TakeRemembered(delta)) {
      const bool is_wanted = delta.version >= order_.since;
      if (is_wanted && Make(delta.version - 1)) {
        proved_.steps.erase(delta.version);
        Prove(delta);
      } else {
        report_.without_start += is_wanted ? 1 : 0;
        carried_.reset();
      }
    }
  }

  void Fail(int from, int to, const std::string& problem) {
    report_.wrong.push_back(RangeText(from, to) + problem);
    carried_.reset();
    unproved_ = to;
  }

  // Null when its full package is not there, or was found to be of no use.
  const ChainRelease* FindRelease(int version) const {
    const auto found = order_.releases.find(version);
    return found == order_.releases.end() || bad_.count(version) != 0 ? nullptr : &found->second;
  }

  std::string DigestOfRelease(int version) const {
    const ChainRelease* release = FindRelease(version);
    return release == nullptr ? "" : release->full.sha384;
  }

  bool TakeRemembered(const ChainDelta& delta) {
    const auto found = before_.steps.find(delta.version);
    if (found == before_.steps.end()) {
      return false;
    }
    const ProvedStep& step = found->second;
    const std::string after = DigestOfRelease(delta.version);
    if (step.delta != delta.package.sha384 || step.after != after || after.empty() ||
        step.before != DigestOfRelease(delta.version - 1) || !IsStart(step.start, delta.version)) {
      return false;
    }
    remembered_.insert(delta.version);
    const int origin = carried_ ? carried_->origin : delta.version - 1;
    if (!carried_) {
      last_exact_ = origin;
    }
    carried_ = Carried{delta.version, origin, delta.version, step.result, step.exact, false, {}};
    last_exact_ = step.exact ? delta.version : last_exact_;
    return true;
  }

  // Whether the delta to the version is applied to this tree: what is carried, else the release, or
  // what a delta gave that is not offered any more, or not looked at now.
  bool IsStart(const std::string& digest, int version) const {
    if (carried_) {
      return carried_->digest == digest;
    }
    const ChainRelease* release = FindRelease(version - 1);
    if (release == nullptr) {
      return false;
    }
    const auto step = before_.steps.find(version - 1);
    return release->content == digest ||
           (step != before_.steps.end() && step->second.result == digest &&
            step->second.after == release->full.sha384);
  }

  // Has the device what the deltas before have given, or else the release.
  bool Make(int version) {
    if (carried_ && carried_->is_made) {
      return true;
    }
    if (carried_ && !carried_->exact && (MakeFromKept() || MakeAnew())) {
      return true;
    }
    const Tree* release = Release(version);
    if (release == nullptr) {
      return false;
    }
    const int origin = carried_ ? carried_->origin : version;
    InstallCarried(*release, version);
    carried_ = Carried{version, origin, version, TreeDigest(*release), true, true, *release};
    return true;
  }

  bool MakeFromKept() {
    const Tree* release = Release(carried_->version);
    std::error_code ignored;
    if (release == nullptr || !fs::is_directory(order_.carried_directory, ignored)) {
      return false;
    }
    try {
      const Tree tree = Overlaid(*release, ScanTree(order_.carried_directory));
      if (TreeDigest(tree) != carried_->digest) {
        return false;
      }
      InstallCarried(tree, carried_->version);
      carried_->tree = tree;
      carried_->is_made = true;
    } catch (const package::Error&) {
      return false;  // There is another way.
    }
    return true;
  }

  // By the deltas that were proved before, from where the bytes were last those of a release. What
  // they were applied to then may have been another tree with the same content.
  bool MakeAnew() {
    const int version = carried_->version;
    const int origin = last_exact_;
    const Tree* release = Release(origin);
    if (release == nullptr) {
      return false;
    }
    InstallCarried(*release, origin);
    for (const ChainDelta& delta : order_.deltas) {
      if (delta.version <= origin || delta.version > version) {
        continue;
      }
      if (delta.version < order_.since && !IsAsReleased(delta.package)) {
        Fail(delta.version - 1, delta.version, kNotReleased);  // What is remembered is of another.
        return false;
      }
      Outcome outcome;
      Apply(device_, delta, outcome);
      if (!outcome.problem.empty()) {
        Fail(origin, delta.version, outcome.problem);
        proved_.steps.erase(delta.version);
        return false;
      }
      carried_->tree = std::move(outcome.tree);
    }
    if (TreeDigest(carried_->tree) != carried_->digest) {
      return ProveAnew(origin, version);
    }
    carried_->is_made = true;
    return true;
  }

  // In place of what is remembered of these deltas.
  bool ProveAnew(int origin, int version) {
    carried_.reset();
    for (const ChainDelta& delta : order_.deltas) {
      if (delta.version > origin && delta.version <= version) {
        remembered_.erase(delta.version);
        proved_.steps.erase(delta.version);
        if (Make(delta.version - 1)) {
          Prove(delta);
        }
      }
    }
    return carried_.has_value();
  }

  void Prove(const ChainDelta& delta) {
    const Carried start = std::move(*carried_);
    const Tree* before = start.exact ? nullptr : Release(delta.version - 1);
    bool starts_differ = before != nullptr && DifferAt(delta.keys, start.tree, *before);
    const Tree* after = nullptr;
    Outcome outcome;
    Outcome from_release;
    const auto apply_to_release = [&] {
      InstallOther(*before, delta.version - 1);
      Apply(other_, delta, from_release);
    };
    base::ForEach(starts_differ ? 3 : 2, order_.jobs, [&](std::size_t task) {
      if (task == 0) {
        Apply(device_, delta, outcome);
      } else if (task == 1) {
        after = Release(delta.version);
      } else {
        apply_to_release();
      }
    });
    // It names other files than were recorded, or none because it has failed.
    if (!starts_differ && before != nullptr && DiffersForIt(outcome, start.tree, *before)) {
      starts_differ = true;
      apply_to_release();
    }
    base::ForEach(starts_differ ? 2 : 1, order_.jobs,
                  [&](std::size_t task) { Compare(task == 0 ? outcome : from_release, after); });
    ++report_.replayed;
    if (!from_release.problem.empty()) {
      Fail(delta.version - 1, delta.version, from_release.problem);
    } else if (!outcome.problem.empty()) {
      Fail(starts_differ ? start.origin : start.compared, delta.version, outcome.problem);
    } else {
      Succeed(delta, start, std::move(outcome), after);
    }
  }

  // Files by the delta, when it has told them: otherwise any.
  static bool DiffersForIt(const Outcome& outcome, const Tree& start, const Tree& before) {
    return outcome.problem.empty() ? DifferAt(outcome.touched, start, before)
                                   : TreeDigest(start) != TreeDigest(before);
  }

  void Succeed(const ChainDelta& delta, const Carried& start, Outcome outcome, const Tree* after) {
    Carried now;
    now.version = delta.version;
    now.origin = start.origin;
    now.compared = after != nullptr ? delta.version : start.compared;
    now.digest = TreeDigest(outcome.tree);
    now.is_made = true;
    now.tree = std::move(outcome.tree);
    now.exact = after != nullptr && now.digest == TreeDigest(*after);
    last_exact_ = now.exact ? delta.version : start.exact ? start.version : last_exact_;
    touched_[delta.version] = outcome.touched;
    // What was recorded is all that is known of its files when it is not applied.
    if (after != nullptr && outcome.touched == delta.keys) {
      proved_.steps[delta.version] = {delta.package.sha384,
                                      DigestOfRelease(delta.version - 1),
                                      DigestOfRelease(delta.version),
                                      start.digest,
                                      now.digest,
                                      now.exact};
    }
    carried_ = std::move(now);
  }

  void InstallCarried(const Tree& tree, int version) {
    RemoveTree(Work("device"));
    device_.Install(tree, version);
  }

  void InstallOther(const Tree& tree, int version) {
    RemoveTree(Work("other"));
    other_.Install(tree, version);
  }

  static void Apply(ReplayedDevice& device, const ChainDelta& delta, Outcome& outcome) {
    try {
      outcome.touched = device.Update({{delta.version, delta.package.path}});
      outcome.tree = ScanTree(device.Installed());
    } catch (const ReplayError& error) {
      outcome.problem = error.what();
    } catch (const package::Error& error) {
      if (error.code() != package::Code::kMemberType &&
          error.code() != package::Code::kMemberPath) {
        throw;
      }
      outcome.problem = error.what();
    }
  }

  // Without the release there is nothing to compare with.
  static void Compare(Outcome& outcome, const Tree* after) {
    if (outcome.problem.empty() && after != nullptr) {
      outcome.problem = DifferenceText(CompareTrees(outcome.tree, *after));
    }
  }

  // Unpacked; the last two are kept. Null when it is not there, or of no use, which is told once.
  const Tree* Release(int version) {
    const auto found = unpacked_.find(version);
    if (found != unpacked_.end()) {
      return &found->second;
    }
    const ChainRelease* release = FindRelease(version);
    if (release == nullptr) {
      return nullptr;
    }
    while (!unpacked_.empty() && unpacked_.begin()->first < version - 1) {
      RemoveTree(UnpackedDirectory(unpacked_.begin()->first));
      unpacked_.erase(unpacked_.begin());
    }
    const package::Trust trust = package::Trust::FromTexts(order_.trust);
    try {
      // It has not been read when the first delta that is proved begins later.
      if (version < order_.since - 1LL && !IsAsReleased(release->full)) {
        throw package::Error(package::Code::kChanged, kNotReleased);
      }
      return &(unpacked_[version] = UnpackRelease(release->full.path, trust, order_.now,
                                                  UnpackedDirectory(version)));
    } catch (const package::Error& error) {
      if (IsOfThisMachine(error.code())) {
        throw;
      }
      report_.wrong.push_back("the full package of version " + std::to_string(version) + ": " +
                              error.what());
      bad_.insert(version);
      return nullptr;
    }
  }

  std::string UnpackedDirectory(int version) const { return Work("v" + std::to_string(version)); }

  // Deltas that lead on from each other, by the version that they lead to in one update.
  using Way = std::map<int, const ChainDelta*>;

  // To the stable version, and to the newest one.
  std::vector<Way> Ways() const {
    std::vector<Way> ways;
    Way way;
    for (const ChainDelta& delta : order_.deltas) {
      if (!way.empty() && way.rbegin()->first != delta.version - 1) {
        way.clear();
      }
      way[delta.version] = &delta;
      if (order_.stable == delta.version && &delta != &order_.deltas.back()) {
        ways.push_back(way);
      }
    }
    if (!way.empty()) {
      ways.push_back(way);
    }
    return ways;
  }

  // Every version from which one update may end otherwise than one after the other.
  void ProveTogether() {
    std::map<int, std::vector<Way>> starts;
    for (const Way& way : Ways()) {
      std::map<int, std::set<std::string>> touched;
      for (const auto& [version, delta] : way) {
        touched[version] = touched_[version];
      }
      const std::optional<int> last = LastStartWithConflict(touched);
      for (const auto& [version, release] : order_.releases) {
        const bool is_one_step = version >= way.rbegin()->first - 1;
        const bool is_told = unproved_ && version < *unproved_;
        if (last && version <= *last && version >= way.begin()->first - 1 && !is_one_step &&
            !is_told && version >= order_.since - 1LL) {
          starts[version].push_back(way);
        }
      }
    }
    for (const auto& [version, ways] : starts) {
      ProveTogetherFrom(version, ways);
    }
  }

  // What is remembered is of all of them.
  void ProveTogetherFrom(int version, const std::vector<Way>& ways) {
    std::string digests = DigestOfRelease(version);
    for (const Way& way : ways) {
      for (const ReplayPackage& package : PackagesFrom(version, way)) {
        digests += ' ' + way.at(package.version)->package.sha384;
      }
      digests += ' ' + DigestOfRelease(way.rbegin()->first);
    }
    const std::string whole = Sha384OfText(digests);
    const auto found = before_.together.find(version);
    if (found == before_.together.end() || found->second != whole) {
      for (const Way& way : ways) {
        if (!IsProvedTogether(version, way)) {
          return;
        }
      }
    }
    proved_.together[version] = whole;
  }

  static std::vector<ReplayPackage> PackagesFrom(int version, const Way& way) {
    std::vector<ReplayPackage> packages;
    for (auto delta = way.upper_bound(version); delta != way.end(); ++delta) {
      packages.push_back({delta->first, delta->second->package.path});
    }
    return packages;
  }

  bool IsProvedTogether(int version, const Way& way) {
    const int end = way.rbegin()->first;
    if (Release(end) == nullptr || Release(version) == nullptr) {
      return false;
    }
    const std::string problem = ProblemTogether(version, end, PackagesFrom(version, way));
    ++report_.together;
    if (!problem.empty()) {
      report_.wrong.push_back(RangeText(version, end) + "in one update: " + problem);
    }
    return problem.empty();
  }

  std::string ProblemTogether(int version, int newest, const std::vector<ReplayPackage>& packages) {
    const Tree* after = Release(newest);
    const Tree* before = Release(version);
    InstallOther(*before, version);
    try {
      other_.Update(packages);
    } catch (const ReplayError& error) {
      return error.what();
    }
    return DifferenceText(CompareTrees(other_.Installed(), *after));
  }

  // What the next delta will be applied to.
  void KeepCarried() {
    if (!carried_ || !carried_->is_made) {
      return;
    }
    try {
      RemoveTree(order_.carried_directory);
      const Tree* release = carried_->exact ? nullptr : Release(carried_->version);
      if (release == nullptr) {
        return;
      }
      Tree kept;
      for (const auto& [key, file] : carried_->tree.files) {
        if (file.sha384 != release->files.at(key).sha384) {
          kept.files[key] = file;
        }
      }
      LinkTree(kept, Work("kept"));
      MakeDirectories(fs::path(order_.carried_directory).parent_path().string());
      fs::rename(Work("kept"), order_.carried_directory);
    } catch (const package::Error& error) {
      report_.remarks.push_back(std::string("what its deltas gave is not kept: ") + error.what());
    } catch (const fs::filesystem_error& error) {
      report_.remarks.push_back(std::string("what its deltas gave is not kept: ") + error.what());
    }
  }

  std::string Work(const std::string& name) const { return order_.work_directory + '/' + name; }

  const ChainOrder& order_;
  const ProvedChain before_;
  ProvedChain& proved_;
  ReplayedDevice device_;  // with what is carried
  ReplayedDevice other_;   // with a release each time
  std::optional<Carried> carried_;
  int last_exact_ = 0;           // the version from which what is carried can be made anew
  std::optional<int> unproved_;  // the last version that is told to be wrong
  std::map<int, std::set<std::string>> touched_;
  std::map<int, Tree> unpacked_;  // by version
  std::set<int> remembered_;      // deltas whose results are taken as they were
  std::set<int> bad_;             // releases whose full packages were found to be of no use
  ChainReport report_;
};

}  // namespace

ChainReport ProveChain(const ChainOrder& order, ProvedChain& proved) {
  return ChainProver(order, proved).Run();
}

}  // namespace tolm::publish
