#ifndef TOLM_OPERATION_PROGRAM_WATCH_H_
#define TOLM_OPERATION_PROGRAM_WATCH_H_

#include <atomic>
#include <functional>
#include <string_view>
#include <thread>

#include "base/descriptor.h"

namespace tolm::operation {

/// Watches, in a thread of its own, the program that this process runs through the platform while
/// this exists, and ends it when @p must_end says so, which is asked about once a second. What can
/// be read from @p output, of which this process keeps the other end, is handed to @p take; -1 for
/// none. Both functions are called by that thread only, and not after Stop(). Throws
/// std::system_error when there is no thread or no event to be had.
class ProgramWatch {
 public:
  explicit ProgramWatch(std::function<bool()> must_end, int output = -1,
                        std::function<void(std::string_view)> take = {});
  ~ProgramWatch() { Stop(); }
  ProgramWatch(const ProgramWatch&) = delete;
  ProgramWatch& operator=(const ProgramWatch&) = delete;

  /// When the program has ended: takes what output is left. Programs may be started again
  /// afterwards, unless a signal has been received.
  void Stop();
  /// Whether must_end has said so.
  bool ended() const noexcept { return ended_; }

 private:
  void Watch();
  void ReadOutput();

  const std::function<bool()> must_end_;
  const int output_;
  const std::function<void(std::string_view)> take_;
  const base::Descriptor stop_;
  std::atomic<bool> ended_{false};
  std::thread watcher_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PROGRAM_WATCH_H_
