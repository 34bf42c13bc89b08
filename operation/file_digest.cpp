#include "operation/file_digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace tolm::operation {
namespace {

class ReadOnlyFile {
 public:
  // O_NONBLOCK: a fifo in the file's place would be waited at for ever.
  explicit ReadOnlyFile(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    Check(fd_);
  }
  ~ReadOnlyFile() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

  void RequireRegular() const {
    struct stat status;
    Check(fstat(fd_, &status));
    if (!S_ISREG(status.st_mode)) {
      throw NotARegularFile();
    }
  }

  // 0 at the end.
  std::size_t Read(std::vector<unsigned char>& buffer) const {
    const ssize_t count = read(fd_, buffer.data(), buffer.size());
    Check(count);
    return static_cast<std::size_t>(count);
  }

 private:
  static void Check(ssize_t result) {
    if (result < 0) {
      throw std::system_error(errno, std::generic_category(), "cannot be read");
    }
  }

  int fd_;
};

void CheckDigest(int result) {
  if (result != 1) {
    throw std::runtime_error("the digest cannot be computed");
  }
}

std::string ToHex(const unsigned char* bytes, unsigned int size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

}  // namespace

std::string FileDigest(const std::string& path, const std::function<void()>& step) {
  constexpr std::size_t kBufferBytes = 1 << 20;
  const ReadOnlyFile file(path);
  file.RequireRegular();
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  CheckDigest(EVP_DigestInit_ex(context.get(), EVP_sha384(), nullptr));
  std::vector<unsigned char> buffer(kBufferBytes);
  while (const std::size_t count = file.Read(buffer)) {
    CheckDigest(EVP_DigestUpdate(context.get(), buffer.data(), count));
    step();
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  CheckDigest(EVP_DigestFinal_ex(context.get(), digest, &size));
  return ToHex(digest, size);
}

}  // namespace tolm::operation
