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
// answer was a plain text.
constexpr int kFormat = 2;

Json::Value Parsed(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) ||
      !value.isObject() || value["format"] != kFormat) {
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
  order.now = static_cast<std::time_t>(Member(value, "now", Json::intValue).asInt64());
  return order;
}

std::string FormatReplayFailure(const ReplayFailure& failure) {
  if (failure.problem.empty()) {
    return "";
  }
  Json::Value value;
  value["format"] = kFormat;
  value["problem"] = failure.problem;
  value["key"] = failure.key;
  return Written(value);
}

ReplayFailure ParseReplayFailure(const std::string& text) {
  if (text.empty()) {
    return {};
  }
  const Json::Value value = Parsed(text);
  return {TextMember(value, "problem"), TextMember(value, "key")};
}

}  // namespace tolm::publish
