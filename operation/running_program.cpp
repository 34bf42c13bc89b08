#include "operation/running_program.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tolm::operation {

namespace fs = std::filesystem;

bool IsRunning(const std::vector<std::string>& arguments) {
  std::string wanted;  // As /proc/PID/cmdline has it.
  for (const std::string& argument : arguments) {
    wanted += argument + '\0';
  }
  std::error_code error;
  for (fs::directory_iterator process("/proc", error), end; !error && process != end;
       process.increment(error)) {
    std::ifstream file(process->path() / "cmdline", std::ios::binary);
    if (std::string(std::istreambuf_iterator<char>(file), {}) == wanted) {
      return true;
    }
  }
  return false;
}

}  // namespace tolm::operation
