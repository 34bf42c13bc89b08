#ifndef TOLM_TESTS_SUPPORT_SHIFTED_CLOCK_H_
#define TOLM_TESTS_SUPPORT_SHIFTED_CLOCK_H_

#include <ctime>
#include <string>
#include <vector>

#include "tests/support/preload.h"

namespace tolm::testing {

/// The environment of a program that starts with another idea of what time it is. The test's target
/// says by TOLM_SHIFTED_CLOCK_LIBRARY where the library is that makes it believe so.
inline std::vector<std::string> EnvironmentAt(std::time_t now) {
  std::vector<std::string> environment = Preload(TOLM_SHIFTED_CLOCK_LIBRARY);
  environment.push_back("TOLM_TEST_TIME=" + std::to_string(now));
  return environment;
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SUPPORT_SHIFTED_CLOCK_H_
