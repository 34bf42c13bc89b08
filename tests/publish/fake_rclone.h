#ifndef TOLM_TESTS_PUBLISH_FAKE_RCLONE_H_
#define TOLM_TESTS_PUBLISH_FAKE_RCLONE_H_

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace tolm::testing {

/// A shell script in rclone's place while this exists.
class FakeRclone {
 public:
  explicit FakeRclone(const std::string& commands) {
    std::filesystem::remove_all("/tmp/fakes");
    ::mkdir("/tmp/fakes", 0755);
    WriteFile("/tmp/fakes/rclone", "#!/bin/sh\necho \"$@\" >> /tmp/fakes/calls\n" + commands);
    ::chmod("/tmp/fakes/rclone", 0755);
    ::setenv("PATH", ("/tmp/fakes:" + before_).c_str(), 1);
  }
  ~FakeRclone() { ::setenv("PATH", before_.c_str(), 1); }
  FakeRclone(const FakeRclone&) = delete;
  FakeRclone& operator=(const FakeRclone&) = delete;

  /// What it was called with, without what every call ends with.
  static std::vector<std::string> Calls() {
    std::vector<std::string> calls;
    std::istringstream lines(ReadFile("/tmp/fakes/calls"));
    for (std::string line; std::getline(lines, line);) {
      calls.push_back(line.substr(0, line.find(" --use-json-log")));
    }
    return calls;
  }

 private:
  const std::string before_ = std::getenv("PATH");
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PUBLISH_FAKE_RCLONE_H_
