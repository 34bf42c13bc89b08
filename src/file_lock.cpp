#include "dataupdate/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>

#include "base/log.h"
#include "base/messages.h"
#include "base/rules.h"
#include "dataupdate/error.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "file_lock";

std::atomic<LockWaitQuestion> wait_question{nullptr};

bool MustEndWait(const std::string& path) {
  const LockWaitQuestion question = wait_question;
  return question != nullptr && question(path);
}

}  // namespace

FileLock::FileLock(const std::string& path, std::uint32_t timeout_seconds) : path_(path), fd_(-1) {
  auto now = std::chrono::steady_clock::now();
  const auto deadline = now + std::chrono::nanoseconds(std::int64_t{timeout_seconds} * 1000000000);
  MakeDir(path);
  // Without close-on-exec: whatever the platform starts gets no descriptor above 2.
  fd_ = open(path.c_str(), O_RDONLY | O_CREAT, 0644);
  if (fd_ == -1) {
    throw UpdateError("Fail open lock file " + path);
  }
  while (true) {
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
      syslog(LOG_INFO, "%s:%d Acquire lock on file: %s", TOLM_LOG_HERE, path.c_str());
      return;
    }
    if (now >= deadline || MustEndWait(path)) {
      break;
    }
    usleep(rules::kLockPollMicroseconds);
    now = std::chrono::steady_clock::now();
  }
  close(fd_);
  throw UpdateError(messages::kFailToLock + path);
}

void SetLockWaitQuestion(LockWaitQuestion question) noexcept {
  wait_question = question;
}

FileLock::~FileLock() {
  if (flock(fd_, LOCK_UN) == -1) {
    syslog(LOG_ERR, "%s:%d Fail to unlock %s", TOLM_LOG_HERE, path_.c_str());
  }
  close(fd_);
  syslog(LOG_INFO, "%s:%d Release lock on file: %s", TOLM_LOG_HERE, path_.c_str());
}

void FileLock::MakeDir(const std::string& path) {
  try {
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
  } catch (const boost::filesystem::filesystem_error& error) {
    throw UpdateError(std::string("Fail to create dir ") + error.what());
  }
}

}  // namespace tolm::dataupdate
