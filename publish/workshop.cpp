#include "publish/workshop.h"

#include <climits>
#include <filesystem>
#include <utility>

#include "base/parallel.h"
#include "package/error.h"
#include "package/package_writer.h"
#include "publish/certificates.h"
#include "publish/chain_rules.h"
#include "publish/description.h"
#include "publish/files.h"
#include "publish/unpack.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Kind;

// A file whose patch was found wrong goes whole, which cannot be wrong again. One attempt finds one
// patch that cannot be applied; after so many of them it is better to have a delta soon.
constexpr int kMaxReplays = 6;

NoDelta NotProved() {
  return NoDelta("applied as devices do, it did not give the new version");
}

std::set<std::string> KeysOfPatches(const std::vector<FileDelta>& files) {
  std::set<std::string> keys;
  for (const FileDelta& file : files) {
    if (IsPatch(file)) {
      keys.insert(file.key);
    }
  }
  return keys;
}

// "vcdiff " or "sql "; nothing for what is no patch.
std::string KindOf(const std::vector<FileDelta>& files, const std::string& key) {
  for (const FileDelta& file : files) {
    if (file.key == key && IsPatch(file)) {
      return std::string(FileDeltaKindText(file.kind)) + ' ';
    }
  }
  return "";
}

bool IsAsRead(const TreeFile& file) {
  return fs::is_regular_file(fs::symlink_status(file.path)) &&
         MeasureFile(file.path).sha384 == file.sha384;
}

// Of these keys, those that the tree has.
std::vector<const TreeFile*> FilesOf(const Tree& tree, const std::set<std::string>& keys) {
  std::vector<const TreeFile*> files;
  for (const std::string& key : keys) {
    if (const auto found = tree.files.find(key); found != tree.files.end()) {
      files.push_back(&found->second);
    }
  }
  return files;
}

// They were compared with others, and the delta made from them.
void RequireAsRead(const Tree& tree, const std::set<std::string>& keys, int jobs) {
  const std::vector<const TreeFile*> files = FilesOf(tree, keys);
  base::ForEach(files.size(), jobs, [&](std::size_t at) {
    if (!IsAsRead(*files[at])) {
      throw Error(files[at]->path + ": was changed while the delta was made, by another process");
    }
  });
}

std::set<std::string> KeysOf(const Tree& tree) {
  std::set<std::string> keys;
  for (const auto& entry : tree.files) {
    keys.insert(keys.end(), entry.first);
  }
  return keys;
}

DeltaOptions OptionsFor(const Settings& settings, int jobs) {
  DeltaOptions options;
  options.oldest_sqlite_version = ParseSqliteVersion(settings.oldest_sqlite);
  options.jobs = jobs;
  options.packing = settings.packing;
  return options;
}

// Below this a useless delta is packed as soon as told from others.
constexpr std::uint64_t kMuchContentBytes = std::uint64_t{1} << 20;

// Where everything goes whole, the full package is as good, and packing is what takes the time.
void RequireMoreThanWholeFiles(const std::vector<FileDelta>& files, const Tree& after) {
  std::uint64_t bytes = 0;
  std::size_t whole = 0;
  for (const FileDelta& file : files) {
    whole += file.kind == FileDeltaKind::kCreated || file.kind == FileDeltaKind::kWhole ? 1 : 0;
    bytes += file.file_bytes;
  }
  if (whole == after.files.size() && bytes >= kMuchContentBytes) {
    throw NoDelta("all its files would go whole, as in the full package");
  }
}

// What the deltas of the chain from this one on touch.
std::set<std::string> KeysTouchedFrom(const DeltaOrder& order, std::size_t first) {
  std::set<std::string> touched;
  for (std::size_t i = first; i < order.chain.size(); ++i) {
    const std::set<std::string>& keys = order.chain[i]->keys;
    touched.insert(keys.begin(), keys.end());
  }
  return touched;
}

DeltaRequest RequestFor(const DeltaOrder& order) {
  DeltaRequest request;
  request.old_tree = *order.before;
  request.new_tree = *order.after;
  request.directories_left_behind = order.directories_left_behind;
  request.keys_touched_earlier = KeysTouchedFrom(order, 0);
  return request;
}

}  // namespace

