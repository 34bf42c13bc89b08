// Switches for changed tokens: with the number of one in TOLM_MUTANT a program behaves as if that
// token were changed, without as it was written. What this header gives is put into the sources by
// scripts/mutation/switches.py.
//
// With a directory in TOLM_MUTANTS_REACHED each process leaves an empty file there for each number
// that it comes by, named like it: what holds nothing is made also where a process may write no
// more. The call for that is made past the C library: tests count, delay and refuse its calls.
#ifndef TOLM_TESTS_SUPPORT_MUTATION_SWITCHES_H_
#define TOLM_TESTS_SUPPORT_MUTATION_SWITCHES_H_

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace tolm::mutation {

constexpr int kMostSwitches = 100000;

inline void Leave(const char* directory, int number) {
  const int error = errno;
  char path[4096];
  std::snprintf(path, sizeof(path), "%s/%d", directory, number);
  ::syscall(SYS_mknodat, AT_FDCWD, path, S_IFREG | 0600, 0);
  errno = error;
}

inline void Reached(int id) {
  static const char* const directory = std::getenv("TOLM_MUTANTS_REACHED");
  static unsigned char seen[kMostSwitches];
  if (directory != nullptr && seen[id] == 0) {
    seen[id] = 1;
    Leave(directory, id);
  }
}

inline bool IsOn(int id) {
  static const int on = [] {
    const char* number = std::getenv("TOLM_MUTANT");
    return number != nullptr ? std::atoi(number) : 0;
  }();
  Reached(id);
  return id == on;
}

// A symbol for each change that the compiler would refuse, so that the objects tell which these
// are.
template <int id>
struct Refused {
  static const int number;
};
template <int id>
[[gnu::used]] const int Refused<id>::number = id;

// Stands between an operator that may be changed and the same operator again, so that the rank of
// the operator decides what its operands are: a < Less<7>() < b.
#define TOLM_SWITCHED_OPERATOR(NAME, WRITTEN, CHANGED)                                  \
  template <int id>                                                                     \
  struct NAME {};                                                                       \
  template <class Left, int id>                                                         \
  struct NAME##Left {                                                                   \
    const Left& value;                                                                  \
  };                                                                                    \
  template <class Left, int id>                                                         \
  NAME##Left<Left, id> operator WRITTEN(const Left& left, NAME<id>) {                   \
    return {left};                                                                      \
  }                                                                                     \
  template <class Left, class Right, class = void>                                      \
  struct NAME##Compiles : std::false_type {};                                           \
  template <class Left, class Right>                                                    \
  struct NAME##Compiles<                                                                \
      Left, Right,                                                                      \
      std::enable_if_t<std::is_convertible_v<                                           \
          decltype(std::declval<const Left&>() CHANGED std::declval<const Right&>()),   \
          decltype(std::declval<const Left&>() WRITTEN std::declval<const Right&>())>>> \
      : std::true_type {};                                                              \
  template <class Left, int id, class Right>                                            \
  auto operator WRITTEN(NAME##Left<Left, id> left, const Right& right)                  \
      ->std::decay_t<decltype(left.value WRITTEN right)> {                              \
    if constexpr (NAME##Compiles<Left, Right>::value) {                                 \
      if (IsOn(id)) {                                                                   \
        return left.value CHANGED right;                                                \
      }                                                                                 \
    } else {                                                                            \
      static_cast<void>(&Refused<id>::number);                                          \
    }                                                                                   \
    return left.value WRITTEN right;                                                    \
  }

TOLM_SWITCHED_OPERATOR(Equal, ==, !=)
TOLM_SWITCHED_OPERATOR(Unequal, !=, ==)
TOLM_SWITCHED_OPERATOR(Less, <, <=)
TOLM_SWITCHED_OPERATOR(Greater, >, >=)
TOLM_SWITCHED_OPERATOR(AtMost, <=, <)
TOLM_SWITCHED_OPERATOR(AtLeast, >=, >)
TOLM_SWITCHED_OPERATOR(Plus, +, -)
TOLM_SWITCHED_OPERATOR(Minus, -, +)
TOLM_SWITCHED_OPERATOR(Times, *, /)
TOLM_SWITCHED_OPERATOR(Over, /, *)

// In the place of a '!': binds weaker than what that may stand before, and stronger than any other
// operator of two operands.
template <int id>
struct Not {};
template <int id, class Value>
bool operator->*(Not<id>, const Value& value) {
  return IsOn(id) ? static_cast<bool>(value) : !static_cast<bool>(value);
}

}  // namespace tolm::mutation

#define TOLM_EITHER(id, written, changed) (::tolm::mutation::IsOn(id) ? (changed) : (written))

#endif  // TOLM_TESTS_SUPPORT_MUTATION_SWITCHES_H_
