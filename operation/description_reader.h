#ifndef TOLM_OPERATION_DESCRIPTION_READER_H_
#define TOLM_OPERATION_DESCRIPTION_READER_H_

#include <string>

#include "dataupdate/io_utils.h"

namespace tolm::operation {

/// Reads the cached description only when it is a regular file within the bounds of base/rules.h,
/// which it is measured for before it is parsed. Every other file is read as the library reads it.
class DescriptionReader : public dataupdate::IOUtils {
 public:
  /// Throws UpdateError: "Fail to read" or "Fail to decode", the path, and where it is a bound,
  /// which one; that too when there is too little memory.
  Json::Value ReadJson(const std::string& path) const override;
};

/// The same for who asks the server: a cached description that cannot be used is removed and
/// logged, so that the server is asked anew. Under the lock on it (fresh_info), which is the
/// caller's matter: the library's InfoGetter has it when it calls these.
class DescriptionKeeper : public DescriptionReader {
 public:
  /// Removes what it throws for.
  Json::Value ReadJson(const std::string& path) const override;
  /// True besides for a description that is no regular file, too large, or from the future. It is
  /// removed unread.
  bool FileCreateOver(const std::string& path, int seconds) const override;
  /// Not through a link.
  void Download(const std::string& output, const std::string& url) const override;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DESCRIPTION_READER_H_
