#ifndef TOLM_OPERATION_OVERRIDES_H_
#define TOLM_OPERATION_OVERRIDES_H_

#include <string>
#include <vector>

#include "operation/export.h"

namespace tolm::operation {

/// What is amiss with the override files: the library goes on without a word.
struct TOLM_OPERATION_API OverrideProblems {
  /// See HiddenDatabases().
  std::vector<std::string> hidden_databases;
  /// Override files that are there and cannot be read: the defaults count in their place.
  std::vector<std::string> damaged_files;

  /// One line for each of them.
  std::vector<std::string> Lines() const;
};

/// Looks at the files as they are now, without a lock. Any thread may call it.
TOLM_OPERATION_API OverrideProblems ExamineOverrides();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OVERRIDES_H_
