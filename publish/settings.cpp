#include "publish/settings.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "base/keyring_bounds.h"
#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/openssl.h"
#include "package/scope.h"
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
constexpr int kSecondFormat = 2;
constexpr int kThirdFormat = 3;  // of one whose descriptions are signed
constexpr int kFormat = 4;       // of one whose packages are not packed as usual

constexpr std::size_t kIdentityBytes = 16;

constexpr char kWindowSizes[] = "1, 2, 4, 8, 16 or 32";

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

std::string KeptKey(const std::string& given, const std::string& directory) {
  if (IsUri(given)) {
    return given;
  }
  std::string kept = Kept(given, directory);
  if (LiesIn(fs::weakly_canonical(Located(kept, directory)),
             fs::weakly_canonical(directory + "/public"))) {
    throw Error(given + ": a private key that lies in public/ is served to everybody");
  }
  return kept;
}

// What to do next, where there is a repository already.
std::string Advice(const Settings& settings, const std::string& command, const char* what) {
  if (!fs::exists(settings.directory + "/state/settings.json")) {
    return "";
  }
  return "; \"tolmdbpub " + command + ' ' + settings.directory + what;
}

// Whoever has moved one of them has probably moved all.
const char* WhereAdvice(const Settings& settings) {
  return settings.IsSigned() ? " --key KEY --cert FILE --root FILE --info-key KEY --info-cert FILE"
                               "\" says where they are"
                             : " --key KEY --cert FILE --root FILE\" says where they are";
}

// A key and its certificate, by the words that messages have for them.
struct SignerFiles {
  const char* key_name;
  const char* certificate_name;
  const char* title;
  std::string key;  // as it is kept
  std::string key_location;
  std::string certificate;  // as it is kept
  std::string certificate_file;
  const char* other_command;  // that takes another one
  const char* other_advice;
};

SignerFiles PackageSigner(const Settings& settings) {
  return {"key",
          "certificate",
          "signing certificate",
          settings.key,
          settings.KeyLocation(),
          settings.certificate_path,
          settings.CertificateFile(),
          "resign",
          " --key KEY --cert FILE\" takes another one"};
}

SignerFiles InfoSigner(const Settings& settings) {
  return {"info key",
          "info certificate",
          "certificate of descriptions",
          settings.info_key,
          settings.InfoKeyLocation(),
          settings.info_certificate_path,
          settings.InfoCertificateFile(),
          "set",
          " --info-key KEY --info-cert FILE\" takes another one"};
}

// What is wrong with a file that is not there.
void RequireFile(const Settings& settings, const std::string& what, const std::string& kept,
                 const std::string& located, package::Code code) {
  struct stat status {};
  if (::stat(located.c_str(), &status) == 0) {
    return;
  }
  const int reason = errno;
  std::string text = what + ' ' + kept;
  if (kept != located) {
    text += " (" + located + ')';
  }
  text += ": " + std::generic_category().message(reason);
  text += Advice(settings, "set", WhereAdvice(settings));
  throw package::Error(code, text, reason);
}

void RequireValid(const Settings& settings, const SignerFiles& files, X509* certificate,
                  std::int64_t now) {
  const package::CertificateDetails details = package::DetailsOf(certificate);
  const std::int64_t at = package::VerificationTime(now);
  if (at >= details.not_before && at <= details.not_after) {
    return;
  }
  throw package::Error(
      at < details.not_before ? package::Code::kNotYetValid : package::Code::kExpired,
      std::string("the ") + files.title + ' ' + details.subject + " (" + files.certificate_file +
          ") " + ValidityText(details, at) + "; nothing is signed with it" +
          Advice(settings, files.other_command, files.other_advice));
}

package::Signer LoadFiles(const Settings& settings, const SignerFiles& files, std::int64_t now) {
  if (!IsUri(files.key)) {
    RequireFile(settings, files.key_name, files.key, files.key_location, package::Code::kArgument);
  }
  RequireFile(settings, files.certificate_name, files.certificate, files.certificate_file,
              package::Code::kKeyring);
  package::Signer signer = LoadSigner(files.key_location, files.certificate_file);
  RequireFile(settings, "root", settings.root_path, settings.RootFile(), package::Code::kKeyring);
  RequireValid(settings, files, signer.certificate.get(), now);
  return signer;
}

