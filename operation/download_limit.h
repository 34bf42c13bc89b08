#ifndef TOLM_OPERATION_DOWNLOAD_LIMIT_H_
#define TOLM_OPERATION_DOWNLOAD_LIMIT_H_

#include <sys/resource.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tolm::operation {

/// How large a download may become, and why.
struct DownloadLimit {
  std::uint64_t bytes;
  std::string reason;  ///< "more than <bytes> bytes ...", for a message.
  bool is_room;        ///< There is no more room; otherwise nobody accepts more.
};

/// The most that may be downloaded into the file: a package leaves five per cent of its file system
/// free, as the library demands it of an update; a description, which is read into memory, is
/// bounded besides, and so is a package whose exact size a signed description says. What is there
/// already of what the file will hold, `kept_bytes`, takes no room. Nothing when the file system
/// cannot be looked at.
std::optional<DownloadLimit> LimitFor(const std::string& file,
                                      std::optional<std::uint64_t> exact_bytes = std::nullopt,
                                      std::uint64_t kept_bytes = 0);

/// While it exists, no file of this process and of the programs that it starts can be made larger
/// than so many bytes. Such a program is ended by SIGXFSZ, without a core dump. This process gets
/// EFBIG: call IgnoreFileSizeSignal() first. A smaller limit that there was already stays.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uint64_t bytes);
  ~FileSizeLimit();
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit file_size_{};
  rlimit core_{};
};

/// From now on this process is not ended by SIGXFSZ. Programs that the platform starts are.
void IgnoreFileSizeSignal();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOWNLOAD_LIMIT_H_
