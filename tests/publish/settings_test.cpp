#include "publish/settings.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "publish/json_object.h"
#include "publish/key_generator.h"
#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::time_t kNow = 1800000000;

TEST(BaseUrlTest, AddressIsTakenApart) {
  struct Row {
    const char* text;
    const char* scheme;
    const char* netloc;
  };
  for (const Row& row :
       {Row{"http://a", "http", "a"}, Row{"https://a.example.org/", "https", "a.example.org"},
        Row{"http://127.0.0.1:8080", "http", "127.0.0.1:8080"},
        Row{"https://[::1]:8080/x", "https", "[::1]:8080/x"}, Row{"http://[1]", "http", "[1]"},
        Row{"http://a/b/c/d", "http", "a/b/c/d"},
        Row{"https://a/b/c-d_e~f%20///", "https", "a/b/c-d_e~f%20"}}) {
    const publish::BaseUrl url = publish::ParseBaseUrl(row.text);
    EXPECT_EQ(url.scheme, row.scheme) << row.text;
    EXPECT_EQ(url.netloc, row.netloc) << row.text;
    EXPECT_EQ(url.Text(), std::string(row.scheme) + "://" + row.netloc);
  }
}

TEST(BaseUrlTest, OthersAreRefused) {
  for (const char* text : {"",
                           "example.org",
                           "ftp://a",
                           "HTTP://a",
                           "http:///x",
                           "http://",
                           "http://a b",
                           "http://u:p@a",
                           "http://a?q",
                           "http://a/#f",
                           "http://a/\"",
                           "http://a//b",
                           "http://a:port",
                           "http://a:123456",
                           "-http://a",
                           "http://a\n",
                           "http://a/\x01",
                           "http:////",
                           "http:///a",
                           "http://:80",
                           "http://a:",
                           "http://a:80:80",
                           "http://a:80b",
                           "http://[]",
                           "http://[::1",
                           "http://::1",
                           "http://[::1]80",
                           "http://[g]",
                           "http://[::g]",
                           "http://a/b/c?/d",
                           "http://x[::1]",
                           "http://[::1]:",
                           "https:/a",
                           "https//a",
                           " http://a",
                           "http://a/b/\xc3\xbc"}) {
    ExpectError([&] { publish::ParseBaseUrl(text); }, HasSubstr("no address"));
  }
}

TEST(InfoVersionTest, IsOneComponentOfAPath) {
  for (const char* text : {"1", "2024-05", "v1.2_x", "-", "_", "1."}) {
    EXPECT_EQ(publish::InfoVersionProblem(text), "") << text;
  }
  for (const char* text : {"", ".", "..", ".1", "a/b", "a b", "a?b", "\xc3\xbc", "1\n"}) {
    EXPECT_NE(publish::InfoVersionProblem(text), "") << text;
  }
  EXPECT_EQ(publish::InfoVersionProblem(std::string(100, '1')), "");
  EXPECT_NE(publish::InfoVersionProblem(std::string(101, '1')), "");
}

TEST(SqliteVersionTest, IsSqlitesOwnNumber) {
  EXPECT_EQ(publish::ParseSqliteVersion("3.33.0"), 3033000);
  EXPECT_EQ(publish::ParseSqliteVersion("3.40.1"), 3040001);
  EXPECT_EQ(publish::ParseSqliteVersion("3.8"), 3008000);
  for (const char* text : {"", "3", "3.", "4.0", "2.8.1", "3.x", "3.33.0.1", "3.33.", "3..1",
                           "3.1234", "3.1.1234", "3.33.-1", "3.33.0 ", "3033000"}) {
    ExpectError([&] { publish::ParseSqliteVersion(text); }, HasSubstr("no version of SQLite"));
  }
}

TEST(PercentTest, IsFrom0To100) {
  for (const auto& [text, percent] : {std::pair{"0", 0},
                                      {"00", 0},
                                      {"07%", 7},
                                      {"20", 20},
                                      {"99%", 99},
                                      {"100", 100},
                                      {"100%", 100}}) {
    EXPECT_EQ(publish::ParsePercent(text), percent) << text;
  }
  for (const char* text : {"", "%", "101", "100%%", "-1", "+1", "1.5", "000", " 5", "5 %", "x"}) {
    ExpectError([&] { publish::ParsePercent(text); }, HasSubstr("no percentage"));
  }
}

