#ifndef TOLM_OPERATION_SETTINGS_FILE_H_
#define TOLM_OPERATION_SETTINGS_FILE_H_

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "dataupdate/error.h"

namespace tolm::operation {

/// One reading of a file of settings: what it says and why it says nothing are of the same moment.
/// Both are empty for a missing file.
struct SettingsFile {
  std::optional<Json::Value> document;  ///< An object.
  std::string problem;                  ///< As ProblemOfSettings() has it.
  bool is_unreadable = false;           ///< What stands in it is not known, and may be sound.
};
SettingsFile LoadSettings(const std::string& path);

/// The JSON object in a file of settings; nothing when the file is missing, holds none or cannot be
/// read. Who goes on without one asks LoadSettings() which of them it is.
std::optional<Json::Value> ReadSettings(const std::string& path);

/// Whether there is a file, or a link, that ReadSettings makes nothing of.
bool IsDamagedSettings(const std::string& path);

/// Why a file holds no settings that can be used, on one line, with the place in it: "line 3,
/// column 1: Missing '}' or object member name". Empty for a sound or a missing file.
std::string ProblemOfSettings(const std::string& path);

/// The same of any file: why it cannot be read at all.
std::string ProblemOfFile(const std::string& path);

/// Why the library's reader of JSON failed to read a file, where that is a disk's fault: "cannot be
/// read: Input/output error". Empty for a file that is not there, that is none, that this process
/// has no right to read, or that was read and holds no JSON.
std::string DiskProblem(const std::string& path, const dataupdate::UpdateError& error);

/// Under which names files that could not be used were set aside: "<file>.aside", and with a
/// number behind it where there was one already, so that none is lost.
std::vector<std::string> SetAsideOf(const std::string& path);
/// The next of these names.
std::string NextAside(const std::string& path);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SETTINGS_FILE_H_
