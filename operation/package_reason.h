#ifndef TOLM_OPERATION_PACKAGE_REASON_H_
#define TOLM_OPERATION_PACKAGE_REASON_H_

#include <optional>
#include <string>

#include "operation/failure.h"

namespace tolm::operation {

/// In place of a platform's error: the file is not what the signed description says of it, and was
/// not opened.
inline constexpr int kDiffersFromOffer = -1;

/// Why a package at that path was not accepted or not unpacked: the platform's error (one of enum
/// tolmarchive_error, or the above) with its words for it, where it has any. The path's last
/// component tells which package it is.
Failure PackageFailure(const std::string& package, int code, const std::string& detail);

/// The same from the library's message about one, which holds the number only; nothing for any
/// other message.
std::optional<Failure> PackageFailureIn(const std::string& message);

/// Which package of a database a downloaded file is, by its name: "1000005" for <name>_v1000005,
/// "delta 1000005" for <name>_d1000005; empty for any other.
std::string ItemOf(const std::string& file);

/// The library's message about a package that was not accepted or not unpacked, which gives the
/// platform's error by its number ("... failed, ret: 30"), with the reason in words behind it in
/// parentheses. Any other message, and one with an unknown number, as it is.
std::string WithPackageReason(const std::string& message);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PACKAGE_REASON_H_
