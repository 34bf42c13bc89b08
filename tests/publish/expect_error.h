#ifndef TOLM_TESTS_PUBLISH_EXPECT_ERROR_H_
#define TOLM_TESTS_PUBLISH_EXPECT_ERROR_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "publish/error.h"

namespace tolm::testing {

/// Expects that @p action throws publish::Error with this text.
template <typename Action>
void ExpectError(Action action, const ::testing::Matcher<std::string>& text) {
  try {
    action();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const publish::Error& error) {
    EXPECT_THAT(std::string(error.what()), text);
  }
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PUBLISH_EXPECT_ERROR_H_
