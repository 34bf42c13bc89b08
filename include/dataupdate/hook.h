#ifndef TOLM_DATAUPDATE_HOOK_H_
#define TOLM_DATAUPDATE_HOOK_H_

#include <set>
#include <string>

#include "dataupdate/export.h"
#include "tolm/plugin.h"

namespace tolm::dataupdate {

/// Runs other services' plug-ins around the installation of new files and tells them which database
/// changes (DATABASE) and which of its files (CHANGED_FILES, separated by DELIMITER). Nothing here
/// throws: a failure is logged and reported by false. Used by one thread.
class TOLM_DATAUPDATE_API UpdateHook {
 public:
  UpdateHook(const std::string& name, const std::set<std::string>& changed_files);
  /// A copy shares the platform's handle with its original and each releases it: keep a single one.
  UpdateHook(const UpdateHook& other);
  UpdateHook& operator=(const UpdateHook& other);
  virtual ~UpdateHook();

  /// Run the plug-ins before and after the change and wait for them.
  virtual bool ExecPre();
  virtual bool ExecPost();
  /// Releases the platform's handle; at most once per object (the destructor calls it).
  virtual void Clear();

  bool SetEnv(const std::string& key, const std::string& value);
  bool ExecAction(_tag_sdk_plugin_action_ action);
  /// The names in byte order, separated by ":"; names are not escaped.
  static std::string JoinFiles(std::set<std::string> files);

 private:
  void* handle_;  ///< Null when the platform could not be initialised.
  std::string module_;
  std::string path_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_HOOK_H_