class SettingsTest : public ::testing::Test {
 protected:
  SettingsTest() {
    publish::GenerateKeys(directory_.Path() / "keys", kNow);
    settings_.base_url = {"https", "example.org/x"};
    settings_.key = directory_.Path() / "keys/signing.key";
    settings_.certificate_path = directory_.Path() / "keys/signing.pem";
    settings_.root_path = directory_.Path() / "keys/root.pem";
  }

  TemporaryDirectory directory_;
  const fs::path file_ = directory_.Path() / "settings.json";
  publish::Settings settings_;
};

TEST_F(SettingsTest, AreReadBackAsTheyWereWritten) {
  settings_.info_version = "7";
  settings_.chain_share_percent = 55;
  settings_.oldest_sqlite = "3.40.1";
  settings_.min_certificate_days = 30;
  settings_.max_shrink_percent = 33;
  settings_.databases["geo"] = {5, "sh -c 'x \"y\"'"};
  settings_.databases["oui"] = {};
  const std::string text = FormatSettings(settings_);
  WriteFile(file_, text);
  const publish::Settings loaded = publish::LoadSettings(file_);
  EXPECT_EQ(FormatSettings(loaded), text);
  EXPECT_EQ(loaded.base_url.Text(), "https://example.org/x");
  EXPECT_EQ(loaded.info_version, "7");
  EXPECT_EQ(loaded.chain_share_percent, 55);
  EXPECT_EQ(loaded.oldest_sqlite, "3.40.1");
  EXPECT_EQ(loaded.min_certificate_days, 30);
  EXPECT_EQ(MaxShrinkOf(loaded, "geo"), 5);
  EXPECT_EQ(MaxShrinkOf(loaded, "oui"), 33);
  EXPECT_EQ(TestOf(loaded, "geo"), "sh -c 'x \"y\"'");
  EXPECT_EQ(TestOf(loaded, "oui"), "");
  EXPECT_EQ(loaded.databases.count("oui"), 0u) << "nothing of its own";
  EXPECT_EQ(loaded.key, settings_.key);
  EXPECT_EQ(loaded.certificate_path, settings_.certificate_path);
  EXPECT_EQ(loaded.root_path, settings_.root_path);
}

TEST_F(SettingsTest, ThoseOfAnEarlierProgramHaveTheDefaults) {
  Json::Value value = publish::ParseJson(FormatSettings(settings_), "");
  value.removeMember("max_shrink_percent");
  WriteFile(file_, publish::FormatJson(value));
  EXPECT_EQ(MaxShrinkOf(publish::LoadSettings(file_), "geo"), 20);
}

TEST_F(SettingsTest, HaveAnotherFormatAsSoonAsAnEarlierProgramWouldLoseSomething) {
  const std::string plain = FormatSettings(settings_);
  EXPECT_EQ(publish::ParseJson(plain, "")["format"].asInt(), 1);
  EXPECT_THAT(plain, ::testing::Not(HasSubstr("min_certificate_days")));
  EXPECT_THAT(plain, ::testing::Not(HasSubstr("max_shrink_percent")));
  using publish::Settings;
  const std::map<std::string, std::function<void(Settings&)>> rows = {
      {"a limit", [](Settings& s) { s.max_shrink_percent = 21; }},
      {"days", [](Settings& s) { s.min_certificate_days = 15; }},
      {"a test", [](Settings& s) { s.databases["geo"].test = "true"; }},
      {"a limit of one", [](Settings& s) { s.databases["geo"].max_shrink_percent = 20; }},
      {"a relative key", [](Settings& s) { s.key = "../keys/signing.key"; }},
      {"a relative certificate", [](Settings& s) { s.certificate_path = "../keys/signing.pem"; }},
      {"a relative root", [](Settings& s) { s.root_path = "root.pem"; }}};
  for (const auto& [name, change] : rows) {
    Settings changed = settings_;
    change(changed);
    const std::string text = FormatSettings(changed);
    EXPECT_EQ(publish::ParseJson(text, "")["format"].asInt(), 2) << name;
    WriteFile(file_, text);
    EXPECT_EQ(FormatSettings(publish::LoadSettings(file_)), text) << name;
  }
  settings_.key = "pkcs11:object=signing";
  settings_.databases["geo"] = {};
  EXPECT_EQ(publish::ParseJson(FormatSettings(settings_), "")["format"].asInt(), 1);
}

