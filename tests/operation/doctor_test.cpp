#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "base/trusted_directory.h"
#include "operation/doctor_looks.h"

namespace tolm::operation {
namespace {

using State = Finding::State;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;

::testing::Matcher<Finding> IsProblem(const std::string& check, const std::string& message,
                                      const std::string& remedy) {
  return AllOf(Field(&Finding::check, check), Field(&Finding::state, State::kProblem),
               Field(&Finding::message, message), Field(&Finding::remedy, remedy));
}

void FindForeign(Findings& findings, const std::string& check, const std::string& what) {
  EXPECT_FALSE(findings.Try(check, "subject", "mend it",
                            [&] { throw base::ForeignGround(what, "chown root " + what); }));
}

TEST(FindingsTest, ForeignGroundIsToldOnceForEachPlaceAndCheck) {
  Findings findings;
  FindForeign(findings, "volume", "/volume1");
  FindForeign(findings, "volume", "/volume1");
  FindForeign(findings, "volume", "/volume1/@database");
  FindForeign(findings, "state", "/volume1");
  EXPECT_THAT(findings.all(), ElementsAre(IsProblem("volume", "/volume1", "chown root /volume1"),
                                          IsProblem("volume", "/volume1/@database",
                                                    "chown root /volume1/@database"),
                                          IsProblem("state", "/volume1", "chown root /volume1")));
}

TEST(FindingsTest, FailureWithoutARemedyOfItsOwnGetsTheCallers) {
  Findings findings;
  EXPECT_TRUE(findings.Try("volume", "subject", "mend it", [] {}));
  EXPECT_FALSE(findings.Try("volume", "subject", "mend it",
                            [] { throw std::runtime_error("it is damaged"); }));
  EXPECT_THAT(findings.all(), ElementsAre(IsProblem("volume", "it is damaged", "mend it")));
}

}  // namespace
}  // namespace tolm::operation
