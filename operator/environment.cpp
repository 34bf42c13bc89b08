#include "operator/environment.h"

#include <cstdlib>

namespace tolm::operation {

void SetWgetDefaults() {
  constexpr int kKeepExisting = 0;
  setenv("SYSTEM_WGETRC", "/usr/share/data_update/wgetrc", kKeepExisting);
  setenv("WGETRC", "/usr/share/data_update/wgetrc.empty", kKeepExisting);
}

}  // namespace tolm::operation