TEST_F(SettingsTest, OnesThatSignDescriptionsHaveAFormatOfTheirOwn) {
  settings_.info_key = directory_.Path() / "keys/info.key";
  settings_.info_certificate_path = directory_.Path() / "keys/info.pem";
  settings_.identity = publish::NewIdentity();
  settings_.description_days = 30;
  settings_.revocations_path = directory_.Path() / "6.crl.pem";
  const std::string text = FormatSettings(settings_);
  const Json::Value whole = publish::ParseJson(text, "");
  EXPECT_EQ(whole["format"].asInt(), 3);
  WriteFile(file_, text);
  const publish::Settings loaded = publish::LoadSettings(file_);
  EXPECT_EQ(FormatSettings(loaded), text);
  EXPECT_TRUE(loaded.IsSigned());
  EXPECT_EQ(loaded.identity, settings_.identity);
  EXPECT_EQ(loaded.description_days, 30);
  EXPECT_EQ(loaded.RevocationsFile(), settings_.revocations_path);
  struct Row {
    const char* member;
    Json::Value value;
  };
  for (const Row& row :
       {Row{"info_key", ""}, Row{"info_certificate", Json::Value()}, Row{"repository", "00"},
        Row{"repository", std::string(32, 'A')}, Row{"description_days", 0},
        Row{"description_days", 367}, Row{"revocations", 1}}) {
    Json::Value value = whole;
    value[row.member] = row.value;
    WriteFile(file_, publish::FormatJson(value));
    ExpectError([&] { publish::LoadSettings(file_); }, StartsWith(file_.string() + ": "));
  }
}

TEST_F(SettingsTest, OtherWaysToPackHaveAFormatOfTheirOwn) {
  using package::CompressionChoice;
  const std::string plain = FormatSettings(settings_);
  EXPECT_THAT(plain, ::testing::Not(HasSubstr("compression")));
  WriteFile(file_, plain);
  const package::Packing usual = publish::LoadSettings(file_).packing;
  EXPECT_EQ(usual.compression, CompressionChoice::kAuto);
  EXPECT_EQ(usual.window_mebibytes, 32);
  using publish::Settings;
  const std::map<std::string, std::function<void(Settings&)>> rows = {
      {"zstd", [](Settings& s) { s.packing.compression = CompressionChoice::kZstd; }},
      {"xz", [](Settings& s) { s.packing.compression = CompressionChoice::kXz; }},
      {"a window", [](Settings& s) { s.packing.window_mebibytes = 4; }},
      {"signed, too", [](Settings& s) {
         s.packing.window_mebibytes = 1;
         s.info_key = s.key;
         s.info_certificate_path = s.certificate_path;
         s.identity = publish::NewIdentity();
       }}};
  for (const auto& [name, change] : rows) {
    Settings changed = settings_;
    change(changed);
    const std::string text = FormatSettings(changed);
    EXPECT_EQ(publish::ParseJson(text, "")["format"].asInt(), 4) << name;
    WriteFile(file_, text);
    const Settings loaded = publish::LoadSettings(file_);
    EXPECT_EQ(FormatSettings(loaded), text) << name;
    EXPECT_EQ(loaded.packing.compression, changed.packing.compression) << name;
    EXPECT_EQ(loaded.packing.window_mebibytes, changed.packing.window_mebibytes) << name;
  }
}

