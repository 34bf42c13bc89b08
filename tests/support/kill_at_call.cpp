// A library to be preloaded into tolmdbud, tolmdbpub or a daemon of a test (see killed_run.h): it
// stands in front of the C library's calls that change files, counts them, and ends the process by
// SIGKILL right before the call of a given number. So a kill can be tried at every step that leaves
// something behind, and the same number is the same step in every run. Told of a directory it
// counts those calls only that take space below it, and can let them fail as on a full file system.
// Told of directories on a bad disk it counts whatever reads or changes something below them, and
// can let one of these calls fail as where a disk cannot be read or written.
//
// Not seen: what the C library does inside its own functions (the log's socket, the descriptors of
// a child that is being started). Nothing of that changes a file.

#include "tests/support/kill_at_call.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <type_traits>

namespace {

using tolm::testing::kBrokenAtVariable;
using tolm::testing::kBrokenBelowVariable;
using tolm::testing::kBrokenCallVariable;
using tolm::testing::kFullBelowVariable;
using tolm::testing::kFullFromVariable;
using tolm::testing::kFullUntilVariable;
using tolm::testing::kKillAtVariable;
using tolm::testing::kPeakMark;
using tolm::testing::kTraceVariable;

// Off_t of the calls without and with "64" in their names.
using ShortOffset = long;
using LongOffset = std::int64_t;

enum class Effect {
  kNone,
  kRead,      // Changes nothing, but may fail on a bad disk.
  kLock,      // Counts as a change, but needs no disk.
  kChange,    // Changes files, but takes no space.
  kCreation,  // Takes space when the name is new.
  kGrowth     // Takes space.
};

std::atomic<std::uint64_t> calls{0};
std::uint64_t kill_at = 0;  // 0: never
// Calls from the first number on and before the second find no space.
std::uint64_t full_from = 0;
std::uint64_t full_until = 0;
const char* full_below = nullptr;
std::uint64_t broken_at = 0;         // 0: never
const char* broken_below = nullptr;  // Directories with colons between them.
const char* broken_call = nullptr;   // Any call.
int trace_fd = -1;
pid_t tool = -1;  // What it forks goes on by itself, and is not counted.

// What this process starts inherits the variables, and is none of our business.
bool IsATool() {
  for (const char* name : {"tolmdbud", "tolmdbpub", "daemon"}) {
    if (std::strcmp(program_invocation_short_name, name) == 0) {
      return true;
    }
  }
  return false;
}

std::uint64_t NumberIn(const char* variable) {
  const char* number = std::getenv(variable);
  return number == nullptr ? 0 : std::strtoull(number, nullptr, 10);
}

__attribute__((constructor)) void Start() {
  if (!IsATool()) {
    return;
  }
  tool = getpid();
  kill_at = NumberIn(kKillAtVariable);
  full_from = NumberIn(kFullFromVariable);
  full_until = NumberIn(kFullUntilVariable);
  full_below = std::getenv(kFullBelowVariable);
  broken_at = NumberIn(kBrokenAtVariable);
  broken_below = std::getenv(kBrokenBelowVariable);
  broken_call = std::getenv(kBrokenCallVariable);
  if (const char* path = std::getenv(kTraceVariable)) {
    trace_fd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CLOEXEC));
  }
}

void Trace(const std::string& text) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char time[40];
  std::snprintf(time, sizeof time, "%lld.%09ld ", static_cast<long long>(now.tv_sec), now.tv_nsec);
  const std::string line = time + text + '\n';
  (void)!syscall(SYS_write, trace_fd, line.data(), line.size());
}

// The most memory that was resident at any time: of this program, which the system's account of a
// child does not tell from what was there before the program was executed.
__attribute__((destructor)) void End() {
  if (trace_fd < 0) {
    return;
  }
  std::array<char, 8192> status{};
  const int file =
      static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/status", O_RDONLY | O_CLOEXEC));
  (void)!syscall(SYS_read, file, status.data(), status.size() - 1);
  (void)syscall(SYS_close, file);
  if (const char* peak = std::strstr(status.data(), "VmHWM:")) {
    Trace(kPeakMark + std::to_string(std::strtoull(peak + 6, nullptr, 10) * 1024));
  }
}

// A path as it was given to a call beside the directory that it starts from.
struct At {
  int parent;
  const char* path;
};

std::string Shown(const char* path) {
  return path;
}

std::string Shown(int fd) {
  char target[512];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const long length =
      syscall(SYS_readlinkat, AT_FDCWD, link.c_str(), target, sizeof target);  // not counted
  return length < 0 ? link : std::string(target, static_cast<std::size_t>(length));
}

