#include "publish/description.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "base/json_scan.h"
#include "base/rules.h"
#include "offer/offer.h"
#include "publish/error.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

Json::Value DescribeDatabase(const Database& database, const BaseUrl& base_url) {
  const Release& stable = StableRelease(database);
  Json::Value value;
  value["data_version"] = std::to_string(stable.version);
  value["last_fetch_time"] = FetchTimeOf(database, stable);
  value["deprecated"] = database.deprecated;
  value["download_link"] = PackageLink(base_url, stable.full.path);
  value["file_size"] = Json::UInt64(stable.full.size_bytes);
  value["sha384"] = stable.full.sha384;
  value["diff_files"] = Json::Value(Json::objectValue);
  for (const Release* release : OfferedChain(database)) {
    if (release->version > stable.version) {
      break;
    }
    Json::Value& delta = value["diff_files"][std::to_string(release->version)];
    delta["download_link"] = PackageLink(base_url, release->delta->package.path);
    delta["file_size"] = Json::UInt64(release->delta->package.size_bytes);
  }
  return value;
}

OfferedPackage PackageFromJson(const JsonObject& object) {
  OfferedPackage package;
  package.link = object.Text("download_link");
  if (object.Has("file_size")) {
    package.size_bytes = object.Size("file_size");
  }
  if (object.Has("sha384")) {
    package.sha384 = object.Text("sha384");
  }
  return package;
}

int VersionFromText(const std::string& text, const std::string& where) {
  const std::optional<int> version = offer::ParseVersion(text);
  if (!version) {
    throw Error(where + ": \"" + text + "\" is no version");
  }
  return *version;
}

}  // namespace

std::string DescribeCatalog(const Catalog& catalog, const BaseUrl& base_url) {
  Json::Value value;
  value["deprecated"] = false;
  value["db_list"] = Json::Value(Json::objectValue);
  for (const auto& [name, database] : catalog.databases) {
    value["db_list"][name] = DescribeDatabase(database, base_url);
  }
  return FormatCompactJson(value);
}

std::string EncodePath(const std::string& path) {
  constexpr char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte != 0 && std::strchr(kPlain, c) != nullptr) {
      encoded += c;
    } else {
      encoded += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return encoded;
}

int FetchTimeOf(const Database& database, const Release& release) {
  const bool is_newest = release.version == database.releases.back().version;
  return static_cast<int>(std::clamp<std::int64_t>(
      is_newest ? database.last_fetch_time : release.released, 0, INT_MAX));
}

std::string PackageLink(const BaseUrl& base_url, const std::string& path) {
  return base_url.Text() + '/' + EncodePath(path);
}

std::string LinkProblem(const std::string& link, int version) {
  const std::string text = std::to_string(version);
  int count = 0;
  for (std::size_t at = link.find(text); at != std::string::npos; at = link.find(text, at + 1)) {
    ++count;
  }
  return count == 1 ? ""
                    : "the text \"" + text + "\" occurs " + std::to_string(count) + " times in " +
                          link + ", and a device that force-installs an older version rewrites " +
                          "every one of them";
}

std::vector<std::string> DescriptionWarnings(const std::string& text) {
  base::JsonScan scan;
  scan.Add(text);
  std::vector<std::string> warnings;
  const auto compare = [&](std::uint64_t measured, std::uint64_t bound, const std::string& unit) {
    if (measured > bound / rules::kDescriptionWarningPart) {
      warnings.push_back("the description has " + std::to_string(measured) + unit +
                         "; devices refuse one of more than " + std::to_string(bound));
    }
  };
  compare(scan.measure().bytes, rules::kDescriptionBytes, " bytes");
  compare(scan.measure().values, rules::kDescriptionValues, " values");
  return warnings;
}

std::map<std::string, Offer> ParseDescription(const std::string& text, const std::string& where) {
  const Json::Value value = ParseJson(text, where);
  std::map<std::string, Offer> offers;
  JsonObject(value, where)
      .Object("db_list")
      .ForEachMember([&](const std::string& name, const JsonObject& record) {
        Offer& offer = offers[name];
        offer.version = VersionFromText(record.Text("data_version"), where);
        offer.full = PackageFromJson(record);
        if (record.Has("diff_files")) {
          record.Object("diff_files")
              .ForEachMember([&](const std::string& version, const JsonObject& delta) {
                offer.deltas[VersionFromText(version, where)] = PackageFromJson(delta);
              });
        }
      });
  return offers;
}

}  // namespace tolm::publish
