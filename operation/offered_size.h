#ifndef TOLM_OPERATION_OFFERED_SIZE_H_
#define TOLM_OPERATION_OFFERED_SIZE_H_

#include <cstdint>
#include <optional>
#include <string>

namespace tolm::operation {

/// The size that the cached description states for the package behind the link. Nothing when there
/// is no description, it does not know the link or it says no size: this is only good for showing
/// progress and for not beginning what cannot fit.
std::optional<std::uint64_t> OfferedBytes(const std::string& link);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OFFERED_SIZE_H_
