#include "publish/replay/order.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <memory>
#include <stdexcept>

namespace tolm::publish {
namespace {

// Counts up when the publisher and the program would not understand each other any more.
constexpr int kFormat = 1;

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
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = true;  // And whatever else is in a path.
  return Json::writeString(builder, value);
}

ReplayOrder ParseReplayOrder(const std::string& text) {
  const Json::Value value = Parsed(text);
  ReplayOrder order;
  order.publisher = static_cast<pid_t>(value["publisher"].asInt64());
  order.directory = value["directory"].asString();
  order.name = value["name"].asString();
  order.installed_version = value["installed_version"].asInt();
  for (const Json::Value& package : value["packages"]) {
    order.packages[package["version"].asInt()] = package["path"].asString();
  }
  order.trust = {value["certificates"].asString(), value["revocations"].asString()};
  order.now = static_cast<std::time_t>(value["now"].asInt64());
  return order;
}

}  // namespace tolm::publish
