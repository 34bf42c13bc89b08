#include "offer/offer.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <memory>
#include <vector>

#include "base/json_scan.h"
#include "base/rules.h"
#include "offer/error.h"

namespace tolm::offer {
namespace {

// A server's document has a text there, or is refused.
constexpr char kOfOffer[] = "signed";
constexpr std::size_t kIdentityDigits = 32;
constexpr std::size_t kSha384Digits = 96;

[[noreturn]] void Refuse(const std::string& what) {
  throw Error(Code::kForm, "its signed part cannot be read: " + what);
}

// A member of an object of the signed text. Each call throws for what is missing or of another
// type.
class Reader {
 public:
  Reader(const Json::Value& value, std::string where) : value_(value), where_(std::move(where)) {
    if (!value.isObject()) {
      Refuse(where_ + " is no object");
    }
  }

  std::string Text(const char* key) const {
    const Json::Value& member = Member(key);
    return member.isString() ? member.asString() : Wrong<std::string>(key, "text");
  }
  std::uint64_t Natural(const char* key) const {
    const Json::Value& member = Member(key);
    return member.isUInt64() ? member.asUInt64() : Wrong<std::uint64_t>(key, "whole number");
  }
  std::int64_t Time(const char* key) const {
    const Json::Value& member = Member(key);
    return member.isInt64() && member.asInt64() >= 0 ? member.asInt64()
                                                     : Wrong<std::int64_t>(key, "time");
  }
  int Int(const char* key) const {
    const Json::Value& member = Member(key);
    return member.isInt() && member.asInt() >= 0 ? member.asInt() : Wrong<int>(key, "small number");
  }
  bool Flag(const char* key) const {
    const Json::Value& member = Member(key);
    return member.isBool() ? member.asBool() : Wrong<bool>(key, "true or false");
  }
  std::vector<Reader> Objects(const char* key) const {
    const Json::Value& list = Member(key);
    if (!list.isArray()) {
      Refuse(Name(key) + " is no list");
    }
    std::vector<Reader> readers;
    for (const Json::Value& element : list) {
      readers.emplace_back(element, Name(key));
    }
    return readers;
  }
  Reader Object(const char* key) const { return Reader(Member(key), Name(key)); }
  bool Has(const char* key) const { return value_.isMember(key); }
  Json::Value::Members Names() const { return value_.getMemberNames(); }
  Reader Named(const std::string& key) const { return Reader(value_[key], Name(key)); }
  const std::string& where() const { return where_; }

 private:
  std::string Name(const std::string& key) const { return where_ + '.' + key; }
  const Json::Value& Member(const char* key) const {
    if (!value_.isMember(key)) {
      Refuse(where_ + " has no \"" + key + '"');
    }
    return value_[key];
  }
  template <typename T>
  [[noreturn]] T Wrong(const char* key, const char* wanted) const {
    Refuse(Name(key) + " is no " + wanted);
  }

  const Json::Value& value_;
  std::string where_;
};

bool IsHex(const std::string& text, std::size_t digits) {
  return text.size() == digits && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

void RequireWithinBounds(const std::string& text) {
  base::JsonScan scan;
  scan.Add(text);
  const base::JsonMeasure& measure = scan.measure();
  if (measure.bytes > rules::kDescriptionBytes || measure.depth > rules::kDescriptionDepth ||
      measure.values > rules::kDescriptionValues) {
    Refuse("it has " + std::to_string(measure.bytes) + " bytes, " + std::to_string(measure.depth) +
           " levels and " + std::to_string(measure.values) + " values, which is too much");
  }
}

Json::Value Parse(const std::string& text) {
  RequireWithinBounds(text);
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string problem;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &problem)) {
      return value;
    }
  } catch (const Json::Exception&) {
    // Some of what is no JSON is reported like this.
  }
  Refuse("it is no JSON");
}

int VersionFrom(const std::string& text, const std::string& where) {
  const std::optional<int> version = ParseVersion(text);
  if (!version) {
    Refuse(where + ": \"" + text + "\" is no version");
  }
  return *version;
}

Json::Value ToJson(const PackageOffer& package) {
  Json::Value value;
  value["link"] = package.link;
  value["size"] = Json::UInt64(package.size_bytes);
  value["sha384"] = package.sha384;
  return value;
}

