#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "operation/doctor_looks.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using State = Finding::State;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;

constexpr char kPlugin[] = "/usr/tolm/lib/plugins/database_autoupdate/version_change/tell";

std::vector<Finding> FindingsOfPlugin(mode_t mode) {
  testing::WriteFile(kPlugin, "#!/bin/sh\n");
  EXPECT_EQ(chmod(kPlugin, mode), 0);
  const Service service;
  Findings findings;
  LookAtPlugins({service, 0}, findings);
  return findings.all();
}

TEST(DoctorGroundTest, PluginThatIsNotRunIsAProblem) {
  EXPECT_THAT(
      FindingsOfPlugin(0644),
      ElementsAre(AllOf(Field(&Finding::state, State::kProblem), Field(&Finding::subject, kPlugin),
                        Field(&Finding::message, "it is not run, since it is not executable"))));
}

TEST(DoctorGroundTest, PluginThatIsRunIsNone) {
  for (const mode_t mode : std::initializer_list<mode_t>{0755, 0700}) {
    EXPECT_THAT(FindingsOfPlugin(mode), Each(Field(&Finding::state, State::kOk)));
  }
}

}  // namespace
}  // namespace tolm::operation
