#include "publish/release.h"

#include <climits>
#include <filesystem>
#include <utility>

#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/chain_rules.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/replay.h"
#include "publish/unpack.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Kind;

// A file whose patch was found wrong goes whole, which cannot be wrong again. One attempt finds one
// patch that cannot be applied; after so many of them it is better to have a delta soon.
constexpr int kMaxReplays = 6;

/// A delta that could not be made; the release goes without.
struct NoDelta {
  std::string reason;
};

int ChooseVersion(const ReleaseRequest& request, const Database* database) {
  if (database == nullptr) {
    return request.version.value_or(kFirstVersion);
  }
  const int newest = database->releases.back().version;
  if (request.version && *request.version <= newest) {
    throw Error("version " + std::to_string(*request.version) + " does not follow " +
                std::to_string(newest) + ", the newest one; what was released stays as it is");
  }
  if (!request.version && newest == INT_MAX) {
    throw Error("there is no version after " + std::to_string(newest));
  }
  return request.version.value_or(newest + 1);
}

class Releaser {
 public:
  Releaser(const ReleaseRequest& request, std::time_t now, const Notes& notes, const Steps& steps)
      : request_(request),
        now_(now),
        notes_(notes),
        steps_(steps),
        change_(request.repository, notes),
        signer_(LoadTrustedSigner(change_.settings, now)),
        trust_(LoadRoot(change_.settings)) {
    const auto found = change_.catalog.databases.find(request.name);
    database_ = found == change_.catalog.databases.end() ? nullptr : &found->second;
  }

  ReleaseReport Run() {
    for (const std::string& warning : CertificateWarnings(request_.repository, now_)) {
      notes_(warning);
    }
    steps_({"reading files", 0, 0});
    const Tree source = ScanTree(request_.directory, ScanOptions{request_.follow_links});
    if (source.files.empty()) {
      throw Error(request_.directory + ": no files in it");
    }
    for (const std::string& warning : source.warnings) {
      notes_(warning);
    }
    if (IsReleased(TreeDigest(source))) {
      report_.unchanged = true;
      report_.version = database_->releases.back().version;
      return report_;
    }
    release_.version = report_.version = ChooseVersion(request_, database_);
    CheckLink();
    MakeFull(source);
    MakeDeltaOrSayWhyNot();
    Record();
    Put();
    return report_;
  }

 private:
  // An older release with this content does not count: going back to it is a release of its own.
  bool IsReleased(const std::string& content) const {
    return database_ != nullptr && database_->releases.back().content == content &&
           request_.version.value_or(database_->releases.back().version) ==
               database_->releases.back().version;
  }

  std::string Work(const std::string& name) const { return change_.paths().Work() + '/' + name; }
  // The file name matters: a package is valid under its own only.
  std::string WorkPackage(Kind kind) const {
    return Work(fs::path(PublicPath(kind)).filename().string());
  }
  std::string PublicPath(Kind kind) const {
    return PackagePath(change_.catalog.part, request_.name, kind, release_.version);
  }

  void CheckLink() const {
    const std::string link = PackageLink(change_.settings.base_url, PublicPath(Kind::kFull));
    if (const std::string problem = LinkProblem(link, release_.version); !problem.empty()) {
      throw Error("version " + std::to_string(release_.version) +
                  " cannot be released: " + problem);
    }
  }

  PackageRecord Pack(const std::string& directory, Kind kind) {
    const std::string package = WorkPackage(kind);
    package::WritePackage(directory, package, {request_.name, kind, release_.version}, signer_,
                          now_, [this](std::uint64_t bytes) {
                            steps_({"packing", bytes, 0});
                          });
    const FileFacts facts = MeasureFile(package);
    return {PublicPath(kind), facts.size_bytes, facts.sha384};
  }

  // What is packed is what is unpacked again and used from there on, so it does not matter when the
  // directory changes meanwhile.
  void MakeFull(const Tree& source) {
    if (request_.follow_links) {
      CopyTree(source, Work("source"));
    }
    release_.full = Pack(request_.follow_links ? Work("source") : request_.directory, Kind::kFull);
    report_.full_bytes = release_.full.size_bytes;
    steps_({"unpacking", 0, 0});
    new_tree_ = UnpackRelease(WorkPackage(Kind::kFull), trust_, now_, Work("new"));
    release_.content = TreeDigest(new_tree_);
    report_.files = new_tree_.files.size();
  }

