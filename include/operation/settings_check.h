#ifndef TOLM_OPERATION_SETTINGS_CHECK_H_
#define TOLM_OPERATION_SETTINGS_CHECK_H_

#include <stdexcept>
#include <string>
#include <vector>

#include "operation/export.h"

namespace tolm::operation {

/// What is amiss with a file of settings.
struct TOLM_OPERATION_API SettingsProblem {
  enum class Effect {
    kNothingIsDone,  ///< Operations refuse to begin: RequireSoundSettings() throws.
    kOneValue,       ///< The rest of the file counts; of an empty override there is none.
    kSetAside        ///< A file that could not be used and was kept under this name.
  };

  std::string file;
  std::string problem;  ///< One line: the place in the file, what is wrong, what counts instead.
  Effect effect;

  /// "<file>: <problem>".
  std::string Line() const { return file + ": " + problem; }
};

/// Looks at the files of settings that are there, as they are now and without a lock:
/// data_update.conf and databases.conf in both layers, operation.conf, volumes.conf, and what was
/// set aside of them. Nothing for sound ones; a missing file is sound. Any thread may call it.
TOLM_OPERATION_API std::vector<SettingsProblem> CheckSettingsFiles();

/// Settings without which an operation would work with others than the operator has made. The
/// message is one line that names the files, and that nothing was done.
class TOLM_OPERATION_API DamagedSettings : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Throws DamagedSettings when CheckSettingsFiles() has problems of the effect kNothingIsDone. The
/// operations ask this first of all.
TOLM_OPERATION_API void RequireSoundSettings();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SETTINGS_CHECK_H_