TEST_F(SettingsTest, UnknownWaysToPackAreRefused) {
  struct Row {
    const char* member;
    Json::Value value;
    const char* problem;
  };
  for (const Row& row :
       {Row{"compression", "gzip", "is not auto, xz or zstd"},
        Row{"compression", "", "is not auto, xz or zstd"},
        Row{"compression", "XZ", "is not auto, xz or zstd"}, Row{"compression", 1, "compression"},
        Row{"compression_window_mib", 0, "is not 1, 2, 4, 8, 16 or 32"},
        Row{"compression_window_mib", -1, "is not 1, 2, 4, 8, 16 or 32"},
        Row{"compression_window_mib", 3, "is not 1, 2, 4, 8, 16 or 32"},
        Row{"compression_window_mib", 64, "is not 1, 2, 4, 8, 16 or 32"},
        Row{"compression_window_mib", "8", "compression_window_mib"}}) {
    Json::Value value = publish::ParseJson(FormatSettings(settings_), "");
    value[row.member] = row.value;
    WriteFile(file_, publish::FormatJson(value));
    ExpectError([&] { publish::LoadSettings(file_); },
                AllOf(StartsWith(file_.string() + ": "), HasSubstr(row.problem)));
  }
}

TEST_F(SettingsTest, UnsoundOnesAreRefusedByMember) {
  struct Row {
    const char* member;
    Json::Value value;
  };
  for (const Row& row :
       {Row{"format", 5}, Row{"format", "1"}, Row{"base_url", "example.org"}, Row{"base_url", 1},
        Row{"info_version", "../1"}, Row{"key", Json::Value()}, Row{"certificate", 1},
        Row{"root", false}, Row{"chain_share_percent", -1}, Row{"chain_share_percent", 1001},
        Row{"chain_share_percent", "70"}, Row{"min_certificate_days", -1},
        Row{"max_shrink_percent", 101}, Row{"databases", 1}, Row{"oldest_sqlite", "4"}}) {
    Json::Value value = publish::ParseJson(FormatSettings(settings_), "");
    value[row.member] = row.value;
    WriteFile(file_, publish::FormatJson(value));
    ExpectError([&] { publish::LoadSettings(file_); }, StartsWith(file_.string() + ": "));
  }
}

TEST_F(SettingsTest, FilesAreKeptSoThatTheyMoveWithTheRepository) {
  const fs::path before = fs::current_path();
  fs::create_directory(directory_.Path() / "with");
  fs::create_directory_symlink(directory_.Path() / "with", directory_.Path() / "link");
  // A repository that is reached through a link, with other keys beside the link.
  fs::create_directories(directory_.Path() / "with/repo/public");
  fs::create_directories(directory_.Path() / "home/keys");
  fs::create_directory_symlink("../with/repo", directory_.Path() / "home/repo");
  fs::create_directory_symlink("../home/keys", directory_.Path() / "with/linked");
  fs::current_path(directory_.Path());
  const std::string here = directory_.Path();
  struct Row {
    std::string directory;
    const char* given;
    std::string kept;
    std::string located;
  };
  for (const Row& row :
       {Row{here + "/with/repo", "with/keys/../k.pem", "../k.pem", here + "/with/k.pem"},
        Row{here + "/with/repo", "with/repo/keys/k.pem", "keys/k.pem",
            here + "/with/repo/keys/k.pem"},
        Row{here + "/with/repo", "keys/root.pem", here + "/keys/root.pem", here + "/keys/root.pem"},
        Row{here + "/link/repo", "link/k.pem", "../k.pem", here + "/with/k.pem"},
        Row{here + "/home/repo", "home/keys/k.pem", here + "/home/keys/k.pem",
            here + "/home/keys/k.pem"},
        Row{here + "/home/repo", "with/keys/k.pem", "../keys/k.pem", here + "/with/keys/k.pem"},
        Row{here + "/home/repo", "home/repo/k.pem", "k.pem", here + "/with/repo/k.pem"},
        Row{here + "/with/repo", "with/linked/k.pem", "../linked/k.pem", here + "/home/keys/k.pem"},
        Row{here + "/home/repo", "with/linked/../k.pem", here + "/home/k.pem",
            here + "/home/k.pem"},
        Row{"/repo", "/etc/k.pem", "/etc/k.pem", "/etc/k.pem"},
        Row{"/repo", "/repo/k.pem", "k.pem", "/repo/k.pem"}}) {
    publish::Settings settings;
    settings.directory = row.directory;
    TakeKeyFiles({"", row.given, ""}, settings);
    EXPECT_EQ(settings.certificate_path, row.kept) << row.given;
    EXPECT_EQ(settings.CertificateFile(), row.located) << row.given;
    EXPECT_EQ(settings.root_path, (fs::path(row.kept).parent_path() / "root.pem").string());
  }
  publish::Settings settings;
  settings.directory = here + "/with/repo";
  TakeKeyFiles({"pkcs11:object=signing;type=private", "keys/signing.pem", "other.pem"}, settings);
  EXPECT_EQ(settings.key, "pkcs11:object=signing;type=private");
  EXPECT_EQ(settings.KeyLocation(), settings.key);
  EXPECT_EQ(settings.root_path, here + "/other.pem");
  TakeKeyFiles({"keys/signing.key", "", ""}, settings);
  EXPECT_EQ(settings.key, here + "/keys/signing.key");
  EXPECT_EQ(settings.certificate_path, here + "/keys/signing.pem") << "what is not given stays";
  settings.directory = here + "/home/repo";
  for (const char* served : {"home/repo/public/k", "with/repo/public/k", "link/repo/public/k"}) {
    ExpectError([&] { TakeKeyFiles({served, "", ""}, settings); }, HasSubstr("is served"));
  }
  fs::current_path(before);
}

