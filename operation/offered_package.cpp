#include "operation/offered_package.h"

#include <filesystem>
#include <system_error>

#include "offer/offer.h"
#include "operation/file_digest.h"
#include "operation/rollout.h"

namespace tolm::operation {
namespace {

// What offer::DocumentOf() has made has all of it.
OfferedPackage PackageFrom(const Json::Value& value) {
  return {value["file_size"].asUInt64(), value["sha384"].asString()};
}

void AddPackages(const Json::Value& record, OfferedPackages& packages) {
  packages['v' + record["data_version"].asString()] = PackageFrom(record);
  const Json::Value& deltas = record["diff_files"];
  for (const std::string& version : deltas.getMemberNames()) {
    packages['d' + version] = PackageFrom(deltas[version]);
  }
}

}  // namespace

OfferedPackages SignedPackagesIn(const Json::Value& description, const std::string& name) {
  if (!offer::IsDocumentOfOffer(description) || !description["db_list"].isMember(name)) {
    return {};
  }
  OfferedPackages packages;
  AddPackages(description["db_list"][name], packages);
  if (const Json::Value& other = OtherVersionIn(description, name); other.isObject()) {
    AddPackages(other, packages);
  }
  return packages;
}

std::string DifferenceOf(const std::string& file, const OfferedPackage& offered,
                         const std::function<void()>& step) {
  try {
    const std::uint64_t bytes = std::filesystem::file_size(file);
    if (bytes != offered.bytes) {
      return "it has " + std::to_string(bytes) + " bytes and not " + std::to_string(offered.bytes);
    }
    return FileDigest(file, step) == offered.sha384 ? "" : "its content has another SHA-384";
  } catch (const std::system_error& error) {
    return error.what();
  } catch (const NotARegularFile& error) {
    return error.what();
  }
}

}  // namespace tolm::operation
