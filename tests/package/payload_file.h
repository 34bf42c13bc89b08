#ifndef TOLM_TESTS_PACKAGE_PAYLOAD_FILE_H_
#define TOLM_TESTS_PACKAGE_PAYLOAD_FILE_H_

#include <fcntl.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/descriptor.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {

/// Bytes in a file that is open for reading.
class PayloadFile {
 public:
  explicit PayloadFile(const std::string& bytes) : size_(bytes.size()) {
    WriteFile(directory_.Path() / "payload", bytes);
    file_ = base::Descriptor(::open((directory_.Path() / "payload").c_str(), O_RDWR | O_CLOEXEC));
  }

  int fd() const { return file_.Get(); }
  std::uint64_t size() const { return size_; }

 private:
  TemporaryDirectory directory_;
  base::Descriptor file_;
  std::uint64_t size_;
};

inline base::Descriptor OpenDirectory(const std::filesystem::path& path) {
  return base::Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PACKAGE_PAYLOAD_FILE_H_
