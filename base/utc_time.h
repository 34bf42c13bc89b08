#ifndef TOLM_BASE_UTC_TIME_H_
#define TOLM_BASE_UTC_TIME_H_

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace tolm::base {

// Times are seconds since 1970 in 64 bits: the C library's time_t has 32 on some machines and ends
// in 2038 there, while certificates and descriptions may last longer.

/// What timegm() gives, for all years. Days, hours, minutes and seconds may be out of their ranges.
std::int64_t UtcSeconds(const std::tm& parts);

/// Year, month, day and time of day, as gmtime_r() gives them, and nothing else; nothing for years
/// that `std::tm` cannot hold.
std::optional<std::tm> UtcParts(std::int64_t seconds);

/// Seconds since 1970 of "2026-01-31T23:59:59Z", as the history and JSON have times; nothing for
/// any other text.
std::optional<std::int64_t> ParseUtcTime(const std::string& text);

/// The time as strftime() writes it; "?" where UtcParts() gives nothing.
std::string FormatUtcTime(std::int64_t seconds, const char* format);

}  // namespace tolm::base

#endif  // TOLM_BASE_UTC_TIME_H_
