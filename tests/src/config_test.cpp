#include "dataupdate/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "tests/src/thrown.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::dataupdate {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tolm::testing::EventChannel;
using tolm::testing::ForkedChild;
using tolm::testing::ReadFile;
using tolm::testing::ScopedMount;
using tolm::testing::SyslogCapture;
using tolm::testing::VtableSlot;
using tolm::testing::WriteFile;

namespace fs = std::filesystem;

constexpr char kDefault[] = "/tmp/default.conf";
constexpr char kOverride[] = "/tmp/etc/override.conf";
constexpr char kLock[] = "/run/data_update/config.lock";

constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabaseOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

std::string NotFound(const std::string& section, const std::string& key) {
  return "section-key: '" + section + "'-'" + key + "' not found";
}

/// Documents that hold no section although they are JSON, and one that is too deep to be read.
std::vector<std::string> HostileDocuments() {
  return {"null",
          "true",
          "5",
          "-1.5",
          "\"text\"",
          "[]",
          "[{\"config\": {\"key\": \"value\"}}]",
          std::string(2000, '[') + std::string(2000, ']')};
}

std::vector<std::string> UnreadableDocuments() {
  return {"", "{", "{\"config\": ", "not json", std::string(100, '\0'), "\xff\xfe"};
}

/// An IOUtils that notes which files are touched and runs something while they are.
class WatchedIo : public IOUtils {
 public:
  Json::Value ReadJson(const std::string& path) const override {
    reads.push_back(path);
    if (on_read) {
      on_read(path);
    }
    return IOUtils::ReadJson(path);
  }
  void WriteJson(const std::string& path, const Json::Value& value) const override {
    writes.push_back(path);
    if (on_write) {
      on_write(path);
    }
    IOUtils::WriteJson(path, value);
  }

  mutable std::vector<std::string> reads;
  mutable std::vector<std::string> writes;
  std::function<void(const std::string&)> on_read;
  std::function<void(const std::string&)> on_write;
};

class ConfigTest : public ::testing::Test {
 protected:
  ConfigTest() : io_(std::make_shared<WatchedIo>()), config_(io_) {
    config_.Init(kDefault, kOverride);
  }

  std::shared_ptr<WatchedIo> io_;
  Config config_;
};

Json::Value ReadOverride() {
  return IOUtils().ReadJson(kOverride);
}

TEST(ConfigSlotTest, OperationsKeepTheirSlots) {
  using Text = const std::string&;
  EXPECT_EQ(VtableSlot(&Config::Init), 2U);
  EXPECT_EQ(VtableSlot(&Config::Get), 3U);
  EXPECT_EQ(VtableSlot(&Config::GetAsUInt64), 4U);
  EXPECT_EQ(VtableSlot(&Config::GetAsBool), 5U);
  EXPECT_EQ(VtableSlot<void (Config::*)(Text, Text, Text) const>(&Config::Set), 6U);
  EXPECT_EQ(VtableSlot<void (Config::*)(Text, Text, const char*) const>(&Config::Set), 7U);
  EXPECT_EQ(VtableSlot<void (Config::*)(Text, Text, unsigned long long) const>(&Config::Set), 8U);
  EXPECT_EQ(VtableSlot<void (Config::*)(Text, Text, bool) const>(&Config::Set), 9U);
  EXPECT_EQ(VtableSlot(&Config::GetSections), 10U);
}

TEST_F(ConfigTest, InitTouchesNoFile) {
  EXPECT_THAT(io_->reads, IsEmpty());
  EXPECT_THAT(io_->writes, IsEmpty());
  EXPECT_FALSE(fs::exists(kDefault));
  EXPECT_FALSE(fs::exists("/tmp/etc"));
}

TEST_F(ConfigTest, AbsentOverrideLeavesTheDefaults) {
  WriteFile(kDefault, R"({"config": {"text": "a", "number": 5, "flag": true}})");
  EXPECT_EQ(config_.Get("config", "text"), "a");
  EXPECT_EQ(config_.GetAsUInt64("config", "number"), 5U);
  EXPECT_TRUE(config_.GetAsBool("config", "flag"));
}

TEST_F(ConfigTest, OverrideIsPreferredKeyByKey) {
  WriteFile(kDefault, R"({"config": {"one": "default", "two": "default"}, "other": {"a": "b"}})");
  WriteFile(kOverride, R"({"config": {"one": "override"}})");
  EXPECT_EQ(config_.Get("config", "one"), "override");
  EXPECT_EQ(config_.Get("config", "two"), "default");
  EXPECT_EQ(config_.Get("other", "a"), "b");
}

TEST_F(ConfigTest, OverrideThatAnswersKeepsTheDefaultFileUnread) {
  WriteFile(kOverride, R"({"config": {"one": "override"}})");
  EXPECT_EQ(config_.Get("config", "one"), "override");
  EXPECT_THAT(io_->reads, ElementsAre(kOverride));
}

TEST_F(ConfigTest, WronglyTypedOverrideFallsBackToTheDefault) {
  WriteFile(kDefault, R"({"config": {"cur_volume": "/volume1"}})");
  WriteFile(kOverride, R"({"config": {"cur_volume": 5}})");
  EXPECT_EQ(config_.Get("config", "cur_volume"), "/volume1");
}

