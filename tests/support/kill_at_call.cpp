// A library to be preloaded into tolmdbud (see killed_run.h): it stands in front of the C library's
// calls that change files, counts them, and ends the process by SIGKILL right before the call of a
// given number. So a kill can be tried at every step that leaves something behind, and the same
// number is the same step in every run.
//
// Not seen: what the C library does inside its own functions (the log's socket, the descriptors of
// a child that is being started). Nothing of that changes a file.

#include "tests/support/kill_at_call.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using tolm::testing::kKillAtVariable;
using tolm::testing::kTraceVariable;

// Off_t of the calls without and with "64" in their names.
using ShortOffset = long;
using LongOffset = std::int64_t;

std::atomic<std::uint64_t> calls{0};
std::uint64_t kill_at = 0;  // 0: never
int trace_fd = -1;

// What this process starts inherits the variables, and is none of our business.
bool IsTheTool() {
  return std::strcmp(program_invocation_short_name, "tolmdbud") == 0;
}

__attribute__((constructor)) void Start() {
  if (!IsTheTool()) {
    return;
  }
  if (const char* number = std::getenv(kKillAtVariable)) {
    kill_at = std::strtoull(number, nullptr, 10);
  }
  if (const char* path = std::getenv(kTraceVariable)) {
    trace_fd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CLOEXEC));
  }
}

std::string Shown(const char* path) {
  return path;
}

std::string Shown(int fd) {
  char target[512];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length < 0 ? link : std::string(target, static_cast<std::size_t>(length));
}

void Trace(const char* name, const std::string& what) {
  const std::string line = std::string(name) + ' ' + what + '\n';
  (void)!syscall(SYS_write, trace_fd, line.data(), line.size());
}

template <typename What>
void BeforeChange(const char* name, What what) {
  const int saved_errno = errno;
  if (trace_fd >= 0) {
    Trace(name, Shown(what));
  }
  if (++calls == kill_at) {
    kill(getpid(), SIGKILL);
  }
  errno = saved_errno;
}

bool OpensForChange(int flags) {
  return (flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_ACCMODE) != O_RDONLY;
}

bool OpensForChange(const char* mode) {
  return std::strpbrk(mode, "wa+") != nullptr;
}

