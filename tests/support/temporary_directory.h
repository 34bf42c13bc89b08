#ifndef TOLM_SUPPORT_TEMPORARY_DIRECTORY_H_
#define TOLM_SUPPORT_TEMPORARY_DIRECTORY_H_

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tolm::testing {

/// A new empty directory, removed with all its content at the end.
class TemporaryDirectory {
 public:
  /// Throws std::system_error when it cannot be made.
  explicit TemporaryDirectory(const std::filesystem::path& parent = "/tmp") {
    std::string name = (parent / "tolm-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "cannot make " + name);
    }
    path_ = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_TEMPORARY_DIRECTORY_H_