TEST_F(ConfigTest, EveryCallReadsTheFilesAnew) {
  WriteFile(kDefault, R"({"config": {"key": "first"}})");
  EXPECT_EQ(config_.Get("config", "key"), "first");
  WriteFile(kDefault, R"({"config": {"key": "second"}})");
  EXPECT_EQ(config_.Get("config", "key"), "second");
  WriteFile(kOverride, R"({"config": {"key": "third"}})");
  EXPECT_EQ(config_.Get("config", "key"), "third");
  EXPECT_EQ(config_.GetSections(), std::vector<std::string>{"config"});
  EXPECT_THAT(io_->reads,
              ElementsAre(kOverride, kDefault, kOverride, kDefault, kOverride, kOverride));
}

struct TypedRow {
  const char* json;
  bool is_text;
  bool is_number;
  bool is_flag;
};
const TypedRow kTypedRows[] = {
    {R"("")", true, false, false},       {R"("5")", true, false, false},
    {"true", false, false, true},        {"false", false, false, true},
    {"0", false, true, false},           {"1", false, true, false},
    {"2147483647", false, true, false},  {"2147483648", false, true, false},
    {"4294967295", false, true, false},  {"4294967296", false, false, false},
    {"5368709120", false, false, false}, {"18446744073709551615", false, false, false},
    {"-1", false, false, false},         {"-2147483648", false, false, false},
    {"1.5", false, false, false},        {"1e300", false, false, false},
    {"[]", false, false, false},         {R"(["5"])", false, false, false},
    {"{}", false, false, false},         {R"({"key": "5"})", false, false, false},
};

TEST_F(ConfigTest, ValueOfAnotherTypeInTheDefaultsIsABadConversion) {
  const Thrown bad_conversion{"Bad type conversion"};
  for (const TypedRow& row : kTypedRows) {
    SCOPED_TRACE(row.json);
    WriteFile(kDefault, std::string(R"({"config": {"key": )") + row.json + "}}");
    const Thrown none{"(nothing was thrown)"};
    EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }), row.is_text ? none : bad_conversion);
    EXPECT_EQ(ErrorOf([&] { config_.GetAsUInt64("config", "key"); }),
              row.is_number ? none : bad_conversion);
    EXPECT_EQ(ErrorOf([&] { config_.GetAsBool("config", "key"); }),
              row.is_flag ? none : bad_conversion);
  }
}

TEST_F(ConfigTest, ValueOfAnotherTypeInTheOverridesIsIgnored) {
  WriteFile(kDefault,
            R"({"text": {"key": "default"}, "number": {"key": 77}, "flag": {"key": true}})");
  for (const TypedRow& row : kTypedRows) {
    SCOPED_TRACE(row.json);
    const std::string section = std::string(R"({"key": )") + row.json + "}";
    WriteFile(kOverride, R"({"text": )" + section + R"(, "number": )" + section + R"(, "flag": )" +
                             section + "}");
    const Json::Value written = ReadOverride()["text"]["key"];
    EXPECT_EQ(config_.Get("text", "key"), row.is_text ? written.asString() : "default");
    EXPECT_EQ(config_.GetAsUInt64("number", "key"), row.is_number ? written.asUInt64() : 77U);
    EXPECT_EQ(config_.GetAsBool("flag", "key"), row.is_flag ? written.asBool() : true);
  }
}

TEST_F(ConfigTest, NumbersAreThoseFromZeroToTheLargestOf32Bits) {
  const auto number = [&](const char* json) {
    WriteFile(kDefault, std::string(R"({"config": {"key": )") + json + "}}");
    return config_.GetAsUInt64("config", "key");
  };
  EXPECT_EQ(number("0"), 0U);
  EXPECT_EQ(number("1"), 1U);
  EXPECT_EQ(number("4294967295"), 4294967295U);
  EXPECT_EQ(ErrorOf([&] { number("4294967296"); }), Thrown{"Bad type conversion"});
  EXPECT_EQ(ErrorOf([&] { number("-1"); }), Thrown{"Bad type conversion"});
}

TEST_F(ConfigTest, KeyInNeitherFileIsReported) {
  WriteFile(kDefault, R"({"config": {"null": null}})");
  WriteFile(kOverride, R"({"config": {"null": null}})");
  const std::pair<const char*, const char*> rows[] = {
      {"config", "absent"}, {"absent", "key"}, {"config", "null"}, {"", ""}, {"%s", "%d"}};
  for (const auto& [section, key] : rows) {
    const Thrown expected{NotFound(section, key)};
    EXPECT_EQ(ErrorOf([&, s = section, k = key] { config_.Get(s, k); }), expected);
    EXPECT_EQ(ErrorOf([&, s = section, k = key] { config_.GetAsUInt64(s, k); }), expected);
    EXPECT_EQ(ErrorOf([&, s = section, k = key] { config_.GetAsBool(s, k); }), expected);
  }
}

TEST_F(ConfigTest, NullInTheOverridesReadsAsAbsent) {
  WriteFile(kDefault, R"({"config": {"key": "default"}})");
  WriteFile(kOverride, R"({"config": {"key": null}})");
  EXPECT_EQ(config_.Get("config", "key"), "default");
}

