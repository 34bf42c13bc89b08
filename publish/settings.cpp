#include "publish/settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "package/certificate.h"
#include "package/error.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/memory_file.h"
#include "publish/signer.h"
#include "publish/validity.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

// Of a file that has nothing but what the first version of this program knew: that one drops what
// it does not know, takes paths from where it is called, and refuses the later format.
constexpr int kFirstFormat = 1;
constexpr int kFormat = 2;

std::string Absolute(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

constexpr char kDigits[] = "0123456789";
constexpr char kSchemeCharacters[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+.-";
constexpr char kHostCharacters[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._~-";
constexpr char kPathCharacters[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._~%!$'()*+,;=:@-";
constexpr char kVersionCharacters[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
constexpr char kAddressCharacters[] = "0123456789abcdefABCDEF:.";

// One or more of these characters and nothing else.
bool IsMadeOf(const std::string& text, const char* characters) {
  return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

bool IsNumber(const std::string& text, std::size_t max_digits) {
  return text.size() <= max_digits && IsMadeOf(text, kDigits);
}

bool IsUri(const std::string& text) {
  const std::size_t colon = text.find(':');
  return colon != std::string::npos && IsMadeOf(text.substr(0, colon), kSchemeCharacters) &&
         std::string("+.-0123456789").find(text[0]) == std::string::npos &&
         text.find_first_of("\r\n", colon) == std::string::npos && !fs::exists(text);
}

// "host", "host:80", "[::1]:80".
bool IsHostAndPort(const std::string& text) {
  std::size_t end = text.find(':');
  std::string host = text.substr(0, end);
  const char* characters = kHostCharacters;
  if (text[0] == '[') {
    const std::size_t bracket = text.find(']');
    if (bracket == std::string::npos) {
      return false;
    }
    host = text.substr(1, bracket - 1);
    characters = kAddressCharacters;
    end = bracket + 1;
  }
  const std::string port = end < text.size() ? text.substr(end) : "";
  constexpr std::size_t kMaxPortDigits = 5;
  return IsMadeOf(host, characters) &&
         (port.empty() || (port[0] == ':' && IsNumber(port.substr(1), kMaxPortDigits)));
}

// "" or components that each have a slash before them.
bool IsUrlPath(const std::string& text) {
  for (std::size_t slash = 0; slash < text.size();) {
    const std::size_t next = std::min(text.find('/', slash + 1), text.size());
    if (!IsMadeOf(text.substr(slash + 1, next - slash - 1), kPathCharacters)) {
      return false;
    }
    slash = next;
  }
  return true;
}

int InRange(const JsonObject& object, const char* member, int most, const std::string& where) {
  const int value = object.Int(member);
  if (value < 0 || value > most) {
    throw Error(where + ": \"" + member + "\" is not from 0 to " + std::to_string(most));
  }
  return value;
}

bool LiesIn(const std::string& path, const fs::path& directory) {
  const fs::path inside = fs::path(path).lexically_relative(directory);
  return !inside.empty() && *inside.begin() != ".." && inside != ".";
}

std::string Located(const std::string& kept, const std::string& directory) {
  const fs::path path(kept);
  // The kernel's "..", not that of the name: the repository may be reached through a link.
  return path.is_absolute() ? kept : fs::weakly_canonical(fs::path(directory) / path).string();
}

// Where the name lies, which may be that of a link.
fs::path WithoutLinksBefore(const std::string& given) {
  const fs::path path = fs::absolute(given);
  return fs::weakly_canonical(path.parent_path()) / path.filename();
}

// From the directory on, for what lies in it or beside it; otherwise empty.
std::string RelativeTo(const fs::path& directory, const std::string& path) {
  const fs::path beside = directory.parent_path();
  const bool moves_along =
      LiesIn(path, directory) || (beside != beside.root_path() && LiesIn(path, beside));
  return moves_along ? fs::path(path).lexically_relative(directory).string() : "";
}

// As it is kept; see TakeKeyFiles. By the names that were used, where these lead to the same file
// again, as a link beside the repository does, but not what lies beside a link to the repository.
std::string Kept(const std::string& given, const std::string& directory) {
  const std::string named = Absolute(given);
  const fs::path real = WithoutLinksBefore(given);
  for (const std::string& kept :
       {RelativeTo(directory, named), RelativeTo(fs::weakly_canonical(directory), real)}) {
    if (!kept.empty() && Located(kept, directory) == fs::weakly_canonical(real)) {
      return kept;
    }
  }
  return WithoutLinksBefore(named) == real ? named : real.string();
}

// What to do next, where there is a repository already.
std::string Advice(const Settings& settings, const std::string& command, const char* what) {
  if (!fs::exists(settings.directory + "/state/settings.json")) {
    return "";
  }
  return "; \"tolmdbpub " + command + ' ' + settings.directory + what;
}

void RequireFile(const Settings& settings, const char* what, const std::string& kept,
                 const std::string& located, package::Code code) {
  struct stat status {};
  if (::stat(located.c_str(), &status) == 0) {
    return;
  }
  const int reason = errno;
  std::string text = std::string(what) + ' ' + kept;
  if (kept != located) {
    text += " (" + located + ')';
  }
  text += ": " + std::generic_category().message(reason);
  text += Advice(settings, "set", " --key KEY --cert FILE --root FILE\" says where they are");
  throw package::Error(code, text, reason);
}

void RequireValid(const Settings& settings, X509* certificate, std::time_t now) {
  const package::CertificateDetails details = package::DetailsOf(certificate);
  const std::time_t at = package::VerificationTime(now);
  if (at >= details.not_before && at <= details.not_after) {
    return;
  }
  throw package::Error(
      at < details.not_before ? package::Code::kNotYetValid : package::Code::kExpired,
      "the signing certificate " + details.subject + " (" + settings.CertificateFile() + ") " +
          ValidityText(details, at) + "; nothing is signed with it" +
          Advice(settings, "resign", " --key KEY --cert FILE\" takes another one"));
}

DatabaseSettings DatabaseFromJson(const JsonObject& object, const std::string& where) {
  DatabaseSettings settings;
  if (object.Has("max_shrink_percent")) {
    settings.max_shrink_percent = InRange(object, "max_shrink_percent", 100, where);
  }
  if (object.Has("test")) {
    settings.test = object.Text("test");
  }
  return settings;
}

// Members that earlier versions of this program did not write.
void LoadLaterMembers(const JsonObject& object, const std::string& path, Settings& settings) {
  if (object.Has("max_shrink_percent")) {
    settings.max_shrink_percent = InRange(object, "max_shrink_percent", 100, path);
  }
  if (object.Has("databases")) {
    object.Object("databases")
        .ForEachMember([&](const std::string& name, const JsonObject& database) {
          settings.databases[name] = DatabaseFromJson(database, path + ": \"" + name + "\"");
        });
  }
}

Json::Value ToJson(const DatabaseSettings& settings) {
  Json::Value value(Json::objectValue);
  if (settings.max_shrink_percent) {
    value["max_shrink_percent"] = *settings.max_shrink_percent;
  }
  if (!settings.test.empty()) {
    value["test"] = settings.test;
  }
  return value;
}

bool HasRelativePath(const Settings& settings) {
  return (!IsUri(settings.key) && fs::path(settings.key).is_relative()) ||
         fs::path(settings.certificate_path).is_relative() ||
         fs::path(settings.root_path).is_relative();
}

// What has its default is left out: it is all that an earlier program would lose.
void AddLaterMembers(const Settings& settings, Json::Value& value) {
  if (settings.min_certificate_days != kDefaultMinCertificateDays) {
    value["min_certificate_days"] = settings.min_certificate_days;
  }
  if (settings.max_shrink_percent != kDefaultMaxShrinkPercent) {
    value["max_shrink_percent"] = settings.max_shrink_percent;
  }
  for (const auto& [name, database] : settings.databases) {
    if (!database.IsEmpty()) {
      value["databases"][name] = ToJson(database);
    }
  }
}

}  // namespace

BaseUrl ParseBaseUrl(const std::string& text) {
  for (const std::string scheme : {"http", "https"}) {
    const std::string start = scheme + "://";
    if (text.compare(0, start.size(), start) != 0) {
      continue;
    }
    std::string netloc = text.substr(start.size());
    netloc.erase(netloc.find_last_not_of('/') + 1);
    const std::size_t path = std::min(netloc.find('/'), netloc.size());
    if (IsHostAndPort(netloc.substr(0, path)) && IsUrlPath(netloc.substr(path))) {
      return {scheme, netloc};
    }
  }
  throw Error("\"" + text + "\" is no address of the form http[s]://host[:port][/path]");
}

std::string InfoVersionProblem(const std::string& text) {
  constexpr std::size_t kMaxLength = 100;
  return text.size() <= kMaxLength && IsMadeOf(text, kVersionCharacters) && text[0] != '.'
             ? ""
             : "a version of the description is made of letters, digits, \".\", \"_\" and \"-\"";
}

int ParseSqliteVersion(const std::string& text) {
  constexpr std::size_t kMaxDigits = 3;
  const std::string rest = text.compare(0, 2, "3.") == 0 ? text.substr(2) : "";
  const std::size_t dot = rest.find('.');
  const std::string minor = rest.substr(0, dot);
  const std::string patch = dot == std::string::npos ? "0" : rest.substr(dot + 1);
  if (!IsNumber(minor, kMaxDigits) || !IsNumber(patch, kMaxDigits)) {
    throw Error("\"" + text + "\" is no version of SQLite such as 3.33.0");
  }
  return 3000000 + std::stoi(minor) * 1000 + std::stoi(patch);
}

int ParsePercent(const std::string& text) {
  const bool has_sign = !text.empty() && text.back() == '%';
  const std::string number = text.substr(0, text.size() - (has_sign ? 1 : 0));
  if (number != "100" && !IsNumber(number, 2)) {
    throw Error("\"" + text + "\" is no percentage from 0 to 100, such as 20%");
  }
  return std::stoi(number);
}

int MaxShrinkOf(const Settings& settings, const std::string& name) {
  const auto found = settings.databases.find(name);
  return found == settings.databases.end()
             ? settings.max_shrink_percent
             : found->second.max_shrink_percent.value_or(settings.max_shrink_percent);
}

std::string TestOf(const Settings& settings, const std::string& name) {
  const auto found = settings.databases.find(name);
  return found == settings.databases.end() ? "" : found->second.test;
}

Settings LoadSettings(const std::string& path) {
  const Json::Value value = ReadJsonFile(path);
  const JsonObject object(value, path);
  if (const int format = object.Int("format"); format != kFirstFormat && format != kFormat) {
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
  settings.chain_share_percent =
      InRange(object, "chain_share_percent", kMaxChainSharePercent, path);
  if (object.Has("min_certificate_days")) {
    settings.min_certificate_days =
        InRange(object, "min_certificate_days", kMaxMinCertificateDays, path);
  }
  LoadLaterMembers(object, path, settings);
  settings.directory = fs::absolute(path).parent_path().parent_path().string();
  return settings;
}

std::string FormatSettings(const Settings& settings) {
  Json::Value value;
  AddLaterMembers(settings, value);
  value["format"] = value.empty() && !HasRelativePath(settings) ? kFirstFormat : kFormat;
  value["base_url"] = settings.base_url.Text();
  value["info_version"] = settings.info_version;
  value["key"] = settings.key;
  value["certificate"] = settings.certificate_path;
  value["root"] = settings.root_path;
  value["chain_share_percent"] = settings.chain_share_percent;
  value["oldest_sqlite"] = settings.oldest_sqlite;
  return FormatJson(value);
}

std::string Settings::KeyLocation() const {
  return IsUri(key) ? key : Located(key, directory);
}

std::string Settings::CertificateFile() const {
  return Located(certificate_path, directory);
}

std::string Settings::RootFile() const {
  return Located(root_path, directory);
}

bool KeyFiles::AreGiven() const {
  return !key.empty() || !certificate_path.empty() || !root_path.empty();
}

void TakeKeyFiles(const KeyFiles& given, Settings& settings) {
  const std::string& directory = settings.directory;
  if (!given.key.empty()) {
    settings.key = IsUri(given.key) ? given.key : Kept(given.key, directory);
    if (LiesIn(fs::weakly_canonical(settings.KeyLocation()),
               fs::weakly_canonical(directory + "/public"))) {
      throw Error(given.key + ": a private key that lies in public/ is served to everybody");
    }
  }
  if (!given.certificate_path.empty()) {
    settings.certificate_path = Kept(given.certificate_path, directory);
  }
  if (!given.root_path.empty()) {
    settings.root_path = Kept(given.root_path, directory);
  } else if (settings.root_path.empty()) {
    settings.root_path = (fs::path(settings.certificate_path).parent_path() / "root.pem").string();
  }
}

package::Signer LoadTrustedSigner(const Settings& settings, std::time_t now) {
  if (!IsUri(settings.key)) {
    RequireFile(settings, "key", settings.key, settings.KeyLocation(), package::Code::kArgument);
  }
  const std::string certificate = settings.CertificateFile();
  RequireFile(settings, "certificate", settings.certificate_path, certificate,
              package::Code::kKeyring);
  package::Signer signer = LoadSigner(settings.KeyLocation(), certificate);
  const package::Trust root = LoadRoot(settings);
  RequireValid(settings, signer.certificate.get(), now);
  try {
    const std::string content = "probe";
    const MemoryFile file("signature probe", content);
    const std::string signature = package::SignPayload(file.Get(), content.size(), signer);
    package::VerifyPayload(file.Get(), content.size(), signature, root,
                           package::VerificationTime(now));
  } catch (const package::Error& error) {
    throw package::Error(
        error.code(), certificate + " with the root " + settings.RootFile() + ": " + error.what(),
        error.errno_value());
  }
  return signer;
}

package::Trust LoadRoot(const Settings& settings) {
  RequireFile(settings, "root", settings.root_path, settings.RootFile(), package::Code::kKeyring);
  return package::Trust::Load(settings.RootFile(), "");
}

}  // namespace tolm::publish
