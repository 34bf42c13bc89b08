// Runs on the machine itself, not in a private root: what must be seen here is that the machine
// stays as it is.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr int kSetUpFailed = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;

enum class User { kCaller, kOrdinary };

// Every fact holds for whoever runs the tests and, when that is root, for an ordinary user too.
class PrivateRoot : public ::testing::TestWithParam<User> {
 protected:
  PrivateRoot() {
    // The ordinary user may not be able to look into the build directory.
    fs::permissions(directory_.Path(), fs::perms(0755));
    fs::copy_file(TOLM_TEST_BIN_DIR "/tolm-private-root", Path("tool"));
  }

  void SetUp() override {
    if (GetParam() == User::kOrdinary && geteuid() != 0) {
      GTEST_SKIP() << "only root can become somebody else; the caller is an ordinary user already";
    }
  }

  fs::path Path(const std::string& name) const { return directory_.Path() / name; }

  // A directory on the machine that the user of this test may write to.
  fs::path MakeUsersDirectory(const std::string& name) const {
    fs::create_directory(Path(name));
    fs::permissions(Path(name), fs::perms::all);
    return Path(name);
  }

  CommandResult Run(const std::vector<std::string>& arguments,
                    const CommandOptions& options = {}) const {
    std::vector<std::string> all;
    if (GetParam() == User::kOrdinary) {
      all = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }
    all.push_back(Path("tool"));
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunCommand(all, options);
  }

  CommandResult RunScript(const std::string& script, std::vector<std::string> options = {}) const {
    options.insert(options.end(), {"--", "sh", "-e", "-c", script});
    return Run(options);
  }

 private:
  const TemporaryDirectory directory_;
};

INSTANTIATE_TEST_SUITE_P(Users, PrivateRoot, ::testing::Values(User::kCaller, User::kOrdinary),
                         [](const ::testing::TestParamInfo<User>& user) {
                           return user.param == User::kCaller ? "AsCaller" : "AsOrdinaryUser";
                         });

std::vector<std::string> Names(const fs::path& directory) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path());
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST_P(PrivateRoot, CommandIsRoot) {
  EXPECT_EQ(RunScript("id -u; id -g; echo $HOME").out, "0\n0\n/root\n");
}

TEST_P(PrivateRoot, WritesAreNotSeenOutside) {
  const std::string name = "tolm-probe-" + std::to_string(getpid());
  const std::vector<std::string> directories = {"/usr", "/usr/lib", "/usr/share", "/var/lib",
                                                "/run", "/tmp",     "/root",      "/dev",
                                                "/",    "/volume1", "/volume2"};
  for (const std::string& directory : directories) {
    const std::string file = directory + "/" + name;
    const CommandResult result = RunScript("echo written > " + file + "; cat " + file);
    EXPECT_EQ(result.out, "written\n") << directory << ": " << result.err;
    std::error_code ignored;  // An ordinary user may not look into every one of them.
    EXPECT_FALSE(fs::exists(file, ignored)) << directory;
  }
}

TEST_P(PrivateRoot, WhatIsDeletedInsideStaysOutside) {
  const fs::path stage = MakeUsersDirectory("stage");
  MakeTree(stage / "usr", {{"tolm/a", "staged"}});
  const CommandResult result =
      RunScript("rm -r /usr/tolm; mkdir /usr/tolm; ls /usr/tolm", {"--stage", stage});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(ReadFile(stage / "usr/tolm/a"), "staged");
}

TEST_P(PrivateRoot, MachineHasNoNewMountsOrDirectoriesAfterwards) {
  const std::string mounts = ReadFile("/proc/self/mountinfo");
  const std::vector<std::string> root = Names("/");
  const fs::path mount_point = fs::is_directory("/mnt") ? "/mnt" : "/tmp";
  const std::vector<std::string> below = Names(mount_point);
  ASSERT_EQ(RunScript("true").exit_status, 0);
  EXPECT_EQ(ReadFile("/proc/self/mountinfo"), mounts);
  EXPECT_EQ(Names("/"), root);
  EXPECT_EQ(Names(mount_point), below);
}

TEST_P(PrivateRoot, EtcIsTheHostsAndReadOnly) {
  EXPECT_EQ(RunScript("cat /etc/passwd").out, ReadFile("/etc/passwd"));
  const CommandResult result = RunScript("touch /etc/tolm-probe");
  EXPECT_NE(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("Read-only file system"));
}

TEST_P(PrivateRoot, FreshDirectoriesAreEmpty) {
  EXPECT_EQ(
      RunScript("find /run /tmp /root /volume1 /volume2 /dev/shm /var -mindepth 1 | sort").out,
      "/var/cache\n/var/lib\n/var/log\n/var/tmp\n");
  EXPECT_EQ(RunScript("stat -c %a /tmp /var/tmp /dev/shm /root").out, "1777\n1777\n1777\n700\n");
}

