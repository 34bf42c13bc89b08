#ifndef TOLM_OPERATION_PACKAGE_REASON_H_
#define TOLM_OPERATION_PACKAGE_REASON_H_

#include <string>

namespace tolm::operation {

/// The library's message about a package that was not accepted or not unpacked, which gives the
/// platform's error by its number ("... failed, ret: 30"), with the reason in words behind it in
/// parentheses. Any other message, and one with an unknown number, as it is.
std::string WithPackageReason(const std::string& message);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PACKAGE_REASON_H_