TEST_F(ConfigTest, MissingDefaultFileIsReportedWithItsCode) {
  EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }),
            (Thrown{std::string("File not exist: ") + kDefault, UpdateError::kFileNotExist}));
  WriteFile(kOverride, R"({"config": {"key": 5}})");
  EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }),
            (Thrown{std::string("File not exist: ") + kDefault, UpdateError::kFileNotExist}))
      << "after an override of the wrong type";
}

TEST_F(ConfigTest, BrokenDefaultFileIsReported) {
  for (const std::string& text : UnreadableDocuments()) {
    WriteFile(kDefault, text);
    EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }),
              Thrown{std::string("Fail to decode: ") + kDefault})
        << text;
  }
  fs::remove(kDefault);
  fs::create_directory(kDefault);
  EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }),
            Thrown{std::string("Fail to read: ") + kDefault});
}

TEST_F(ConfigTest, BrokenOverrideFileLeavesTheDefaults) {
  WriteFile(kDefault, R"({"config": {"key": "default"}})");
  for (const std::string& text : UnreadableDocuments()) {
    WriteFile(kOverride, text);
    EXPECT_EQ(config_.Get("config", "key"), "default") << text;
  }
}

TEST_F(ConfigTest, OtherExceptionsPassEveryOperation) {
  WriteFile(kDefault, R"({"config": {"key": "default"}})");
  io_->on_read = [](const std::string& path) {
    if (path == kOverride) {
      throw std::domain_error("not ours");
    }
  };
  EXPECT_THROW(config_.Get("config", "key"), std::domain_error);
  EXPECT_THROW(config_.GetAsUInt64("config", "key"), std::domain_error);
  EXPECT_THROW(config_.GetAsBool("config", "key"), std::domain_error);
  EXPECT_THROW(config_.Set("config", "key", "value"), std::domain_error);
  EXPECT_THROW(config_.GetSections(), std::domain_error);
  EXPECT_NO_THROW(FileLock(kLock, 0)) << "the lock must have been given back";
}

TEST_F(ConfigTest, DocumentThatIsNoObjectHoldsNoKey) {
  for (const std::string& text : HostileDocuments()) {
    SCOPED_TRACE(text.substr(0, 40));
    WriteFile(kDefault, R"({"config": {"key": "default"}})");
    WriteFile(kOverride, text);
    EXPECT_EQ(config_.Get("config", "key"), "default");
    WriteFile(kDefault, text);
    const bool too_deep = text.size() > 1000;
    EXPECT_EQ(
        ErrorOf([&] { config_.Get("config", "key"); }),
        Thrown{too_deep ? std::string("Fail to decode: ") + kDefault : NotFound("config", "key")});
  }
}

TEST_F(ConfigTest, SectionThatIsNoObjectHoldsNoKey) {
  for (const char* section : {"null", "true", "5", "1.5", R"("text")", "[]", R"(["key"])"}) {
    SCOPED_TRACE(section);
    const std::string text = std::string(R"({"config": )") + section + "}";
    WriteFile(kDefault, R"({"config": {"key": "default"}})");
    WriteFile(kOverride, text);
    EXPECT_EQ(config_.Get("config", "key"), "default");
    WriteFile(kDefault, text);
    EXPECT_EQ(ErrorOf([&] { config_.Get("config", "key"); }), Thrown{NotFound("config", "key")});
  }
}

TEST_F(ConfigTest, FirstSetMakesTheOverrideFileWithThatKeyOnly) {
  WriteFile(kDefault, R"({"config": {"a": "b"}, "other": {"c": "d"}})");
  config_.Set("config", "key", std::string("value"));
  EXPECT_EQ(ReadFile(kOverride), "{\n\t\"config\" : \n\t{\n\t\t\"key\" : \"value\"\n\t}\n}\n");
  EXPECT_EQ(ReadFile(kDefault), R"({"config": {"a": "b"}, "other": {"c": "d"}})");
}

TEST_F(ConfigTest, SetNeverTouchesTheDefaultFile) {
  config_.Set("config", "key", true);
  EXPECT_THAT(io_->reads, ElementsAre(kOverride));
  EXPECT_THAT(io_->writes, ElementsAre(kOverride));
  EXPECT_FALSE(fs::exists(kDefault));
}

TEST_F(ConfigTest, SetKeepsWhatElseTheOverrideHolds) {
  WriteFile(kOverride, R"(// set by hand
{"config": {"a": "b", "key": "old"}, "other": {"c": [1, null]}, "odd": 5})");
  config_.Set("config", "key", "new");
  config_.Set("new", "number", 7ULL);
  Json::Value expected;
  expected["config"]["a"] = "b";
  expected["config"]["key"] = "new";
  expected["other"]["c"].append(1);
  expected["other"]["c"].append(Json::Value());
  expected["odd"] = 5;
  expected["new"]["number"] = 7;
  EXPECT_EQ(ReadOverride(), expected);
  EXPECT_EQ(ReadFile(kOverride).rfind("// set by hand\n", 0), 0U) << ReadFile(kOverride);
}

