#include "operation/survey.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, SurveyIsUsableAlone) {
  const Service service = testing::MakeService();
  EXPECT_EQ(PlanUpdate(7, 7, {}, std::nullopt).road, UpdatePlan::Road::kNothing);
  const Description fetched = Description::Fetch(service);
  const Offer offer = fetched.OfferOf("x");
  EXPECT_EQ(offer.version, 7);
  EXPECT_EQ(PlanUpdate(6, 7, offer.deltas, std::nullopt).bytes, 1U);
  EXPECT_GT(fetched.downloaded_at(), 0);
  EXPECT_TRUE(Description::FromCache(service).has_value());
  const Installed installed = ExamineInstalled(service, "x");
  EXPECT_EQ(installed.version, kNeverInstalled);
  EXPECT_EQ(installed.directory, "/volume1/@database/autoupdate/x");
  EXPECT_FALSE(installed.volume_missing && installed.volume.empty());
  const Details details = ExamineDetails("x");
  EXPECT_EQ(details.floor, kNeverInstalled);
  EXPECT_EQ(details.record, Details::Record::kNone);
  EXPECT_TRUE(details.locks.empty());
  EXPECT_EQ(RecordedVersion(service, "x"), kNeverInstalled);
  EXPECT_TRUE(PresentCoolDowns().empty());
  EXPECT_EQ(ConfiguredServerName(service), "127.0.0.1:1");
  EXPECT_FALSE(IsOperationRunning(service, "x"));
  EXPECT_FALSE(IsOperationRunning(service, ""));
  DropCachedDescription();
  EXPECT_FALSE(std::filesystem::exists("/var/cache/data_update/database_info.json"));
}

}  // namespace
}  // namespace tolm::operation
