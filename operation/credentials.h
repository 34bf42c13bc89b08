#ifndef TOLM_OPERATION_CREDENTIALS_H_
#define TOLM_OPERATION_CREDENTIALS_H_

#include <optional>
#include <string>

#include "operation/link_rules.h"

namespace tolm::operation {

/// For basic authentication.
struct Credentials {
  std::string user;
  std::string password;
};

/// Who has stated them: the server's configuration counts more than a link or a redirect.
enum class StatedBy { kConfiguration, kLink };

/// The address without user name and password, which are remembered in this process for its scheme,
/// host and port, so that no message, log, history or list of processes holds them. Any thread may
/// call both.
std::string RememberCredentials(const std::string& address, StatedBy by);
/// Those for an address, where there are any.
std::optional<Credentials> CredentialsFor(const Url& url);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_CREDENTIALS_H_
