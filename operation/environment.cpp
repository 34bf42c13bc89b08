#include "operation/environment.h"

#include <csignal>
#include <cstdlib>

namespace tolm::operation {

void PrepareProcess() {
  constexpr int kKeepExisting = 0;
  setenv("SYSTEM_WGETRC", "/usr/share/data_update/wgetrc", kKeepExisting);
  setenv("WGETRC", "/usr/share/data_update/wgetrc.empty", kKeepExisting);
  std::signal(SIGCHLD, SIG_DFL);
}

}  // namespace tolm::operation
