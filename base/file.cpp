#include "base/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace tolm::base {
namespace {

std::string DirectoryOf(const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path();
  return directory.empty() ? "." : directory;
}

void Check(long result, const char* action, const std::string& path) {
  if (result == -1) {
    throw FileError(errno, action, path);
  }
}

}  // namespace

FileError::FileError(int errno_value, const std::string& action, const std::string& path)
    : std::system_error(errno_value, std::generic_category(), "Fail to " + action + ' ' + path),
      path_(path) {}

File::File(const std::string& path, int flags, mode_t mode)
    : path_(path), descriptor_(open(path.c_str(), flags | O_CLOEXEC, mode)) {
  Check(descriptor_.Get(), "open");
}

void File::Sync() const {
  Check(fsync(Get()), "sync");
}

void File::SyncFileSystem() const {
  Check(syncfs(Get()), "sync the file system of");
}

void File::SetMode(mode_t mode) const {
  Check(fchmod(Get(), mode), "set the mode of");
}

std::uint64_t File::Size() const {
  struct stat status;
  Check(fstat(Get(), &status), "look at");
  return static_cast<std::uint64_t>(status.st_size);
}

std::string File::Read(std::uint64_t offset, std::size_t size) const {
  std::string text(size, '\0');
  const std::int64_t count = ReadAt(Get(), text.data(), size, offset);
  Check(static_cast<long>(count), "read");
  text.resize(static_cast<std::size_t>(count));
  return text;
}

void File::Write(const std::string& text) const {
  if (const int reason = WriteAll(Get(), text.data(), text.size()); reason != 0) {
    throw FileError(reason, "write", path_);
  }
}

void File::Close() {
  if (const int reason = descriptor_.Close(); reason != 0) {
    throw FileError(reason, "write", path_);
  }
}

void File::Check(long result, const char* action) const {
  base::Check(result, action, path_);
}

void SyncDirectory(const std::string& path) {
  File(path, O_RDONLY | O_DIRECTORY).Sync();
}

std::string StagingPath(const std::string& path) {
  return path + ".new";
}

Replacement::Replacement(std::string path, std::string staging)
    : path_(std::move(path)), staging_(std::move(staging)) {}

Replacement::~Replacement() {
  if (!is_in_place_) {
    std::remove(staging_.c_str());  // an empty directory too
  }
}

void Replacement::Write(const std::string& text, mode_t mode) const {
  File file(staging_, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  file.Write(text);
  file.SetMode(mode);
  file.Sync();
  file.Close();
}

void Replacement::TakeOverOwnerAndMode() const {
  struct stat before;
  if (stat(path_.c_str(), &before) == 0) {
    Check(chown(staging_.c_str(), before.st_uid, before.st_gid), "set the owner of", staging_);
    Check(chmod(staging_.c_str(), before.st_mode & 07777), "set the mode of", staging_);
  }
}

void Replacement::PutInPlace() {
  File(staging_, O_RDONLY).Sync();
  Check(std::rename(staging_.c_str(), path_.c_str()), "replace", path_);
  is_in_place_ = true;
  SyncDirectory(DirectoryOf(path_));
  if (DirectoryOf(staging_) != DirectoryOf(path_)) {
    SyncDirectory(DirectoryOf(staging_));
  }
}

void ReplaceFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(DirectoryOf(path));
  Replacement replacement(path);
  File file(replacement.staging(), O_WRONLY | O_CREAT | O_TRUNC);
  file.Write(text);
  file.Sync();
  file.Close();
  replacement.PutInPlace();
}

}  // namespace tolm::base
