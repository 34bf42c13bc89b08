#ifndef TOLM_SRC_DIGEST_STREAM_H_
#define TOLM_SRC_DIGEST_STREAM_H_

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <limits>
#include <streambuf>
#include <string>
#include <system_error>

#include "base/descriptor.h"

namespace tolm::dataupdate {

/// Reads a regular file that it opens for reading and writing, and knows in 64 bits how much is
/// left. The standard one asks the kernel for an int, which is 0 wherever the rest is a multiple of
/// 2^32 bytes: readsome would end there. Where std::streamsize has 32 bits, a larger rest is
/// reported as the largest number that it holds. Of anything but a regular file nothing is left.
/// Takes one call of the system's for each piece and none to learn the rest.
class LargeFileBuffer : public std::streambuf {
 public:
  explicit LargeFileBuffer(const std::string& path)
      : file_(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    struct stat info;
    if (IsOpen() && ::fstat(file_.Get(), &info) == 0 && S_ISREG(info.st_mode)) {
      size_bytes_ = info.st_size;
    }
  }

  bool IsOpen() const { return file_.IsOpen(); }

 protected:
  // Asked only when the buffer is empty.
  std::streamsize showmanyc() override {
    constexpr std::streamoff kMost = std::numeric_limits<std::streamsize>::max();
    return static_cast<std::streamsize>(
        std::clamp<std::streamoff>(size_bytes_ - position_, 0, kMost));
  }

  // Whoever reads turns what is thrown into the bad bit.
  int_type underflow() override {
    const auto wanted = static_cast<std::size_t>(std::clamp<std::streamoff>(
        size_bytes_ - position_, 0, static_cast<std::streamoff>(buffer_.size())));
    const std::int64_t count =
        base::ReadAt(file_.Get(), buffer_.data(), wanted, static_cast<std::uint64_t>(position_));
    if (count < 0) {
      throw std::system_error(errno, std::generic_category());
    }
    position_ += count;
    setg(buffer_.data(), buffer_.data(), buffer_.data() + count);
    return count == 0 ? traits_type::eof() : traits_type::to_int_type(buffer_.front());
  }

  pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode) override {
    const off_type start = from == std::ios::beg   ? 0
                           : from == std::ios::end ? size_bytes_
                                                   : position_ - (egptr() - gptr());
    if (start + offset < 0) {
      return pos_type(off_type(-1));
    }
    position_ = start + offset;
    setg(nullptr, nullptr, nullptr);
    return pos_type(position_);
  }

  pos_type seekpos(pos_type position, std::ios::openmode mode) override {
    return seekoff(off_type(position), std::ios::beg, mode);
  }

 private:
  base::Descriptor file_;
  std::array<char, 64 * 1024> buffer_;
  std::streamoff size_bytes_ = 0;
  std::streamoff position_ = 0;  ///< Behind what is in the buffer.
};

/// A file opened for reading and writing, neither created nor truncated, to compute its digest. In
/// a failed state when it could not be opened.
class DigestStream : public std::iostream {
 public:
  explicit DigestStream(const std::string& path) : std::iostream(nullptr), buffer_(path) {
    rdbuf(&buffer_);
    if (!buffer_.IsOpen()) {
      setstate(std::ios::failbit);
    }
  }

 private:
  LargeFileBuffer buffer_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_DIGEST_STREAM_H_
