#include "operation/environment.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>

namespace tolm::operation {
namespace {

TEST(EnvironmentTest, IsTheSameWhoeverStartedTheProcess) {
  unsetenv("SYSTEM_WGETRC");
  unsetenv("WGETRC");
  signal(SIGCHLD, SIG_IGN);
  umask(0);
  PrepareProcess();
  EXPECT_STREQ(std::getenv("SYSTEM_WGETRC"), "/usr/share/data_update/wgetrc");
  EXPECT_STREQ(std::getenv("WGETRC"), "/usr/share/data_update/wgetrc.empty");
  EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_DFL);
  EXPECT_EQ(umask(0), 022U);
}

TEST(EnvironmentTest, OperatorsSettingsOfWgetStay) {
  setenv("SYSTEM_WGETRC", "/etc/theirs", 1);
  setenv("WGETRC", "/root/theirs", 1);
  PrepareProcess();
  EXPECT_STREQ(std::getenv("SYSTEM_WGETRC"), "/etc/theirs");
  EXPECT_STREQ(std::getenv("WGETRC"), "/root/theirs");
}

}  // namespace
}  // namespace tolm::operation
