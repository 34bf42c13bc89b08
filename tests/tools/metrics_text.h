#ifndef TOLM_TESTS_TOOLS_METRICS_TEXT_H_
#define TOLM_TESTS_TOOLS_METRICS_TEXT_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tolm::testing {

/// The names of the samples in a text of metrics.
inline std::set<std::string> NamesIn(const std::string& metrics) {
  std::set<std::string> names;
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != '#') {
      names.insert(line.substr(0, line.find_first_of("{ ")));
    }
  }
  return names;
}

/// The names of metrics with that prefix that stand anywhere in a file of the sources.
inline std::set<std::string> NamesInFile(const std::string& file, const std::string& prefix) {
  const std::string text = ReadFile(std::filesystem::path(TOLM_TEST_SOURCE_DIR) / file);
  const std::regex name(prefix + "_[a-z_]+[a-z]");
  std::set<std::string> names;
  for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at) {
    names.insert(at->str());
  }
  return names;
}

inline void ExpectAllIn(const std::set<std::string>& names, const std::set<std::string>& all) {
  EXPECT_FALSE(names.empty());
  for (const std::string& name : names) {
    EXPECT_EQ(all.count(name), 1u) << name << " is printed by nobody";
  }
}

/// Two readers that are not of this project, a strict one of OpenMetrics and one of the older text
/// format, find the same samples in it.
inline void ExpectReadAlike(const std::string& metrics) {
  WriteFile("/tmp/metrics.txt", metrics);
  const CommandResult read =
      RunCommand({"/usr/bin/python3",
                  std::filesystem::path(TOLM_TEST_SOURCE_DIR) / "tests/tools/read_metrics.py",
                  "/tmp/metrics.txt"});
  EXPECT_EQ(read.exit_status, 0) << read.err << metrics;
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_METRICS_TEXT_H_
