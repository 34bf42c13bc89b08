#ifndef TOLM_TESTS_SUPPORT_PRELOAD_H_
#define TOLM_TESTS_SUPPORT_PRELOAD_H_

#include <string>
#include <vector>

namespace tolm::testing {

/// The environment of a program that takes functions from the library before all others. The
/// address sanitizer wants to be the first library itself, but is content with being before the C
/// library.
inline std::vector<std::string> Preload(const std::string& library) {
  return {"LD_PRELOAD=" + library, "ASAN_OPTIONS=verify_asan_link_order=0"};
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SUPPORT_PRELOAD_H_
