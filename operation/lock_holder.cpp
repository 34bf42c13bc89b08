#include "operation/lock_holder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>

#include "base/descriptor.h"
#include "base/messages.h"
#include "base/utf8.h"

namespace tolm::operation {
namespace {

struct FileIdentity {
  unsigned int major;
  unsigned int minor;
  std::uint64_t inode;

  bool operator==(const FileIdentity& other) const {
    return major == other.major && minor == other.minor && inode == other.inode;
  }
};

struct HeldLock {
  pid_t pid;
  FileIdentity file;
};

std::optional<FileIdentity> IdentityOf(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return FileIdentity{major(status.st_dev), minor(status.st_dev), status.st_ino};
}

std::optional<FileIdentity> ParseIdentity(std::string text) {
  std::replace(text.begin(), text.end(), ':', ' ');
  std::istringstream in(text);
  FileIdentity file{};
  if (in >> std::hex >> file.major >> file.minor >> std::dec >> file.inode) {
    return file;
  }
  return std::nullopt;
}

// "1: FLOCK  ADVISORY  WRITE 4711 00:17:5678 0 EOF". Who waits has "->" in the second place.
std::optional<HeldLock> ParseLine(const std::string& line) {
  std::istringstream in(line);
  std::string number;
  std::string kind;
  std::string advisory;
  std::string access;
  pid_t pid = 0;
  std::string file;
  if (!(in >> number >> kind >> advisory >> access >> pid >> file) || kind != "FLOCK") {
    return std::nullopt;
  }
  const std::optional<FileIdentity> identity = ParseIdentity(file);
  return identity ? std::make_optional(HeldLock{pid, *identity}) : std::nullopt;
}

std::string ListOfLocks() {
  std::ifstream locks("/proc/locks");
  std::ostringstream list;
  list << locks.rdbuf();
  return list.str();
}

// Adds who holds the file's lock; returns how long the list was.
std::size_t AddListed(const FileIdentity& file, std::set<pid_t>& holders) {
  const std::string list = ListOfLocks();
  std::istringstream lines(list);
  for (std::string line; std::getline(lines, line);) {
    const std::optional<HeldLock> held = ParseLine(line);
    if (held && held->file == file) {
      holders.insert(held->pid);
    }
  }
  return list.size();
}

// The kernel hands out a page of the list at a time and finds its place in it by counting: a lock
// that is taken or released in between makes it tell one twice or leave one out. So nothing else is
// done between the pages, and a list of several is asked for several times.
std::set<pid_t> ListedHolders(const FileIdentity& file) {
  constexpr int kMostTimes = 10;
  const auto surely_one_page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 2;
  std::set<pid_t> holders;
  for (int i = 0; i < kMostTimes && AddListed(file, holders) > surely_one_page; ++i) {
  }
  return holders;
}

std::string ProcessFile(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + '/' + name;
}

std::string ProgramOf(pid_t pid) {
  std::string name;
  std::ifstream in(ProcessFile(pid, "comm"));
  std::getline(in, name);
  return base::EscapeControls(name);
}

// The owner of the process's directory tells less: it is root for whoever forbids to be looked at.
bool IsRoots(pid_t pid) {
  std::ifstream in(ProcessFile(pid, "status"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string word;
    if (words >> word && word == "Uid:") {
      long real = -1;
      long effective = -1;
      long saved = -1;
      words >> real >> effective >> saved;
      return real == 0 && effective == 0 && saved == 0;
    }
  }
  return false;
}

// The lock file that the message ends with.
std::string LockFileIn(const std::string& message) {
  const std::size_t found = message.rfind(messages::kFailToLock);
  return found == std::string::npos
             ? ""
             : message.substr(found + std::char_traits<char>::length(messages::kFailToLock));
}

}  // namespace

std::vector<LockHolder> HoldersOf(const std::string& lock_file) {
  std::vector<LockHolder> holders;
  if (const std::optional<FileIdentity> wanted = IdentityOf(lock_file)) {
    for (const pid_t pid : ListedHolders(*wanted)) {
      holders.push_back({pid, ProgramOf(pid), IsRoots(pid)});
    }
  }
  return holders;
}

std::string TextOf(const LockHolder& holder) {
  return "process " + std::to_string(holder.pid) +
         (holder.program.empty() ? "" : ", " + holder.program);
}

bool IsHeld(const std::string& lock_file) {
  const base::Descriptor file(open(lock_file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file.IsOpen()) {
    return !HoldersOf(lock_file).empty();
  }
  return flock(file.Get(), LOCK_EX | LOCK_NB) != 0;
}

std::string WithLockHolder(const std::string& message) {
  const std::string lock_file = LockFileIn(message);
  std::string text;
  for (const LockHolder& holder :
       lock_file.empty() ? std::vector<LockHolder>() : HoldersOf(lock_file)) {
    text += (text.empty() ? "" : "; ") + TextOf(holder);
  }
  return text.empty() ? message : message + " (held by " + text + ')';
}

}  // namespace tolm::operation
