#ifndef TOLM_PUBLISH_PUSHED_H_
#define TOLM_PUBLISH_PUSHED_H_

#include <cstdint>
#include <map>
#include <string>

#include "base/descriptor.h"
#include "publish/repository.h"

namespace tolm::publish {

/// What is remembered of one remote: state/pushed/<key>.json, docs/formats/repository.md.
struct Pushed {
  std::string remote;       ///< for people
  std::string description;  ///< SHA-384 of the description that was pushed last; may be empty
  std::int64_t pushed = 0;  ///< when, seconds since 1970
  std::map<std::string, std::string> proved;  ///< SHA-384 of packages that were proved there
  std::map<std::string, std::int64_t> gone;   ///< packages there that the repository has no more,
                                              ///< and since when no pushed description needs them
};

/// Where everything of pushes to one remote lies.
class PushPaths {
 public:
  PushPaths(const RepositoryPaths& paths, const std::string& key)
      : base_(paths.State() + "/pushed/" + key) {}

  std::string File() const { return base_ + ".json"; }
  std::string Directory() const { return base_; }
  std::string Lock() const { return base_ + "/lock"; }
  std::string Id() const { return base_ + "/id"; }
  std::string Work() const { return base_ + "/work"; }
  std::string Snapshot() const { return Work() + "/public"; }

 private:
  std::string base_;
};

/// Nothing is remembered where there is no file. Throws Error, package::Error for one that cannot
/// be used.
Pushed LoadPushed(const PushPaths& paths);
void SavePushed(const PushPaths& paths, const Pushed& pushed);

/// Held while something is pushed to one remote, and by the programs that the push has started.
/// Never waits: throws Error that names the process that is at work.
class PushLock {
 public:
  PushLock(const PushPaths& paths, const std::string& remote_name);
  int Get() const { return file_.Get(); }

 private:
  base::Descriptor file_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PUSHED_H_
