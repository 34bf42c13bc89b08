#ifndef TOLM_DATAUPDATE_IO_UTILS_H_
#define TOLM_DATAUPDATE_IO_UTILS_H_

#include <json/value.h>

#include <boost/format.hpp>
#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <utility>

#include "dataupdate/export.h"

namespace tolm::dataupdate {

/// SHA-384 (FIPS 180-4) of what the stream hands over without blocking, as 96 lower-case
/// hexadecimal characters. A stream that is not in a good state yields the digest of no data.
/// Throws UpdateError when reading fails.
TOLM_DATAUPDATE_API std::string GetSha384(std::istream& in);

/// The name with every "/" and "." replaced by "_": a relative path as one file name.
TOLM_DATAUPDATE_API std::string FlatFileName(const std::string& name);

/// The device's user-agent string for a product. Throws UpdateError when the platform gives none.
TOLM_DATAUPDATE_API std::string TolmGetUserAgent(const std::string& product);

/// A formatter that never throws, whatever the format string and the number of its arguments.
TOLM_DATAUPDATE_API boost::format NoexceptFormat(const std::string& format) noexcept;

/// Every operation on files and the network. Each reports failure only by throwing UpdateError,
/// mostly with a message that names the operation and the path. Holds no state: any thread may call
/// anything at any time.
class TOLM_DATAUPDATE_API IOUtils {
 public:
  virtual ~IOUtils();

  /// Bytes in a regular file, or in all regular files below a directory (links are followed to
  /// files, not into directories). 0 for anything else, also for a missing path.
  virtual std::uint64_t GetSize(const std::string& path) const;

  /// Of the file system that holds the directory: bytes an unprivileged writer may still use, and
  /// the size.
  virtual std::pair<std::int64_t, std::uint64_t> GetFsSize(const std::string& path) const;

  /// The parsed file; comments are allowed. A missing file throws with code kFileNotExist.
  virtual Json::Value ReadJson(const std::string& path) const;

  /// Rewrites the file in place, indented by one tab; missing parent directories are created. A
  /// failure after the file was opened leaves it truncated.
  virtual void WriteJson(const std::string& path, const Json::Value& value) const;

  /// Whether the file was modified more than `seconds` ago.
  virtual bool FileCreateOver(const std::string& path, int seconds) const;

  /// Removes the path and everything below it; a missing path is no failure.
  virtual void RmRf(const std::string& path) const;

  /// Copies a file with its mode, a symbolic link as a link, a directory as an empty directory.
  /// Missing parents of `to` are created, and what stands at `to` is replaced unless it is a
  /// non-empty directory.
  virtual void CopyFile(const std::string& from, const std::string& to) const;

  /// Downloads the URL into a file and waits for it. A failed download leaves no file behind.
  virtual void Download(const std::string& output, const std::string& url) const;

  /// Creates the directory with all missing parents.
  virtual void TolmMkdir(const std::string& path) const;

  /// Hands "<directory>/<name>" of every entry to the callback, in the system's order; when
  /// recursive, a directory comes after its contents. `directory` itself may be a symbolic link;
  /// those that are met are handed over and not followed. Where a file system's listings do not
  /// tell which entries are directories, none is entered, and "." and ".." are handed over like any
  /// other: a callback that changes entries must leave these two alone. What the callback throws
  /// ends the walk and is passed on; an empty callback throws std::bad_function_call.
  virtual void IterateDirectory(const std::string& directory,
                                std::function<void(const std::string&)> callback,
                                bool recursive) const;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_IO_UTILS_H_
