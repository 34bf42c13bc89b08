#ifndef TOLM_TESTS_SRC_THROWN_H_
#define TOLM_TESTS_SRC_THROWN_H_

#include <exception>
#include <functional>
#include <ostream>
#include <string>

#include "dataupdate/error.h"

namespace tolm::dataupdate {

/// What an operation threw, for comparisons.
struct Thrown {
  std::string message;
  UpdateError::ErrorCode code = UpdateError::kGeneral;

  bool operator==(const Thrown& other) const {
    return message == other.message && code == other.code;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Thrown& thrown) {
  return out << '"' << thrown.message << "\", code " << thrown.code;
}

/// The operation's UpdateError. Equal to no error of the library when it throws nothing; any other
/// exception passes.
inline Thrown ErrorOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const UpdateError& error) {
    return {error.what(), error.code()};
  }
  return {"(nothing was thrown)", UpdateError::kGeneral};
}

/// A failure that has no text, not even an empty one.
struct Wordless : std::exception {
  const char* what() const noexcept override { return nullptr; }
};

}  // namespace tolm::dataupdate

#endif  // TOLM_TESTS_SRC_THROWN_H_
