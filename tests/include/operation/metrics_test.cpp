#include "operation/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, MetricsIsUsableAlone) {
  const Service service = BuildService([](const std::string&) {});
  const Metrics metrics = CollectMetrics(service);
  EXPECT_THAT(metrics.text, ::testing::EndsWith("\n# EOF\n"));
  EXPECT_THAT(metrics.text, ::testing::HasSubstr("\ntolmdbud_settings_sound 1\n"));
  EXPECT_EQ(metrics.problems.count(""), 1u) << "nothing is configured";
}

}  // namespace
}  // namespace tolm::operation
