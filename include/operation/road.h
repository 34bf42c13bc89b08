#ifndef TOLM_OPERATION_ROAD_H_
#define TOLM_OPERATION_ROAD_H_

#include <functional>
#include <string>

#include "operation/export.h"

namespace tolm::operation {

/// While it exists, its listener is told on what road the work of this process goes, one line each:
/// what is asked for and how much comes, what is verified, unpacked, patched and installed. By the
/// thread that does it; the listener must not throw. One at a time, made and destroyed while there
/// is no work.
class TOLM_OPERATION_API Road {
 public:
  using Listener = std::function<void(const std::string& line)>;
  explicit Road(Listener listener);
  ~Road();
  Road(const Road&) = delete;
  Road& operator=(const Road&) = delete;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_ROAD_H_
