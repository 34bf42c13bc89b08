// A library to be preloaded into the installed tool: time(2) tells what is in the variable
// TOLM_TEST_TIME, seconds since 1970, so that a test can let a day pass at once.

#include <cstdlib>
#include <ctime>

extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* stored) noexcept {
  const char* given = std::getenv("TOLM_TEST_TIME");
  const std::time_t now = given == nullptr ? 0 : static_cast<std::time_t>(std::atoll(given));
  if (stored != nullptr) {
    *stored = now;
  }
  return now;
}