TEST(KeyFilesTest, EachOfThemIsOneThatIsGiven) {
  using publish::KeyFiles;
  EXPECT_FALSE(KeyFiles().AreGiven());
  EXPECT_FALSE(KeyFiles().IsInfoGiven());
  for (std::string KeyFiles::*member :
       {&KeyFiles::key, &KeyFiles::certificate_path, &KeyFiles::root_path}) {
    KeyFiles files;
    files.*member = "x";
    EXPECT_TRUE(files.AreGiven());
    EXPECT_FALSE(files.IsInfoGiven());
  }
  for (std::string KeyFiles::*member : {&KeyFiles::info_key, &KeyFiles::info_certificate_path}) {
    KeyFiles files;
    files.*member = "x";
    EXPECT_FALSE(files.AreGiven());
    EXPECT_TRUE(files.IsInfoGiven());
  }
}

TEST_F(SettingsTest, SignerBelowTheRootIsLoaded) {
  const package::Signer signer = LoadTrustedSigner(settings_, kNow);
  EXPECT_NE(signer.key, nullptr);
  EXPECT_NE(signer.certificate, nullptr);
}

TEST_F(SettingsTest, SignerThatDevicesWouldRefuseIsRefused) {
  publish::GenerateKeys(directory_.Path() / "others", kNow);
  const auto code_with = [&](std::string publish::Settings::*member, const std::string& path) {
    publish::Settings changed = settings_;
    changed.*member = directory_.Path() / path;
    return CodeOf([&] { LoadTrustedSigner(changed, kNow); });
  };
  EXPECT_EQ(code_with(&publish::Settings::root_path, "others/root.pem"), Code::kUntrusted);
  EXPECT_EQ(code_with(&publish::Settings::key, "others/signing.key"), Code::kArgument);
  EXPECT_EQ(code_with(&publish::Settings::key, "none"), Code::kArgument);
  EXPECT_EQ(code_with(&publish::Settings::root_path, "none"), Code::kKeyring);
  publish::Settings with_root = settings_;
  with_root.key = directory_.Path() / "keys/root.key";
  with_root.certificate_path = settings_.root_path;
  EXPECT_EQ(CodeOf([&] { LoadTrustedSigner(with_root, kNow); }), Code::kWrongUsage);
  constexpr std::time_t kFiveYears = 5 * 365 * 24 * 60 * 60;
  EXPECT_EQ(CodeOf([&] { LoadTrustedSigner(settings_, kNow + kFiveYears); }), Code::kExpired);
  // Of descriptions likewise, by a key that does nothing else.
  settings_.info_key = directory_.Path() / "keys/info.key";
  settings_.info_certificate_path = directory_.Path() / "keys/info.pem";
  EXPECT_NE(LoadInfoSigner(settings_, kNow).key, nullptr);
  EXPECT_EQ(CodeOf([&] { LoadInfoSigner(settings_, kNow + kFiveYears); }), Code::kExpired);
  publish::Settings mistaken = settings_;
  mistaken.certificate_path = settings_.info_certificate_path;
  EXPECT_EQ(CodeOf([&] { LoadInfoSigner(mistaken, kNow); }), Code::kWrongUsage);
  mistaken = settings_;
  mistaken.info_key = settings_.key;
  mistaken.info_certificate_path = settings_.certificate_path;
  EXPECT_EQ(CodeOf([&] { LoadInfoSigner(mistaken, kNow); }), Code::kWrongUsage);
}

