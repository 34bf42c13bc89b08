#ifndef TOLM_OPERATION_SIZE_TEXT_H_
#define TOLM_OPERATION_SIZE_TEXT_H_

#include <cstdint>
#include <string>

namespace tolm::operation {

/// A unit of sizes, of which there are 1000 in the next one.
struct SizeUnit {
  double bytes;
  const char* name;
};

/// The largest unit of which there is at least one.
SizeUnit UnitFor(std::uint64_t bytes);
/// The number without the unit's name: "3.0".
std::string InUnit(std::uint64_t bytes, const SizeUnit& unit);
/// "3.0 MB"
std::string SizeText(std::uint64_t bytes);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SIZE_TEXT_H_