TEST_F(ConfigTest, SetStoresEachTypeAsItsJsonType) {
  config_.Set("types", "text", std::string("1"));
  config_.Set("types", "literal", "1");
  config_.Set("types", "number", 18446744073709551615ULL);
  config_.Set("types", "flag", false);
  const Json::Value types = ReadOverride()["types"];
  EXPECT_EQ(types["text"], Json::Value("1"));
  EXPECT_EQ(types["literal"], types["text"]);
  EXPECT_EQ(types["number"].type(), Json::uintValue);
  EXPECT_EQ(types["number"].asUInt64(), 18446744073709551615ULL);
  EXPECT_EQ(types["flag"], Json::Value(false));
}

TEST_F(ConfigTest, SetValuesAreReadBack) {
  WriteFile(kDefault, R"({"config": {"text": "default", "number": 1, "flag": false}})");
  config_.Set("config", "text", "set");
  config_.Set("config", "number", 4294967295ULL);
  config_.Set("config", "flag", true);
  EXPECT_EQ(config_.Get("config", "text"), "set");
  EXPECT_EQ(config_.GetAsUInt64("config", "number"), 4294967295U);
  EXPECT_TRUE(config_.GetAsBool("config", "flag"));
}

TEST_F(ConfigTest, SetReplacesAnOverrideFileThatCannotBeUsed) {
  std::vector<std::string> documents = UnreadableDocuments();
  for (const std::string& text : HostileDocuments()) {
    documents.push_back(text);
  }
  Json::Value expected;
  expected["config"]["key"] = "value";
  for (const std::string& text : documents) {
    WriteFile(kOverride, text);
    config_.Set("config", "key", "value");
    EXPECT_EQ(ReadOverride(), expected) << text;
  }
}

TEST_F(ConfigTest, SetReplacesASectionThatIsNoObject) {
  Json::Value expected;
  expected["config"]["key"] = "value";
  expected["other"] = 1;
  for (const char* section : {"null", "true", "5", "1.5", R"("text")", "[]", R"(["key"])"}) {
    WriteFile(kOverride, std::string(R"({"other": 1, "config": )") + section + "}");
    config_.Set("config", "key", "value");
    EXPECT_EQ(ReadOverride(), expected) << section;
  }
}

TEST_F(ConfigTest, SetReplacesAValueOfAnyType) {
  for (const TypedRow& row : kTypedRows) {
    WriteFile(kOverride, std::string(R"({"config": {"key": )") + row.json + "}}");
    config_.Set("config", "key", true);
    EXPECT_EQ(ReadOverride()["config"]["key"], Json::Value(true)) << row.json;
  }
}

TEST_F(ConfigTest, OverrideThatCannotBeWrittenIsReported) {
  fs::create_directories("/tmp/etc");
  const ScopedMount mount = ScopedMount::ReadOnly("/tmp/etc");
  const Thrown expected{"Fail to set config some section:some key"};
  EXPECT_EQ(ErrorOf([&] { config_.Set("some section", "some key", std::string("a")); }), expected);
  EXPECT_EQ(ErrorOf([&] { config_.Set("some section", "some key", "a"); }), expected);
  EXPECT_EQ(ErrorOf([&] { config_.Set("some section", "some key", 1ULL); }), expected);
  EXPECT_EQ(ErrorOf([&] { config_.Set("some section", "some key", true); }), expected);
  EXPECT_NO_THROW(FileLock(kLock, 0)) << "the lock must have been given back";
}

TEST_F(ConfigTest, OverrideWhoseDirectoryCannotBeMadeIsReported) {
  WriteFile("/tmp/etc", "a file");
  EXPECT_EQ(ErrorOf([&] { config_.Set("config", "key", "a"); }),
            Thrown{"Fail to set config config:key"});
}

