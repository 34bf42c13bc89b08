#include "dataupdate/hook.h"

#include "base/log.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "hook";
constexpr char kDelimiter[] = ":";

}  // namespace

UpdateHook::UpdateHook(const std::string& name, const std::set<std::string>& changed_files)
    : handle_(nullptr),
      module_("database_autoupdate"),
      path_("database_autoupdate/version_change") {
  if (TLIBPluginSDKInit(module_.c_str(), path_.c_str(), &handle_) != 0) {
    syslog(LOG_ERR, "%s:%d Failed to init hook in module [%s] and path [%s]", TOLM_LOG_HERE,
           module_.c_str(), path_.c_str());
  }
  SetEnv("DATABASE", name);
  SetEnv("CHANGED_FILES", JoinFiles(changed_files));
  SetEnv("DELIMITER", kDelimiter);
}

UpdateHook::UpdateHook(const UpdateHook& other) : handle_(nullptr) {
  *this = other;
}

UpdateHook& UpdateHook::operator=(const UpdateHook& other) {
  if (this != &other) {
    Clear();
    handle_ = other.handle_;
    module_ = other.module_;
    path_ = other.path_;
  }
  return *this;
}

UpdateHook::~UpdateHook() {
  UpdateHook::Clear();
}

bool UpdateHook::ExecPre() {
  return ExecAction(SDK_PLUGIN_ACTION_PRE);
}

bool UpdateHook::ExecPost() {
  return ExecAction(SDK_PLUGIN_ACTION_POST);
}

void UpdateHook::Clear() {
  if (handle_ != nullptr) {
    TLIBPluginExit(handle_);
  }
}

bool UpdateHook::SetEnv(const std::string& key, const std::string& value) {
  if (handle_ == nullptr) {
    syslog(LOG_ERR, "%s:%d Not init or init failed", TOLM_LOG_HERE);
    return false;
  }
  if (TLIBPluginSetArg(handle_, key.c_str(), value.c_str()) == 0) {
    return true;
  }
  syslog(LOG_ERR, "%s:%d Failed to set plugin argument key=%s value=%s", TOLM_LOG_HERE, key.c_str(),
         value.c_str());
  return false;
}

bool UpdateHook::ExecAction(_tag_sdk_plugin_action_ action) {
  if (handle_ == nullptr) {
    syslog(LOG_ERR, "%s:%d Not init or init failed", TOLM_LOG_HERE);
    return false;
  }
  if (TLIBPluginAction(action, handle_) == 0) {
    return true;
  }
  syslog(LOG_ERR, "%s:%d Failed to exec hook at action [%d]", TOLM_LOG_HERE,
         static_cast<int>(action));
  return false;
}

std::string UpdateHook::JoinFiles(std::set<std::string> files) {
  std::string joined;
  for (const std::string& file : files) {
    joined += file + kDelimiter;
  }
  if (!joined.empty()) {
    joined.pop_back();
  }
  return joined;
}

}  // namespace tolm::dataupdate