  void MakeDeltaOrSayWhyNot() {
    try {
      if (database_ == nullptr) {
        throw NoDelta{"it is the first release"};
      }
      const int newest = database_->releases.back().version;
      if (release_.version - 1 != newest) {
        throw NoDelta{"there is a gap after version " + std::to_string(newest) +
                      ", and a device steps from one version to the next"};
      }
      UnpackPrevious();
      ProveDelta();
      CheckDeltaSize();
    } catch (const NoDelta& none) {
      release_.delta.reset();
      release_.no_delta_reason = report_.no_delta_reason = none.reason;
      report_.file_deltas.clear();
      if (database_ != nullptr) {
        notes_("no delta leads to version " + std::to_string(release_.version) +
               ", every device takes the full package: " + none.reason);
      }
    }
  }

  void UnpackPrevious() {
    const PackageRecord& full = database_->releases.back().full;
    steps_({"unpacking", 0, 0});
    const std::string path = change_.paths().InPublic(full.path);
    const FileFacts facts = MeasureFile(path);
    if (facts.sha384 != full.sha384) {
      throw Error(path + ": is not the package that was released");
    }
    old_tree_ = UnpackRelease(path, trust_, now_, Work("old"));
  }

  void ProveDelta() {
    std::set<std::string> whole;
    for (int round = 1; round <= kMaxReplays; ++round) {
      const std::set<std::string> wrong = TryDelta(whole, round + 1 >= kMaxReplays);
      if (wrong.empty()) {
        return;
      }
      const std::size_t before = whole.size();
      whole.insert(wrong.begin(), wrong.end());
      if (whole.size() == before) {
        break;
      }
    }
    throw NotProved();
  }

  static NoDelta NotProved() { return {"applied as devices do, it did not give the new version"}; }

  // Makes and packs a delta and applies it; returns the keys whose patches are found wrong, and
  // when it is the last attempt but one, those of all others, too.
  std::set<std::string> TryDelta(const std::set<std::string>& whole, bool nearly_last) {
    report_.file_deltas = BuildDelta(whole);
    steps_({"packing", 0, 0});
    DeltaRecord delta;
    delta.package = Pack(Work("delta"), Kind::kDelta);
    for (const FileDelta& file : report_.file_deltas) {
      delta.keys.insert(file.key);
    }
    release_.delta = std::move(delta);
    steps_({"replaying", 0, 0});
    std::set<std::string> wrong = Replay();
    if (!wrong.empty() && nearly_last) {
      notes_("after " + std::to_string(kMaxReplays - 1) +
             " attempts all patches that are left go whole");
      wrong.merge(KeysOfPatches());
    }
    return wrong;
  }

  std::set<std::string> Replay() const {
    RemoveTree(Work("replay"));
    ReplayRequest replay;
    replay.name = request_.name;
    replay.old_tree = old_tree_;
    replay.installed_version = release_.version - 1;
    replay.packages = {{release_.version, WorkPackage(Kind::kDelta)}};
    replay.work_directory = Work("replay");
    replay.trust = &trust_;
    replay.now = now_;
    try {
      const std::vector<std::string> wrong = CompareTrees(ReplayChain(replay), new_tree_);
      for (const std::string& key : wrong) {
        notes_("the " + KindOf(key) + "patch for " + key +
               " did not give the new file when it was applied as devices do; it goes whole");
      }
      return {wrong.begin(), wrong.end()};
    } catch (const ReplayError& error) {
      return KeysToBlame(error);
    }
  }

  std::set<std::string> KeysToBlame(const ReplayError& error) const {
    const std::set<std::string> patches = KeysOfPatches();
    if (patches.count(error.key()) != 0) {
      notes_("the " + KindOf(error.key()) + "patch for " + error.key() +
             " could not be applied as devices do: " + error.what() + "; it goes whole");
      return {error.key()};
    }
    notes_(std::string("the delta could not be applied as devices do: ") + error.what());
    // Without patches there is nothing that could go whole instead.
    if (patches.empty()) {
      throw NotProved();
    }
    notes_("which patch is the cause is not known; all go whole");
    return patches;
  }

  // "vcdiff " or "sql "; nothing for what is no patch.
  std::string KindOf(const std::string& key) const {
    for (const FileDelta& file : report_.file_deltas) {
      if (file.key == key && IsPatch(file)) {
        return std::string(FileDeltaKindText(file.kind)) + ' ';
      }
    }
    return "";
  }

  static bool IsPatch(const FileDelta& file) {
    return file.kind == FileDeltaKind::kVcdiff || file.kind == FileDeltaKind::kSql;
  }

  std::set<std::string> KeysOfPatches() const {
    std::set<std::string> keys;
    for (const FileDelta& file : report_.file_deltas) {
      if (IsPatch(file)) {
        keys.insert(file.key);
      }
    }
    return keys;
  }

