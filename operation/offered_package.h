#ifndef TOLM_OPERATION_OFFERED_PACKAGE_H_
#define TOLM_OPERATION_OFFERED_PACKAGE_H_

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace tolm::operation {

/// What a signed description says of a package's file.
struct OfferedPackage {
  std::uint64_t bytes;
  std::string sha384;  ///< As FileDigest() has it.
};

/// By the tags that end the names of their files: "v1000002" for the full package, "d1000002" for
/// the delta that produces that version.
using OfferedPackages = std::map<std::string, OfferedPackage>;

/// What the description says of a database's packages, of the stable version's and of a staged
/// one's whichever is offered; none where it is not a signed one, whose sizes and digests are
/// nobody's word.
OfferedPackages SignedPackagesIn(const Json::Value& description, const std::string& name);

/// In what the file is not the package, as "it has 5 bytes and not 6"; empty when it is the
/// package. It is read once, in pieces, where its size is right, with `step` as FileDigest() has
/// it; what that throws passes. What cannot be read is not the package.
std::string DifferenceOf(const std::string& file, const OfferedPackage& offered,
                         const std::function<void()>& step);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OFFERED_PACKAGE_H_