Workshop::Workshop(const std::string& repository, std::string name, Purpose purpose, int jobs,
                   std::int64_t now, const Notes& notes, const Steps& steps)
    : name_(std::move(name)),
      now_(now),
      notes_(notes),
      steps_(steps),
      change_(repository, notes, purpose),
      signer_(LoadSignerFor(change_.settings, {name_}, now)),
      trust_(LoadRoot(change_.settings)),
      budget_(jobs, EncoderMemoryBytes(DeltaOptions().memory_limit_bytes)),
      patches_(Work("patches"), OptionsFor(change_.settings, jobs), budget_) {
  const auto found = change_.catalog.databases.find(name_);
  database_ = found == change_.catalog.databases.end() ? nullptr : &found->second;
  for (const std::string& warning : CertificateWarnings(repository, now)) {
    notes(warning);
  }
}

// The file name matters: a package is valid under its own only.
std::string Workshop::WorkPackage(Kind kind, int version) const {
  return Work(fs::path(PublicPath(kind, version)).filename().string());
}

std::string Workshop::PublicPath(Kind kind, int version) const {
  return PackagePath(change_.catalog.part, name_, kind, version);
}

void Workshop::ClearWorkBut(Kind kind, int version) const {
  const std::string work = change_.paths().Work();
  const fs::path kept = WorkPackage(kind, version);
  for (const std::string& name : NamesIn(work)) {
    if (fs::path(work) / name != kept) {
      RemoveTree(work + '/' + name);
    }
  }
}

void Workshop::RequireGoodLink(int version) const {
  const std::string link = PackageLink(change_.settings.base_url, PublicPath(Kind::kFull, version));
  if (const std::string problem = LinkProblem(link, version); !problem.empty()) {
    throw Error("version " + std::to_string(version) + " cannot be released: " + problem);
  }
}

PackageRecord Workshop::Pack(const std::string& directory, Kind kind, int version) {
  const std::string package = WorkPackage(kind, version);
  steps_({"packing", 0, 0});
  package::WritePackage(directory, package, {name_, kind, version}, change_.settings.packing,
                        signer_, now_, [this](std::uint64_t bytes) {
                          steps_({"packing", bytes, 0});
                        });
  const FileFacts facts = MeasureFile(package);
  return {PublicPath(kind, version), facts.size_bytes, facts.sha384};
}

Tree Workshop::UnpackPacked(int version, const std::string& directory) {
  steps_({"unpacking", 0, 0});
  return UnpackRelease(WorkPackage(Kind::kFull, version), trust_, now_, Work(directory), jobs());
}

Tree Workshop::UnpackReleased(const Release& release, const std::string& directory, bool quietly) {
  if (!quietly) {
    steps_({"unpacking", 0, 0});
  }
  const std::string path = change_.paths().InPublic(release.full.path);
  try {
    if (MeasureFile(path).sha384 != release.full.sha384) {
      throw Damaged(path + ": is not the package that was released");
    }
  } catch (const package::Error& error) {
    throw Damaged(error.what());
  }
  return UnpackRelease(path, trust_, now_, Work(directory), jobs());
}

std::size_t Workshop::FirstFit(
    const DeltaOrder& order,
    const std::function<void(std::size_t, const std::string&)>& unfit) const {
  DeltaRequest request = RequestFor(order);
  for (std::size_t first = 0;; ++first) {
    try {
      request.keys_touched_earlier = KeysTouchedFrom(order, first);
      RequireFitForChain(request);
      return first;
    } catch (const NotInChain& error) {
      if (first == order.chain.size()) {
        throw NoDelta(error.what());
      }
      unfit(first, error.what());
    }
  }
}

void Workshop::WorkAhead(const Tree& before, const Tree& likely,
                         const std::atomic<bool>& may_tell) {
  const auto tell = [&](const std::string&, std::size_t done, std::size_t total) {
    if (may_tell) {
      steps_({"delta", done, total});
    }
  };
  try {
    MakePatches(before, likely, {}, patches_, jobs(), tell);
    ForgetUnlessAsRead(likely, TouchedKeys(before, likely));
  } catch (const WorkBudget::Stopped&) {
    return;
  } catch (const std::exception&) {
    patches_.Clear();  // What is half made may take the room that is needed now.
  }
}

void Workshop::ForgetUnlessAsRead(const Tree& tree, const std::set<std::string>& keys) {
  for (const TreeFile* file : FilesOf(tree, keys)) {
    if (!IsAsRead(*file)) {
      patches_.Forget(file->key);
    }
  }
}

