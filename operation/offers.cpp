#include "operation/offers.h"

#include <memory>
#include <stdexcept>
#include <utility>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/update.h"
#include "operation/credentials.h"
#include "operation/rollout.h"

namespace tolm::operation {
namespace {

constexpr char kList[] = "db_list";
constexpr char kDeltas[] = "diff_files";

// What holds others, without them.
Json::Value Bare(const Json::Value& value) {
  return value.isObject()  ? Json::Value(Json::objectValue)
         : value.isArray() ? Json::Value(Json::arrayValue)
                           : value;
}

const Json::Value& Member(const Json::Value& value, const std::string& name) {
  return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

// The document with that record's own members alone.
Json::Value PartFor(const Json::Value& document, const std::string& name) {
  Json::Value part = Bare(document);
  if (!document.isObject()) {
    return part;
  }
  for (const char* member : {"deprecated", kList}) {
    part[member] = Bare(document[member]);
  }
  const Json::Value& list = document[kList];
  if (!list.isObject() || !list.isMember(name)) {
    return part;
  }
  const Json::Value& record = list[name];
  Json::Value& shown = part[kList][name] = Bare(record);
  for (const char* member :
       {"data_version", "last_fetch_time", "deprecated", "download_link", kDeltas}) {
    if (record.isObject() && record.isMember(member)) {
      shown[member] = Bare(record[member]);
    }
  }
  return part;
}

// The library's reading, of the part for one question: it copies what it is given.
class PartGetter : public dataupdate::InfoGetter {
 public:
  explicit PartGetter(Json::Value part) : InfoGetter(nullptr, nullptr), part_(std::move(part)) {}
  Json::Value GetDatabaseInfo() const override { return part_; }

 private:
  Json::Value part_;
};

}  // namespace

dataupdate::RemoteInfo OfferIn(const Json::Value& description, const std::string& name) {
  try {
    dataupdate::RemoteInfo offer = PartGetter(PartFor(description, name)).GetRemoteInfo(name);
    offer.download_link = RememberCredentials(offer.download_link, StatedBy::kLink);
    return offer;
  } catch (const std::logic_error&) {
    throw std::runtime_error("the version that the server offers is no number");
  }
}

std::map<int, dataupdate::DiffInfo> DeltasIn(const Json::Value& description,
                                             const std::string& name) {
  PartGetter(PartFor(description, name)).GetDiffInfos(name);  // Throws for a record of no form.
  try {
    std::map<int, dataupdate::DiffInfo> deltas = dataupdate::DiffInfo::BatchFromJson(
        Member(Member(Member(description, kList), name), kDeltas));
    for (auto& [version, delta] : deltas) {
      delta.download_link = RememberCredentials(delta.download_link, StatedBy::kLink);
    }
    return deltas;
  } catch (const std::logic_error&) {
    throw std::runtime_error("a version that the server offers a delta for is no number");
  }
}

std::optional<dataupdate::RemoteInfo> OtherOfferIn(const Json::Value& description,
                                                   const std::string& name) {
  const Json::Value& other = OtherVersionIn(description, name);
  if (!other.isObject()) {
    return std::nullopt;
  }
  Json::Value document;
  document["deprecated"] = Bare(description["deprecated"]);
  document[kList][name] = other;
  return OfferIn(document, name);
}

}  // namespace tolm::operation
