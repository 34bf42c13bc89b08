#ifndef TOLM_SQLDELTA_ERROR_H_
#define TOLM_SQLDELTA_ERROR_H_

#include <stdexcept>
#include <string>

namespace tolm::sqldelta {

/// A file cannot be read or written, which says nothing about the databases. what() names it.
class FileError : public std::runtime_error {
 public:
  enum class Action { kRead, kWrite };

  FileError(Action action, const std::string& message, int errno_value = 0)
      : std::runtime_error(message), action_(action), errno_value_(errno_value) {}

  Action action() const noexcept { return action_; }
  /// Of the call that failed, 0 when no system call is known to be the cause.
  int errno_value() const noexcept { return errno_value_; }

 private:
  Action action_;
  int errno_value_;
};

/// No script can be made of these files; what() says why.
struct Declined : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_ERROR_H_
