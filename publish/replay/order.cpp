#include "publish/replay/order.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace tolm::publish {
namespace {

// Counts up when the publisher and the program would not understand each other any more. In 1 the
// answer was a plain text, in 2 there was none when the attempt did not fail.
constexpr int kFormat = 3;

Json::Value Parsed(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  bool parsed = false;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::Exception&) {
    // Nested too deep.
  }
  if (!parsed || !value.isObject() || value["format"] != kFormat) {
    throw std::runtime_error("not an order to replay that this version of the program knows");
  }
  return value;
}

std::string Written(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = true;  // And whatever else is in a path.
  return Json::writeString(builder, value);
}

// The member, which must have the type.
const Json::Value& Member(const Json::Value& value, const char* name, Json::ValueType type) {
  const Json::Value* member =
      value.isObject() ? value.find(name, name + std::strlen(name)) : nullptr;
  const bool fits =
      member != nullptr && (type == Json::intValue ? member->isInt64() : member->type() == type);
  if (!fits) {
    throw std::runtime_error(std::string("not an order to replay: ") + name);
  }
  return *member;
}

int IntMember(const Json::Value& value, const char* name) {
  const Json::Value& member = Member(value, name, Json::intValue);
  if (!member.isInt()) {
    throw std::runtime_error(std::string("not an order to replay: ") + name);
  }
  return member.asInt();
}

std::string TextMember(const Json::Value& value, const char* name) {
  return Member(value, name, Json::stringValue).asString();
}

}  // namespace

std::string FormatReplayOrder(const ReplayOrder& order) {
  Json::Value value;
  value["format"] = kFormat;
  value["publisher"] = Json::Int64(order.publisher);
  value["directory"] = order.directory;
  value["name"] = order.name;
  value["installed_version"] = order.installed_version;
  value["packages"] = Json::Value(Json::arrayValue);
  for (const auto& [version, path] : order.packages) {
    Json::Value package;
    package["version"] = version;
    package["path"] = path;
    value["packages"].append(package);
  }
  value["certificates"] = order.trust.certificates;
  value["revocations"] = order.trust.revocations;
  value["now"] = Json::Int64(order.now);
  return Written(value);
}

ReplayOrder ParseReplayOrder(const std::string& text) {
  const Json::Value value = Parsed(text);
  ReplayOrder order;
  order.publisher = static_cast<pid_t>(IntMember(value, "publisher"));
  order.directory = TextMember(value, "directory");
  order.name = TextMember(value, "name");
  order.installed_version = IntMember(value, "installed_version");
  for (const Json::Value& package : Member(value, "packages", Json::arrayValue)) {
    order.packages[IntMember(package, "version")] = TextMember(package, "path");
  }
  order.trust = {TextMember(value, "certificates"), TextMember(value, "revocations")};
  order.now = static_cast<std::int64_t>(Member(value, "now", Json::intValue).asInt64());
  return order;
}

std::string FormatReplayAnswer(const ReplayAnswer& answer) {
  Json::Value value;
  value["format"] = kFormat;
  value["problem"] = answer.problem;
  value["key"] = answer.key;
  value["touched"] = Json::Value(Json::arrayValue);
  for (const std::string& key : answer.touched) {
    value["touched"].append(key);
  }
  return Written(value);
}

ReplayAnswer ParseReplayAnswer(const std::string& text) {
  const Json::Value value = Parsed(text);
  ReplayAnswer answer;
  answer.problem = TextMember(value, "problem");
  answer.key = TextMember(value, "key");
  for (const Json::Value& key : Member(value, "touched", Json::arrayValue)) {
    if (!key.isString()) {
      throw std::runtime_error("not an answer of a replay: touched");
    }
    answer.touched.insert(key.asString());
  }
  return answer;
}

}  // namespace tolm::publish