MadeDelta Workshop::MakeDelta(const DeltaOrder& order) {
  MadeDelta made;
  try {
    Prove(order, made);
  } catch (...) {
    patches_.Clear();
    // Which says more than whatever came of it.
    RequireAsRead(*order.before, KeysOf(*order.before), jobs());
    RequireAsRead(*order.after, KeysOf(*order.after), jobs());
    throw;
  }
  // What the delta does not touch has been compared by the replay, which had the very files of the
  // old tree: they were found to be those of the new one.
  RequireAsRead(*order.before, made.delta.keys, jobs());
  RequireAsRead(*order.after, made.delta.keys, jobs());
  patches_.Clear();
  const std::uint64_t bytes = made.delta.package.size_bytes;
  if (bytes > INT_MAX) {
    throw NoDelta("its " + std::to_string(bytes) + " bytes are more than devices can count");
  }
  return made;
}

void Workshop::Prove(const DeltaOrder& order, MadeDelta& made) {
  std::set<std::string> whole;
  for (int round = 1; round <= kMaxReplays; ++round) {
    const std::set<std::string> wrong = Try(order, whole, round + 1 >= kMaxReplays, made);
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

// Makes and packs a delta and applies it; returns the keys whose patches are found wrong, and when
// it is the last attempt but one, those of all others, too.
std::set<std::string> Workshop::Try(const DeltaOrder& order, const std::set<std::string>& whole,
                                    bool nearly_last, MadeDelta& made) {
  made.files = Build(order, whole);
  RequireMoreThanWholeFiles(made.files, *order.after);
  made.delta = {};
  made.delta.package = Pack(Work("delta"), Kind::kDelta, order.version);
  for (const FileDelta& file : made.files) {
    made.delta.keys.insert(file.key);
  }
  steps_({"replaying", 0, 0});
  std::set<std::string> wrong = Replay(order, made.files);
  if (!wrong.empty() && nearly_last) {
    notes_("after " + std::to_string(kMaxReplays - 1) +
           " attempts all patches that are left go whole");
    wrong.merge(KeysOfPatches(made.files));
  }
  return wrong;
}

std::vector<FileDelta> Workshop::Build(const DeltaOrder& order,
                                       const std::set<std::string>& whole) {
  DeltaRequest request = RequestFor(order);
  request.target_directory = Work("delta");
  request.keys_to_send_whole = whole;
  RemoveTree(request.target_directory);
  try {
    return publish::MakeDelta(request, patches_, jobs(),
                              [this](const std::string&, std::size_t done, std::size_t total) {
                                steps_({"delta", done, total});
                              });
  } catch (const NotInChain& error) {
    throw NoDelta(error.what());
  }
}

std::set<std::string> Workshop::Replay(const DeltaOrder& order,
                                       const std::vector<FileDelta>& files) const {
  const ReplayRequest replay =
      ReplayFrom(*order.before, order.version - 1,
                 {{order.version, WorkPackage(Kind::kDelta, order.version)}});
  try {
    const std::vector<std::string> wrong = CompareTrees(ReplayChain(replay), *order.after);
    for (const std::string& key : wrong) {
      notes_("the " + KindOf(files, key) + "patch for " + key +
             " did not give the new file when it was applied as devices do; it goes whole");
    }
    return {wrong.begin(), wrong.end()};
  } catch (const ReplayError& error) {
    return KeysToBlame(files, error);
  }
}

std::set<std::string> Workshop::KeysToBlame(const std::vector<FileDelta>& files,
                                            const ReplayError& error) const {
  const std::set<std::string> patches = KeysOfPatches(files);
  if (patches.count(error.key()) != 0) {
    notes_("the " + KindOf(files, error.key()) + "patch for " + error.key() +
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

ReplayRequest Workshop::ReplayFrom(const Tree& before, int version,
                                   const std::vector<ReplayPackage>& packages) const {
  RemoveTree(Work("replay"));
  ReplayRequest replay;
  replay.name = name_;
  replay.old_tree = before;
  replay.installed_version = version;
  replay.packages = packages;
  replay.work_directory = Work("replay");
  replay.trust = &trust_;
  replay.now = now_;
  return replay;
}

std::string Workshop::ReplayProblem(const Tree& before, int version,
                                    const std::vector<ReplayPackage>& packages,
                                    const Tree& after) const {
  steps_({"replaying", 0, 0});
  try {
    const std::vector<std::string> wrong =
        CompareTrees(ReplayChain(ReplayFrom(before, version, packages)), after);
    return wrong.empty() ? "" : "differs at " + wrong.front();
  } catch (const ReplayError& error) {
    return error.what();
  }
}

}  // namespace tolm::publish
