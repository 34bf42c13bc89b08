#include "dataupdate/records.h"

#include <utility>

#include "dataupdate/error.h"

namespace tolm::dataupdate {

namespace {

// jsoncpp throws an exception of its own when a member of anything but an object is asked for, so
// the type of the whole stands before every other test.
void Require(bool condition, const char* message) {
  if (!condition) {
    throw UpdateError(message);
  }
}

}  // namespace

RemoteInfo::RemoteInfo(int data_version_in, int last_fetch_time_in, bool deprecated_in,
                       const std::string& download_link_in)
    : data_version(data_version_in),
      last_fetch_time(last_fetch_time_in),
      deprecated(deprecated_in),
      download_link(download_link_in) {}

RemoteInfo RemoteInfo::FromJson(const Json::Value& value) {
  Require(value.isObject() && value["data_version"].isString() &&
              value["last_fetch_time"].isInt() && value["deprecated"].isBool() &&
              value["download_link"].isString(),
          "Invalid json object for RemoteInfo");
  return RemoteInfo(std::stoi(value["data_version"].asString()), value["last_fetch_time"].asInt(),
                    value["deprecated"].asBool(), value["download_link"].asString());
}

Json::Value RemoteInfo::ToJson(const RemoteInfo& info) {
  Json::Value value(Json::objectValue);
  value["data_version"] = std::to_string(info.data_version);
  value["last_fetch_time"] = info.last_fetch_time;
  value["deprecated"] = info.deprecated;
  value["download_link"] = info.download_link;
  return value;
}

bool RemoteInfo::operator==(const RemoteInfo& other) const {
  return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
         deprecated == other.deprecated && download_link == other.download_link;
}

DiffInfo::DiffInfo(const std::string& download_link_in, int file_size_in)
    : download_link(download_link_in), file_size(file_size_in) {}

DiffInfo DiffInfo::FromJson(const Json::Value& value) {
  Require(value.isObject() && value["download_link"].isString() && value["file_size"].isInt(),
          "Invalid json object for DiffInfo");
  return DiffInfo(value["download_link"].asString(), value["file_size"].asInt());
}

std::map<int, DiffInfo> DiffInfo::BatchFromJson(const Json::Value& value) {
  std::map<int, DiffInfo> diffs;
  if (!value.isObject()) {
    return diffs;
  }
  for (const std::string& name : value.getMemberNames()) {
    const DiffInfo diff = FromJson(value[name]);
    diffs.emplace(std::stoi(name), diff);
  }
  return diffs;
}

bool DiffInfo::operator==(const DiffInfo& other) const {
  return download_link == other.download_link && file_size == other.file_size;
}

FileStatus::FileStatus(const std::string& sha384_digest_in) : sha384_digest(sha384_digest_in) {}

FileStatus FileStatus::FromJson(const Json::Value& value) {
  Require(value.isObject() && value["sha384_digest"].isString(),
          "Invalid json object for FileStatus");
  return FileStatus(value["sha384_digest"].asString());
}

Json::Value FileStatus::ToJson(const FileStatus& status) {
  Json::Value value(Json::objectValue);
  // One of these for every file: the name is not copied for each.
  value[Json::StaticString("sha384_digest")] = status.sha384_digest;
  return value;
}

std::map<std::string, FileStatus> FileStatus::BatchFromJson(const Json::Value& value) {
  Require(value.isObject(), "Invalid json object for FileStatuses");
  std::map<std::string, FileStatus> statuses;
  // By an iterator: there may be a hundred thousand, and a list of names would be one more copy.
  for (auto member = value.begin(); member != value.end(); ++member) {
    statuses.emplace_hint(statuses.end(), member.name(), FromJson(*member));
  }
  return statuses;
}

Json::Value FileStatus::BatchToJson(const std::map<std::string, FileStatus>& statuses) {
  Json::Value value(Json::objectValue);
  for (const auto& [name, status] : statuses) {
    value[name] = ToJson(status);
  }
  return value;
}

bool FileStatus::operator==(const FileStatus& other) const {
  return sha384_digest == other.sha384_digest;
}

bool FileStatus::operator!=(const FileStatus& other) const {
  return !(*this == other);
}

DatabaseStatus::DatabaseStatus(int data_version_in, int last_fetch_time_in,
                               const std::map<std::string, FileStatus>& file_statuses_in)
    : data_version(data_version_in),
      last_fetch_time(last_fetch_time_in),
      file_statuses(file_statuses_in) {}

DatabaseStatus DatabaseStatus::FromJson(const Json::Value& value) {
  Require(value.isObject() && value["data_version"].isString() && value["last_fetch_time"].isInt(),
          "Invalid json object for DatabaseStatus");
  std::map<std::string, FileStatus> statuses;
  if (value["file_statuses"].isObject()) {
    statuses = FileStatus::BatchFromJson(value["file_statuses"]);
  }
  DatabaseStatus status(std::stoi(value["data_version"].asString()),
                        value["last_fetch_time"].asInt(), {});
  status.file_statuses = std::move(statuses);
  return status;
}

Json::Value DatabaseStatus::ToJson(const DatabaseStatus& status) {
  Json::Value value(Json::objectValue);
  value["data_version"] = std::to_string(status.data_version);
  value["last_fetch_time"] = status.last_fetch_time;
  value["file_statuses"] = FileStatus::BatchToJson(status.file_statuses);
  return value;
}

bool DatabaseStatus::operator==(const DatabaseStatus& other) const {
  return data_version == other.data_version && last_fetch_time == other.last_fetch_time &&
         file_statuses == other.file_statuses;
}

bool DatabaseStatus::operator!=(const DatabaseStatus& other) const {
  return !(*this == other);
}

}  // namespace tolm::dataupdate