TEST_F(ConfigTest, SetHoldsTheLockFromTheReadToTheEndOfTheWrite) {
  int checks = 0;
  const auto expect_locked = [&](const std::string&) {
    EXPECT_EQ(ErrorOf([] { FileLock second(kLock, 0); }),
              Thrown{std::string("Fail to lock ") + kLock});
    ++checks;
  };
  io_->on_read = expect_locked;
  io_->on_write = expect_locked;
  config_.Set("config", "key", "value");
  EXPECT_EQ(checks, 2);
  EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(ConfigTest, SetThatCannotMakeItsLockFileIsReported) {
  fs::create_directories(kLock);
  EXPECT_EQ(ErrorOf([&] { config_.Set("config", "key", "a"); }),
            Thrown{std::string("Fail open lock file ") + kLock});
  EXPECT_FALSE(fs::exists(kOverride));
}

TEST_F(ConfigTest, WritesOfSeveralProcessesAreAllKept) {
  constexpr int kProcesses = 4;
  constexpr int kWrites = 5;
  std::vector<ForkedChild> writers;
  writers.reserve(kProcesses);
  for (int process = 0; process < kProcesses; ++process) {
    writers.emplace_back([&, process](EventChannel& parent) {
      parent.Receive();
      for (int i = 0; i < kWrites; ++i) {
        config_.Set(std::to_string(process), std::to_string(i), static_cast<unsigned long long>(i));
      }
      return 0;
    });
  }
  for (ForkedChild& writer : writers) {
    writer.Channel().Send("go");
  }
  for (ForkedChild& writer : writers) {
    EXPECT_EQ(writer.Process().Wait(), 0);
  }
  const Json::Value document = ReadOverride();
  EXPECT_EQ(document.size(), static_cast<unsigned>(kProcesses));
  for (const auto& section : document) {
    EXPECT_EQ(section.size(), static_cast<unsigned>(kWrites));
  }
}

TEST(ConfigThreadsTest, OneObjectServesSeveralThreads) {
  WriteFile(kDefault, R"({"config": {"key": "default"}})");
  const Config config(std::make_shared<IOUtils>());
  config.Init(kDefault, kOverride);
  constexpr int kWrites = 5;
  const auto work = [&](const std::string& section) {
    for (int i = 0; i < kWrites; ++i) {
      config.Set(section, std::to_string(i), "value");
      EXPECT_EQ(config.Get("config", "key"), "default");
    }
  };
  std::thread other(work, "one");
  work("two");
  other.join();
  EXPECT_EQ(ReadOverride()["one"].size(), static_cast<unsigned>(kWrites));
  EXPECT_EQ(ReadOverride()["two"].size(), static_cast<unsigned>(kWrites));
}

TEST_F(ConfigTest, SectionsAreThoseOfTheOverrideAloneAndSorted) {
  WriteFile(kDefault, R"({"config": {}, "more": {}})");
  WriteFile(kOverride, R"({"config": {}})");
  EXPECT_THAT(config_.GetSections(), ElementsAre("config"));
  EXPECT_THAT(io_->reads, ElementsAre(kOverride));
  WriteFile(kOverride, R"({"b": {}, "a": 5, "C": null})");
  EXPECT_THAT(config_.GetSections(), ElementsAre("C", "a", "b"));
  WriteFile(kOverride, "{}");
  EXPECT_THAT(config_.GetSections(), IsEmpty());
}

TEST_F(ConfigTest, SectionsAreThoseOfTheDefaultsWhenTheOverrideCannotBeRead) {
  WriteFile(kDefault, R"({"b": {}, "a": {}})");
  EXPECT_THAT(config_.GetSections(), ElementsAre("a", "b"));
  std::vector<std::string> documents = UnreadableDocuments();
  for (const std::string& text : HostileDocuments()) {
    documents.push_back(text);
  }
  for (const std::string& text : documents) {
    WriteFile(kOverride, text);
    EXPECT_THAT(config_.GetSections(), ElementsAre("a", "b")) << text;
  }
}

TEST_F(ConfigTest, SectionsOfUnreadableDefaultsAreAnError) {
  EXPECT_EQ(ErrorOf([&] { config_.GetSections(); }),
            (Thrown{std::string("File not exist: ") + kDefault, UpdateError::kFileNotExist}));
  std::vector<std::string> documents = UnreadableDocuments();
  for (const std::string& text : HostileDocuments()) {
    documents.push_back(text);
  }
  for (const std::string& text : documents) {
    WriteFile(kDefault, text);
    EXPECT_EQ(ErrorOf([&] { config_.GetSections(); }),
              Thrown{std::string("Fail to decode: ") + kDefault})
        << text;
  }
}

TEST_F(ConfigTest, NothingButTheLockIsLogged) {
  SyslogCapture::Clear();
  config_.Set("config", "key", "value");
  EXPECT_THROW(config_.Get("config", "absent"), UpdateError);
  for (const auto& line : SyslogCapture::Lines()) {
    EXPECT_EQ(line.text.rfind("file_lock:", 0), 0U) << line.text;
  }
  EXPECT_EQ(SyslogCapture::Lines().size(), 2U);
}

/// A Config that answers from memory and notes how it is called.
class FakeConfig : public Config {
 public:
  FakeConfig() : Config(nullptr) {}
  void Init(const std::string& default_path, const std::string& override_path) const override {
    calls.push_back("Init " + default_path + " " + override_path);
  }
  std::string Get(const std::string& section, const std::string& key) const override {
    calls.push_back("Get " + section + " " + key);
    return text;
  }
  unsigned long long GetAsUInt64(const std::string& section,
                                 const std::string& key) const override {
    calls.push_back("GetAsUInt64 " + section + " " + key);
    return 77;
  }
  bool GetAsBool(const std::string& section, const std::string& key) const override {
    calls.push_back("GetAsBool " + section + " " + key);
    return false;
  }
  void Set(const std::string& section, const std::string& key,
           const std::string& value) const override {
    calls.push_back("Set text " + section + " " + key + " " + value);
  }
  void Set(const std::string&, const std::string&, const char*) const override {
    calls.emplace_back("Set literal");
  }
  void Set(const std::string&, const std::string&, unsigned long long) const override {
    calls.emplace_back("Set number");
  }
  void Set(const std::string& section, const std::string& key, bool value) const override {
    calls.push_back("Set flag " + section + " " + key + (value ? " true" : " false"));
  }

  mutable std::vector<std::string> calls;
  std::string text = "/volume7";
};

TEST(ServiceConfigTest, OperationsKeepTheirSlots) {
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetDatabaseIDs), 2U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetDatabaseConfig), 3U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::CheckSupported), 4U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetDownloadScheme), 5U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetDBInfoDomainName), 6U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetDBInfoVersion), 7U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::GetCurVolume), 8U);
  EXPECT_EQ(VtableSlot(&ServiceConfig::SetCurVolume), 9U);
}

