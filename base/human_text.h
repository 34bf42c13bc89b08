#ifndef TOLM_BASE_HUMAN_TEXT_H_
#define TOLM_BASE_HUMAN_TEXT_H_

#include <cstdint>
#include <string>

/// Quantities as people read them.
namespace tolm::base {

/// A unit of sizes, of which there are 1000 in the next one.
struct SizeUnit {
  double bytes;
  const char* name;
};

/// The largest unit of which there is at least one.
SizeUnit UnitFor(std::uint64_t bytes);

/// The number without the unit's name: "3.0".
std::string InUnit(std::uint64_t bytes, const SizeUnit& unit);

/// In the largest unit of which there is at least one: "3.0 MB", "204 kB", "7 B".
std::string HumanSize(std::uint64_t bytes);

/// All digits in groups of three: "3,012,498".
std::string Grouped(std::uint64_t number);

/// In one unit, whole and rounded down: "40 s", "12 min", "5 h", "3 days". Negative ones count as
/// 0.
std::string HumanDuration(std::int64_t seconds);

/// "2026-01-31 23:59" in UTC, of seconds since 1970; "?" for what no calendar has.
std::string UtcMinutes(std::int64_t seconds);

}  // namespace tolm::base

#endif  // TOLM_BASE_HUMAN_TEXT_H_
