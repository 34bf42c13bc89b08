#include "dataupdate/project_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <boost/format.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "project_lock";
constexpr int kTimedOut = -1;
constexpr int kNotLockable = -2;  // Not configured, or without a lock file.

constexpr int kNoVolumeChosen = -1;
constexpr int kNotConfigured = -2;
constexpr int kTooSmall = -3;

bool IsSupported(const char* name) {
  try {
    const auto io = std::make_shared<IOUtils>();
    const auto config = std::make_shared<Config>(io);
    ServiceConfig(config).CheckSupported(name);
    return true;
  } catch (const UpdateError& error) {
    syslog(LOG_ERR, "%s:%d Failed to check supported: %s", TOLM_LOG_HERE, error.what());
    syslog(LOG_ERR, "%s:%d [%s] is not supported, skip getting lock", TOLM_LOG_HERE, name);
    return false;
  }
}

int GetFileLock(const char* name, std::uint32_t timeout_seconds) {
  auto now = std::chrono::steady_clock::now();
  const auto deadline = now + std::chrono::nanoseconds(std::int64_t{timeout_seconds} * 1000000000);
  const std::string path = (boost::format(paths::kUsingLock) % name).str();
  if (!IsSupported(name)) {
    return kNotLockable;
  }
  // Without O_CREAT: a reader joins the service's lock file, it never makes one.
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd == -1) {
    syslog(LOG_ERR, "%s:%d Failed to open lock file: %s", TOLM_LOG_HERE, path.c_str());
    return kNotLockable;
  }
  while (flock(fd, LOCK_SH | LOCK_NB) != 0) {
    if (now >= deadline) {
      syslog(LOG_ERR, "%s:%d Get file lock timeout.", TOLM_LOG_HERE);
      close(fd);
      return kTimedOut;
    }
    usleep(rules::kLockPollMicroseconds);
    now = std::chrono::steady_clock::now();
  }
  return fd;
}

void ReleaseFileLock(int fd) {
  if (fd < 0) {
    return;
  }
  if (flock(fd, LOCK_UN) == -1) {
    syslog(LOG_ERR, "%s:%d Failed to release file lock", TOLM_LOG_HERE);
  }
  close(fd);
}

// What is kept on no volume has a place before one is chosen.
std::string ChosenVolume(const ServiceConfig& service) {
  try {
    return service.GetCurVolume();
  } catch (const UpdateError&) {
    return "";
  }
}

int GetDirectory(const char* name, char* path, std::size_t size) {
  const auto io = std::make_shared<IOUtils>();
  const ServiceConfig service(std::make_shared<Config>(io));
  service.CheckSupported(name);
  const DatabaseConfig database(name, ChosenVolume(service), std::make_shared<Config>(io));
  const std::string directory = database.GetInstallPrefix();
  if (database.GetRootDirectory().empty()) {
    return kNoVolumeChosen;
  }
  if (directory.size() >= size) {
    return kTooSmall;
  }
  std::copy_n(directory.c_str(), directory.size() + 1, path);
  return 0;
}

// No exception leaves a function that C may call.
int GetDirectoryOrFail(const char* name, char* path, std::size_t size) noexcept {
  try {
    return GetDirectory(name, path, size);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to tell the directory of [%s]: %s", TOLM_LOG_HERE, name,
           error.what());
    return kNotConfigured;
  }
}

}  // namespace
}  // namespace tolm::dataupdate

int TOLMDBUDGetFileLock(const char* name, uint32_t timeout_seconds) {
  return tolm::dataupdate::GetFileLock(name, timeout_seconds);
}

void TOLMDBUDReleaseFileLock(int fd) {
  tolm::dataupdate::ReleaseFileLock(fd);
}

int TOLMDBUDGetDirectory(const char* name, char* path, size_t size) {
  return tolm::dataupdate::GetDirectoryOrFail(name, path, size);
}