TEST(ServiceConfigTest, AsksItsStoreThroughTheVirtualOperations) {
  const auto config = std::make_shared<FakeConfig>();
  const ServiceConfig service(config);
  EXPECT_EQ(service.GetDownloadScheme(), "/volume7");
  EXPECT_EQ(service.GetDBInfoDomainName(), "/volume7");
  EXPECT_EQ(service.GetDBInfoVersion(), "/volume7");
  EXPECT_EQ(service.GetCurVolume(), "/volume7");
  service.SetCurVolume("/volume8");
  EXPECT_THAT(config->calls,
              ElementsAre(std::string("Init ") + kServiceDefaults + " " + kServiceOverrides,
                          "Get config download_scheme", "Get config db_netloc", "Get config db_ver",
                          "Get config cur_volume", "Set text config cur_volume /volume8"));
}

std::shared_ptr<Config> RealConfig() {
  return std::make_shared<Config>(std::make_shared<IOUtils>());
}

class ServiceFilesTest : public ::testing::Test {
 protected:
  ServiceFilesTest() {
    for (const char* path :
         {kServiceDefaults, kServiceOverrides, kDatabaseDefaults, kDatabaseOverrides}) {
      fs::remove(path);
    }
    WriteFile(kServiceDefaults, R"({"config": {"download_scheme": "https",
        "db_netloc": "update.example.com", "db_ver": "v2", "cur_volume": "/volume1"}})");
    WriteFile(kDatabaseDefaults, R"({"exampledb": {"format_version": "1.5",
        "min_rsv_space_inbytes": 1000, "install_dest": "%VOLUME%"}, "another": {}})");
  }

  const ServiceConfig service_{RealConfig()};
};

TEST_F(ServiceFilesTest, SettingsComeFromTheServiceFiles) {
  EXPECT_EQ(service_.GetDownloadScheme(), "https");
  EXPECT_EQ(service_.GetDBInfoDomainName(), "update.example.com");
  EXPECT_EQ(service_.GetDBInfoVersion(), "v2");
  EXPECT_EQ(service_.GetCurVolume(), "/volume1");
  WriteFile(kServiceOverrides, R"({"config": {"download_scheme": "http"}})");
  EXPECT_EQ(service_.GetDownloadScheme(), "http");
}

TEST_F(ServiceFilesTest, EveryServiceSettingIsRequired) {
  const struct {
    const char* key;
    std::function<void()> get;
  } rows[] = {
      {"download_scheme", [&] { service_.GetDownloadScheme(); }},
      {"db_netloc", [&] { service_.GetDBInfoDomainName(); }},
      {"db_ver", [&] { service_.GetDBInfoVersion(); }},
      {"cur_volume", [&] { service_.GetCurVolume(); }},
  };
  for (const auto& row : rows) {
    WriteFile(kServiceDefaults, R"({"config": {}})");
    EXPECT_EQ(ErrorOf(row.get), Thrown{NotFound("config", row.key)});
    for (const char* value : {"true", "5", "[]", "{}"}) {
      WriteFile(kServiceDefaults,
                std::string(R"({"config": {")") + row.key + "\": " + value + "}}");
      EXPECT_EQ(ErrorOf(row.get), Thrown{"Bad type conversion"}) << row.key << value;
    }
    fs::remove(kServiceDefaults);
    EXPECT_EQ(ErrorOf(row.get), (Thrown{std::string("File not exist: ") + kServiceDefaults,
                                        UpdateError::kFileNotExist}));
  }
}

TEST_F(ServiceFilesTest, DatabasesAreTheSortedSectionsOfTheirFile) {
  EXPECT_THAT(service_.GetDatabaseIDs(), ElementsAre("another", "exampledb"));
  WriteFile(kDatabaseOverrides, R"({"exampledb": {}})");
  EXPECT_THAT(service_.GetDatabaseIDs(), ElementsAre("exampledb"));
}

TEST_F(ServiceFilesTest, MissingDatabaseFilesAreReported) {
  fs::remove(kDatabaseDefaults);
  EXPECT_EQ(
      ErrorOf([&] { service_.GetDatabaseIDs(); }),
      (Thrown{std::string("File not exist: ") + kDatabaseDefaults, UpdateError::kFileNotExist}));
}

TEST_F(ServiceFilesTest, OnlyListedDatabasesAreSupported) {
  EXPECT_NO_THROW(service_.CheckSupported("exampledb"));
  EXPECT_NO_THROW(service_.CheckSupported("another"));
  for (const std::string id : {"ExampleDB", "example", "exampledb ", "", "exampledb2", "%s"}) {
    EXPECT_EQ(ErrorOf([&] { service_.CheckSupported(id); }),
              Thrown{"Project " + id + " not supported"});
  }
}

