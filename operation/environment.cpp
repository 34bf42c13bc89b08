#include "operation/environment.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>

#include "base/paths.h"

namespace tolm::operation {

void PrepareProcess() {
  constexpr int kKeepExisting = 0;
  umask(022);
  setenv("SYSTEM_WGETRC", paths::kWgetSystemSettings, kKeepExisting);
  setenv("WGETRC", paths::kWgetUserSettings, kKeepExisting);
  std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace tolm::operation
