#ifndef TOLM_BASE_DIGEST_H_
#define TOLM_BASE_DIGEST_H_

#include <openssl/sha.h>

#include <cstddef>
#include <string>

namespace tolm::base {

/// SHA-384 (FIPS 180-4) of what is added, piece by piece. Nothing here fails.
class Sha384 {
 public:
  Sha384();
  void Add(const void* data, std::size_t size);
  /// 96 lower-case hexadecimal characters, the form of every digest of this system. Once, at the
  /// end.
  std::string Hex();

 private:
  SHA512_CTX context_;
};

}  // namespace tolm::base

#endif  // TOLM_BASE_DIGEST_H_