TEST_F(ServiceFilesTest, CurrentVolumeIsWrittenToTheOverrides) {
  service_.SetCurVolume("/volume2");
  Json::Value expected;
  expected["config"]["cur_volume"] = "/volume2";
  EXPECT_EQ(IOUtils().ReadJson(kServiceOverrides), expected);
  EXPECT_EQ(service_.GetCurVolume(), "/volume2");
  EXPECT_EQ(service_.GetDatabaseConfig("exampledb")->GetInstallPrefix(),
            "/volume2/@database/autoupdate/exampledb");
}

TEST_F(ServiceFilesTest, CurrentVolumeThatCannotBeWrittenIsReported) {
  fs::create_directories(kServiceOverrides);
  EXPECT_EQ(ErrorOf([&] { service_.SetCurVolume("/volume2"); }),
            Thrown{"Fail to set config config:cur_volume"});
}

TEST_F(ServiceFilesTest, ViewOfADatabaseKeepsItsVolume) {
  const auto before = service_.GetDatabaseConfig("exampledb");
  service_.SetCurVolume("/volume2");
  EXPECT_EQ(before->GetRootDirectory(), "/volume1");
  EXPECT_EQ(before->GetInstallPrefix(), "/volume1/@database/autoupdate/exampledb");
  EXPECT_EQ(service_.GetDatabaseConfig("exampledb")->GetRootDirectory(), "/volume2");
}

TEST_F(ServiceFilesTest, EveryViewIsNewAndItsIdIsNotChecked) {
  const auto one = service_.GetDatabaseConfig("exampledb");
  const auto two = service_.GetDatabaseConfig("exampledb");
  EXPECT_NE(one, two);
  EXPECT_EQ(one.use_count(), 1);
  EXPECT_NO_THROW(service_.GetDatabaseConfig("unknown"));
}

TEST_F(ServiceFilesTest, ViewNeedsACurrentVolume) {
  WriteFile(kServiceDefaults, R"({"config": {}})");
  EXPECT_EQ(ErrorOf([&] { service_.GetDatabaseConfig("exampledb"); }),
            Thrown{NotFound("config", "cur_volume")});
}

TEST(DatabaseConfigTest, OperationsKeepTheirSlots) {
  EXPECT_EQ(VtableSlot(&DatabaseConfig::GetScheduled), 2U);
  EXPECT_EQ(VtableSlot(&DatabaseConfig::SetScheduled), 3U);
  EXPECT_EQ(VtableSlot(&DatabaseConfig::GetFormatVersion), 4U);
  EXPECT_EQ(VtableSlot(&DatabaseConfig::GetInstallPrefix), 5U);
  EXPECT_EQ(VtableSlot(&DatabaseConfig::GetRootDirectory), 6U);
  EXPECT_EQ(VtableSlot(&DatabaseConfig::GetMinReservedSpaceInbytes), 7U);
}

TEST(DatabaseConfigTest, AsksItsStoreThroughTheVirtualOperations) {
  const auto config = std::make_shared<FakeConfig>();
  const DatabaseConfig database("exampledb", "/volume1", config);
  EXPECT_FALSE(database.GetScheduled());
  database.SetScheduled(true);
  database.SetScheduled(false);
  EXPECT_EQ(database.GetFormatVersion(), "/volume7");
  EXPECT_EQ(database.GetMinReservedSpaceInbytes(), 77U);
  config->text = "%ROOTFS%";
  database.GetInstallPrefix();
  database.GetRootDirectory();
  EXPECT_THAT(config->calls,
              ElementsAre(std::string("Init ") + kDatabaseDefaults + " " + kDatabaseOverrides,
                          "GetAsBool exampledb auto_update", "Set flag exampledb auto_update true",
                          "Set flag exampledb auto_update false", "Get exampledb format_version",
                          "GetAsUInt64 exampledb min_rsv_space_inbytes",
                          "Get exampledb install_dest", "Get exampledb install_dest"));
}

class DatabaseFilesTest : public ::testing::Test {
 protected:
  DatabaseFilesTest() {
    fs::remove(kDatabaseDefaults);
    fs::remove(kDatabaseOverrides);
  }
  /// The database's whole section.
  static void WriteSection(const std::string& section) {
    WriteFile(kDatabaseDefaults, R"({"exampledb": )" + section + "}");
  }

  const DatabaseConfig database_{"exampledb", "/volume1", RealConfig()};
};

TEST_F(DatabaseFilesTest, IsScheduledUnlessSetToFalse) {
  const std::pair<const char*, bool> rows[] = {
      {"{}", true},
      {R"({"auto_update": true})", true},
      {R"({"auto_update": false})", false},
      {R"({"auto_update": "no"})", true},
      {R"({"auto_update": 0})", true},
      {R"({"auto_update": null})", true},
      {R"({"auto_update": []})", true},
      {"[]", true},
      {"no json", true},
  };
  for (const auto& [section, scheduled] : rows) {
    WriteSection(section);
    EXPECT_EQ(database_.GetScheduled(), scheduled) << section;
  }
  fs::remove(kDatabaseDefaults);
  EXPECT_TRUE(database_.GetScheduled());
}

