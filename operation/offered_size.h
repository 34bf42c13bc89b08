#ifndef TOLM_OPERATION_OFFERED_SIZE_H_
#define TOLM_OPERATION_OFFERED_SIZE_H_

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "operation/offered_package.h"

namespace tolm::operation {

/// The size that the cached description states for the package behind the link. Nothing when there
/// is no description, it does not know the link or it says no size: this is only good for showing
/// progress and for not beginning what cannot fit.
std::optional<std::uint64_t> OfferedBytes(const std::string& link);

/// The same where the description is a signed one: the size of the very package that is to come.
std::optional<std::uint64_t> SignedBytes(const std::string& link);

/// The size and the digest that the cached description states for the package behind the link, of
/// whatever database and version, where it is a signed one.
std::optional<OfferedPackage> SignedPackage(const std::string& link);

/// The digests of all packages that the cached description names: none where it is an unsigned one,
/// and nothing where there is none that is believed.
std::optional<std::set<std::string>> SignedDigests();

/// What that description states.
std::optional<std::uint64_t> OfferedBytesIn(const Json::Value& description,
                                            const std::string& link);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OFFERED_SIZE_H_
