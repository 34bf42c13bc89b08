#ifndef TOLM_SUPPORT_ORDINARY_ACCOUNT_H_
#define TOLM_SUPPORT_ORDINARY_ACCOUNT_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace tolm::testing {

/// The account, and the group, of somebody who may do nothing in particular. It needs no entry in
/// the machine's lists.
inline constexpr uid_t kOrdinaryAccount = 1000;

/// Whether processes here can become that account: root can, but not the root of a user namespace
/// with one user. Tests that need it skip themselves otherwise, with this text.
bool HasOrdinaryAccount();
inline constexpr char kNoOrdinaryAccount[] =
    "needs to be really root: a user namespace with one user has no other account";

/// A function running as that account in a forked process, with no other groups and the usual
/// umask. See ForkedChild, for when to fork as well. When it cannot become the account, it ends
/// with 125.
ForkedChild ForkOrdinaryAccount(const ForkedChild::Body& body);

/// Calls a function as that account to its end, and returns what it returns.
int CallAsOrdinaryAccount(const std::function<int()>& action);

/// The command line that runs @p command as that account.
std::vector<std::string> AsOrdinaryAccount(const std::vector<std::string>& command);

/// Runs a shell script as that account to its end.
CommandResult RunAsOrdinaryAccount(const std::string& script);

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_ORDINARY_ACCOUNT_H_
