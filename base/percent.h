#ifndef TOLM_BASE_PERCENT_H_
#define TOLM_BASE_PERCENT_H_

#include <string>

namespace tolm::base {

/// A part of an address with each "%" and its two hexadecimal digits made the byte that they stand
/// for (RFC 3986, 2.1), whichever it is. A "%" without two digits stays.
std::string PercentDecoded(const std::string& text);

}  // namespace tolm::base

#endif  // TOLM_BASE_PERCENT_H_
