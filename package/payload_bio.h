#ifndef TOLM_PACKAGE_PAYLOAD_BIO_H_
#define TOLM_PACKAGE_PAYLOAD_BIO_H_

#include <cstdint>

#include "package/openssl.h"

namespace tolm::package {

/// How far a payload has been read, and what went wrong.
struct PayloadCursor {
  int fd = -1;
  std::uint64_t offset = 0;
  std::uint64_t end = 0;
  int errno_value = 0;  ///< of a failed read
};

/// Lets OpenSSL read the bytes from @p cursor.offset to @p cursor.end, whatever their number; the
/// file's own position is neither used nor moved. @p cursor must outlive the result. A file that
/// ends early reads as the end; the cursor's offset tells.
BioPtr NewPayloadBio(PayloadCursor& cursor);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PAYLOAD_BIO_H_
