#include "operation/offered_size.h"

#include <exception>

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
  const Json::Value& list = Member(description, "db_list");
  for (auto record = list.begin(); record != list.end(); ++record) {
    std::optional<std::uint64_t> size = SizeInRecord(*record, link);
    if (!size) {
      size = SizeInRecord(OtherVersionIn(description, record.name()), link);
    }
    if (size) {
      return size;
    }
  }
  return std::nullopt;
}

std::optional<std::uint64_t> OfferedBytes(const std::string& link) {
  return OfferedBytesIn(CachedDescription(), link);
}

std::optional<std::uint64_t> SignedBytes(const std::string& link) {
  const Json::Value description = CachedDescription();
  return offer::IsDocumentOfOffer(description) ? OfferedBytesIn(description, link) : std::nullopt;
}

}  // namespace tolm::operation
