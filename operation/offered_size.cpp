#include "operation/offered_size.h"

#include <exception>

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

bool IsBehind(const Json::Value& package, const std::string& link) {
  const Json::Value& stated = Member(package, "download_link");
  return stated.isString() && RememberCredentials(stated.asString(), StatedBy::kLink) == link;
}

// Null when the description does not know the link.
const Json::Value& PackageBehind(const Json::Value& description, const std::string& link) {
  for (const Json::Value& record : Member(description, "db_list")) {
    if (IsBehind(record, link)) {
      return record;
    }
    for (const Json::Value& delta : Member(record, "diff_files")) {
      if (IsBehind(delta, link)) {
        return delta;
      }
    }
  }
  return Json::Value::nullSingleton();
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
  const Json::Value description = CachedDescription();
  return offer::IsDocumentOfOffer(description) ? OfferedBytesIn(description, link) : std::nullopt;
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