[[noreturn]] void Refuse(const Settings& settings, const SignerFiles& files,
                         const package::Error& error, const std::string& advice = "") {
  throw package::Error(error.code(),
                       files.certificate_file + " with the root " + settings.RootFile() + ": " +
                           error.what() + advice,
                       error.errno_value());
}

// The databases that it may sign for.
package::Scope Prove(const Settings& settings, const package::Signer& signer, std::int64_t now) {
  const package::Trust root = LoadRoot(settings);
  try {
    const std::string content = "probe";
    const MemoryFile file("signature probe", content);
    const std::string signature = package::SignPayload(file.Get(), content.size(), signer);
    return package::VerifyPayload(file.Get(), content.size(), signature, root,
                                  package::VerificationTime(now))
        .scope;
  } catch (const package::Error& error) {
    Refuse(settings, PackageSigner(settings), error);
  }
}

constexpr char kMakeInfoKey[] =
    "; descriptions have a key of their own, which \"tolmdbpub keygen DIR --root-key KEY --root "
    "FILE --info\" makes";
constexpr char kGiveInfoKey[] =
    "; descriptions need a key below this root: give --info-key KEY --info-cert FILE as well";

void RequireOtherKey(const Settings& settings, const package::Signer& info) {
  const std::string file = settings.CertificateFile();
  const auto packages = package::ParseCertificates(
      package::ReadSmallFile(file, rules::kKeyringBytes, package::Code::kKeyring), file);
  if (EVP_PKEY_eq(X509_get0_pubkey(packages.front().get()),
                  X509_get0_pubkey(info.certificate.get())) == 1) {
    throw package::Error(package::Code::kWrongUsage, settings.InfoCertificateFile() +
                                                         ": its key signs packages, too (" + file +
                                                         ')' + kMakeInfoKey);
  }
}

