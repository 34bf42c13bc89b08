#ifndef TOLM_BASE_HUMAN_TEXT_H_
#define TOLM_BASE_HUMAN_TEXT_H_

#include <cstdint>
#include <string>

/// Quantities as people read them.
namespace tolm::base {

/// In the largest unit of which there is at least one, 1000 to the next: "3.0 MB", "204 kB", "7 B".
std::string HumanSize(std::uint64_t bytes);

/// All digits in groups of three: "3,012,498".
std::string Grouped(std::uint64_t number);

/// In one unit, whole and rounded down: "40 s", "12 min", "5 h", "3 days". Negative ones count as
/// 0.
std::string HumanDuration(std::int64_t seconds);

}  // namespace tolm::base

#endif  // TOLM_BASE_HUMAN_TEXT_H_
