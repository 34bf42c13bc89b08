#include "publish/settings.h"

#include <filesystem>
#include <regex>
#include <system_error>

#include "package/error.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/memory_file.h"
#include "publish/signer.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr int kFormat = 1;

std::string Absolute(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

bool IsUri(const std::string& text) {
  static const std::regex kUri("[A-Za-z][A-Za-z0-9+.-]*:.*");
  return std::regex_match(text, kUri) && !fs::exists(text);
}

int CheckShare(int percent, const std::string& where) {
  if (percent < 0 || percent > kMaxChainSharePercent) {
    throw Error(where + ": \"chain_share_percent\" is not from 0 to " +
                std::to_string(kMaxChainSharePercent));
  }
  return percent;
}

}  // namespace

BaseUrl ParseBaseUrl(const std::string& text) {
  static const std::regex kForm(
      "(https?)://((?:[A-Za-z0-9._~-]+|\\[[0-9A-Fa-f:.]+\\])(?::[0-9]{1,5})?"
      "(?:/[A-Za-z0-9._~%!$'()*+,;=:@-]+)*)/*");
  std::smatch parts;
  if (!std::regex_match(text, parts, kForm)) {
    throw Error("\"" + text + "\" is no address of the form http[s]://host[:port][/path]");
  }
  return {parts[1], parts[2]};
}

std::string InfoVersionProblem(const std::string& text) {
  static const std::regex kForm("[A-Za-z0-9_-][A-Za-z0-9._-]{0,99}");
  return std::regex_match(text, kForm)
             ? ""
             : "a version of the description is made of letters, digits, \".\", \"_\" and \"-\"";
}

int ParseSqliteVersion(const std::string& text) {
  static const std::regex kForm("3\\.([0-9]{1,3})(?:\\.([0-9]{1,3}))?");
  std::smatch parts;
  if (!std::regex_match(text, parts, kForm)) {
    throw Error("\"" + text + "\" is no version of SQLite such as 3.33.0");
  }
  const int patch = parts[2].matched ? std::stoi(parts[2]) : 0;
  return 3000000 + std::stoi(parts[1]) * 1000 + patch;
}

Settings LoadSettings(const std::string& path) {
  const Json::Value value = ReadJsonFile(path);
  const JsonObject object(value, path);
  if (object.Int("format") != kFormat) {
    throw Error(path + ": written by a newer version of this program");
  }
  Settings settings;
  try {
    settings.base_url = ParseBaseUrl(object.Text("base_url"));
    settings.oldest_sqlite = object.Text("oldest_sqlite");
    ParseSqliteVersion(settings.oldest_sqlite);
  } catch (const Error& error) {
    throw Error(path + ": " + error.what());
  }
  settings.info_version = object.Text("info_version");
  if (const std::string problem = InfoVersionProblem(settings.info_version); !problem.empty()) {
    throw Error(path + ": \"info_version\": " + problem);
  }
  settings.key = object.Text("key");
  settings.certificate_path = object.Text("certificate");
  settings.root_path = object.Text("root");
  settings.chain_share_percent = CheckShare(object.Int("chain_share_percent"), path);
  return settings;
}

std::string FormatSettings(const Settings& settings) {
  Json::Value value;
  value["format"] = kFormat;
  value["base_url"] = settings.base_url.Text();
  value["info_version"] = settings.info_version;
  value["key"] = settings.key;
  value["certificate"] = settings.certificate_path;
  value["root"] = settings.root_path;
  value["chain_share_percent"] = settings.chain_share_percent;
  value["oldest_sqlite"] = settings.oldest_sqlite;
  return FormatJson(value);
}

void MakePathsAbsolute(Settings& settings) {
  if (!IsUri(settings.key)) {
    settings.key = Absolute(settings.key);
  }
  settings.certificate_path = Absolute(settings.certificate_path);
  settings.root_path =
      settings.root_path.empty()
          ? (fs::path(settings.certificate_path).parent_path() / "root.pem").string()
          : Absolute(settings.root_path);
}

package::Signer LoadTrustedSigner(const Settings& settings, std::time_t now) {
  package::Signer signer = LoadSigner(settings.key, settings.certificate_path);
  const package::Trust root = LoadRoot(settings);
  try {
    const std::string content = "probe";
    const MemoryFile file("signature probe", content);
    const std::string signature = package::SignPayload(file.Get(), content.size(), signer);
    package::VerifyPayload(file.Get(), content.size(), signature, root,
                           package::VerificationTime(now));
  } catch (const package::Error& error) {
    throw package::Error(
        error.code(),
        settings.certificate_path + " with the root " + settings.root_path + ": " + error.what(),
        error.errno_value());
  }
  return signer;
}

package::Trust LoadRoot(const Settings& settings) {
  return package::Trust::Load(settings.root_path, "");
}

}  // namespace tolm::publish
