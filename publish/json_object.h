#ifndef TOLM_PUBLISH_JSON_OBJECT_H_
#define TOLM_PUBLISH_JSON_OBJECT_H_

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace tolm::publish {

/// Reads a JSON object of known form. Every call throws Error that names the place and the member
/// when it is missing or of another type.
class JsonObject {
 public:
  /// @p value must outlive this object.
  JsonObject(const Json::Value& value, std::string where);

  std::string Text(const char* key) const;
  std::int64_t Number(const char* key) const;
  std::uint64_t Size(const char* key) const;
  int Int(const char* key) const;
  bool Flag(const char* key) const;
  /// Whether the member is there and not null.
  bool Has(const char* key) const;
  JsonObject Object(const char* key) const;
  /// Calls @p visit with the name and the object of every member; all of them must be objects.
  void ForEachMember(const std::function<void(const std::string&, const JsonObject&)>& visit) const;
  void ForEachElement(
      const char* key,
      const std::function<void(const Json::Value&, const std::string&)>& visit) const;

 private:
  const Json::Value& Member(const char* key) const;
  [[noreturn]] void Refuse(const char* key, const char* wanted) const;

  const Json::Value& value_;
  std::string where_;
};

/// Parses a whole document: no comments, no trailing text, no member twice. Throws Error.
Json::Value ParseJson(const std::string& text, const std::string& where);

/// Parses the file; see ParseJson. Throws package::Error when it cannot be read.
Json::Value ReadJsonFile(const std::string& path);

/// The same value gives the same text, on every machine; ends with a newline.
std::string FormatJson(const Json::Value& value);

/// The same without white space, for what is sent often.
std::string FormatCompactJson(const Json::Value& value);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_JSON_OBJECT_H_
