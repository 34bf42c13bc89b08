#ifndef TOLM_PUBLISH_PROGRAM_H_
#define TOLM_PUBLISH_PROGRAM_H_

#include <string>
#include <vector>

namespace tolm::publish {

struct Program {
  std::string name;            ///< looked for in PATH
  std::string debian_package;  ///< what to install when it is not there
};

/// Runs the program and waits for it. It reads /dev/null, writes its standard output to the
/// descriptor @p output and inherits no other; the environment variables named in @p unset are
/// kept from it. Throws package::Error(kInternal) when it is not there or does not end with 0; the
/// text has the end of what it wrote to its standard error.
void RunProgram(const Program& program, const std::vector<std::string>& arguments, int output,
                const std::vector<std::string>& unset = {});

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PROGRAM_H_
