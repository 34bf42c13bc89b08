#include "tests/support/private_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

// Where the host's tree hangs between the change of the root and the end of the set-up.
const char kHost[] = "/.host";
// Holds what is written below /usr; out of sight once the overlay is mounted.
const char kUsrLayer[] = "/.usr";

struct OpenBind {
  fs::path path;
  bool writable;
  UniqueDescriptor source;
};

[[noreturn]] void Fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), "cannot " + what);
}

[[noreturn]] void FailUnavailable(const std::string& what, int error = errno) {
  throw PrivateRootUnavailable("cannot " + what + ": " + std::generic_category().message(error));
}

void MountOrFail(const std::string& source, const fs::path& target, const char* type,
                 unsigned long flags, const std::string& data, const std::string& what) {
  if (mount(source.c_str(), target.c_str(), type, flags, data.c_str()) != 0) {
    Fail(what);
  }
}

void MakeDirectories(const fs::path& directory) {
  std::error_code error;
  fs::create_directories(directory, error);
  if (error) {
    Fail("make the directory " + directory.string() + " in the private root", error.value());
  }
}

// Links such as /dev/fd lead to these descriptors even where the named file is hidden by a mount.
std::string DescriptorPath(const UniqueDescriptor& descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor.Get());
}

UniqueDescriptor OpenPath(const fs::path& path) {
  UniqueDescriptor descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!descriptor) {
    Fail("open " + path.string());
  }
  return descriptor;
}

void WriteProcFile(const char* path, const std::string& text) {
  UniqueDescriptor file(open(path, O_WRONLY | O_CLOEXEC));
  if (!file || write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    FailUnavailable(std::string("write ") + path);
  }
}

// Returns whether that took a user namespace.
bool UnshareNamespaces() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0 && unshare(CLONE_NEWNS) == 0) {
    return false;
  }
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    FailUnavailable("make a private mount namespace");
  }
  WriteProcFile("/proc/self/setgroups", "deny");
  WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  return true;
}

void MountTmpfs(const fs::path& target, const char* mode, const PrivateRootOptions& options) {
  std::string data = std::string("mode=") + mode;
  if (!options.tmpfs_size.empty()) {
    data += ",size=" + options.tmpfs_size;
  }
  MakeDirectories(target);
  MountOrFail("tmpfs", target, "tmpfs", 0, data, "mount a tmpfs on " + target.string());
}

void MakeReadOnly(const fs::path& target) {
  // Unlike a remount this reaches mounts further down and keeps flags that a user namespace may not
  // drop.
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) == 0) {
    return;
  }
  // Emulators of other processors do not know the call.
  constexpr unsigned long kReadOnly = MS_REMOUNT | MS_BIND | MS_RDONLY;
  if (errno != ENOSYS || mount(nullptr, target.c_str(), nullptr, kReadOnly, nullptr) != 0) {
    Fail("make " + target.string() + " read-only");
  }
}

void Bind(const std::string& source, const fs::path& target, bool writable) {
  // Always with the mounts below: without them a user namespace is refused.
  MountOrFail(source, target, nullptr, MS_BIND | MS_REC, "", "bind " + target.string());
  if (!writable) {
    MakeReadOnly(target);
  }
}

void MakeMountPoint(const fs::path& target, bool is_directory) {
  if (is_directory) {
    MakeDirectories(target);
    return;
  }
  MakeDirectories(target.parent_path());
  if (access(target.c_str(), F_OK) != 0 &&
      !UniqueDescriptor(open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644))) {
    Fail("make the mount point " + target.string());
  }
}

std::vector<OpenBind> OpenBinds(const PrivateRootOptions& options) {
  std::vector<OpenBind> binds;
  for (const BindMount& bind : options.binds) {
    fs::path path = fs::absolute(bind.path).lexically_normal();
    if (!path.has_filename()) {
      path = path.parent_path();
    }
    if (!path.has_relative_path()) {
      throw std::runtime_error("cannot bind / into the private root");
    }
    binds.push_back({path, bind.writable, OpenPath(path)});
  }
  std::sort(binds.begin(), binds.end(),
            [](const OpenBind& a, const OpenBind& b) { return a.path < b.path; });
  return binds;
}

void BindAll(const std::vector<OpenBind>& binds) {
  for (const OpenBind& bind : binds) {
    struct stat status = {};
    if (fstat(bind.source.Get(), &status) != 0) {
      Fail("examine " + bind.path.string());
    }
    MakeMountPoint(bind.path, S_ISDIR(status.st_mode));
    Bind(DescriptorPath(bind.source), bind.path, bind.writable);
  }
}

// Makes a tmpfs the root; the host's tree stays at kHost for the time being.
void ChangeRoot(const PrivateRootOptions& options) {
  // Any directory serves: inside this namespace only, the new root hides what is below it.
  const fs::path root = fs::is_directory("/mnt") ? "/mnt" : "/tmp";
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    FailUnavailable("keep the host from seeing private mounts");
  }
  MountTmpfs(root, "0755", options);
  const fs::path host = root / fs::path(kHost).relative_path();
  MakeDirectories(host);
  MakeDirectories(root / "proc");
  Bind("/proc", root / "proc", true);
  if (syscall(SYS_pivot_root, root.c_str(), host.c_str()) != 0) {
    FailUnavailable("change the root directory");
  }
  if (chdir("/") != 0) {
    Fail("enter the new root directory");
  }
}

