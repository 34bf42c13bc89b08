#ifndef TOLM_TESTS_OFFER_OFFERS_H_
#define TOLM_TESTS_OFFER_OFFERS_H_

#include <optional>
#include <ostream>
#include <string>

#include "offer/error.h"
#include "offer/offer.h"

namespace tolm::offer {
// Google Test prints a value through this.
inline void PrintTo(Code code, std::ostream* out) {
  *out << "Code #" << static_cast<int>(code);
}
}  // namespace tolm::offer

namespace tolm::testing {

inline constexpr std::int64_t kIssued = 4000000000;  // later than this was built
inline constexpr std::int64_t kDay = 24 * 3600;

inline offer::PackageOffer PackageNamed(const std::string& link) {
  return {link, 1000, std::string(96, 'a')};
}

/// Of two databases, one with a delta.
inline offer::Offer SomeOffer() {
  offer::Offer made;
  made.repository = std::string(32, '7');
  made.info_version = "1";
  made.counter = 41;
  made.issued = kIssued;
  made.expires = kIssued + 14 * kDay;
  made.base = "https://updates.example.org/data";
  made.databases["oui"] = {
      7, 1700000000, false, PackageNamed("packages/oui/oui_v7"), {{7, PackageNamed("d/oui_d7")}}};
  made.databases["Zeichen \xC3\xA4\"\n"] = {
      0, 0, true, PackageNamed("https://other.example.org/z_v0"), {}};
  return made;
}

/// The code of the Error that @p action throws, nothing when it throws none.
template <typename Action>
std::optional<offer::Code> OfferCodeOf(Action action) {
  try {
    action();
  } catch (const offer::Error& error) {
    return error.code();
  }
  return std::nullopt;
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_OFFER_OFFERS_H_
