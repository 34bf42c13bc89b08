#ifndef TOLM_PUBLISH_INSPECT_H_
#define TOLM_PUBLISH_INSPECT_H_

#include <cstdint>
#include <iosfwd>
#include <string>

namespace tolm::publish {

struct InspectRequest {
  std::string package_path;
  std::string keyring_path;      ///< empty: the signature is not checked
  std::string revocations_path;  ///< may be empty; only used with a keyring
};

/// Prints what a package holds: its seal, sizes, signer and members. With a keyring the package is
/// verified before anything of it is parsed or printed; without one the output says that nothing
/// was verified. The package's name is compared with its seal as a device would do it. Throws
/// package::Error; the text names the package first. Names from the package are printed with
/// control characters escaped.
void Inspect(const InspectRequest& request, std::int64_t now, std::ostream& out);

/// How a package is compressed: package::CompressionText; empty when it cannot be read.
std::string CompressionOfPackage(const std::string& path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_INSPECT_H_
