#include "publish/json_object.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

#include "publish/error.h"
#include "publish/files.h"

namespace tolm::publish {
namespace {

std::string Format(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + '\n';
}

}  // namespace
JsonObject::JsonObject(const Json::Value& value, std::string where)
    : value_(value), where_(std::move(where)) {
  if (!value_.isObject()) {
    throw Error(where_ + ": not an object");
  }
}

const Json::Value& JsonObject::Member(const char* key) const {
  return value_[key];
}

void JsonObject::Refuse(const char* key, const char* wanted) const {
  throw Error(where_ + ": \"" + key + "\" is not " + wanted);
}

std::string JsonObject::Text(const char* key) const {
  if (!Member(key).isString()) {
    Refuse(key, "a text");
  }
  return Member(key).asString();
}

std::int64_t JsonObject::Number(const char* key) const {
  if (!Member(key).isInt64()) {
    Refuse(key, "an integer");
  }
  return Member(key).asInt64();
}

std::uint64_t JsonObject::Size(const char* key) const {
  if (!Member(key).isUInt64()) {
    Refuse(key, "a size");
  }
  return Member(key).asUInt64();
}

int JsonObject::Int(const char* key) const {
  if (!Member(key).isInt()) {
    Refuse(key, "an integer of 32 bits");
  }
  return Member(key).asInt();
}

bool JsonObject::Flag(const char* key) const {
  if (!Member(key).isBool()) {
    Refuse(key, "true or false");
  }
  return Member(key).asBool();
}

bool JsonObject::Has(const char* key) const {
  return !Member(key).isNull();
}

JsonObject JsonObject::Object(const char* key) const {
  return {Member(key), where_ + ": \"" + key + "\""};
}

void JsonObject::ForEachMember(
    const std::function<void(const std::string&, const JsonObject&)>& visit) const {
  for (const std::string& name : value_.getMemberNames()) {
    visit(name, JsonObject(value_[name], where_ + ": \"" + name + "\""));
  }
}

void JsonObject::ForEachElement(
    const char* key,
    const std::function<void(const Json::Value&, const std::string&)>& visit) const {
  if (!Member(key).isArray()) {
    Refuse(key, "a list");
  }
  for (const Json::Value& element : Member(key)) {
    visit(element, where_ + ": \"" + key + "\"");
  }
}

Json::Value ParseJson(const std::string& text, const std::string& where) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  bool parsed = false;
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
  } catch (const Json::Exception& error) {
    errors = error.what();  // Nested too deep.
  }
  if (!parsed) {
    throw Error(where + ": " + errors.substr(0, errors.find_last_not_of('\n') + 1));
  }
  return value;
}

Json::Value ReadJsonFile(const std::string& path) {
  return ParseJson(ReadWholeFile(path), path);
}

std::string FormatJson(const Json::Value& value) {
  return Format(value, " ");
}

std::string FormatCompactJson(const Json::Value& value) {
  return Format(value, "");
}

}  // namespace tolm::publish
