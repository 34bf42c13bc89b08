#ifndef TOLM_SUPPORT_MOMENTS_H_
#define TOLM_SUPPORT_MOMENTS_H_

#include <cstddef>
#include <cstdlib>
#include <iostream>

namespace tolm::testing {

/// Whether tests that interrupt an operation again and again are to do so at every moment, as
/// scripts/all-moments asks, and not at a share of them that is spread over the whole.
inline bool AllMoments() {
  return std::getenv("TOLM_ALL_MOMENTS") != nullptr;
}

/// The first one of these, counted from 1, where every moment is asked for: TOLM_ALL_MOMENTS is its
/// number, so that a run that was cut short can be gone on with.
inline std::size_t FirstMoment() {
  const char* const text = std::getenv("TOLM_ALL_MOMENTS");
  const long number = text == nullptr ? 1 : std::atol(text);
  return number > 1 ? static_cast<std::size_t>(number) : 1;
}

/// @p few, or @p all when every moment is asked for.
inline std::size_t Moments(std::size_t few, std::size_t all) {
  return AllMoments() ? all : few;
}

/// Tells now and then, where every moment is asked for, how far the test has come.
inline void TellProgress(std::size_t number, std::size_t all) {
  constexpr std::size_t kEvery = 25;
  if (AllMoments() && number % kEvery == 0) {
    std::cout << "at " << number << " of " << all << std::endl;
  }
}

/// From one moment to the next where so many are to be tried: 1 for an operation that has few, or
/// when every one is asked for, and 3 otherwise.
inline std::size_t MomentStep(std::size_t moments) {
  constexpr std::size_t kFew = 30;
  return AllMoments() || moments <= kFew ? 1 : 3;
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_MOMENTS_H_
