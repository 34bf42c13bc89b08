// Applies deltas as a device does, for tolmdbpub, which gives its order on standard input. Writes
// to standard output what came of it.
// What is no matter of the deltas is told on standard error, with another exit status than 0.

#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include "publish/replay/order.h"
#include "publish/replay/replay_device.h"

namespace {

void Require(int result, const std::string& what) {
  if (result != 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void EndWith(pid_t publisher) {
  Require(::prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
  // It may have gone before its end was to be heard of.
  if (::getppid() != publisher) {
    throw std::runtime_error("the publisher has gone");
  }
}

void Run() {
  using tolm::publish::ParseReplayOrder;
  using Bytes = std::istreambuf_iterator<char>;
  const tolm::publish::ReplayOrder order = ParseReplayOrder(std::string(Bytes(std::cin), Bytes()));
  EndWith(order.publisher);
  // A device's log lines would say that this machine is updated.
  ::setlogmask(LOG_MASK(LOG_EMERG));
  Require(::chdir(order.directory.c_str()), order.directory);
  const std::string answer = FormatReplayAnswer(tolm::publish::UpdateReplayDevice(order));
  if (!(std::cout << answer << std::flush)) {
    throw std::runtime_error("the result cannot be written");
  }
}

}  // namespace

int main() {
  umask(022);  // Whatever the caller's.
  try {
    Run();
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