  std::vector<FileDelta> BuildDelta(const std::set<std::string>& whole) {
    DeltaRequest request;
    request.old_tree = old_tree_;
    request.new_tree = new_tree_;
    request.target_directory = Work("delta");
    request.keys_to_send_whole = whole;
    request.directories_left_behind = database_->directories;
    LeaveChainsOut(request);
    RemoveTree(request.target_directory);
    DeltaOptions options;
    options.oldest_sqlite_version = ParseSqliteVersion(change_.settings.oldest_sqlite);
    try {
      return MakeDelta(request, options,
                       [this](const std::string&, std::size_t done, std::size_t total) {
                         steps_({"delta", done, total});
                       });
    } catch (const NotInChain& error) {
      throw NoDelta{error.what()};
    }
  }

  // Of the offered chain the longest end that this delta can follow: what a device could not apply
  // together with it is withdrawn, and the step itself still offered.
  void LeaveChainsOut(DeltaRequest& request) {
    const std::vector<const Release*> chain = OfferedChain(*database_);
    for (auto first = chain.begin();; ++first) {
      request.keys_touched_earlier.clear();
      for (auto release = first; release != chain.end(); ++release) {
        const std::set<std::string>& keys = (*release)->delta->keys;
        request.keys_touched_earlier.insert(keys.begin(), keys.end());
      }
      try {
        RequireFitForChain(request);
        return;
      } catch (const NotInChain& error) {
        if (first == chain.end()) {
          throw NoDelta{error.what()};
        }
        withdrawn_.emplace((*first)->version, error.what());
      }
    }
  }

  void CheckDeltaSize() const {
    const std::uint64_t bytes = release_.delta->package.size_bytes;
    if (bytes > INT_MAX) {
      throw NoDelta{"its " + std::to_string(bytes) + " bytes are more than devices can count"};
    }
    const int percent = change_.settings.chain_share_percent;
    if (bytes > ShareOf(release_.full.size_bytes, percent)) {
      throw NoDelta{"with " + std::to_string(bytes) + " bytes it exceeds " +
                    std::to_string(percent) + " % of the full package"};
    }
  }

  void Record() {
    release_.released = now_;
    Database& database = change_.catalog.databases[request_.name];
    if (!release_.delta) {
      database.directories.clear();
    }
    for (const std::string& directory : DirectoriesOf(new_tree_)) {
      database.directories.insert(directory);
    }
    WithdrawUnfit(database);
    database.last_fetch_time = now_;
    database.releases.push_back(release_);
    const std::string withdrawn = TrimChain(database, change_.settings.chain_share_percent, now_);
    if (!withdrawn.empty()) {
      notes_(withdrawn);
    }
    for (const Release* release : OfferedChain(database)) {
      ++report_.offered_deltas;
      report_.offered_bytes += release->delta->package.size_bytes;
    }
  }

  void WithdrawUnfit(Database& database) {
    for (Release& release : database.releases) {
      const auto found = withdrawn_.find(release.version);
      if (release_.delta && found != withdrawn_.end()) {
        release.delta->withdrawn = now_;
        notes_("the delta to " + std::to_string(release.version) +
               " is not offered any more: " + found->second);
      }
    }
  }

  void Put() {
    steps_({"publishing", 0, 0});
    change_.Begin("release of " + request_.name + ' ' + std::to_string(release_.version));
    change_.Publish(WorkPackage(Kind::kFull), release_.full.path);
    if (release_.delta) {
      report_.delta_bytes = release_.delta->package.size_bytes;
      change_.Publish(WorkPackage(Kind::kDelta), release_.delta->package.path);
    }
    change_.Commit();
  }

  const ReleaseRequest& request_;
  const std::time_t now_;
  const Notes& notes_;
  const Steps& steps_;
  RepositoryChange change_;
  package::Signer signer_;
  package::Trust trust_;
  Database* database_;  // null before the first release
  Release release_;
  std::map<int, std::string> withdrawn_;  // versions whose deltas this one cannot follow, and why
  Tree old_tree_;
  Tree new_tree_;
  ReleaseReport report_;
};

}  // namespace

ReleaseReport MakeRelease(const ReleaseRequest& request, std::time_t now, const Notes& notes,
                          const Steps& steps) {
  try {
    return Releaser(request, now, notes, steps).Run();
  } catch (const package::Error& error) {
    throw package::Error(error.code(), "release " + request.name + ": " + error.what(),
                         error.errno_value());
  } catch (const Error& error) {
    throw Error("release " + request.name + ": " + error.what());
  }
}

}  // namespace tolm::publish