std::string Shown(const At& at) {
  const bool is_whole = at.path[0] == '/' || at.parent == AT_FDCWD;
  return is_whole ? at.path : Shown(at.parent) + '/' + at.path;
}

std::string Shown(DIR* directory) {
  return Shown(dirfd(directory));
}

std::string Shown(FILE* file) {
  return Shown(fileno(file));
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsBelow(const std::string& path, const std::string& directory) {
  return path.compare(0, directory.size(), directory) == 0 &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

// The calls of these two names are counted ones themselves.
bool Exists(const std::string& path) {
  static const auto next = Next<int(const char*, struct stat*)>("lstat");
  struct stat ignored;
  return next(path.c_str(), &ignored) == 0;
}

struct stat StatusOf(const char* path) {
  static const auto next = Next<int(const char*, struct stat*)>("stat");
  struct stat status = {};
  next(path, &status);
  return status;
}

bool TakesSpace(Effect effect, const std::string& path) {
  return effect == Effect::kGrowth || (effect == Effect::kCreation && !Exists(path));
}

bool IsOnBadDisk(const std::string& path) {
  for (const char* at = broken_below; *at != '\0';) {
    const char* const end = strchrnul(at, ':');
    if (IsBelow(path, std::string(at, end))) {
      return true;
    }
    at = *end == '\0' ? end : end + 1;
  }
  return false;
}

bool Counts(Effect effect, const char* name, const std::string& path) {
  if (broken_below != nullptr) {
    return effect != Effect::kLock && IsOnBadDisk(path) &&
           (broken_call == nullptr || std::strcmp(name, broken_call) == 0);
  }
  return full_below == nullptr || (IsBelow(path, full_below) && TakesSpace(effect, path));
}

bool IsWatched(Effect effect) {
  const bool is_on =
      kill_at != 0 || trace_fd >= 0 || full_below != nullptr || broken_below != nullptr;
  return is_on && effect != Effect::kNone && (effect != Effect::kRead || broken_below != nullptr);
}

// Whether the call may be made. Otherwise errno says that there is no space, or that a disk fails.
template <typename What>
bool BeforeCall(Effect effect, const char* name, What what) {
  if (getpid() != tool || !IsWatched(effect)) {
    return true;
  }
  const int saved_errno = errno;
  const std::string path = Shown(what);
  if (!Counts(effect, name, path)) {
    errno = saved_errno;
    return true;
  }
  if (trace_fd >= 0) {
    Trace(std::string(name) + ' ' + path);
  }
  const std::uint64_t number = ++calls;
  if (number == kill_at) {
    kill(getpid(), SIGKILL);
  }
  const bool finds_space = number < full_from || number >= full_until;
  const bool is_broken = number == broken_at;
  errno = is_broken ? EIO : finds_space ? saved_errno : ENOSPC;
  return finds_space && !is_broken;
}

template <typename Result>
Result Failure() {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
}

Effect Unless(bool condition, Effect effect) {
  return condition ? Effect::kNone : effect;
}

Effect EffectOfSize(std::int64_t present, std::int64_t wanted) {
  return wanted > present ? Effect::kGrowth : Effect::kChange;
}

Effect EffectOfSize(int fd, std::int64_t wanted) {
  struct stat status = {};
  fstat(fd, &status);
  return EffectOfSize(std::int64_t{status.st_size}, wanted);
}

Effect EffectOfSize(const char* path, std::int64_t wanted) {
  return EffectOfSize(std::int64_t{StatusOf(path).st_size}, wanted);
}

Effect EffectOfOpening(int flags) {
  if ((flags & O_CREAT) != 0) {
    return Effect::kCreation;
  }
  return (flags & O_TRUNC) != 0 || (flags & O_ACCMODE) != O_RDONLY ? Effect::kChange
                                                                   : Effect::kRead;
}

Effect EffectOfOpening(const char* mode) {
  if (std::strpbrk(mode, "wa") != nullptr) {
    return Effect::kCreation;
  }
  return std::strchr(mode, '+') != nullptr ? Effect::kChange : Effect::kRead;
}

bool IsOutput(int fd) {
  return fd == STDOUT_FILENO || fd == STDERR_FILENO;
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

// `what` is the path or the descriptor that is shown; `effect` tells what the call does to files.
#define TOLM_COUNT(name, result, parameters, arguments, what, effect) \
  TOLM_DECLARE(name, result, TOLM_LIST parameters) {                  \
    static const auto next = Next<result parameters>(#name);          \
    if (!BeforeCall(effect, #name, what)) {                           \
      return Failure<result>();                                       \
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
    if (!BeforeCall(EffectOfOpening(flags), #name, path)) {           \
      return -1;                                                      \
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
    if (!BeforeCall(EffectOfOpening(flags), #name, At{parent, path})) {    \
      return -1;                                                           \
    }                                                                      \
    return next(parent, path, flags, mode);                                \
  }
TOLM_COUNT_OPENAT(openat)
TOLM_COUNT_OPENAT(openat64)

TOLM_COUNT(creat, int, (const char* path, mode_t mode), (path, mode), path, Effect::kCreation)
TOLM_COUNT(creat64, int, (const char* path, mode_t mode), (path, mode), path, Effect::kCreation)
// The standard streams open their files by these, which open them inside the C library.
TOLM_COUNT(fopen, FILE*, (const char* path, const char* mode), (path, mode), path,
           EffectOfOpening(mode))
TOLM_COUNT(fopen64, FILE*, (const char* path, const char* mode), (path, mode), path,
           EffectOfOpening(mode))

TOLM_COUNT(write, ssize_t, (int fd, const void* data, std::size_t size), (fd, data, size), fd,
           Unless(IsOutput(fd), Effect::kGrowth))
TOLM_COUNT(writev, ssize_t, (int fd, const iovec* parts, int count), (fd, parts, count), fd,
           Unless(IsOutput(fd), Effect::kGrowth))
TOLM_COUNT(pwrite, ssize_t, (int fd, const void* data, std::size_t size, ShortOffset at),
           (fd, data, size, at), fd, Effect::kGrowth)
TOLM_COUNT(pwrite64, ssize_t, (int fd, const void* data, std::size_t size, LongOffset at),
           (fd, data, size, at), fd, Effect::kGrowth)
TOLM_COUNT(copy_file_range, ssize_t,
           (int from, LongOffset* from_at, int to, LongOffset* to_at, std::size_t size,
            unsigned flags),
           (from, from_at, to, to_at, size, flags), to, Effect::kGrowth)
TOLM_COUNT(sendfile, ssize_t, (int to, int from, ShortOffset* at, std::size_t size),
           (to, from, at, size), to, Effect::kGrowth)
TOLM_COUNT(sendfile64, ssize_t, (int to, int from, LongOffset* at, std::size_t size),
           (to, from, at, size), to, Effect::kGrowth)
TOLM_COUNT(truncate, int, (const char* path, ShortOffset size), (path, size), path,
           EffectOfSize(path, size))
TOLM_COUNT(truncate64, int, (const char* path, LongOffset size), (path, size), path,
           EffectOfSize(path, size))
TOLM_COUNT(ftruncate, int, (int fd, ShortOffset size), (fd, size), fd, EffectOfSize(fd, size))
TOLM_COUNT(ftruncate64, int, (int fd, LongOffset size), (fd, size), fd, EffectOfSize(fd, size))

TOLM_COUNT(rename, int, (const char* from, const char* to), (from, to), to, Effect::kCreation)
TOLM_COUNT(renameat, int, (int parent, const char* from, int to_parent, const char* to),
           (parent, from, to_parent, to), (At{to_parent, to}), Effect::kCreation)
TOLM_COUNT(renameat2, int,
           (int parent, const char* from, int to_parent, const char* to, unsigned flags),
           (parent, from, to_parent, to, flags), (At{to_parent, to}), Effect::kCreation)
TOLM_COUNT(unlink, int, (const char* path), (path), path, Effect::kChange)
TOLM_COUNT(unlinkat, int, (int parent, const char* path, int flags), (parent, path, flags),
           (At{parent, path}), Effect::kChange)
TOLM_COUNT(remove, int, (const char* path), (path), path, Effect::kChange)
TOLM_COUNT(rmdir, int, (const char* path), (path), path, Effect::kChange)
TOLM_COUNT(mkdir, int, (const char* path, mode_t mode), (path, mode), path, Effect::kCreation)
TOLM_COUNT(mkdirat, int, (int parent, const char* path, mode_t mode), (parent, path, mode),
           (At{parent, path}), Effect::kCreation)
TOLM_COUNT(symlink, int, (const char* target, const char* path), (target, path), path,
           Effect::kCreation)
TOLM_COUNT(symlinkat, int, (const char* target, int parent, const char* path),
           (target, parent, path), (At{parent, path}), Effect::kCreation)
TOLM_COUNT(link, int, (const char* target, const char* path), (target, path), path,
           Effect::kCreation)
TOLM_COUNT(linkat, int,
           (int parent, const char* target, int to_parent, const char* path, int flags),
           (parent, target, to_parent, path, flags), (At{to_parent, path}), Effect::kCreation)
TOLM_COUNT(chmod, int, (const char* path, mode_t mode), (path, mode), path, Effect::kChange)
TOLM_COUNT(fchmod, int, (int fd, mode_t mode), (fd, mode), fd, Effect::kChange)
TOLM_COUNT(fchmodat, int, (int parent, const char* path, mode_t mode, int flags),
           (parent, path, mode, flags), (At{parent, path}), Effect::kChange)

// A file system that gives out its blocks late says here that there are none.
TOLM_COUNT(fsync, int, (int fd), (fd), fd, Effect::kGrowth)
TOLM_COUNT(fdatasync, int, (int fd), (fd), fd, Effect::kGrowth)
TOLM_COUNT(syncfs, int, (int fd), (fd), fd, Effect::kGrowth)
TOLM_COUNT(flock, int, (int fd, int operation), (fd, operation), fd, Effect::kLock)

TOLM_COUNT(read, ssize_t, (int fd, void* data, std::size_t size), (fd, data, size), fd,
           Effect::kRead)
TOLM_COUNT(readv, ssize_t, (int fd, const iovec* parts, int count), (fd, parts, count), fd,
           Effect::kRead)
TOLM_COUNT(pread, ssize_t, (int fd, void* data, std::size_t size, ShortOffset at),
           (fd, data, size, at), fd, Effect::kRead)
TOLM_COUNT(pread64, ssize_t, (int fd, void* data, std::size_t size, LongOffset at),
           (fd, data, size, at), fd, Effect::kRead)
TOLM_COUNT(opendir, DIR*, (const char* path), (path), path, Effect::kRead)
TOLM_COUNT(readdir, dirent*, (DIR * directory), (directory), directory, Effect::kRead)
TOLM_COUNT(readdir64, dirent64*, (DIR * directory), (directory), directory, Effect::kRead)
TOLM_COUNT(readlink, ssize_t, (const char* path, char* target, std::size_t size),
           (path, target, size), path, Effect::kRead)
TOLM_COUNT(readlinkat, ssize_t, (int parent, const char* path, char* target, std::size_t size),
           (parent, path, target, size), (At{parent, path}), Effect::kRead)
// That of what is open already (fstat) is in memory, and no disk is asked for it.
TOLM_COUNT(stat, int, (const char* path, struct stat* status), (path, status), path, Effect::kRead)
TOLM_COUNT(stat64, int, (const char* path, struct stat64* status), (path, status), path,
           Effect::kRead)
TOLM_COUNT(lstat, int, (const char* path, struct stat* status), (path, status), path, Effect::kRead)
TOLM_COUNT(lstat64, int, (const char* path, struct stat64* status), (path, status), path,
           Effect::kRead)
TOLM_COUNT(fstatat, int, (int parent, const char* path, struct stat* status, int flags),
           (parent, path, status, flags), (At{parent, path}), Unless(*path == '\0', Effect::kRead))
TOLM_COUNT(fstatat64, int, (int parent, const char* path, struct stat64* status, int flags),
           (parent, path, status, flags), (At{parent, path}), Unless(*path == '\0', Effect::kRead))
TOLM_COUNT(statx, int,
           (int parent, const char* path, int flags, unsigned mask, struct statx* status),
           (parent, path, flags, mask, status), (At{parent, path}),
           Unless(*path == '\0', Effect::kRead))
TOLM_COUNT(access, int, (const char* path, int mode), (path, mode), path, Effect::kRead)
TOLM_COUNT(faccessat, int, (int parent, const char* path, int mode, int flags),
           (parent, path, mode, flags), (At{parent, path}), Effect::kRead)

// The descriptor is closed all the same: what fails is to write what was not yet.
TOLM_DECLARE(close, int, int fd) {
  static const auto next = Next<int(int)>("close");
  const bool succeeds = BeforeCall(Effect::kRead, "close", fd);
  const int result = next(fd);
  if (!succeeds) {
    errno = EIO;
  }
  return succeeds ? result : -1;
}
TOLM_DECLARE(fclose, int, FILE* file) {
  static const auto next = Next<int(FILE*)>("fclose");
  const bool succeeds = BeforeCall(Effect::kRead, "fclose", file);
  const int result = next(file);
  if (!succeeds) {
    errno = EIO;
  }
  return succeeds ? result : EOF;
}

// A child counts twice: it may not have been started yet, and it may run on alone.
TOLM_DECLARE(posix_spawn, int, pid_t* pid, const char* path,
             const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes,
             char* const* arguments, char* const* environment) {
  static const auto next = Next<decltype(::posix_spawn)>("posix_spawn");
  BeforeCall(Effect::kChange, "posix_spawn", path);
  const int error = next(pid, path, actions, attributes, arguments, environment);
  BeforeCall(Effect::kChange, "after posix_spawn", path);
  return error;
}
