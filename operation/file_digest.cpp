#include "operation/file_digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "base/descriptor.h"
#include "base/digest.h"

namespace tolm::operation {
namespace {

class ReadOnlyFile {
 public:
  // O_NONBLOCK: a fifo in the file's place would be waited at for ever.
  explicit ReadOnlyFile(const std::string& path)
      : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    Check(file_.Get());
  }

  void RequireRegular() const {
    struct stat status;
    Check(fstat(file_.Get(), &status));
    if (!S_ISREG(status.st_mode)) {
      throw NotARegularFile();
    }
  }

  // 0 at the end.
  std::size_t Read(std::vector<unsigned char>& buffer) const {
    const ssize_t count = read(file_.Get(), buffer.data(), buffer.size());
    Check(count);
    return static_cast<std::size_t>(count);
  }

 private:
  static void Check(ssize_t result) {
    if (result < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot be read");
    }
  }

  base::Descriptor file_;
};

}  // namespace

std::string FileDigest(const std::string& path, const std::function<void()>& step) {
  constexpr std::size_t kBufferBytes = 1 << 17;
  const ReadOnlyFile file(path);
  file.RequireRegular();
  base::Sha384 digest;
  std::vector<unsigned char> buffer(kBufferBytes);
  while (const std::size_t count = file.Read(buffer)) {
    digest.Add(buffer.data(), count);
    step();
  }
  return digest.Hex();
}

}  // namespace tolm::operation
