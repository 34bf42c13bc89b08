#ifndef TOLM_TESTS_SRC_ENGINE_SUPPORT_H_
#define TOLM_TESTS_SRC_ENGINE_SUPPORT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include "dataupdate/error.h"
#include "tests/src/thrown.h"
#include "tests/support/unique_descriptor.h"

// What the tests of the strategies and of what stands above them share.

namespace tolm::testing {

/// The text of the UpdateError, with the general code, that the call throws.
inline std::string UpdateErrorOf(const std::function<void()>& call) {
  const dataupdate::Thrown thrown = dataupdate::ErrorOf(call);
  EXPECT_EQ(thrown.code, dataupdate::UpdateError::kGeneral);
  return thrown.message;
}

/// Holds a lock file the way another process would: for reading (LOCK_SH) or alone (LOCK_EX).
class HeldLock {
 public:
  HeldLock(const std::string& path, int operation) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    file_ = UniqueDescriptor(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file_ || flock(file_.Get(), operation | LOCK_NB) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  void Release() { file_.Close(); }

 private:
  UniqueDescriptor file_;
};

/// Whether somebody holds the lock file alone at this moment.
inline bool IsLocked(const std::string& path) {
  const UniqueDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file && flock(file.Get(), LOCK_SH | LOCK_NB) != 0;
}

inline std::filesystem::perms ModeOf(const std::string& path) {
  return std::filesystem::symlink_status(path).permissions();
}

inline void SetMode(const std::string& path, unsigned mode) {
  std::filesystem::permissions(path, std::filesystem::perms(mode));
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SRC_ENGINE_SUPPORT_H_
