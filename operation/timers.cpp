#include "operation/timers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/paths.h"
#include "base/rules.h"
#include "base/utc_time.h"
#include "operation/program_watch.h"
#include "tolm/exec.h"

namespace tolm::operation {
namespace {

using std::chrono::steady_clock;

// There where systemd is the first process.
constexpr char kRunsThisMachine[] = "/run/systemd/system";
constexpr char kUpdateTimer[] = "tolmdbud-update.timer";
constexpr char kVerifyTimer[] = "tolmdbud-verify.timer";
// ProgramWatch looks once a second, and what does not heed its end has three more: six in all.
constexpr std::chrono::seconds kPatience(2);
constexpr std::size_t kMostBytes = 65536;

bool Exists(const char* path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

// What the program writes to its standard output, which the platform throws away; empty when it
// fails or takes too long.
std::string OutputOf(const std::string& command) {
  const base::Descriptor output(memfd_create("output", MFD_CLOEXEC));
  if (!output.IsOpen()) {
    throw std::system_error(errno, std::generic_category(), "memfd_create");
  }
  const std::string name =
      "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(output.Get());
  const steady_clock::time_point end = steady_clock::now() + kPatience;
  ProgramWatch watch([end] { return steady_clock::now() > end; });
  const int status =
      TLIBCExecl(paths::kShell, rules::kExecOptions, "-c", (command + " >\"$0\"").c_str(),
                 name.c_str(), static_cast<const char*>(nullptr));
  watch.Stop();
  std::string text(kMostBytes, '\0');
  const std::int64_t size =
      status == 0 ? base::ReadAt(output.Get(), text.data(), text.size(), 0) : 0;
  text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return text;
}

// "Mon 2026-11-23 03:12:45 UTC"; whatever else stands there is no time.
std::optional<std::int64_t> ParseTime(const std::string& text) {
  std::tm time{};
  if (std::sscanf(text.c_str(), "%*3s %4d-%2d-%2d %2d:%2d:%2d UTC", &time.tm_year, &time.tm_mon,
                  &time.tm_mday, &time.tm_hour, &time.tm_min, &time.tm_sec) != 6) {
    return std::nullopt;
  }
  time.tm_year -= 1900;
  time.tm_mon -= 1;
  const std::int64_t seconds = base::UtcSeconds(time);
  return seconds > 0 ? std::make_optional(seconds) : std::nullopt;
}

using Properties = std::map<std::string, std::string>;

Timer ToTimer(Properties properties) {
  Timer timer;
  timer.unit = properties["Id"];
  timer.is_installed = properties["LoadState"] == "loaded";
  timer.is_enabled = properties["UnitFileState"].compare(0, 7, "enabled") == 0;
  timer.is_waiting = properties["ActiveState"] == "active";
  if (timer.is_waiting) {
    timer.next = ParseTime(properties["NextElapseUSecRealtime"]);
  }
  return timer;
}

// A block of lines "key=value" for each unit, in any order, with an empty line between two.
std::vector<Timer> Parse(const std::string& output) {
  std::vector<Timer> timers;
  std::istringstream in(output);
  Properties properties;
  for (std::string line; std::getline(in, line) || !properties.empty();) {
    const std::size_t equals = line.find('=');
    if (in && equals != std::string::npos) {
      properties[line.substr(0, equals)] = line.substr(equals + 1);
    } else if (!properties.empty()) {
      timers.push_back(ToTimer(std::exchange(properties, {})));
    }
  }
  return timers;
}

void AskSystemd(Timers& timers) {
  const std::string command =
      std::string("TZ=UTC LC_ALL=C exec ") + paths::kSystemctl +
      " show --property=Id,LoadState,UnitFileState,ActiveState,NextElapseUSecRealtime " +
      kUpdateTimer + ' ' + kVerifyTimer;
  for (const Timer& timer : Parse(OutputOf(command))) {
    timers.is_known = true;
    if (timer.unit == kUpdateTimer) {
      timers.update = timer;
    } else if (timer.unit == kVerifyTimer) {
      timers.verify = timer;
    }
  }
  timers.is_silent = !timers.is_known;
}

}  // namespace

Timers ExamineTimers() {
  Timers timers;
  timers.update.unit = kUpdateTimer;
  timers.verify.unit = kVerifyTimer;
  timers.cron = Exists(paths::kCronTable) ? paths::kCronTable : "";
  if (Exists(kRunsThisMachine) && Exists(paths::kSystemctl)) {
    AskSystemd(timers);
  }
  return timers;
}

}  // namespace tolm::operation
