#include "operation/trust_state.h"

#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <exception>
#include <filesystem>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/description_reader.h"
#include "operation/service.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::UpdateError;

constexpr char kLogSource[] = "trust";
constexpr int kFormat = 1;
constexpr mode_t kRootOnly = 0600;

bool IsInOrder(const Json::Value& document) {
  if (!document.isObject() || document["format"] != kFormat || !document["databases"].isObject()) {
    return false;
  }
  for (const Json::Value& database : document["databases"]) {
    if (!database.isObject() || !database["floor"].isInt()) {
      return false;
    }
  }
  return true;
}

Json::Value Empty() {
  Json::Value document(Json::objectValue);
  document["format"] = kFormat;
  document["databases"] = Json::Value(Json::objectValue);
  return document;
}

int FloorIn(const Json::Value& document, const std::string& name) {
  const Json::Value& database = document["databases"][name];
  return database.isObject() ? database["floor"].asInt() : kNeverInstalled;
}

Json::Value Read() {
  if (!fs::exists(paths::kTrustState)) {
    return Empty();
  }
  try {
    Json::Value document = DescriptionReader().ReadJson(paths::kTrustState);
    if (IsInOrder(document)) {
      return document;
    }
  } catch (const UpdateError& error) {
    if (error.code() == UpdateError::kFileNotExist) {
      return Empty();
    }
    if (geteuid() != 0) {
      throw;  // It is for root's eyes only.
    }
  }
  fs::rename(paths::kTrustState, std::string(paths::kTrustState) + ".aside");
  syslog(LOG_WARNING, "%s:%d %s is damaged; kept as trust.json.aside", TOLM_LOG_HERE,
         paths::kTrustState);
  return Empty();
}

void Write(const Json::Value& document) {
  fs::create_directories(fs::path(paths::kTrustState).parent_path());
  base::Replacement replacement(paths::kTrustState);
  replacement.Write(Json::writeString(Json::StreamWriterBuilder(), document) + '\n', kRootOnly);
  replacement.PutInPlace();
}

}  // namespace

int FloorOf(const std::string& name) {
  return FloorIn(Read(), name);
}

std::optional<int> LookForFloor(const std::string& name) noexcept {
  try {
    const Json::Value document = DescriptionReader().ReadJson(paths::kTrustState);
    return IsInOrder(document) ? std::make_optional(FloorIn(document, name)) : std::nullopt;
  } catch (const UpdateError& error) {
    return error.code() == UpdateError::kFileNotExist ? std::make_optional(kNeverInstalled)
                                                      : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void SetFloor(const std::string& name, int version) {
  Json::Value document = Read();
  document["databases"][name]["floor"] = version;
  Write(document);
}

void RaiseFloor(const std::string& name, int version) {
  if (version > FloorOf(name)) {
    SetFloor(name, version);
  }
}

}  // namespace tolm::operation