TEST_P(PrivateRoot, NothingElseOfTheMachineCanBeReached) {
  const fs::path hidden = MakeUsersDirectory("hidden");
  EXPECT_EQ(RunScript("test ! -e " + hidden.string()).exit_status, 0);
  EXPECT_EQ(RunScript("ls -A / | grep '^\\.' || true").out, "");
  EXPECT_EQ(RunScript("test ! -e /home").exit_status, 0);
}

TEST_P(PrivateRoot, DevicesWork) {
  const CommandResult result = RunScript(
      "echo x > /dev/null; head -c 3 /dev/zero | wc -c; head -c 4 /dev/urandom | wc -c;"
      "echo x > /dev/full || echo full; echo out >> /dev/stdout; ls -A /dev");
  EXPECT_EQ(result.out,
            "3\n4\nfull\nout\nfd\nfull\nnull\nptmx\npts\nrandom\nshm\nstderr\nstdin\nstdout\ntty\n"
            "urandom\nzero\n")
      << result.err;
}

TEST_P(PrivateRoot, VolumesAreMountsOfTheirOwn) {
  const std::string list = "cut -d' ' -f5 /proc/self/mountinfo | grep ^/volume | sort || true";
  EXPECT_EQ(RunScript(list).out, "/volume1\n/volume2\n");
  EXPECT_EQ(RunScript(list, {"--volumes", "3"}).out, "/volume1\n/volume2\n/volume3\n");
  EXPECT_EQ(RunScript(list, {"--volumes", "0"}).out, "");
}

TEST_P(PrivateRoot, TemporaryFileSystemsHaveTheGivenSize) {
  const std::string fill = "head -c 100000 /dev/zero > /volume1/file";
  EXPECT_EQ(RunScript(fill).exit_status, 0);
  EXPECT_NE(RunScript(fill, {"--tmpfs-size", "64k"}).exit_status, 0);
}

TEST_P(PrivateRoot, StageIsLaidOverUsr) {
  const fs::path stage = MakeUsersDirectory("st,a:g e");
  MakeTree(stage / "usr", {{"bin/true", "#!/bin/sh\necho staged\n"}, {"share/tolm/d/f", "file"}});
  fs::permissions(stage / "usr/bin/true", fs::perms(0755));
  const CommandResult result = RunScript(
      "/bin/true; cat /usr/share/tolm/d/f; test -e /usr/bin/env;"
      "echo new > /usr/share/tolm/d/f.new; mv /usr/share/tolm/d/f.new /usr/share/tolm/d/f;"
      "cat /usr/share/tolm/d/f",
      {"--stage", stage});
  EXPECT_EQ(result.out, "staged\nfilenew\n") << result.err;
  EXPECT_EQ(ReadFile(stage / "usr/share/tolm/d/f"), "file");
}

TEST_P(PrivateRoot, BoundDirectoryIsReadOnly) {
  const fs::path bound = MakeUsersDirectory("bound");
  WriteFile(bound / "f", "text");
  const std::string file = (bound / "f").string();
  EXPECT_EQ(RunScript("cat " + file, {"--bind", bound}).out, "text");
  const CommandResult result = RunScript("echo x > " + file, {"--bind", bound});
  EXPECT_NE(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("Read-only file system"));
  EXPECT_EQ(ReadFile(file), "text");
}

TEST_P(PrivateRoot, WritableBindIsWrittenOnTheMachine) {
  const fs::path bound = MakeUsersDirectory("bound");
  const std::string file = (bound / "f").string();
  EXPECT_EQ(RunScript("echo x > " + file, {"--bind-rw", bound}).exit_status, 0);
  EXPECT_EQ(ReadFile(file), "x\n");
}

TEST_P(PrivateRoot, WritableBindInsideAReadOnlyOneHoldsInAnyOrder) {
  const fs::path outer = MakeUsersDirectory("outer");
  const fs::path inner = MakeUsersDirectory("outer/inner");
  const std::string script =
      "echo x > " + (inner / "f").string() + "; ! touch " + (outer / "f").string();
  const std::vector<std::vector<std::string>> orders = {{"--bind", outer, "--bind-rw", inner},
                                                        {"--bind-rw", inner, "--bind", outer}};
  for (const std::vector<std::string>& options : orders) {
    EXPECT_EQ(RunScript(script, options).exit_status, 0) << options[0];
    EXPECT_TRUE(fs::remove(inner / "f")) << options[0];
    EXPECT_FALSE(fs::exists(outer / "f")) << options[0];
  }
}

TEST_P(PrivateRoot, SingleFileCanBeBound) {
  const fs::path file = MakeUsersDirectory("d") / "f";
  WriteFile(file, "text");
  WriteFile(file.parent_path() / "other", "text");
  EXPECT_EQ(RunScript("ls " + file.parent_path().string(), {"--bind", file}).out, "f\n");
}

