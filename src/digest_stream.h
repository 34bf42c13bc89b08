#ifndef TOLM_SRC_DIGEST_STREAM_H_
#define TOLM_SRC_DIGEST_STREAM_H_

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <istream>
#include <limits>
#include <string>

namespace tolm::dataupdate {

/// The buffer of a regular file that knows in 64 bits how much is left. The standard one asks the
/// kernel for an int, which is 0 wherever the rest is a multiple of 2^32 bytes: readsome would end
/// there. Where std::streamsize has 32 bits, a larger rest is reported as the largest number that
/// it holds.
class LargeFileBuffer : public std::filebuf {
 public:
  explicit LargeFileBuffer(const std::string& path) {
    pubsetbuf(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    if (open(path, std::ios::in | std::ios::out | std::ios::binary) == nullptr) {
      return;
    }
    struct stat info;
    if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      size_bytes_ = info.st_size;
    }
  }

 protected:
  std::streamsize showmanyc() override {
    constexpr std::streamoff kMost = std::numeric_limits<std::streamsize>::max();
    const std::streamoff position = seekoff(0, std::ios::cur, std::ios::in);
    if (position < 0 || position > size_bytes_) {
      return 0;
    }
    return static_cast<std::streamsize>(std::min(size_bytes_ - position, kMost));
  }

 private:
  std::array<char, 64 * 1024> buffer_;
  std::streamoff size_bytes_ = 0;
};

/// A file opened for reading and writing, neither created nor truncated, to compute its digest. In
/// a failed state when it could not be opened.
class DigestStream : public std::iostream {
 public:
  explicit DigestStream(const std::string& path) : std::iostream(nullptr), buffer_(path) {
    rdbuf(&buffer_);
    if (!buffer_.is_open()) {
      setstate(std::ios::failbit);
    }
  }

 private:
  LargeFileBuffer buffer_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_DIGEST_STREAM_H_
