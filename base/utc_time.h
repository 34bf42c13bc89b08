#ifndef TOLM_BASE_UTC_TIME_H_
#define TOLM_BASE_UTC_TIME_H_

#include <cstdint>
#include <optional>
#include <string>

namespace tolm::base {

/// Seconds since 1970 of "2026-01-31T23:59:59Z", as the history and JSON have times; nothing for
/// any other text.
std::optional<std::int64_t> ParseUtcTime(const std::string& text);

}  // namespace tolm::base

#endif  // TOLM_BASE_UTC_TIME_H_
