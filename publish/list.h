#ifndef TOLM_PUBLISH_LIST_H_
#define TOLM_PUBLISH_LIST_H_

#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <optional>
#include <string>

#include "offer/offer.h"
#include "publish/repository.h"
#include "publish/settings.h"

namespace tolm::publish {

/// Prints what a repository has released, for people or as JSON (docs/formats/repository.md). Takes
/// no lock: while another command works, what is printed is the state before or after it. Throws
/// Error, package::Error.
void ListRepository(const std::string& repository, bool as_json, std::ostream& out);

/// "2026-01-31 23:59" in UTC.
std::string TimeText(std::int64_t seconds);

/// A part of a whole in percent: "0.4 %"; "-" of nothing.
std::string ShareText(std::uint64_t part, std::uint64_t whole);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_LIST_H_
