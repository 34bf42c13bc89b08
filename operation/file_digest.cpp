#include "operation/file_digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <system_error>

#include "base/descriptor.h"
#include "base/digest.h"

namespace tolm::operation {
namespace {

void Check(long result, const std::string& path) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), path + " cannot be read");
  }
}

// O_NONBLOCK: a fifo in the file's place would be waited at for ever.
base::Descriptor OpenToRead(const std::string& path) {
  base::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  Check(file.Get(), path);
  return file;
}

std::uint64_t SizeOfRegular(int file, const std::string& path) {
  struct stat status;
  Check(fstat(file, &status), path);
  if (!S_ISREG(status.st_mode)) {
    throw NotARegularFile();
  }
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace

std::string FileDigest(const std::string& path, const std::function<void()>& step) {
  constexpr std::size_t kMostBytes = 1 << 17;
  const base::Descriptor file = OpenToRead(path);
  // One more than there is: a small file's end is met with its content, in one read.
  const std::uint64_t size = SizeOfRegular(file.Get(), path);
  const std::size_t capacity = size < kMostBytes ? static_cast<std::size_t>(size) + 1 : kMostBytes;
  const std::unique_ptr<char[]> buffer(new char[capacity]);  // not filled with zeros
  base::Sha384 digest;
  std::uint64_t done = 0;
  while (true) {
    const ssize_t count = read(file.Get(), buffer.get(), capacity);
    Check(count, path);
    step();
    digest.Add(buffer.get(), static_cast<std::size_t>(count));
    done += static_cast<std::uint64_t>(count);
    const bool is_short = static_cast<std::size_t>(count) < capacity;
    if (count == 0 || (is_short && done >= size)) {
      return digest.Hex();
    }
  }
}

}  // namespace tolm::operation
