#ifndef TOLM_TESTS_REPORT_PAGE_PROBLEMS_H_
#define TOLM_TESTS_REPORT_PAGE_PROBLEMS_H_

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {

/// What tests/report/page_check.py finds wrong with the page, a line each; empty for a good one.
inline std::string PageProblems(const std::filesystem::path& page) {
  const CommandResult result = RunCommand(
      {"/usr/bin/python3", "-B", TOLM_TEST_SOURCE_DIR "/tests/report/page_check.py", page});
  return result.exit_status == 0 ? "" : result.out + result.err + "(not a good page)";
}

inline std::string ProblemsOfPageText(const std::string& text) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "page.html", text);
  return PageProblems(directory.Path() / "page.html");
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_REPORT_PAGE_PROBLEMS_H_
