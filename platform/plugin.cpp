#include "tolm/plugin.h"

#include <fcntl.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/paths.h"
#include "base/trusted_directory.h"
#include "platform/error.h"
#include "platform/guard.h"
#include "platform/plugin_runner.h"
#include "platform/process.h"

namespace tolm::platform {
namespace {

namespace fs = std::filesystem;

constexpr char kPluginPathVariable[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char kTemporaryName[] = "/tmp/tolm-plugin-XXXXXX";
constexpr std::string_view kFileSuffix = "_FILE";
// Linux's limit for one "KEY=value" of an environment, the closing NUL included.
constexpr std::size_t kMaxStringBytes = 131072;
// Shorter values are not worth a file: the file's own name would take as much room.
constexpr std::size_t kWorthAFileBytes = 256;

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// ---- Arguments ----

// A file of this user alone, which lives as long as the object.
class TemporaryFile {
 public:
  TemporaryFile() = default;
  ~TemporaryFile() {
    if (!name_.empty())
      unlink(name_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  // Returns 0 or an errno value. Once per object.
  int Create(std::string_view content) {
    std::string name = kTemporaryName;
    const base::Descriptor file(mkostemp(name.data(), O_CLOEXEC));
    if (!file.IsOpen())
      return errno;
    name_ = std::move(name);
    while (!content.empty()) {
      const ssize_t written = write(file.Get(), content.data(), content.size());
      if (written < 0 && errno != EINTR)
        return errno;
      if (written > 0)
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
  }

  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

// The environment that the plug-ins of one action get, and the files behind it.
class PluginEnvironment {
 public:
  PluginEnvironment(std::map<std::string, std::string> arguments, const std::string& action)
      : arguments_(std::move(arguments)), fixed_{kPluginPathVariable, "ACTION=" + action} {}

  // Moves every value that is too long for one string into a file. Returns 0 or an errno value.
  int HandOverTooLong() {
    for (auto argument = arguments_.begin(); argument != arguments_.end();) {
      const auto next = std::next(argument);
      const std::size_t bytes = argument->first.size() + argument->second.size() + sizeof "=";
      if (bytes > kMaxStringBytes) {
        if (const int error = HandOver(argument); error != 0)
          return error;
      }
      argument = next;
    }
    return 0;
  }

  // Makes the environment smaller by moving the longest value into a file. Returns false when that
  // failed or would not help.
  bool HandOverLongest() {
    const auto longest = std::max_element(
        arguments_.begin(), arguments_.end(),
        [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    return longest != arguments_.end() && longest->second.size() > kWorthAFileBytes &&
           HandOver(longest) == 0;
  }

  std::vector<std::string> Strings() const {
    std::vector<std::string> strings = fixed_;
    for (const auto& [key, value] : arguments_)
      strings.push_back(key + "=" + value);
    return strings;
  }

 private:
  using Argument = std::map<std::string, std::string>::iterator;

  int HandOver(Argument argument) {
    auto file = std::make_unique<TemporaryFile>();
    if (const int error = file->Create(argument->second); error != 0)
      return error;
    fixed_.push_back(argument->first + std::string(kFileSuffix) + "=" + file->name());
    files_.push_back(std::move(file));
    arguments_.erase(argument);
    return 0;
  }

  std::map<std::string, std::string> arguments_;  // those still handed over as they are
  std::vector<std::string> fixed_;
  std::vector<std::unique_ptr<TemporaryFile>> files_;
};

bool IsValidKey(const std::string& key) {
  return !key.empty() && key.find('=') == std::string::npos && key != "ACTION" && key != "PATH" &&
         !EndsWith(key, kFileSuffix);
}

// ---- Plug-ins ----

// Every component must be a plain name, so that no plug-in is run from outside their directory.
bool IsValidPath(const std::string& path) {
  std::size_t begin = 0;
  while (begin <= path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string component = path.substr(begin, end - begin);
    if (component.empty() || component == "." || component == "..")
      return false;
    begin = end + 1;
  }
  return true;
}

bool IsPlugin(const fs::directory_entry& entry) {
  const std::string name = entry.path().filename().string();
  std::error_code error;
  return name.front() != '.' && name.back() != '~' && !entry.is_directory(error);
}

// The plug-ins' paths in the byte order of their names; a missing directory holds none. Returns 0
// or an errno value.
int ListPlugins(const std::string& directory, std::vector<std::string>* plugins) {
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (IsPlugin(*entry))
      plugins->push_back(entry->path().string());
  }
  std::sort(plugins->begin(), plugins->end());
  return error == std::errc::no_such_file_or_directory ? 0 : error.value();
}

ProcessResult RunPlugin(ProcessRequest request, PluginEnvironment* environment) {
  while (true) {
    request.environment = environment->Strings();
    ProcessResult result = RunProcess(request);
    const bool too_big = result.end == ProcessResult::End::kNotStarted && result.error == E2BIG;
    if (!too_big || !environment->HandOverLongest())
      return result;
  }
}

// Whether nobody but root can decide what is run there.
bool IsTrusted(const std::string& plugin, const std::string& action) {
  try {
    base::RequireTrustedProgram(plugin);
    return true;
  } catch (const base::ForeignGround& error) {
    syslog(LOG_WARNING, "Plug-in %s (%s) was not run: %s", plugin.c_str(), action.c_str(),
           error.reason().c_str());
    return false;
  } catch (const base::FileError& error) {
    if (error.code() == std::errc::no_such_file_or_directory) {
      return true;  // Nothing is there that could be run.
    }
    syslog(LOG_WARNING, "Plug-in %s (%s) was not run: %s", plugin.c_str(), action.c_str(),
           error.what());
    return false;
  }
}

int ToError(const ProcessResult& result) {
  switch (result.end) {
    case ProcessResult::End::kNotStarted:
    case ProcessResult::End::kStatusUnknown:
      return result.error;
    case ProcessResult::End::kTimedOut:
      return ETIMEDOUT;
    case ProcessResult::End::kFinished:
    case ProcessResult::End::kCancelled:
      break;
  }
  return result.Succeeded() ? 0 : EIO;
}

int NoneRun(const std::string& directory, int error) {
  syslog(LOG_WARNING, "Plug-ins in %s were not run: %s", directory.c_str(),
         std::generic_category().message(error).c_str());
  return error;
}

PluginSet* ToSet(void* handle) {
  return static_cast<PluginSet*>(handle);
}

// What the C functions return: 0 on success, -1 with the last error set otherwise.
int ToReturnValue(int error) {
  if (error == 0)
    return 0;
  SetLastError(error);
  return -1;
}

}  // namespace

int RunPlugins(const PluginSet& set, const std::string& action,
               std::chrono::milliseconds time_limit) {
  const std::string directory = paths::kPluginDirectory + set.path;
  std::vector<std::string> plugins;
  if (const int error = ListPlugins(directory, &plugins); error != 0)
    return NoneRun(directory, error);
  if (plugins.empty())
    return 0;
  // A plug-in must not take an argument that could not be handed over for one that was not given.
  PluginEnvironment environment(set.arguments, action);
  if (const int error = environment.HandOverTooLong(); error != 0)
    return NoneRun(directory, error);

  ProcessRequest request;
  request.arguments = {action};
  request.working_directory = "/";
  request.time_limit = time_limit;
  int first_error = 0;
  for (const std::string& plugin : plugins) {
    if (!IsTrusted(plugin, action)) {
      first_error = first_error == 0 ? EPERM : first_error;
      continue;
    }
    request.program = plugin;
    const ProcessResult result = RunPlugin(request, &environment);
    if (result.Succeeded())
      continue;
    LogFailure(LOG_WARNING, "Plug-in " + plugin + " (" + action + ")", result);
    if (first_error == 0)
      first_error = ToError(result);
  }
  return first_error;
}

}  // namespace tolm::platform

int TLIBPluginSDKInit(const char* module, const char* path, void** handle) {
  using namespace tolm::platform;
  if (handle != nullptr)
    *handle = nullptr;
  return Guarded(-1, [&] {
    if (module == nullptr || path == nullptr || handle == nullptr || !IsValidPath(path))
      return ToReturnValue(EINVAL);
    *handle = new PluginSet{path, {}};
    return 0;
  });
}

int TLIBPluginSetArg(void* handle, const char* key, const char* value) {
  using namespace tolm::platform;
  return Guarded(-1, [&] {
    if (handle == nullptr || key == nullptr || value == nullptr || !IsValidKey(key))
      return ToReturnValue(EINVAL);
    ToSet(handle)->arguments[key] = value;
    return 0;
  });
}

int TLIBPluginAction(enum _tag_sdk_plugin_action_ action, void* handle) {
  using namespace tolm::platform;
  return Guarded(-1, [&] {
    const bool pre = action == SDK_PLUGIN_ACTION_PRE;
    if (handle == nullptr || (!pre && action != SDK_PLUGIN_ACTION_POST))
      return ToReturnValue(EINVAL);
    return ToReturnValue(RunPlugins(*ToSet(handle), pre ? "pre" : "post", kPluginTimeLimit));
  });
}

void TLIBPluginExit(void* handle) {
  delete tolm::platform::ToSet(handle);
}
