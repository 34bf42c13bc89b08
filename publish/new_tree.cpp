#include "publish/new_tree.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "package/error.h"
#include "publish/error.h"
#include "publish/files.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void RefuseTarget(const std::string& target) {
  throw Error(target + (fs::is_symlink(target) ? ": is a symbolic link; name the directory itself"
                                               : ": exists already and is not empty"));
}

}  // namespace

NewTree::NewTree(const std::string& target) : target_(target), path_(target + ".XXXXXX") {
  std::error_code ignored;
  const fs::file_status status = fs::symlink_status(target, ignored);
  if (fs::exists(status) && !(fs::is_directory(status) && fs::is_empty(target, ignored))) {
    RefuseTarget(target);
  }
  if (fs::exists(status)) {
    mode_ = static_cast<mode_t>(status.permissions() & fs::perms::mask);
  }
  if (::mkdtemp(path_.data()) == nullptr) {
    throw package::WriteError(target_, errno);
  }
}

NewTree::~NewTree() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void NewTree::PutInPlace() {
  if (::chmod(path_.c_str(), mode_) != 0) {
    throw package::WriteError(target_, errno);
  }
  if (std::rename(path_.c_str(), target_.c_str()) != 0) {
    if (errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR) {
      RefuseTarget(target_);
    }
    throw package::WriteError(target_, errno);
  }
  SyncDirectory(fs::path(target_).parent_path());
}

}  // namespace tolm::publish
