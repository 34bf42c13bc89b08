#include "operator/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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

void Descriptor::Check(int result, const char* what) const {
  if (result == -1) {
    throw std::system_error(errno, std::generic_category(),
                            std::string("Fail to ") + what + ' ' + path_);
  }
}

}  // namespace tolm::operation
