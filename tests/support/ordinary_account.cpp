#include "tests/support/ordinary_account.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tolm::testing {
namespace {

// For good. Leaves errno when it fails.
bool BecomeOrdinaryAccount() {
  umask(022);
  return setgroups(0, nullptr) == 0 && setgid(kOrdinaryAccount) == 0 &&
         setuid(kOrdinaryAccount) == 0;
}

}  // namespace

bool HasOrdinaryAccount() {
  ForkedChild attempt([](EventChannel&) { return BecomeOrdinaryAccount() ? 0 : 1; });
  return attempt.Process().Wait() == 0;
}

ForkedChild ForkOrdinaryAccount(const ForkedChild::Body& body) {
  return ForkedChild([&body](EventChannel& parent) {
    if (!BecomeOrdinaryAccount()) {
      throw std::system_error(errno, std::generic_category(), "cannot become an ordinary account");
    }
    return body(parent);
  });
}

int CallAsOrdinaryAccount(const std::function<int()>& action) {
  ForkedChild account = ForkOrdinaryAccount([&action](EventChannel&) { return action(); });
  return account.Process().Wait();
}

std::vector<std::string> AsOrdinaryAccount(const std::vector<std::string>& command) {
  const std::string number = std::to_string(kOrdinaryAccount);
  std::vector<std::string> as_account = {"setpriv", "--reuid=" + number, "--regid=" + number,
                                         "--clear-groups", "--"};
  as_account.insert(as_account.end(), command.begin(), command.end());
  return as_account;
}

CommandResult RunAsOrdinaryAccount(const std::string& script) {
  return RunCommand(AsOrdinaryAccount({"/bin/sh", "-c", script}));
}

}  // namespace tolm::testing
