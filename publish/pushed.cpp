#include "publish/pushed.h"

#include <fcntl.h>
#include <json/value.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <thread>

#include "package/error.h"
#include "package/file_io.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr int kFormat = 1;
constexpr std::size_t kMostHolderBytes = 64;
// What a killed push has started is ended with it, a moment later.
constexpr int kAttempts = 50;
constexpr std::chrono::milliseconds kBetweenAttempts(100);

std::string HolderIn(const std::string& lock) {
  return package::ReadSmallFile(lock, kMostHolderBytes, package::Code::kRead);
}

bool IsAtWork(const std::string& process) {
  pid_t number = 0;
  const auto [end, error] =
      std::from_chars(process.data(), process.data() + process.size(), number);
  return error != std::errc() || number <= 0 || ::kill(number, 0) == 0 || errno != ESRCH;
}

// Whether the lock was had.
bool TryLock(int file, const std::string& path) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (::flock(file, LOCK_EX | LOCK_NB) == 0) {
      return true;
    }
    if (errno != EWOULDBLOCK) {
      throw package::WriteError(path, errno);
    }
    if (IsAtWork(HolderIn(path))) {
      return false;
    }
    std::this_thread::sleep_for(kBetweenAttempts);
  }
  return false;
}

}  // namespace

Pushed LoadPushed(const PushPaths& paths) {
  Pushed pushed;
  if (!fs::exists(paths.File())) {
    return pushed;
  }
  const Json::Value value = ReadJsonFile(paths.File());
  const JsonObject object(value, paths.File());
  if (object.Int("format") != kFormat) {
    throw Error(paths.File() + ": written by a newer version of this program");
  }
  pushed.remote = object.Text("remote");
  pushed.description = object.Text("description");
  pushed.pushed = object.Number("pushed");
  object.Object("packages").ForEachMember([&](const std::string& path, const JsonObject& package) {
    if (package.Has("proved")) {
      pushed.proved[path] = package.Text("proved");
    }
    if (package.Has("gone")) {
      pushed.gone[path] = package.Number("gone");
    }
  });
  return pushed;
}

void SavePushed(const PushPaths& paths, const Pushed& pushed) {
  Json::Value value;
  value["format"] = kFormat;
  value["remote"] = pushed.remote;
  value["description"] = pushed.description;
  value["pushed"] = Json::Int64(pushed.pushed);
  value["packages"] = Json::Value(Json::objectValue);
  for (const auto& [path, sha384] : pushed.proved) {
    value["packages"][path]["proved"] = sha384;
  }
  for (const auto& [path, since] : pushed.gone) {
    value["packages"][path]["gone"] = Json::Int64(since);
  }
  ReplaceFile(paths.File(), FormatJson(value), paths.File() + ".new");
}

PushLock::PushLock(const PushPaths& paths, const std::string& remote_name) {
  MakeDirectories(paths.Directory());
  file_ = base::Descriptor(::open(paths.Lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!file_.IsOpen()) {
    throw package::WriteError(paths.Lock(), errno);
  }
  if (!TryLock(file_.Get(), paths.Lock())) {
    const std::string process = HolderIn(paths.Lock());
    throw Error(remote_name + ": another push to it is at work" +
                (process.empty() ? "" : ", process " + process));
  }
  const std::string process = std::to_string(::getpid());
  if (::ftruncate(file_.Get(), 0) != 0) {
    throw package::WriteError(paths.Lock(), errno);
  }
  package::WriteAll(file_.Get(), process.data(), process.size(), paths.Lock());
}

}  // namespace tolm::publish