TEST_F(SettingsTest, NumbersAreWithinTheirLimits) {
  settings_.info_key = "/k";
  settings_.info_certificate_path = "/c";
  settings_.identity = std::string(32, 'a');
  settings_.databases["geo"].max_shrink_percent = 1;
  const Json::Value whole = publish::ParseJson(FormatSettings(settings_), "");
  struct Row {
    const char* member;
    int most;
    int least;
  };
  for (const Row& row : {Row{"chain_share_percent", 1000, 0}, Row{"min_certificate_days", 36500, 0},
                         Row{"max_shrink_percent", 100, 0}, Row{"description_days", 366, 1}}) {
    const auto load = [&](int number) {
      Json::Value value = whole;
      value[row.member] = number;
      WriteFile(file_, publish::FormatJson(value));
      return publish::LoadSettings(file_);
    };
    const std::string problem =
        file_.string() + ": \"" + row.member + "\" is not from 0 to " + std::to_string(row.most);
    ExpectError([&] { load(row.most + 1); }, problem);
    ExpectError([&] { load(-1); }, problem);
    for (const int number : {row.least, row.most}) {
      const Json::Value kept = publish::ParseJson(FormatSettings(load(number)), "");
      EXPECT_EQ(kept[row.member], number) << row.member;
    }
  }
  Json::Value value = whole;
  value["databases"]["geo"]["max_shrink_percent"] = 101;
  WriteFile(file_, publish::FormatJson(value));
  ExpectError([&] { publish::LoadSettings(file_); },
              file_.string() + ": \"geo\": \"max_shrink_percent\" is not from 0 to 100");
  for (const std::string& identity :
       {std::string(31, 'a'), std::string(33, 'a'), std::string(31, 'a') + 'g', std::string()}) {
    value = whole;
    value["repository"] = identity;
    WriteFile(file_, publish::FormatJson(value));
    ExpectError([&] { publish::LoadSettings(file_); },
                file_.string() + ": \"repository\" is not 32 lower-case hexadecimal digits");
  }
  value = whole;
  value["format"] = 0;
  WriteFile(file_, publish::FormatJson(value));
  ExpectError([&] { publish::LoadSettings(file_); },
              file_.string() + ": written by a newer version of this program");
}

TEST(IdentityTest, IsSixteenRandomBytes) {
  std::set<char> digits;
  std::set<std::string> identities;
  for (int i = 0; i < 64; ++i) {
    const std::string identity = publish::NewIdentity();
    EXPECT_THAT(identity, ::testing::MatchesRegex("[0-9a-f]{32}"));
    for (std::size_t at = 0; at < identity.size(); at += 2) {
      digits.insert(identity[at]);
      digits.insert(static_cast<char>(identity[at + 1] + 128));
    }
    identities.insert(identity);
  }
  EXPECT_EQ(digits.size(), 32u) << "each half of a byte has each of its values";
  EXPECT_EQ(identities.size(), 64u);
}

TEST_F(SettingsTest, KeyIsAUriWhenItIsNoFileAndBeginsLikeOne) {
  WriteFile(directory_.Path() / "a:b", "a file");
  const fs::path before = fs::current_path();
  fs::current_path(directory_.Path());
  settings_.directory = "/repo";
  for (const char* uri : {"pkcs11:object=x", "A+b.c-1:", "file:/x"}) {
    TakeKeyFiles({uri, "", ""}, settings_);
    EXPECT_EQ(settings_.key, uri);
    EXPECT_EQ(settings_.KeyLocation(), uri);
  }
  for (const char* file : {"a:b", "1a:b", "+a:b", ":b", "a b:c", "a:b\nc", "a:b\rc", "none"}) {
    TakeKeyFiles({file, "", ""}, settings_);
    EXPECT_EQ(settings_.key, (directory_.Path() / file).string());
  }
  fs::current_path(before);
}

