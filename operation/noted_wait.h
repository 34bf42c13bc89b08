#ifndef TOLM_OPERATION_NOTED_WAIT_H_
#define TOLM_OPERATION_NOTED_WAIT_H_

#include <string>

namespace tolm::operation {

/// While it exists, WaitWatch knows that this process waits for that lock: for waits that keep the
/// lock's file open for moments only. One at a time.
class NotedWait {
 public:
  explicit NotedWait(const std::string& lock_file);
  ~NotedWait();
  NotedWait(const NotedWait&) = delete;
  NotedWait& operator=(const NotedWait&) = delete;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_NOTED_WAIT_H_