bool IsOutput(int fd) {
  return fd == STDOUT_FILENO || fd == STDERR_FILENO;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

mode_t ModeOf(int flags, va_list arguments) {
  const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  return has_mode ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

// Defined under a name of our own, since the headers declare the others, and each C library in its
// own way.
#define TOLM_DECLARE(name, result, ...)              \
  extern "C" __attribute__((visibility("default")))  \
  result Counted_##name(__VA_ARGS__) __asm__(#name); \
  result Counted_##name(__VA_ARGS__)

// `what` is the path or the descriptor that is shown; `counts` tells whether the call changes
// files.
#define TOLM_COUNT(name, result, parameters, arguments, what, counts) \
  TOLM_DECLARE(name, result, TOLM_LIST parameters) {                  \
    static const auto next = Next<result parameters>(#name);          \
    if (counts) {                                                     \
      BeforeChange(#name, what);                                      \
    }                                                                 \
    return next arguments;                                            \
  }
#define TOLM_LIST(...) __VA_ARGS__

#define TOLM_COUNT_OPEN(name)                                         \
  TOLM_DECLARE(name, int, const char* path, int flags, ...) {         \
    static const auto next = Next<int(const char*, int, ...)>(#name); \
    va_list list;                                                     \
    va_start(list, flags);                                            \
    const mode_t mode = ModeOf(flags, list);                          \
    va_end(list);                                                     \
    if (OpensForChange(flags)) {                                      \
      BeforeChange(#name, path);                                      \
    }                                                                 \
    return next(path, flags, mode);                                   \
  }
TOLM_COUNT_OPEN(open)
TOLM_COUNT_OPEN(open64)

#define TOLM_COUNT_OPENAT(name)                                            \
  TOLM_DECLARE(name, int, int parent, const char* path, int flags, ...) {  \
    static const auto next = Next<int(int, const char*, int, ...)>(#name); \
    va_list list;                                                          \
    va_start(list, flags);                                                 \
    const mode_t mode = ModeOf(flags, list);                               \
    va_end(list);                                                          \
    if (OpensForChange(flags)) {                                           \
      BeforeChange(#name, path);                                           \
    }                                                                      \
    return next(parent, path, flags, mode);                                \
  }
TOLM_COUNT_OPENAT(openat)
TOLM_COUNT_OPENAT(openat64)

TOLM_COUNT(creat, int, (const char* path, mode_t mode), (path, mode), path, true)
TOLM_COUNT(creat64, int, (const char* path, mode_t mode), (path, mode), path, true)
// The standard streams open their files by these, which open them inside the C library.
TOLM_COUNT(fopen, FILE*, (const char* path, const char* mode), (path, mode), path,
           OpensForChange(mode))
TOLM_COUNT(fopen64, FILE*, (const char* path, const char* mode), (path, mode), path,
           OpensForChange(mode))

TOLM_COUNT(write, ssize_t, (int fd, const void* data, std::size_t size), (fd, data, size), fd,
           !IsOutput(fd))
TOLM_COUNT(writev, ssize_t, (int fd, const iovec* parts, int count), (fd, parts, count), fd,
           !IsOutput(fd))
TOLM_COUNT(pwrite, ssize_t, (int fd, const void* data, std::size_t size, ShortOffset at),
           (fd, data, size, at), fd, true)
TOLM_COUNT(pwrite64, ssize_t, (int fd, const void* data, std::size_t size, LongOffset at),
           (fd, data, size, at), fd, true)
TOLM_COUNT(copy_file_range, ssize_t,
           (int from, LongOffset* from_at, int to, LongOffset* to_at, std::size_t size,
            unsigned flags),
           (from, from_at, to, to_at, size, flags), to, true)
TOLM_COUNT(sendfile, ssize_t, (int to, int from, ShortOffset* at, std::size_t size),
           (to, from, at, size), to, true)
TOLM_COUNT(sendfile64, ssize_t, (int to, int from, LongOffset* at, std::size_t size),
           (to, from, at, size), to, true)
TOLM_COUNT(truncate, int, (const char* path, ShortOffset size), (path, size), path, true)
TOLM_COUNT(truncate64, int, (const char* path, LongOffset size), (path, size), path, true)
TOLM_COUNT(ftruncate, int, (int fd, ShortOffset size), (fd, size), fd, true)
TOLM_COUNT(ftruncate64, int, (int fd, LongOffset size), (fd, size), fd, true)

TOLM_COUNT(rename, int, (const char* from, const char* to), (from, to), to, true)
TOLM_COUNT(renameat, int, (int parent, const char* from, int to_parent, const char* to),
           (parent, from, to_parent, to), to, true)
TOLM_COUNT(renameat2, int,
           (int parent, const char* from, int to_parent, const char* to, unsigned flags),
           (parent, from, to_parent, to, flags), to, true)
TOLM_COUNT(unlink, int, (const char* path), (path), path, true)
TOLM_COUNT(unlinkat, int, (int parent, const char* path, int flags), (parent, path, flags), path,
           true)
TOLM_COUNT(remove, int, (const char* path), (path), path, true)
TOLM_COUNT(rmdir, int, (const char* path), (path), path, true)
TOLM_COUNT(mkdir, int, (const char* path, mode_t mode), (path, mode), path, true)
TOLM_COUNT(mkdirat, int, (int parent, const char* path, mode_t mode), (parent, path, mode), path,
           true)
TOLM_COUNT(symlink, int, (const char* target, const char* path), (target, path), path, true)
TOLM_COUNT(symlinkat, int, (const char* target, int parent, const char* path),
           (target, parent, path), path, true)
TOLM_COUNT(link, int, (const char* target, const char* path), (target, path), path, true)
TOLM_COUNT(linkat, int,
           (int parent, const char* target, int to_parent, const char* path, int flags),
           (parent, target, to_parent, path, flags), path, true)
TOLM_COUNT(chmod, int, (const char* path, mode_t mode), (path, mode), path, true)
TOLM_COUNT(fchmod, int, (int fd, mode_t mode), (fd, mode), fd, true)
TOLM_COUNT(fchmodat, int, (int parent, const char* path, mode_t mode, int flags),
           (parent, path, mode, flags), path, true)

TOLM_COUNT(fsync, int, (int fd), (fd), fd, true)
TOLM_COUNT(fdatasync, int, (int fd), (fd), fd, true)
TOLM_COUNT(syncfs, int, (int fd), (fd), fd, true)
TOLM_COUNT(flock, int, (int fd, int operation), (fd, operation), fd, true)

// A child counts twice: it may not have been started yet, and it may run on alone.
TOLM_DECLARE(posix_spawn, int, pid_t* pid, const char* path,
             const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes,
             char* const* arguments, char* const* environment) {
  static const auto next = Next<decltype(::posix_spawn)>("posix_spawn");
  BeforeChange("posix_spawn", path);
  const int error = next(pid, path, actions, attributes, arguments, environment);
  BeforeChange("after posix_spawn", path);
  return error;
}
