#include "operation/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tolm::operation {

Descriptor::Descriptor(const std::string& path, int flags)
    : path_(path), fd_(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
  Check(fd_, "open");
}

Descriptor::~Descriptor() {
  close(fd_);
}

void Descriptor::Sync() const {
  Check(fsync(fd_), "sync");
}

void Descriptor::SyncFileSystem() const {
  Check(syncfs(fd_), "sync the file system of");
}

std::uint64_t Descriptor::Size() const {
  struct stat status;
  Check(fstat(fd_, &status), "look at");
  return static_cast<std::uint64_t>(status.st_size);
}

std::string Descriptor::Read(std::uint64_t offset, std::size_t size) const {
  std::string text(size, '\0');
  std::size_t count = 0;
  while (count < size) {
    const ssize_t read = pread(fd_, &text[count], size - count, static_cast<off_t>(offset + count));
    if (read == -1 && errno == EINTR) {
      continue;
    }
    Check(read, "read");
    if (read == 0) {
      break;
    }
    count += static_cast<std::size_t>(read);
  }
  text.resize(count);
  return text;
}

void Descriptor::Write(const std::string& text) const {
  std::size_t count = 0;
  while (count < text.size()) {
    const ssize_t written = write(fd_, text.data() + count, text.size() - count);
    if (written == -1 && errno == EINTR) {
      continue;
    }
    Check(written, "write");
    count += static_cast<std::size_t>(written);
  }
}

void Descriptor::Check(long result, const char* what) const {
  if (result == -1) {
    throw std::system_error(errno, std::generic_category(),
                            std::string("Fail to ") + what + ' ' + path_);
  }
}

void ReplaceFile(const std::string& path, const std::string& text) {
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  std::filesystem::create_directories(directory);
  const std::string beside = path + ".new";
  try {
    const Descriptor file(beside, O_WRONLY | O_CREAT | O_TRUNC);
    file.Write(text);
    file.Sync();
    std::filesystem::rename(beside, path);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(beside, ignored);
    throw;
  }
  Descriptor(directory, O_RDONLY | O_DIRECTORY).Sync();
}

}  // namespace tolm::operation