TEST_F(SettingsTest, DatabaseWithoutItsOwnHasThatOfTheRepository) {
  settings_.max_shrink_percent = 33;
  settings_.databases["geo"].test = "true";
  EXPECT_EQ(MaxShrinkOf(settings_, "geo"), 33);
  EXPECT_EQ(TestOf(settings_, "geo"), "true");
  EXPECT_EQ(MaxShrinkOf(settings_, "oui"), 33);
  EXPECT_EQ(TestOf(settings_, "oui"), "");
}

// What LoadTrustedSigner() or LoadInfoSigner() throws.
class SignerRefusalTest : public SettingsTest {
 protected:
  static constexpr std::int64_t kLater = 2100000000;  // 2036-07-18 13:20

  SignerRefusalTest() {
    publish::GenerateKeys(Path("later"), kLater);
    settings_.directory = Path("repo");
    settings_.key = Path("later/signing.key");
    settings_.certificate_path = Path("later/signing.pem");
    settings_.root_path = Path("later/root.pem");
    settings_.info_key = Path("later/info.key");
    settings_.info_certificate_path = Path("later/info.pem");
  }
  std::string Path(const std::string& name) const { return directory_.Path() / name; }
  template <typename Action>
  static void ExpectRefused(Code code, const ::testing::Matcher<std::string>& text, Action action) {
    try {
      action();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), code);
      EXPECT_THAT(error.what(), text);
    }
  }
  void ExpectRefused(Code code, const ::testing::Matcher<std::string>& text) const {
    ExpectRefused(code, text, [this] { LoadTrustedSigner(settings_, kLater); });
  }
  void ExpectInfoRefused(Code code, const ::testing::Matcher<std::string>& text,
                         std::int64_t now = kLater) const {
    ExpectRefused(code, text, [&] { LoadInfoSigner(settings_, now); });
  }
};

TEST_F(SignerRefusalTest, MissingFileIsNamedWithTheCommandThatSetsIt) {
  const publish::Settings good = settings_;
  settings_.key = "../later/none";
  const std::string none = Path("later/none");
  ExpectRefused(Code::kArgument, "key ../later/none (" + none + "): No such file or directory");
  WriteFile(Path("repo/state/settings.json"), "{}");
  const std::string set =
      "; \"tolmdbpub set " + Path("repo") + " --key KEY --cert FILE --root FILE";
  ExpectRefused(Code::kArgument, "key ../later/none (" + none + "): No such file or directory" +
                                     set +
                                     " --info-key KEY --info-cert FILE\" says where they are");
  settings_.info_key.clear();
  ExpectRefused(Code::kArgument, "key ../later/none (" + none + "): No such file or directory" +
                                     set + "\" says where they are");
  settings_ = good;
  settings_.certificate_path = none;
  ExpectRefused(Code::kKeyring,
                StartsWith("certificate " + none + ": No such file or directory; \"tolmdbpub set"));
  settings_ = good;
  settings_.root_path = none;
  ExpectRefused(Code::kKeyring,
                StartsWith("root " + none + ": No such file or directory; \"tolmdbpub set"));
  settings_ = good;
  settings_.info_key = none;
  ExpectInfoRefused(Code::kArgument, StartsWith("info key " + none + ": No such file"));
  settings_ = good;
  settings_.info_certificate_path = none;
  ExpectInfoRefused(Code::kKeyring, StartsWith("info certificate " + none + ": No such file"));
  settings_ = good;
  settings_.root_path = none;
  const auto root = StartsWith("root " + none + ": No such file or directory; \"tolmdbpub set");
  ExpectInfoRefused(Code::kKeyring, root);
  ExpectRefused(Code::kKeyring, root, [this] { LoadRoot(settings_); });
}

