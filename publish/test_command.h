#ifndef TOLM_PUBLISH_TEST_COMMAND_H_
#define TOLM_PUBLISH_TEST_COMMAND_H_

#include <string>
#include <vector>

namespace tolm::publish {

/// What the publisher's own check of a release is told.
struct TestCommand {
  std::string command;    ///< for /bin/sh -c
  std::string name;       ///< of the database
  int version = 0;        ///< that would be released
  std::string directory;  ///< with the tree that would be released
};

/// This process was told to end by a signal while it waited for another one, which has been ended.
/// Whoever catches this cleans up and then ends by the same signal.
struct Interrupted {
  int signal = 0;
};

/// Runs the command in the directory, which is its first argument and TREE in its environment, as
/// are NAME and VERSION. It reads nothing; what it writes, to either output, is kept to its end.
/// Returns why the release must not be made, a sentence and then the command's last lines; empty
/// when it may. Waits without a limit. Throws Interrupted after SIGINT, SIGTERM or SIGHUP, when the
/// command and what it has started in its process group have been told to end, and killed after two
/// seconds; package::Error when it cannot be run.
std::vector<std::string> RunTestCommand(const TestCommand& test);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_TEST_COMMAND_H_
