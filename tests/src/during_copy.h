#ifndef TOLM_TESTS_SRC_DURING_COPY_H_
#define TOLM_TESTS_SRC_DURING_COPY_H_

// A moment in the midst of what the library installs. To be included by exactly one source of a
// program.

#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <utility>

namespace tolm::testing {

/// While one exists, the function is called whenever the library copies a file. One at a time.
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
extern "C" ssize_t copy_file_range(int in, off_t* in_offset, int out, off_t* out_offset,
                                   std::size_t length, unsigned flags) {
  if (tolm::testing::DuringCopy::current) {
    tolm::testing::DuringCopy::current();
  }
  using Function = ssize_t(int, off_t*, int, off_t*, std::size_t, unsigned);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "copy_file_range"));
  return real(in, in_offset, out, out_offset, length, flags);
}
#pragma GCC visibility pop

#endif  // TOLM_TESTS_SRC_DURING_COPY_H_