TEST_P(PrivateRoot, WorkingDirectoryStaysWhereItIsVisible) {
  CommandOptions options;
  options.working_directory = MakeUsersDirectory("d");
  EXPECT_EQ(Run({"--bind", options.working_directory, "pwd"}, options).out,
            options.working_directory.string() + "\n");
  EXPECT_EQ(Run({"pwd"}, options).out, "/\n");
}

TEST_P(PrivateRoot, ExitStatusIsTheCommands) {
  EXPECT_EQ(RunScript("exit 0").exit_status, 0);
  EXPECT_EQ(RunScript("exit 3").exit_status, 3);
  EXPECT_EQ(RunScript("kill -KILL $$").exit_status, 128 + SIGKILL);
}

TEST_P(PrivateRoot, FailureIsOneLineAndAStatusOfItsOwn) {
  const struct {
    std::vector<std::string> arguments;
    int exit_status;
    std::string message;
  } rows[] = {
      {{"tolm-no-such-command"},
       kNotFound,
       "cannot execute tolm-no-such-command: No such file or directory"},
      {{"/etc/passwd"}, kNotExecutable, "cannot execute /etc/passwd: Permission denied"},
      {{}, kSetUpFailed, "a command is missing, see --help"},
      {{"--volumes", "many", "true"},
       kSetUpFailed,
       "--volumes takes a number from 0 to 99, not \"many\""},
      {{"--tmpfs-size", "1m,mode=7", "true"},
       kSetUpFailed,
       "--tmpfs-size takes a size such as 64m, not \"1m,mode=7\""},
      {{"--bind", "/", "true"}, kSetUpFailed, "cannot bind / into the private root"},
      {{"--bind", "/nowhere/x", "true"},
       kSetUpFailed,
       "cannot open /nowhere/x: No such file or directory"},
      {{"--stage", "/nowhere", "true"},
       kSetUpFailed,
       "cannot open /nowhere/usr: No such file or directory"},
  };
  for (const auto& row : rows) {
    const CommandResult result = Run(row.arguments);
    EXPECT_EQ(result.exit_status, row.exit_status) << row.message;
    EXPECT_EQ(result.err, "tolm-private-root: " + row.message + "\n");
    EXPECT_EQ(result.out, "");
  }
}

TEST_P(PrivateRoot, RefusedNamespacesAreExplained) {
  // Without capabilities a process whose root was changed gets neither kind of namespace.
  const CommandResult result = RunScript(
      "mkdir /tmp/root; mount --rbind / /tmp/root; exec chroot /tmp/root setpriv "
      "--bounding-set=-all --inh-caps=-all " +
          Path("tool").string() + " true",
      {"--bind", Path("tool")});
  EXPECT_EQ(result.exit_status, kSetUpFailed);
  EXPECT_THAT(result.err,
              HasSubstr("cannot make a private mount namespace: Operation not permitted"));
  EXPECT_THAT(result.err, HasSubstr("--in-place"));
}

TEST_P(PrivateRoot, InPlaceCopiesTheStageAndSaysSo) {
  // The "machine" that is changed is itself a private root.
  const fs::path stage = MakeUsersDirectory("stage");
  MakeTree(stage / "usr", {{"tolm/f", "new"}, {"tolm/link -> f", ""}});
  const std::string tool = Path("tool").string();
  const CommandResult result = RunScript("mkdir /usr/tolm; echo old > /usr/tolm/f; " + tool +
                                             " --in-place --stage " + stage.string() +
                                             " sh -c 'cat /usr/tolm/link; touch /var/seen; exit 5'"
                                             " || echo $?; ls /var/seen",
                                         {"--bind", Path("tool"), "--bind", stage});
  EXPECT_EQ(result.out, "new5\n/var/seen\n") << result.err;
  EXPECT_THAT(result.err, HasSubstr("WARNING: no private root"));
  EXPECT_THAT(result.err, EndsWith("WARNING: copying " + stage.string() + " to /\n"));
}

TEST(PrivateRootInPlace, NeedsRoot) {
  std::vector<std::string> arguments = {TOLM_TEST_BIN_DIR "/tolm-private-root", "--in-place",
                                        "true"};
  if (geteuid() == 0) {
    const TemporaryDirectory directory;
    fs::permissions(directory.Path(), fs::perms(0755));
    fs::copy_file(arguments[0], directory.Path() / "tool");
    arguments[0] = directory.Path() / "tool";
    arguments.insert(arguments.begin(),
                     {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    const CommandResult result = RunCommand(arguments);
    EXPECT_EQ(result.exit_status, kSetUpFailed);
    EXPECT_THAT(result.err, HasSubstr("needs root"));
    return;
  }
  EXPECT_EQ(RunCommand(arguments).exit_status, kSetUpFailed);
}

TEST(PrivateRootHelp, GoesToStandardOutput) {
  const CommandResult result = RunCommand({TOLM_TEST_BIN_DIR "/tolm-private-root", "--help"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.out, HasSubstr("--in-place"));
  EXPECT_THAT(result.err, IsEmpty());
}

}  // namespace
}  // namespace tolm::testing
