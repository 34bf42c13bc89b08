#ifndef TOLM_PUBLISH_MEMORY_FILE_H_
#define TOLM_PUBLISH_MEMORY_FILE_H_

#include <string>

#include "base/descriptor.h"

namespace tolm::publish {

/// A file in memory that no other process finds, unless it inherits the descriptor. Throws
/// package::Error.
class MemoryFile {
 public:
  /// Holds the content, with the position at its beginning. @p name is for messages.
  explicit MemoryFile(const std::string& name, const std::string& content = "");

  int Get() const noexcept { return descriptor_.Get(); }
  /// All that is in it now.
  std::string Content() const;

 private:
  std::string name_;
  base::Descriptor descriptor_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_MEMORY_FILE_H_
