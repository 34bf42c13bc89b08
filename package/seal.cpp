#include "package/seal.h"

#include <json/json.h>

#include <algorithm>
#include <memory>

#include "base/utf8.h"
#include "package/error.h"
#include "package/member_path.h"

namespace tolm::package {
namespace {

constexpr std::size_t kMaxNameBytes = 200;
constexpr int kMaxJsonDepth = 16;

Error BadSeal(const std::string& why) {
  return Error(Code::kBadSeal, std::string(kSealName) + ": " + why);
}

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kMaxJsonDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string problem;
  // Nesting beyond the limit is reported by an exception instead of the return value.
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &problem)) {
      return value;
    }
  } catch (const Json::Exception&) {
  }
  throw BadSeal("not JSON");
}

std::string StringOf(const Json::Value& object, const char* key) {
  const Json::Value& value = object[key];
  if (!value.isString()) {
    throw BadSeal(std::string("no text \"") + key + "\"");
  }
  return value.asString();
}

Kind ParseKind(const std::string& text) {
  for (const Kind kind : {Kind::kFull, Kind::kDelta}) {
    if (text == KindText(kind)) {
      return kind;
    }
  }
  throw BadSeal("\"kind\" is neither \"full\" nor \"delta\"");
}

int ParseVersion(const Json::Value& value) {
  // isInt alone would accept 1.0.
  const bool integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  if (!integer || !value.isInt() || value.asInt() < 0) {
    throw BadSeal("\"version\" is not an integer from 0 to 2147483647");
  }
  return value.asInt();
}

bool IsSignedNumber(const std::string& text) {
  const auto digits = text.begin() + (text.rfind('-', 0) == 0 ? 1 : 0);
  return digits != text.end() &&
         std::all_of(digits, text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void CheckKindAndVersion(const Seal& seal, Kind kind, const std::string& version) {
  if (seal.kind != kind) {
    throw Error(Code::kWrongKind, std::string("sealed as a ") + KindText(seal.kind) +
                                      " package, wanted as a " + KindText(kind) + " one");
  }
  if (std::to_string(seal.version) != version) {
    throw Error(Code::kWrongVersion, "sealed as version " + std::to_string(seal.version) +
                                         ", wanted as version " + version);
  }
}

}  // namespace

const char* KindText(Kind kind) {
  return kind == Kind::kFull ? "full" : "delta";
}

std::string NameProblem(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameBytes) {
    return "a name has 1 to " + std::to_string(kMaxNameBytes) + " bytes";
  }
  if (name.find('/') != std::string::npos) {
    return "a name holds no \"/\"";
  }
  if (!base::IsPrintableUtf8(name)) {
    return "a name is UTF-8 text without control characters";
  }
  return "";
}

std::string FormatSeal(const Seal& seal) {
  const std::string problem = NameProblem(seal.name);
  if (!problem.empty()) {
    throw Error(Code::kArgument, problem);
  }
  if (seal.version < 0) {
    throw Error(Code::kArgument, "a version is not negative");
  }
  Json::Value object(Json::objectValue);
  object["name"] = seal.name;
  object["kind"] = KindText(seal.kind);
  object["version"] = seal.version;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, object) + "\n";
}

Seal ParseSeal(const std::string& text) {
  const Json::Value object = ParseJson(text);
  if (!object.isObject()) {
    throw BadSeal("not a JSON object");
  }
  Seal seal;
  seal.name = StringOf(object, "name");
  seal.kind = ParseKind(StringOf(object, "kind"));
  seal.version = ParseVersion(object["version"]);
  const std::string problem = NameProblem(seal.name);
  if (!problem.empty()) {
    throw BadSeal(problem);
  }
  return seal;
}

void CheckFileName(const Seal& seal, const std::string& package_path) {
  const std::string file = package_path.substr(package_path.rfind('/') + 1);
  const std::size_t underscore = file.rfind('_');
  if (underscore == std::string::npos) {
    return;
  }
  const std::string tag = file.substr(underscore + 1);
  const std::string number = tag.empty() ? "" : tag.substr(1);
  const bool numbered = !tag.empty() && (tag[0] == 'v' || tag[0] == 'd') && IsSignedNumber(number);
  if (!numbered && tag != "debug") {
    return;
  }
  if (file.compare(0, underscore, seal.name) != 0) {
    throw Error(Code::kWrongName,
                "sealed for " + seal.name + ", wanted for " + file.substr(0, underscore));
  }
  if (numbered) {
    CheckKindAndVersion(seal, tag[0] == 'v' ? Kind::kFull : Kind::kDelta, number);
  }
}

}  // namespace tolm::package
