#include "operation/running_program.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

// Nothing of a process that has ended since it was listed.
std::string ReadAll(const fs::path& path) {
  const std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();  // Which does not throw when the file gives an error.
  return text.str();
}

// By its real account and the one that counts: anybody can start a program that becomes another's.
// Only a line's beginning says what the line tells: anybody can give a program any name.
bool IsOwn(const fs::path& process) {
  constexpr char kAccounts[] = "Uid:";
  std::ifstream file(process / "status");
  std::string line;
  while (std::getline(file, line) && line.rfind(kAccounts, 0) != 0) {
  }
  std::istringstream accounts(line.substr(std::min(line.size(), sizeof kAccounts - 1)));
  uid_t real = 0;
  uid_t effective = 0;
  return accounts >> real >> effective && real == geteuid() && effective == geteuid();
}

bool SeesTheSame(const fs::path& process, const std::string& place) {
  struct stat own;
  struct stat others;
  const bool is_here = stat(place.c_str(), &own) == 0;
  const bool is_there = stat((process / "root").concat(place).c_str(), &others) == 0;
  return is_here == is_there &&
         (!is_here || (own.st_dev == others.st_dev && own.st_ino == others.st_ino));
}

}  // namespace

bool IsRunning(const std::vector<std::string>& arguments, const std::vector<std::string>& places) {
  std::string wanted;  // As /proc/PID/cmdline has it.
  for (const std::string& argument : arguments) {
    wanted += argument + '\0';
  }
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path& process = entry->path();
    const auto sees_the_same = [&](const std::string& place) {
      return SeesTheSame(process, place);
    };
    if (ReadAll(process / "cmdline") == wanted && IsOwn(process) &&
        std::all_of(places.begin(), places.end(), sees_the_same)) {
      return true;
    }
  }
  return false;
}

}  // namespace tolm::operation
