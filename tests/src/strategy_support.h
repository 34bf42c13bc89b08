#ifndef TOLM_TESTS_SRC_STRATEGY_SUPPORT_H_
#define TOLM_TESTS_SRC_STRATEGY_SUPPORT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <filesystem>

#include "tests/support/fake_platform.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

// What the tests of the strategies share.

namespace tolm::testing {

/// Where a strategy puts what it needs for a time.
inline constexpr char kRoot[] = "/volume1/@tmp/data_update";

/// A step that fails, and the message of the operation then.
struct FailureRow {
  const char* name;
  void (*spoil)(FakePlatform& platform);
  const char* message;
};

inline std::string NameOf(const ::testing::TestParamInfo<FailureRow>& info) {
  return info.param.name;
}

template <typename Strategy>
void ExpectSlotsOfAStrategy() {
  EXPECT_EQ(VtableSlot(&Strategy::PrepareUpdate), 2U);
  EXPECT_EQ(VtableSlot(&Strategy::ApplyUpdate), 3U);
  EXPECT_EQ(VtableSlot(&Strategy::GetModifiedFiles), 4U);
  EXPECT_EQ(VtableSlot(&Strategy::GetDeltaSize), 5U);
}

/// The strategy is gone, and with it everything temporary.
inline void ExpectCleanedUp() {
  EXPECT_FALSE(std::filesystem::exists(kRoot));
  EXPECT_THAT(SyslogCapture::Texts(LOG_ERR), ::testing::IsEmpty());
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SRC_STRATEGY_SUPPORT_H_
