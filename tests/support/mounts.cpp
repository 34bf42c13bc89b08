#include "tests/support/mounts.h"

#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& what, const fs::path& target) {
  throw std::system_error(errno, std::generic_category(), "cannot " + what + " " + target.string());
}

void ChangeMount(const fs::path& target, std::uint64_t set, std::uint64_t clear) {
  mount_attr attributes = {};
  attributes.attr_set = set;
  attributes.attr_clr = clear;
  if (mount_setattr(AT_FDCWD, target.c_str(), 0, &attributes, sizeof attributes) == 0) {
    return;
  }
  // Emulators of other processors do not know the call.
  const unsigned long read_only = set == MOUNT_ATTR_RDONLY ? MS_RDONLY : 0;
  if (errno != ENOSYS ||
      mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | read_only, nullptr) != 0) {
    Fail("change the mount on", target);
  }
}

}  // namespace

ScopedMount ScopedMount::Tmpfs(const fs::path& target, std::uint64_t size_bytes) {
  fs::create_directories(target);
  const std::string data = "mode=0755,size=" + std::to_string(size_bytes);
  if (mount("tmpfs", target.c_str(), "tmpfs", 0, data.c_str()) != 0) {
    Fail("mount a tmpfs on", target);
  }
  return ScopedMount(target);
}

ScopedMount ScopedMount::Bind(const fs::path& source, const fs::path& target) {
  if (fs::is_directory(source)) {
    fs::create_directories(target);
  } else if (!fs::exists(target)) {
    fs::create_directories(target.parent_path());
    std::ofstream(target).close();
  }
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    Fail("bind " + source.string() + " on", target);
  }
  return ScopedMount(target);
}

ScopedMount ScopedMount::ReadOnly(const fs::path& target) {
  ScopedMount mount = Bind(target, target);
  mount.MakeReadOnly();
  return mount;
}

void ScopedMount::MakeReadOnly() const {
  ChangeMount(target_, MOUNT_ATTR_RDONLY, 0);
}

void ScopedMount::MakeWritable() const {
  ChangeMount(target_, 0, MOUNT_ATTR_RDONLY);
}

void ScopedMount::Unmount() {
  if (!target_.empty()) {
    umount2(target_.c_str(), MNT_DETACH);
    target_.clear();
  }
}

}  // namespace tolm::testing
