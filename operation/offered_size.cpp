#include "operation/offered_size.h"

#include <exception>
#include <vector>

#include "base/paths.h"
#include "offer/offer.h"
#include "operation/credentials.h"
#include "operation/description_reader.h"
#include "operation/rollout.h"

namespace tolm::operation {
namespace {

// The description is a server's: its members may be of any type.
const Json::Value& Member(const Json::Value& value, const char* name) {
  return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

bool IsBehind(const Json::Value& package, const std::string& link) {
  const Json::Value& stated = Member(package, "download_link");
  return stated.isString() && RememberCredentials(stated.asString(), StatedBy::kLink) == link;
}

// Null when the record does not know the link.
const Json::Value& PackageInRecord(const Json::Value& record, const std::string& link) {
  if (IsBehind(record, link)) {
    return record;
  }
  for (const Json::Value& delta : Member(record, "diff_files")) {
    if (IsBehind(delta, link)) {
      return delta;
    }
  }
  return Json::Value::nullSingleton();
}

// The same of the description: the version that is not offered here has its packages, too.
const Json::Value& PackageBehind(const Json::Value& description, const std::string& link) {
  const Json::Value& list = Member(description, "db_list");
  for (auto record = list.begin(); record != list.end(); ++record) {
    const Json::Value& package = PackageInRecord(*record, link);
    const Json::Value& found =
        package.isNull() ? PackageInRecord(OtherVersionIn(description, record.name()), link)
                         : package;
    if (!found.isNull()) {
      return found;
    }
  }
  return Json::Value::nullSingleton();
}

void AddDigests(const Json::Value& record, std::set<std::string>& digests) {
  digests.insert(record["sha384"].asString());
  for (const Json::Value& delta : record["diff_files"]) {
    digests.insert(delta["sha384"].asString());
  }
}

// Of a signed description, whose members have their types.
std::set<std::string> DigestsIn(const Json::Value& description) {
  std::set<std::string> digests;
  const Json::Value& list = description["db_list"];
  for (auto record = list.begin(); record != list.end(); ++record) {
    AddDigests(*record, digests);
    if (const Json::Value& other = OtherVersionIn(description, record.name()); other.isObject()) {
      AddDigests(other, digests);
    }
  }
  return digests;
}

Json::Value CachedDescription() {
  try {
    return DescriptionReader().ReadJson(paths::kDatabaseInfo);
  } catch (const std::exception&) {
    return {};  // The operation itself says what is amiss with it.
  }
}

}  // namespace

std::optional<std::uint64_t> OfferedBytesIn(const Json::Value& description,
                                            const std::string& link) {
  const Json::Value& size = Member(PackageBehind(description, link), "file_size");
  return size.isUInt64() ? std::make_optional(size.asUInt64()) : std::nullopt;
}

std::optional<std::uint64_t> OfferedBytes(const std::string& link) {
  return OfferedBytesIn(CachedDescription(), link);
}

std::optional<std::uint64_t> SignedBytes(const std::string& link) {
  const std::optional<OfferedPackage> package = SignedPackage(link);
  return package ? std::make_optional(package->bytes) : std::nullopt;
}

std::optional<std::set<std::string>> SignedDigests() {
  const Json::Value description = CachedDescription();
  if (description.isNull()) {
    return std::nullopt;
  }
  return offer::IsDocumentOfOffer(description) ? DigestsIn(description) : std::set<std::string>();
}

std::optional<OfferedPackage> SignedPackage(const std::string& link) {
  const Json::Value description = CachedDescription();
  const Json::Value& package = PackageBehind(description, link);
  if (!offer::IsDocumentOfOffer(description) || package.isNull()) {
    return std::nullopt;
  }
  return OfferedPackage{package["file_size"].asUInt64(), package["sha384"].asString()};
}

}  // namespace tolm::operation
