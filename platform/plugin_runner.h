#ifndef TOLM_PLATFORM_PLUGIN_RUNNER_H_
#define TOLM_PLATFORM_PLUGIN_RUNNER_H_

#include <chrono>
#include <map>
#include <string>

namespace tolm::platform {

inline constexpr std::chrono::minutes kPluginTimeLimit{5};

// What a plug-in handle stands for: the plug-ins of one directory and the arguments they are given.
struct PluginSet {
  std::string path;  // below the directory of plug-ins
  std::map<std::string, std::string> arguments;
};

// Runs the set's plug-ins one after the other in name order, with `action` ("pre" or "post") as
// their first argument, and waits for each; one that runs longer than time_limit is ended. Every
// one is run whatever the others did. Cancelling programs does not touch plug-ins.
//
// Returns 0 when all succeeded or there is none. Otherwise the errno value of the first failure:
// why the plug-in could not be run (or, when none was run at all, why the directory could not be
// read or an argument not be handed over), ETIMEDOUT for the time limit, EIO for an exit status
// other than 0. Every failure is in the system log. Throws std::bad_alloc.
int RunPlugins(const PluginSet& set, const std::string& action,
               std::chrono::milliseconds time_limit);

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_PLUGIN_RUNNER_H_