void ProveInfo(const Settings& settings, const package::Signer& signer, std::int64_t now) {
  const package::Trust trust =
      package::Trust::Load(settings.RootFile(), settings.RevocationsFile());
  try {
    const std::string text = "probe";
    package::VerifyText(text, package::SignText(text, signer), trust,
                        package::VerificationTime(now));
  } catch (const package::Error& error) {
    Refuse(settings, InfoSigner(settings), error,
           error.code() == package::Code::kWrongUsage  ? kMakeInfoKey
           : error.code() == package::Code::kUntrusted ? kGiveInfoKey
                                                       : "");
  }
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

// Members of one whose descriptions are signed.
void LoadSignedMembers(const JsonObject& object, const std::string& path, Settings& settings) {
  if (!object.Has("info_key")) {
    return;
  }
  settings.info_key = object.Text("info_key");
  settings.info_certificate_path = object.Text("info_certificate");
  settings.identity = object.Text("repository");
  if (settings.identity.size() != 2 * kIdentityBytes ||
      settings.identity.find_first_not_of("0123456789abcdef") != std::string::npos) {
    throw Error(path + ": \"repository\" is not " + std::to_string(2 * kIdentityBytes) +
                " lower-case hexadecimal digits");
  }
  if (object.Has("description_days")) {
    settings.description_days = InRange(object, "description_days", kMaxDescriptionDays, path);
  }
  if (settings.info_key.empty() || settings.description_days == 0) {
    throw Error(path + ": \"info_key\" is empty, or \"description_days\" is 0");
  }
  if (object.Has("revocations")) {
    settings.revocations_path = object.Text("revocations");
  }
}

void AddSignedMembers(const Settings& settings, Json::Value& value) {
  value["info_key"] = settings.info_key;
  value["info_certificate"] = settings.info_certificate_path;
  value["repository"] = settings.identity;
  if (settings.description_days != kDefaultDescriptionDays) {
    value["description_days"] = settings.description_days;
  }
  if (!settings.revocations_path.empty()) {
    value["revocations"] = settings.revocations_path;
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

// Throws Error for what is no way to pack.
package::Packing PackingFromJson(const JsonObject& object, const std::string& where) {
  package::Packing packing;
  if (object.Has("compression")) {
    const auto choice = package::ParseCompressionChoice(object.Text("compression"));
    if (!choice) {
      throw Error(where + ": \"compression\" is not auto, xz or zstd");
    }
    packing.compression = *choice;
  }
  if (object.Has("compression_window_mib")) {
    packing.window_mebibytes = object.Int("compression_window_mib");
    if (!package::IsWindowSize(packing.window_mebibytes)) {
      throw Error(where + ": \"compression_window_mib\" is not " + kWindowSizes);
    }
  }
  return packing;
}

// Whether anything was added: what is as usual is left out.
bool AddPacking(const package::Packing& packing, Json::Value& value) {
  const package::Packing usual;
  const bool is_other_choice = packing.compression != usual.compression;
  const bool is_other_window = packing.window_mebibytes != usual.window_mebibytes;
  if (is_other_choice) {
    value["compression"] = CompressionChoiceText(packing.compression);
  }
  if (is_other_window) {
    value["compression_window_mib"] = packing.window_mebibytes;
  }
  return is_other_choice || is_other_window;
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
  if (const int format = object.Int("format"); format < kFirstFormat || format > kFormat) {
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
  LoadSignedMembers(object, path, settings);
  settings.packing = PackingFromJson(object, path);
  settings.directory = fs::absolute(path).parent_path().parent_path().string();
  return settings;
}

std::string FormatSettings(const Settings& settings) {
  Json::Value value;
  AddLaterMembers(settings, value);
  value["format"] = value.empty() && !HasRelativePath(settings) ? kFirstFormat : kSecondFormat;
  if (settings.IsSigned()) {
    value["format"] = kThirdFormat;
    AddSignedMembers(settings, value);
  }
  if (AddPacking(settings.packing, value)) {
    value["format"] = kFormat;
  }
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

std::string Settings::InfoKeyLocation() const {
  return IsUri(info_key) ? info_key : Located(info_key, directory);
}

std::string Settings::InfoCertificateFile() const {
  return Located(info_certificate_path, directory);
}

std::string Settings::RevocationsFile() const {
  return revocations_path.empty() ? "" : Located(revocations_path, directory);
}

bool KeyFiles::AreGiven() const {
  return !key.empty() || !certificate_path.empty() || !root_path.empty();
}

bool KeyFiles::IsInfoGiven() const {
  return !info_key.empty() || !info_certificate_path.empty();
}

void TakeKeyFiles(const KeyFiles& given, Settings& settings) {
  const std::string& directory = settings.directory;
  if (!given.key.empty()) {
    settings.key = KeptKey(given.key, directory);
  }
  if (!given.info_key.empty()) {
    settings.info_key = KeptKey(given.info_key, directory);
  }
  if (!given.info_certificate_path.empty()) {
    settings.info_certificate_path = Kept(given.info_certificate_path, directory);
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

void TakeRevocations(const std::string& given, Settings& settings) {
  settings.revocations_path = Kept(given, settings.directory);
}

package::Signer LoadTrustedSigner(const Settings& settings, std::int64_t now) {
  return LoadSignerFor(settings, {}, now);
}

package::Signer LoadSignerFor(const Settings& settings, const std::set<std::string>& names,
                              std::int64_t now) {
  package::Signer signer = LoadFiles(settings, PackageSigner(settings), now);
  const package::Scope scope = Prove(settings, signer, now);
  for (const std::string& name : names) {
    if (!package::IsWithin(scope, name)) {
      throw package::Error(package::Code::kOutOfScope,
                           settings.CertificateFile() + " is for " + package::ScopeText(*scope) +
                               " and not for \"" + name + "\"; nothing was changed");
    }
  }
  return signer;
}

package::Signer LoadInfoSigner(const Settings& settings, std::int64_t now) {
  package::Signer signer = LoadFiles(settings, InfoSigner(settings), now);
  ProveInfo(settings, signer, now);
  RequireOtherKey(settings, signer);
  return signer;
}

std::string NewIdentity() {
  std::array<unsigned char, kIdentityBytes> bytes{};
  package::CheckResult(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())));
  constexpr char kHexDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += {kHexDigits[byte >> 4], kHexDigits[byte & 15]};
  }
  return text;
}

package::Trust LoadRoot(const Settings& settings) {
  RequireFile(settings, "root", settings.root_path, settings.RootFile(), package::Code::kKeyring);
  return package::Trust::Load(settings.RootFile(), "");
}

}  // namespace tolm::publish