TEST_F(SignerRefusalTest, CertificateSignsFromItsFirstSecondOn) {
  constexpr std::int64_t kDay = 86400;
  constexpr std::int64_t kEnd = kLater + 3 * 365 * kDay;
  WriteFile(Path("repo/state/settings.json"), "{}");
  const std::string subject = "the signing certificate CN=Database package signing 2036-07-18 (" +
                              Path("later/signing.pem") + ") ";
  const std::string end = "; nothing is signed with it; \"tolmdbpub resign " + Path("repo") +
                          " --key KEY --cert FILE\" takes another one";
  EXPECT_NE(LoadTrustedSigner(settings_, kLater - kDay).key, nullptr);
  EXPECT_NE(LoadTrustedSigner(settings_, kEnd - 1).key, nullptr);
  ExpectRefused(
      Code::kNotYetValid,
      subject + "is not valid before 2036-07-17 13:20 UTC, less than a day from now" + end,
      [&] { LoadTrustedSigner(settings_, kLater - kDay - 1); });
  EXPECT_EQ(CodeOf([&] { LoadTrustedSigner(settings_, kEnd); }), Code::kExpired);
  ExpectRefused(Code::kExpired,
                subject + "expired on 2039-07-18 13:20 UTC, less than a day ago" + end,
                [&] { LoadTrustedSigner(settings_, kEnd + 1); });
  ExpectInfoRefused(
      Code::kExpired,
      AllOf(StartsWith("the certificate of descriptions CN=Database description signing"),
            HasSubstr("\"tolmdbpub set " + Path("repo") +
                      " --info-key KEY --info-cert FILE\" takes another one")),
      kEnd);
}

TEST_F(SignerRefusalTest, SignerOfAnotherRootOrUseIsToldWhatItNeeds) {
  publish::Settings good = settings_;
  settings_.root_path = directory_.Path() / "keys/root.pem";
  ExpectRefused(Code::kUntrusted, StartsWith(Path("later/signing.pem") + " with the root " +
                                             Path("keys/root.pem") + ": "));
  ExpectInfoRefused(
      Code::kUntrusted,
      AllOf(StartsWith(Path("later/info.pem") + " with the root " + Path("keys/root.pem") + ": "),
            ::testing::EndsWith("; descriptions need a key below this root: give --info-key KEY "
                                "--info-cert FILE as well")));
  settings_ = good;
  settings_.info_key = settings_.key;
  settings_.info_certificate_path = settings_.certificate_path;
  const char* const make =
      "; descriptions have a key of their own, which \"tolmdbpub keygen DIR --root-key KEY --root "
      "FILE --info\" makes";
  ExpectInfoRefused(Code::kWrongUsage, ::testing::EndsWith(make));
  // One key with a certificate for either use.
  const Authority root;
  const package::Signer packages = root.NewSigner();
  CertificateOptions use;
  use.extended_usage = std::string("critical,") + package::kDescriptionSigningOid;
  const package::Signer descriptions = root.NewSigner(use, Share(packages.key));
  WriteFile(Path("both.key"), PemOf(packages.key.get()));
  WriteFile(Path("packages.pem"), PemOf(packages.certificate.get()));
  WriteFile(Path("info.pem"), PemOf(descriptions.certificate.get()));
  WriteFile(Path("root.pem"), root.Pem());
  settings_.key = settings_.info_key = Path("both.key");
  settings_.certificate_path = Path("packages.pem");
  settings_.info_certificate_path = Path("info.pem");
  settings_.root_path = Path("root.pem");
  EXPECT_NE(LoadTrustedSigner(settings_, kLater).key, nullptr);
  ExpectInfoRefused(Code::kWrongUsage, Path("info.pem") + ": its key signs packages, too (" +
                                           Path("packages.pem") + ')' + make);
}

TEST_F(SignerRefusalTest, SignerOfSomeDatabasesSignsForThemOnly) {
  publish::KeysOptions options;
  options.scope = {"geo", "oui"};
  publish::GenerateKeys(Path("some"), kLater, options);
  settings_.key = Path("some/signing.key");
  settings_.certificate_path = Path("some/signing.pem");
  settings_.root_path = Path("some/root.pem");
  EXPECT_NE(LoadSignerFor(settings_, {"geo", "oui"}, kLater).key, nullptr);
  ExpectRefused(
      Code::kOutOfScope,
      Path("some/signing.pem") + " is for geo, oui and not for \"vendors\"; nothing was changed",
      [&] {
        LoadSignerFor(settings_, {"oui", "vendors"}, kLater);
      });
}

}  // namespace
}  // namespace tolm::testing