Json::Value ToJson(const std::map<int, PackageOffer>& deltas) {
  Json::Value value(Json::objectValue);
  for (const auto& [version, delta] : deltas) {
    value[std::to_string(version)] = ToJson(delta);
  }
  return value;
}

Json::Value ToJson(const RolloutPlan& plan) {
  Json::Value value;
  value["start"] = Json::Int64(plan.start);
  value["steps"] = Json::Value(Json::arrayValue);
  for (const RolloutStep& step : plan.steps) {
    Json::Value& made = value["steps"].append(Json::Value(Json::objectValue));
    made["share"] = step.share;
    made["seconds"] = Json::Int64(step.seconds);
  }
  if (plan.held) {
    value["held"] = Json::Int64(*plan.held);
  }
  value["stopped"] = plan.stopped;
  return value;
}

Json::Value ToJson(const NextOffer& next) {
  Json::Value value;
  value["version"] = next.version;
  value["last_fetch_time"] = next.last_fetch_time;
  value["full"] = ToJson(next.full);
  value["deltas"] = ToJson(next.deltas);
  value["plan"] = ToJson(next.plan);
  return value;
}

Json::Value ToJson(const DatabaseOffer& database) {
  Json::Value value;
  value["version"] = database.version;
  value["last_fetch_time"] = database.last_fetch_time;
  value["deprecated"] = database.deprecated;
  value["full"] = ToJson(database.full);
  value["deltas"] = ToJson(database.deltas);
  if (database.next) {
    value["next"] = ToJson(*database.next);
  }
  return value;
}

PackageOffer PackageFrom(const Reader& reader) {
  PackageOffer package;
  package.link = reader.Text("link");
  package.size_bytes = reader.Natural("size");
  package.sha384 = reader.Text("sha384");
  if (package.link.empty() || package.size_bytes == 0 || !IsHex(package.sha384, kSha384Digits)) {
    Refuse(reader.where() + " has no link, size or digest");
  }
  return package;
}

std::map<int, PackageOffer> DeltasFrom(const Reader& reader) {
  std::map<int, PackageOffer> deltas;
  for (const std::string& version : reader.Names()) {
    deltas[VersionFrom(version, reader.where())] = PackageFrom(reader.Named(version));
  }
  return deltas;
}

RolloutPlan PlanFrom(const Reader& reader) {
  RolloutPlan plan;
  plan.start = reader.Time("start");
  for (const Reader& step : reader.Objects("steps")) {
    plan.steps.push_back({step.Int("share"), step.Time("seconds")});
  }
  if (reader.Has("held")) {
    plan.held = reader.Time("held");
  }
  plan.stopped = reader.Flag("stopped");
  if (const std::string problem = ProblemOf(plan); !problem.empty()) {
    Refuse(reader.where() + " cannot be: " + problem);
  }
  return plan;
}

bool IsBetween(const std::map<int, PackageOffer>& deltas, int above, int last) {
  return deltas.empty() || (deltas.begin()->first > above && deltas.rbegin()->first <= last);
}

NextOffer NextFrom(const Reader& reader, int stable) {
  NextOffer next;
  next.version = reader.Int("version");
  next.last_fetch_time = reader.Int("last_fetch_time");
  next.full = PackageFrom(reader.Object("full"));
  next.deltas = DeltasFrom(reader.Object("deltas"));
  next.plan = PlanFrom(reader.Object("plan"));
  if (next.version <= stable || !IsBetween(next.deltas, stable, next.version)) {
    Refuse(reader.where() + " does not follow the stable version");
  }
  return next;
}

