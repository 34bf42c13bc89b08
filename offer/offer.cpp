#include "offer/offer.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <memory>

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

Json::Value ToJson(const DatabaseOffer& database) {
  Json::Value value;
  value["version"] = database.version;
  value["last_fetch_time"] = database.last_fetch_time;
  value["deprecated"] = database.deprecated;
  value["full"] = ToJson(database.full);
  value["deltas"] = Json::Value(Json::objectValue);
  for (const auto& [version, delta] : database.deltas) {
    value["deltas"][std::to_string(version)] = ToJson(delta);
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

DatabaseOffer DatabaseFrom(const Reader& reader) {
  DatabaseOffer database;
  database.version = reader.Int("version");
  database.last_fetch_time = reader.Int("last_fetch_time");
  database.deprecated = reader.Flag("deprecated");
  database.full = PackageFrom(reader.Object("full"));
  const Reader deltas = reader.Object("deltas");
  for (const std::string& version : deltas.Names()) {
    database.deltas[VersionFrom(version, deltas.where())] = PackageFrom(deltas.Named(version));
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

Json::Value DocumentOf(const Offer& offer) {
  Json::Value document;
  Json::Value& of_offer = document[kOfOffer];
  of_offer["repository"] = offer.repository;
  of_offer["base"] = offer.base;
  of_offer["issued"] = Json::Int64(offer.issued);
  of_offer["expires"] = Json::Int64(offer.expires);
  document["deprecated"] = false;
  Json::Value& list = document["db_list"] = Json::Value(Json::objectValue);
  for (const auto& [name, database] : offer.databases) {
    Json::Value& record = list[name] = DocumentOf(offer, database.full);
    record["data_version"] = std::to_string(database.version);
    record["last_fetch_time"] = database.last_fetch_time;
    record["deprecated"] = database.deprecated;
    Json::Value& deltas = record["diff_files"] = Json::Value(Json::objectValue);
    for (const auto& [version, delta] : database.deltas) {
      deltas[std::to_string(version)] = DocumentOf(offer, delta);
    }
  }
  return document;
}

bool IsDocumentOfOffer(const Json::Value& document) {
  return document.isObject() && document[kOfOffer].isObject();
}

}  // namespace tolm::offer
