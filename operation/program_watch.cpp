#include "operation/program_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "operation/interrupt.h"
#include "tolm/exec.h"

namespace tolm::operation {
namespace {

constexpr int kIntervalMilliseconds = 1000;

}  // namespace

ProgramWatch::ProgramWatch(std::function<bool()> must_end, int output,
                           std::function<void(std::string_view)> take)
    : must_end_(std::move(must_end)),
      output_(output),
      take_(std::move(take)),
      stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!stop_.IsOpen()) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  watcher_ = std::thread(&ProgramWatch::Watch, this);
}

void ProgramWatch::Stop() {
  if (!watcher_.joinable()) {
    return;
  }
  eventfd_write(stop_.Get(), 1);
  watcher_.join();
  if (!ended_) {
    return;
  }
  TLIBCExecCancel(0);
  // A signal's own cancellation comes after it has been noted, so none is lost between the two.
  if (Interrupt::Received() != 0) {
    TLIBCExecCancel(1);
  }
}

void ProgramWatch::Watch() {
  std::array<pollfd, 2> events{pollfd{stop_.Get(), POLLIN, 0}, pollfd{output_, POLLIN, 0}};
  while (true) {
    poll(events.data(), events.size(), kIntervalMilliseconds);
    ReadOutput();
    if ((events[0].revents & POLLIN) != 0) {
      return;
    }
    if (!ended_ && must_end_()) {
      ended_ = true;
      TLIBCExecCancel(1);
    }
  }
}

void ProgramWatch::ReadOutput() {
  if (output_ < 0) {
    return;
  }
  std::array<char, 65536> buffer;
  const ssize_t size = read(output_, buffer.data(), buffer.size());
  if (size > 0) {
    take_({buffer.data(), static_cast<std::size_t>(size)});
  }
}

}  // namespace tolm::operation
