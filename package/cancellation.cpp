#include "package/cancellation.h"

#include <atomic>

namespace tolm::package {
namespace {

std::atomic<bool> is_cancelled{false};

}  // namespace

void CancelReading(bool cancelled) noexcept {
  is_cancelled = cancelled;
}

bool IsReadingCancelled() noexcept {
  return is_cancelled;
}

}  // namespace tolm::package