// A user namespace knows no owner but ours, and what others own it may not write to. A directory of
// our own in the upper layer takes the place of the one below it, content excepted: so the top of
// /usr and every directory of the stage can be written to whoever owns them.
void MakeOwnDirectories(const UniqueDescriptor& stage_usr, const fs::path& upper) {
  for (const fs::directory_entry& entry : fs::directory_iterator(std::string(kHost) + "/usr")) {
    if (entry.is_directory() && !entry.is_symlink()) {
      MakeDirectories(upper / entry.path().filename());
    }
  }
  if (!stage_usr) {
    return;
  }
  const fs::path stage = DescriptorPath(stage_usr) + "/";
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(stage)) {
    if (entry.is_directory() && !entry.is_symlink()) {
      MakeDirectories(upper / entry.path().lexically_relative(stage));
    }
  }
}

void MountUsr(const UniqueDescriptor& stage_usr, bool in_user_namespace,
              const PrivateRootOptions& options) {
  MountTmpfs(kUsrLayer, "0755", options);
  const std::string layer = kUsrLayer;
  MakeDirectories(layer + "/upper");
  MakeDirectories(layer + "/work");
  MakeDirectories("/usr");
  std::string data = "lowerdir=";
  if (stage_usr) {
    data += DescriptorPath(stage_usr) + ":";
  }
  data += std::string(kHost) + "/usr,upperdir=" + layer + "/upper,workdir=" + layer + "/work";
  if (in_user_namespace) {
    // The overlay marks deleted directories by attributes; the usual kind is refused here.
    data += ",userxattr";
    MakeOwnDirectories(stage_usr, layer + "/upper");
  }
  if (mount("overlay", "/usr", "overlay", 0, data.c_str()) != 0) {
    FailUnavailable("lay a writable overlay over /usr");
  }
  if (umount2(kUsrLayer, MNT_DETACH) != 0 || rmdir(kUsrLayer) != 0) {
    Fail("hide the overlay's layer");
  }
}

// /bin, /lib and their like are links into /usr on most hosts and directories on a few.
void MakeUsrLinks() {
  for (const char* name : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
    const fs::path target = fs::path("/") / name;
    const fs::path source = fs::path(kHost) / name;
    if (fs::is_symlink(source)) {
      fs::create_symlink(fs::read_symlink(source), target);
    } else if (fs::is_directory(source)) {
      MakeMountPoint(target, true);
      Bind(source, target, false);
    }
  }
}

void MountDevices(const PrivateRootOptions& options) {
  MountTmpfs("/dev", "0755", options);
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    const fs::path target = fs::path("/dev") / name;
    MakeMountPoint(target, false);
    Bind(kHost + target.string(), target, true);
  }
  MountTmpfs("/dev/shm", "1777", options);
  MakeDirectories("/dev/pts");
  MountOrFail("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=0620", "mount /dev/pts");
  fs::create_symlink("pts/ptmx", "/dev/ptmx");
  fs::create_symlink("/proc/self/fd", "/dev/fd");
  fs::create_symlink("/proc/self/fd/0", "/dev/stdin");
  fs::create_symlink("/proc/self/fd/1", "/dev/stdout");
  fs::create_symlink("/proc/self/fd/2", "/dev/stderr");
}

void MakeFreshDirectories(const PrivateRootOptions& options) {
  MountTmpfs("/run", "0755", options);
  MountTmpfs("/tmp", "1777", options);
  MountTmpfs("/var", "0755", options);
  for (const char* path : {"/var/lib", "/var/cache", "/var/log", "/var/tmp", "/root"}) {
    MakeDirectories(path);
  }
  fs::permissions("/var/tmp", fs::perms::all | fs::perms::sticky_bit);
  fs::permissions("/root", fs::perms::owner_all);
  for (unsigned i = 1; i <= options.volumes; ++i) {
    MountTmpfs("/volume" + std::to_string(i), "0755", options);
  }
}

void LeaveHost() {
  if (umount2(kHost, MNT_DETACH) != 0 || rmdir(kHost) != 0) {
    Fail("detach the host's tree");
  }
}

}  // namespace

void EnterPrivateRoot(const PrivateRootOptions& options) {
  std::error_code ignored;
  const fs::path working_directory = fs::current_path(ignored);
  const bool in_user_namespace = UnshareNamespaces();
  // A descriptor serves as the source of a mount only when it was opened in the namespace of the
  // mount.
  const std::vector<OpenBind> binds = OpenBinds(options);
  const UniqueDescriptor stage_usr =
      options.stage.empty() ? UniqueDescriptor() : OpenPath(fs::absolute(options.stage) / "usr");
  const mode_t old_mask = umask(022);
  ChangeRoot(options);
  MountUsr(stage_usr, in_user_namespace, options);
  MakeUsrLinks();
  MakeMountPoint("/etc", true);
  Bind(std::string(kHost) + "/etc", "/etc", false);
  MountDevices(options);
  MakeFreshDirectories(options);
  BindAll(binds);
  LeaveHost();
  umask(old_mask);
  if (working_directory.empty() || chdir(working_directory.c_str()) != 0) {
    (void)!chdir("/");
  }
  setenv("HOME", "/root", 1);
  unsetenv("TMPDIR");
}

void InstallStageInPlace(const fs::path& stage) {
  const fs::path root = fs::absolute(stage).lexically_normal();
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const fs::path target = fs::path("/") / entry.path().lexically_relative(root);
    if (entry.is_directory() && !entry.is_symlink()) {
      fs::create_directories(target);
      continue;
    }
    // A new file beside the old one: a running program or a loaded library must not change under
    // its users.
    fs::remove(target);
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), target);
    } else {
      fs::copy_file(entry.path(), target);
    }
  }
}

}  // namespace tolm::testing
