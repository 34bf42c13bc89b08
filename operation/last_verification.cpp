#include "operation/last_verification.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <ctime>
#include <exception>
#include <memory>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/service.h"
#include "operation/write_rights.h"

namespace tolm::operation {
namespace {

using dataupdate::NoexceptFormat;

constexpr char kLogSource[] = "verification";
constexpr int kFormat = 1;
constexpr std::size_t kMostBytes = 4096;

// Every installation writes version.json anew; empty without one.
std::string TimeOfInstallation(const std::string& name) {
  struct stat status;
  if (stat((NoexceptFormat(paths::kVersionFile) % name).str().c_str(), &status) != 0) {
    return "";
  }
  return std::to_string(status.st_mtim.tv_sec) + '.' + std::to_string(status.st_mtim.tv_nsec);
}

Json::Value Read(const std::string& file) {
  const std::string text = base::File(file, O_RDONLY | O_NONBLOCK).Read(0, kMostBytes);
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  return reader->parse(text.data(), text.data() + text.size(), &value, nullptr) ? value
                                                                                : Json::Value();
}

bool IsInOrder(const Json::Value& value) {
  return value.isObject() && value["format"] == kFormat && value["time"].isInt64() &&
         value["installation"].isString() && value["checked_files"].isUInt64() &&
         value["damaged_files"].isUInt64();
}

}  // namespace

void RememberVerification(const std::string& name, const Verification& verification) noexcept {
  try {
    if (verification.version == kNeverInstalled) {
      return;
    }
    Json::Value value;
    value["format"] = kFormat;
    value["time"] = Json::Int64{std::time(nullptr)};
    value["installation"] = TimeOfInstallation(name);
    value["checked_files"] = Json::UInt64{verification.checked_files};
    value["damaged_files"] = Json::UInt64{verification.damaged.size()};
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "\t";
    SecureStateDirectories(name);
    base::ReplaceFile((NoexceptFormat(paths::kVerified) % name).str(),
                      Json::writeString(builder, value) + '\n');
  } catch (const std::exception& error) {
    syslog(LOG_WARNING, "%s:%d What was found is not remembered: %s", TOLM_LOG_HERE, error.what());
  }
}

std::optional<LastVerification> LookForVerification(const std::string& name) noexcept {
  try {
    const Json::Value value = Read((NoexceptFormat(paths::kVerified) % name).str());
    if (!IsInOrder(value) || value["installation"].asString() != TimeOfInstallation(name)) {
      return std::nullopt;
    }
    return LastVerification{value["time"].asInt64(), value["checked_files"].asUInt64(),
                            value["damaged_files"].asUInt64()};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace tolm::operation
