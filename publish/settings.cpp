#include "publish/settings.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <regex>
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

bool IsUri(const std::string& text) {
  static const std::regex kUri("[A-Za-z][A-Za-z0-9+.-]*:.*");
  return std::regex_match(text, kUri) && !fs::exists(text);
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

int ParsePercent(const std::string& text) {
  static const std::regex kForm("(100|[0-9]{1,2})%?");
  std::smatch parts;
  if (!std::regex_match(text, parts, kForm)) {
    throw Error("\"" + text + "\" is no percentage from 0 to 100, such as 20%");
  }
  return std::stoi(parts[1]);
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