DatabaseOffer DatabaseFrom(const Reader& reader) {
  DatabaseOffer database;
  database.version = reader.Int("version");
  database.last_fetch_time = reader.Int("last_fetch_time");
  database.deprecated = reader.Flag("deprecated");
  database.full = PackageFrom(reader.Object("full"));
  database.deltas = DeltasFrom(reader.Object("deltas"));
  if (reader.Has("next")) {
    database.next = NextFrom(reader.Object("next"), database.version);
  }
  return database;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

// As the library reads it, which looks for a delta's size in 32 bits.
Json::Value DocumentOf(const Offer& offer, const PackageOffer& package) {
  Json::Value value;
  value["download_link"] = LinkOf(offer, package);
  value["file_size"] = Json::UInt64(package.size_bytes);
  value["sha384"] = package.sha384;
  return value;
}

void AddDeltas(const Offer& offer, const std::map<int, PackageOffer>& deltas, Json::Value& record) {
  for (const auto& [version, delta] : deltas) {
    record["diff_files"][std::to_string(version)] = DocumentOf(offer, delta);
  }
}

Json::Value DocumentOf(const Offer& offer, const DatabaseOffer& database, const NextOffer* next) {
  Json::Value record = DocumentOf(offer, next != nullptr ? next->full : database.full);
  record["data_version"] = std::to_string(next != nullptr ? next->version : database.version);
  record["last_fetch_time"] = next != nullptr ? next->last_fetch_time : database.last_fetch_time;
  record["deprecated"] = database.deprecated;
  record["diff_files"] = Json::Value(Json::objectValue);
  AddDeltas(offer, database.deltas, record);
  if (next != nullptr) {
    AddDeltas(offer, next->deltas, record);
  }
  return record;
}

}  // namespace

std::optional<int> ParseVersion(const std::string& text) {
  int version = -1;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, version);
  const bool is_one =
      error == std::errc() && stop == end && version >= 0 && std::to_string(version) == text;
  return is_one ? std::make_optional(version) : std::nullopt;
}

std::string FormatOffer(const Offer& offer) {
  Json::Value value;
  value["format"] = kFormat;
  value["repository"] = offer.repository;
  value["info_version"] = offer.info_version;
  value["counter"] = Json::UInt64(offer.counter);
  value["issued"] = Json::Int64(offer.issued);
  value["expires"] = Json::Int64(offer.expires);
  value["base"] = offer.base;
  if (!offer.revocations.empty()) {
    value["revocations"] = offer.revocations;
  }
  value["databases"] = Json::Value(Json::objectValue);
  for (const auto& [name, database] : offer.databases) {
    value["databases"][name] = ToJson(database);
  }
  return Compact(value);
}

Offer ParseOffer(const std::string& text) {
  const Json::Value value = Parse(text);
  const Reader reader(value, "the whole");
  if (reader.Int("format") != kFormat) {
    Refuse("it is of format " + std::to_string(reader.Int("format")) + ", and this program knows " +
           std::to_string(kFormat));
  }
  Offer offer;
  offer.repository = reader.Text("repository");
  offer.info_version = reader.Text("info_version");
  offer.counter = reader.Natural("counter");
  offer.issued = reader.Time("issued");
  offer.expires = reader.Time("expires");
  offer.base = reader.Text("base");
  offer.revocations = reader.Has("revocations") ? reader.Text("revocations") : "";
  if (!IsHex(offer.repository, kIdentityDigits) || offer.expires <= offer.issued) {
    Refuse("its repository or its times cannot be");
  }
  const Reader databases = reader.Object("databases");
  for (const std::string& name : databases.Names()) {
    offer.databases[name] = DatabaseFrom(databases.Named(name));
  }
  return offer;
}

std::string LinkOf(const Offer& offer, const PackageOffer& package) {
  const bool is_address = package.link.find("://") != std::string::npos;
  return is_address ? package.link : offer.base + '/' + package.link;
}

bool TakesNext(const DatabaseOffer& database, int installed, int position, std::int64_t at) {
  if (!database.next) {
    return false;
  }
  const NextOffer& next = *database.next;
  const int had = next.plan.stopped ? next.version : database.version + 1;
  return installed >= had || ShareAt(next.plan, at) > position;
}

Json::Value DocumentOf(const Offer& offer, const std::set<std::string>& takes_next) {
  Json::Value document;
  Json::Value& of_offer = document[kOfOffer];
  of_offer["repository"] = offer.repository;
  of_offer["base"] = offer.base;
  of_offer["issued"] = Json::Int64(offer.issued);
  of_offer["expires"] = Json::Int64(offer.expires);
  document["deprecated"] = false;
  Json::Value& list = document["db_list"] = Json::Value(Json::objectValue);
  for (const auto& [name, database] : offer.databases) {
    const bool is_next = database.next && takes_next.count(name) != 0;
    list[name] = DocumentOf(offer, database, is_next ? &*database.next : nullptr);
  }
  return document;
}

bool IsDocumentOfOffer(const Json::Value& document) {
  return document.isObject() && document[kOfOffer].isObject();
}

}  // namespace tolm::offer