TEST_F(DatabaseFilesTest, ScheduleIsWrittenToTheOverridesAsABoolean) {
  WriteSection("{}");
  database_.SetScheduled(false);
  Json::Value expected;
  expected["exampledb"]["auto_update"] = false;
  EXPECT_EQ(IOUtils().ReadJson(kDatabaseOverrides), expected);
  EXPECT_FALSE(database_.GetScheduled());
  database_.SetScheduled(true);
  EXPECT_TRUE(database_.GetScheduled());
}

TEST_F(DatabaseFilesTest, ScheduleThatCannotBeWrittenIsReported) {
  fs::create_directories(kDatabaseOverrides);
  EXPECT_EQ(ErrorOf([&] { database_.SetScheduled(true); }),
            Thrown{"Fail to set config exampledb:auto_update"});
}

TEST_F(DatabaseFilesTest, FormatVersionIsRequired) {
  WriteSection(R"({"format_version": "1.5"})");
  EXPECT_EQ(database_.GetFormatVersion(), "1.5");
  WriteSection("{}");
  EXPECT_EQ(ErrorOf([&] { database_.GetFormatVersion(); }),
            Thrown{NotFound("exampledb", "format_version")});
  WriteSection(R"({"format_version": 1.5})");
  EXPECT_EQ(ErrorOf([&] { database_.GetFormatVersion(); }), Thrown{"Bad type conversion"});
}

TEST_F(DatabaseFilesTest, ReservedSpaceIsZeroUnlessValid) {
  const std::pair<const char*, unsigned long long> rows[] = {
      {R"({"min_rsv_space_inbytes": 1000})", 1000},
      {R"({"min_rsv_space_inbytes": 0})", 0},
      {R"({"min_rsv_space_inbytes": 4294967295})", 4294967295},
      {R"({"min_rsv_space_inbytes": 4294967296})", 0},
      {R"({"min_rsv_space_inbytes": 5368709120})", 0},
      {R"({"min_rsv_space_inbytes": -1})", 0},
      {R"({"min_rsv_space_inbytes": "1000"})", 0},
      {R"({"min_rsv_space_inbytes": 1.5})", 0},
      {R"({"min_rsv_space_inbytes": null})", 0},
      {"{}", 0},
      {"5", 0},
      {"no json", 0},
  };
  for (const auto& [section, bytes] : rows) {
    WriteSection(section);
    EXPECT_EQ(database_.GetMinReservedSpaceInbytes(), bytes) << section;
  }
  fs::remove(kDatabaseDefaults);
  EXPECT_EQ(database_.GetMinReservedSpaceInbytes(), 0U);
}

TEST_F(DatabaseFilesTest, DestinationOnTheVolume) {
  WriteSection(R"({"install_dest": "%VOLUME%"})");
  EXPECT_EQ(database_.GetInstallPrefix(), "/volume1/@database/autoupdate/exampledb");
  EXPECT_EQ(database_.GetRootDirectory(), "/volume1");
}

TEST_F(DatabaseFilesTest, DestinationOnTheRootFileSystem) {
  WriteSection(R"({"install_dest": "%ROOTFS%"})");
  EXPECT_EQ(database_.GetInstallPrefix(), "/var/db/exampledb");
  EXPECT_EQ(database_.GetRootDirectory(), "/");
}

TEST_F(DatabaseFilesTest, OtherDestinationsAreInvalid) {
  for (const std::string value :
       {"disk", "", "%volume%", "%VOLUME% ", "%VOLUME", "/volume1", "%s%d"}) {
    WriteSection(R"({"install_dest": ")" + value + "\"}");
    const Thrown expected{"Invalid value '" + value + "' for '%s/@database/autoupdate' field"};
    EXPECT_EQ(ErrorOf([&] { database_.GetInstallPrefix(); }), expected);
    EXPECT_EQ(ErrorOf([&] { database_.GetRootDirectory(); }), expected);
  }
}

TEST_F(DatabaseFilesTest, DestinationIsRequired) {
  WriteSection("{}");
  const Thrown not_found{NotFound("exampledb", "install_dest")};
  EXPECT_EQ(ErrorOf([&] { database_.GetInstallPrefix(); }), not_found);
  EXPECT_EQ(ErrorOf([&] { database_.GetRootDirectory(); }), not_found);
  WriteSection(R"({"install_dest": 5})");
  EXPECT_EQ(ErrorOf([&] { database_.GetInstallPrefix(); }), Thrown{"Bad type conversion"});
  EXPECT_EQ(ErrorOf([&] { database_.GetRootDirectory(); }), Thrown{"Bad type conversion"});
}

TEST_F(DatabaseFilesTest, VolumeIsUsedAsItIs) {
  WriteSection(R"({"install_dest": "%VOLUME%"})");
  const DatabaseConfig without("exampledb", "", RealConfig());
  EXPECT_EQ(without.GetInstallPrefix(), "/@database/autoupdate/exampledb");
  EXPECT_EQ(without.GetRootDirectory(), "");
  const DatabaseConfig odd("exampledb", "/vol %s/", RealConfig());
  EXPECT_EQ(odd.GetInstallPrefix(), "/vol %s//@database/autoupdate/exampledb");
  EXPECT_EQ(odd.GetRootDirectory(), "/vol %s/");
}

}  // namespace
}  // namespace tolm::dataupdate
