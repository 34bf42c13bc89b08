#ifndef TOLM_OPERATION_FILE_DIGEST_H_
#define TOLM_OPERATION_FILE_DIGEST_H_

#include <functional>
#include <stdexcept>
#include <string>

namespace tolm::operation {

class NotARegularFile : public std::runtime_error {
 public:
  NotARegularFile() : runtime_error("not a regular file") {}
};

/// SHA-384 of a regular file as 96 lower-case hexadecimal characters. Opens it for reading only and
/// never waits at it, so it may stand on a read-only file system, belong to somebody else, or be
/// something quite different. `step` is called again and again while a long file is read and may
/// throw. Throws std::system_error, NotARegularFile or std::runtime_error.
std::string FileDigest(const std::string& path, const std::function<void()>& step);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_FILE_DIGEST_H_
