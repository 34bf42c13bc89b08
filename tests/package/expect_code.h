#ifndef TOLM_TESTS_PACKAGE_EXPECT_CODE_H_
#define TOLM_TESTS_PACKAGE_EXPECT_CODE_H_

#include <gtest/gtest.h>

#include <optional>
#include <ostream>

#include "package/error.h"

namespace tolm::package {
// Google Test prints a value through this.
inline void PrintTo(Code code, std::ostream* out) {
  *out << "Code #" << static_cast<int>(code);
}
}  // namespace tolm::package

namespace tolm::testing {

/// The code of the Error that @p action throws, nothing when it throws none.
template <typename Action>
std::optional<package::Code> CodeOf(Action action) {
  try {
    action();
  } catch (const package::Error& error) {
    return error.code();
  }
  return std::nullopt;
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PACKAGE_EXPECT_CODE_H_
