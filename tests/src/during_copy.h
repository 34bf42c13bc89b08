#ifndef TOLM_TESTS_SRC_DURING_COPY_H_
#define TOLM_TESTS_SRC_DURING_COPY_H_

// A moment in the midst of what the library installs. To be included by exactly one source of a
// program.

#include <dlfcn.h>
#include <sys/types.h>

#include <functional>
#include <utility>

namespace tolm::testing {

/// While one exists, the function, which must not throw, is called whenever the library copies a
/// file. One at a time.
class DuringCopy {
 public:
  explicit DuringCopy(std::function<void()> call) { current = std::move(call); }
  ~DuringCopy() { current = nullptr; }
  DuringCopy(const DuringCopy&) = delete;
  DuringCopy& operator=(const DuringCopy&) = delete;

  // Of the function below only.
  inline static std::function<void()> current;
};

}  // namespace tolm::testing

#pragma GCC visibility push(default)
// What the library calls for a copy of any size, in the end.
extern "C" int fchmod(int file, mode_t mode) noexcept {
  if (tolm::testing::DuringCopy::current) {
    tolm::testing::DuringCopy::current();
  }
  using Function = int(int, mode_t);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "fchmod"));
  return real(file, mode);
}
#pragma GCC visibility pop

#endif  // TOLM_TESTS_SRC_DURING_COPY_H_
