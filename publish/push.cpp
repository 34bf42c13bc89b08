#include "publish/push.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "base/rules.h"
#include "package/error.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/push_mark.h"
#include "publish/push_order.h"
#include "publish/push_snapshot.h"
#include "publish/pushed.h"
#include "publish/remote.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;
constexpr std::uint64_t kMostDescriptionBytes = 16 * rules::kDescriptionBytes;
constexpr char kAsideBegin[] = ".tolmdbpub-new-";
constexpr char kDescriptions[] = "database_info/";

std::string HostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') {
    return "?";
  }
  return name.data();
}

// Made by the first push; tells this repository's marks from others'.
std::string IdIn(const PushPaths& paths) {
  if (!fs::exists(paths.Id())) {
    ReplaceFile(paths.Id(), NewIdentity() + '\n', paths.Id() + ".new");
  }
  std::string id = ReadWholeFile(paths.Id());
  while (!id.empty() && id.back() == '\n') {
    id.pop_back();
  }
  return id;
}

// Second names of packages keep what the repository may want to lose.
class WorkDirectory {
 public:
  explicit WorkDirectory(std::string path) : path_(std::move(path)) { EmptyDirectory(path_); }
  ~WorkDirectory() {
    try {
      EmptyDirectory(path_);
    } catch (const std::exception&) {
      // The next push does.
    }
  }
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

 private:
  const std::string path_;
};

class Pusher {
 public:
  Pusher(const PushRequest& request, std::int64_t now, const Notes& notes, const Steps& steps)
      : request_(request),
        now_(now),
        notes_(notes),
        steps_(steps),
        paths_(request.repository),
        settings_(LoadRepositorySettings(paths_)),
        remote_(request.remote),
        own_(paths_, remote_.Key()) {
    report_.remote = remote_.Name();
  }

  PushReport Run() {
    if (request_.dry_run) {
      pushed_ = LoadPushed(own_);
      snapshot_ = TakeSnapshot(paths_, settings_, "", notes_);
      Look();
      Plan();
      TakeGone(remote_files_);
      report_.is_new_description = present_ != snapshot_.description;
      return std::move(report_);
    }
    const PushLock lock(own_, remote_.Name());
    remote_.KeepOpen(lock.Get());
    remote_.UseWork(own_.Work());
    pushed_ = LoadPushed(own_);
    pushed_.remote = remote_.Name();
    id_ = IdIn(own_);
    const WorkDirectory work(own_.Work());
    snapshot_ = TakeSnapshot(paths_, settings_, own_.Snapshot(), notes_);
    Look();
    {
      PushMark mark(remote_, {id_, HostName()}, request_.insist, notes_);
      Plan();
      BringPackages();
      mark.Confirm();
      BringDescription();
      RemoveGone();
    }
    return std::move(report_);
  }

 private:
  static Settings LoadRepositorySettings(const RepositoryPaths& paths) {
    RequireRepository(paths);
    return LoadSettings(paths.SettingsFile());
  }

  void Tell(const char* what, std::uint64_t bytes = 0) {
    if (steps_) {
      steps_({what, bytes, 0});
    }
  }
  Transferred Telling(const char* what) {
    return [this, what](std::uint64_t bytes) { Tell(what, bytes); };
  }

  void Look() {
    Tell("listing");
    remote_files_ = remote_.List();
    if (remote_files_.count(snapshot_.description_path) != 0) {
      RequirePresentMayBeFollowed();
    }
  }

  void RequirePresentMayBeFollowed() {
    present_ = remote_.Read(snapshot_.description_path, kMostDescriptionBytes);
    if (present_) {
      RequireMayFollow(
          {remote_.Name(), *present_, snapshot_.description, pushed_.description, request_.insist},
          settings_, now_, notes_);
    }
  }

  // What is there with the right size and was never proved is proved now: an interrupted push, or
  // another program, has brought it.
  void Plan() {
    std::vector<std::string> unproved;
    for (const auto& [path, record] : snapshot_.packages) {
      const auto there = remote_files_.find(path);
      if (there == remote_files_.end() || there->second != record.size_bytes) {
        AddUpload(record);
      } else if (!IsProved(record)) {
        unproved.push_back(path);
      }
    }
    report_.packages = snapshot_.packages.size();
    if (!request_.dry_run) {
      for (const std::string& path : Prove(unproved)) {
        AddUpload(snapshot_.packages.at(path));
      }
    }
  }

  bool IsProved(const PackageRecord& record) const {
    const auto proved = pushed_.proved.find(record.path);
    return !request_.again && proved != pushed_.proved.end() && proved->second == record.sha384;
  }

  void AddUpload(const PackageRecord& record) {
    report_.uploaded.push_back(record.path);
    report_.uploaded_bytes += record.size_bytes;
  }

  // Returns those that are not right.
  std::vector<std::string> Prove(const std::vector<std::string>& paths) {
    if (paths.empty()) {
      return {};
    }
    Tell("comparing");
    std::vector<std::string> wrong =
        remote_.Differing(own_.Snapshot(), paths, Telling("comparing"));
    report_.proved += paths.size();
    for (const std::string& path : paths) {
      pushed_.proved[path] = snapshot_.packages.at(path).sha384;
    }
    for (const std::string& path : wrong) {
      pushed_.proved.erase(path);
    }
    return wrong;
  }

