#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "dataupdate/error.h"
#include "operation/volume_move.h"
#include "tests/support/files.h"

namespace {

unsigned long slept = 0;  // In microseconds.

}  // namespace

// Nobody waits here.
int usleep(useconds_t microseconds) {
  slept += microseconds;
  return 0;
}

namespace tolm::operation {
namespace {

constexpr char kFrom[] = "/volume1/@database/autoupdate";
constexpr char kTo[] = "/volume2/@database/autoupdate";

TEST(VolumeMoveWaitTest, MvThatDoesNotEndIsNamedAndNothingIsTouched) {
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                    "db_ver": "1", "cur_volume": "/volume1"}})");
  const Service service = BuildService([](const std::string&) {});
  testing::WriteFile(std::string(kFrom) + "/oui/a", "a");
  ASSERT_TRUE(NoteMove(service, "/volume1", "/volume2"));
  // A program of that name and with these arguments, which never ends.
  std::filesystem::remove_all(kFrom);
  testing::WriteFile(kFrom, "while :; do sleep 1; done\n");
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // A test that is killed leaves nothing behind.
    execl("/bin/sh", "/bin/mv", kFrom, kTo, static_cast<char*>(nullptr));
    _exit(127);
  }
  const std::string started = std::string("/bin/mv") + '\0' + kFrom + '\0' + kTo + '\0';
  while (testing::ReadFile("/proc/" + std::to_string(child) + "/cmdline") != started) {
    sched_yield();
  }
  std::string why;
  try {
    SettleMove(service);
  } catch (const dataupdate::UpdateError& error) {
    why = error.what();
  }
  EXPECT_EQ(why, std::string("\"/bin/mv ") + kFrom + ' ' + kTo + "\" still runs");
  EXPECT_EQ(testing::ReadFile(kFrom), "while :; do sleep 1; done\n");
  EXPECT_EQ(slept, 600UL * 1000 * 1000);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

}  // namespace
}  // namespace tolm::operation
