#include "operation/offered_size.h"

#include <exception>
#include <vector>

#include "base/paths.h"
#include "offer/offer.h"
#include "operation/credentials.h"
#include "operation/description_reader.h"

namespace tolm::operation {
namespace {

// The description is a server's: its members may be of any type.
const Json::Value& Member(const Json::Value& value, const char* name) {
  return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

std::optional<std::uint64_t> SizeIn(const Json::Value& package, const std::string& link) {
  const Json::Value& stated = Member(package, "download_link");
  const Json::Value& size = Member(package, "file_size");
  if (stated.isString() && size.isUInt64() &&
      RememberCredentials(stated.asString(), StatedBy::kLink) == link) {
    return size.asUInt64();
  }
  return std::nullopt;
}

std::optional<std::uint64_t> SizeInRecord(const Json::Value& record, const std::string& link) {
  std::optional<std::uint64_t> size = SizeIn(record, link);
  for (const Json::Value& delta : Member(record, "diff_files")) {
    if (!size) {
      size = SizeIn(delta, link);
    }
  }
  return size;
}

// Of a signed description, whose members have their types.
std::vector<const Json::Value*> PackagesIn(const Json::Value& description) {
  std::vector<const Json::Value*> packages;
  for (const Json::Value& record : description["db_list"]) {
    packages.push_back(&record);
    for (const Json::Value& delta : record["diff_files"]) {
      packages.push_back(&delta);
    }
  }
  return packages;
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
  for (const Json::Value& record : Member(description, "db_list")) {
    if (const std::optional<std::uint64_t> size = SizeInRecord(record, link)) {
      return size;
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> OfferedBytes(const std::string& link) {
  return OfferedBytesIn(CachedDescription(), link);
}

std::optional<std::uint64_t> SignedBytes(const std::string& link) {
  const std::optional<OfferedPackage> package = SignedPackage(link);
  return package ? std::make_optional(package->bytes) : std::nullopt;
}

std::optional<OfferedPackage> SignedPackage(const std::string& link) {
  const Json::Value description = CachedDescription();
  if (!offer::IsDocumentOfOffer(description)) {
    return std::nullopt;
  }
  for (const Json::Value* package : PackagesIn(description)) {
    if (const std::optional<std::uint64_t> bytes = SizeIn(*package, link)) {
      return OfferedPackage{*bytes, (*package)["sha384"].asString()};
    }
  }
  return std::nullopt;
}

std::optional<std::set<std::string>> SignedDigests() {
  const Json::Value description = CachedDescription();
  if (description.isNull()) {
    return std::nullopt;
  }
  std::set<std::string> digests;
  if (offer::IsDocumentOfOffer(description)) {
    for (const Json::Value* package : PackagesIn(description)) {
      digests.insert((*package)["sha384"].asString());
    }
  }
  return digests;
}

}  // namespace tolm::operation