  void BringPackages() {
    std::sort(report_.uploaded.begin(), report_.uploaded.end());
    if (!report_.uploaded.empty()) {
      for (const std::string& path : report_.uploaded) {
        RequireReleased(path);
      }
      Tell("uploading");
      remote_.Upload(own_.Snapshot(), report_.uploaded, Telling("uploading"));
      const std::vector<std::string> wrong = Prove(report_.uploaded);
      if (!wrong.empty()) {
        throw Error(
            remote_.Name() + ": " + wrong.front() + " is not there as it was uploaded" +
            (wrong.size() > 1 ? ", nor are " + std::to_string(wrong.size() - 1) + " more" : ""));
      }
      remote_.Sync();
    }
    ForgetProvedOfOthers();
    SavePushed(own_, pushed_);
  }

  // What is to be proved at the remote is proved here first.
  void RequireReleased(const std::string& path) {
    const PackageRecord& record = snapshot_.packages.at(path);
    const FileFacts facts = MeasureFile(own_.Snapshot() + '/' + path);
    if (facts.size_bytes != record.size_bytes || facts.sha384 != record.sha384) {
      throw Error(paths_.InPublic(path) + ": is not what was released");
    }
  }

  void ForgetProvedOfOthers() {
    for (auto entry = pushed_.proved.begin(); entry != pushed_.proved.end();) {
      entry = snapshot_.packages.count(entry->first) == 0 ? pushed_.proved.erase(entry)
                                                          : std::next(entry);
    }
  }

  // Another look first: packages may have taken hours.
  void BringDescription() {
    RequirePresentMayBeFollowed();
    if (present_ != snapshot_.description) {
      Tell("replacing the description");
      const fs::path path = snapshot_.description_path;
      const Replacement how =
          remote_.Replace(path, (path.parent_path() / (kAsideBegin + id_)).string(),
                          snapshot_.description, Served::kDescription);
      if (how == Replacement::kWithGap) {
        notes_(remote_.Name() +
               ": cannot put a file into another one's place, so that for a moment there was no "
               "description");
      }
      if (remote_.Read(path, kMostDescriptionBytes) != snapshot_.description) {
        throw Error(remote_.Name() + ": the description is not there as it was uploaded");
      }
      report_.is_new_description = true;
    }
    remote_.Sync();
    pushed_.description = Sha384OfText(snapshot_.description);
    pushed_.pushed = now_;
    TakeGone(remote_files_);
    SavePushed(own_, pushed_);
  }

  // From now on the pushed description needs none of them, and the repository has them no more.
  void TakeGone(const std::map<std::string, std::uint64_t>& files) {
    std::map<std::string, std::int64_t> gone;
    for (const auto& [path, size] : files) {
      if (IsPackagePath(path) && snapshot_.packages.count(path) == 0) {
        const auto before = pushed_.gone.find(path);
        gone[path] = before == pushed_.gone.end() ? now_ : before->second;
      }
    }
    pushed_.gone = std::move(gone);
    std::vector<std::string> over;
    for (const auto& [path, since] : pushed_.gone) {
      const bool is_over = since + request_.grace_days * kDaySeconds <= now_;
      (is_over ? over : report_.waiting).push_back(path);
    }
    const std::vector<std::string> links =
        over.empty() ? std::vector<std::string>() : LinksOfOthers(files);
    for (const std::string& path : over) {
      (IsNamed(path, links) ? report_.waiting : report_.removed).push_back(path);
    }
  }

  // What other descriptions in the same store name: another repository's, or this one's in another
  // form.
  std::vector<std::string> LinksOfOthers(const std::map<std::string, std::uint64_t>& files) const {
    std::vector<std::string> links;
    for (const auto& [path, size] : files) {
      if (path.compare(0, sizeof kDescriptions - 1, kDescriptions) != 0 ||
          path == snapshot_.description_path || IsLeftAside(path)) {
        continue;
      }
      const std::string text = remote_.Read(path, kMostDescriptionBytes).value_or("");
      try {
        for (const OfferedPackage& package : PackagesNamedIn(text, path)) {
          links.push_back(package.link);
        }
      } catch (const std::exception&) {
        // It is no description, and names nothing.
      }
    }
    return links;
  }

  // Whatever stands before it: that may be another address of the same store.
  static bool IsNamed(const std::string& path, const std::vector<std::string>& links) {
    const std::string end = '/' + EncodePath(path);
    return std::any_of(links.begin(), links.end(), [&end](const std::string& link) {
      return link.size() >= end.size() &&
             link.compare(link.size() - end.size(), end.size(), end) == 0;
    });
  }

  void RemoveGone() {
    std::vector<std::string> files = report_.removed;
    for (const auto& [path, size] : remote_files_) {
      if (IsLeftAside(path)) {
        files.push_back(path);
      }
    }
    if (files.empty()) {
      return;
    }
    Tell("removing");
    remote_.Remove(files);
    for (const std::string& path : report_.removed) {
      pushed_.gone.erase(path);
    }
    SavePushed(own_, pushed_);
  }

  // By a push that was ended before it had renamed it. This one has renamed its own; marks of
  // others may be on their way.
  bool IsLeftAside(const std::string& path) const {
    const std::string begin =
        (fs::path(snapshot_.description_path).parent_path() / kAsideBegin).string();
    return path.compare(0, begin.size(), begin) == 0;
  }

  const PushRequest& request_;
  const std::int64_t now_;
  const Notes& notes_;
  const Steps& steps_;
  const RepositoryPaths paths_;
  const Settings settings_;
  Remote remote_;
  const PushPaths own_;
  std::string id_;
  Pushed pushed_;
  PushSnapshot snapshot_;
  std::map<std::string, std::uint64_t> remote_files_;
  std::optional<std::string> present_;
  PushReport report_;
};

}  // namespace

PushReport Push(const PushRequest& request, std::int64_t now, const Notes& notes,
                const Steps& steps) {
  return Pusher(request, now, notes, steps).Run();
}

}  // namespace tolm::publish
