#ifndef TOLM_SUPPORT_VCDIFF_DELTA_H_
#define TOLM_SUPPORT_VCDIFF_DELTA_H_

#include <gtest/gtest.h>

#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {

/// A delta as publishers make them, by the common encoder.
inline std::string VcdiffDelta(const std::string& before, const std::string& after) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "before", before);
  WriteFile(directory.Path() / "after", after);
  EXPECT_EQ(RunCommand({"xdelta3", "-e", "-f", "-S", "none", "-s", directory.Path() / "before",
                        directory.Path() / "after", directory.Path() / "delta"})
                .exit_status,
            0);
  return ReadFile(directory.Path() / "delta");
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_VCDIFF_DELTA_H_
