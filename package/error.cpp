#include "package/error.h"

#include <cerrno>
#include <system_error>

namespace tolm::package {

Error SystemError(Code code, const std::string& what, int errno_value) {
  return Error(code, what + ": " + std::generic_category().message(errno_value), errno_value);
}

Error WriteError(const std::string& what, int errno_value) {
  const bool full = errno_value == ENOSPC || errno_value == EDQUOT;
  return SystemError(full ? Code::kNoSpace : Code::kWrite, what, errno_value);
}

}  // namespace tolm::package
