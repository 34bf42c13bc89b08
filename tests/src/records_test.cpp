#include "dataupdate/records.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <climits>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/src/thrown.h"

namespace tolm::dataupdate {
namespace {

template <typename Record>
constexpr bool kIsPlainValue =
    !std::is_polymorphic_v<Record> && std::is_copy_constructible_v<Record> &&
    std::is_copy_assignable_v<Record>;
static_assert(kIsPlainValue<RemoteInfo>);
static_assert(kIsPlainValue<DiffInfo>);
static_assert(kIsPlainValue<FileStatus>);
static_assert(kIsPlainValue<DatabaseStatus>);

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    throw std::invalid_argument(errors);
  }
  return value;
}

enum class Kind { kNull, kBool, kInt, kOtherNumber, kString, kArray, kObject };

struct NamedValue {
  const char* text;
  Kind kind;
};

// Every type that a JSON value can have. The strings are valid data versions.
const NamedValue kEveryType[] = {
    {"null", Kind::kNull},
    {"true", Kind::kBool},
    {"false", Kind::kBool},
    {"0", Kind::kInt},
    {"-1", Kind::kInt},
    {"2147483647", Kind::kInt},
    {"-2147483648", Kind::kInt},
    {"7.0", Kind::kInt},  // A whole number, however it is written.
    {"2147483648", Kind::kOtherNumber},
    {"-2147483649", Kind::kOtherNumber},
    {"4294967295", Kind::kOtherNumber},
    {"18446744073709551615", Kind::kOtherNumber},
    {"1.5", Kind::kOtherNumber},
    {"1e300", Kind::kOtherNumber},
    {"\"7\"", Kind::kString},
    {"\"7 and more\"", Kind::kString},
    {"[]", Kind::kArray},
    {"[7]", Kind::kArray},
    {"[{}]", Kind::kArray},
    {"{}", Kind::kObject},
    {"{\"7\": 7}", Kind::kObject},
};

struct Member {
  const char* name;
  Kind kind;
};

struct Parser {
  const char* name;
  const char* valid;
  const char* error;
  std::vector<Member> members;
  std::function<void(const Json::Value&)> parse;
};

const Parser kRemoteInfo = {"RemoteInfo",
                            R"({"data_version": "42", "last_fetch_time": 7, "deprecated": false,
                                "download_link": "http://host/package"})",
                            "Invalid json object for RemoteInfo",
                            {{"data_version", Kind::kString},
                             {"last_fetch_time", Kind::kInt},
                             {"deprecated", Kind::kBool},
                             {"download_link", Kind::kString}},
                            [](const Json::Value& value) { RemoteInfo::FromJson(value); }};
const Parser kDiffInfo = {"DiffInfo",
                          R"({"download_link": "http://host/delta", "file_size": 10})",
                          "Invalid json object for DiffInfo",
                          {{"download_link", Kind::kString}, {"file_size", Kind::kInt}},
                          [](const Json::Value& value) { DiffInfo::FromJson(value); }};
const Parser kFileStatus = {"FileStatus",
                            R"({"sha384_digest": "00ff"})",
                            "Invalid json object for FileStatus",
                            {{"sha384_digest", Kind::kString}},
                            [](const Json::Value& value) { FileStatus::FromJson(value); }};
const Parser kDatabaseStatus = {
    "DatabaseStatus",
    R"({"data_version": "42", "last_fetch_time": 7, "file_statuses": {}})",
    "Invalid json object for DatabaseStatus",
    {{"data_version", Kind::kString}, {"last_fetch_time", Kind::kInt}},
    [](const Json::Value& value) { DatabaseStatus::FromJson(value); }};

void ExpectEveryMemberIsChecked(const Parser& parser) {
  const Json::Value valid = Parse(parser.valid);
  EXPECT_NO_THROW(parser.parse(valid));
  for (const Member& member : parser.members) {
    SCOPED_TRACE(member.name);
    Json::Value without = valid;
    without.removeMember(member.name);
    EXPECT_EQ(ErrorOf([&] { parser.parse(without); }), Thrown{parser.error}) << "missing";
    for (const NamedValue& row : kEveryType) {
      Json::Value changed = valid;
      changed[member.name] = Parse(row.text);
      if (row.kind == member.kind) {
        EXPECT_NO_THROW(parser.parse(changed)) << row.text;
      } else {
        EXPECT_EQ(ErrorOf([&] { parser.parse(changed); }), Thrown{parser.error}) << row.text;
      }
    }
  }
}

void ExpectOnlyAnObjectIsTaken(const Parser& parser) {
  for (const NamedValue& row : kEveryType) {
    EXPECT_EQ(ErrorOf([&] { parser.parse(Parse(row.text)); }), Thrown{parser.error}) << row.text;
  }
}

void ExpectOtherMembersAreIgnored(const Parser& parser) {
  for (const NamedValue& row : kEveryType) {
    Json::Value value = Parse(parser.valid);
    value["something else"] = Parse(row.text);
    value[""] = Parse(row.text);
    EXPECT_NO_THROW(parser.parse(value)) << row.text;
  }
}

struct VersionText {
  const char* text;
  int version;
};
const VersionText kVersionTexts[] = {
    {"42", 42},
    {"42abc", 42},
    {"  \t42", 42},
    {"42 ", 42},
    {"-3", -3},
    {"+3", 3},
    {"007", 7},
    {"0x10", 0},
    {"1.9", 1},
    {"2147483647", INT_MAX},
    {"-2147483648", INT_MIN},
};
const char* const kNoNumbers[] = {"", "abc", "-", "- 1", " ", "v42", "\u0664\u0662"};
const char* const kTooLarge[] = {"2147483648", "-2147483649", "99999999999999999999999999"};

// The standard conversion's own exceptions, for every record with a version text.
void ExpectConversionLikeStoi(const Parser& parser, const char* member,
                              const std::function<int(const Json::Value&)>& version_of) {
  Json::Value value = Parse(parser.valid);
  for (const VersionText& row : kVersionTexts) {
    value[member] = row.text;
    EXPECT_EQ(version_of(value), row.version) << row.text;
  }
  for (const char* text : kNoNumbers) {
    value[member] = text;
    EXPECT_THROW(parser.parse(value), std::invalid_argument) << text;
  }
  for (const char* text : kTooLarge) {
    value[member] = text;
    EXPECT_THROW(parser.parse(value), std::out_of_range) << text;
  }
}

TEST(RemoteInfoTest, FieldsArePublicInTheirOrder) {
  const RemoteInfo info(42, 7, true, "http://host/a");
  const auto& [data_version, last_fetch_time, deprecated, download_link] = info;
  EXPECT_EQ(&data_version, &info.data_version);
  EXPECT_EQ(&last_fetch_time, &info.last_fetch_time);
  EXPECT_EQ(&deprecated, &info.deprecated);
  EXPECT_EQ(&download_link, &info.download_link);
  EXPECT_EQ(data_version, 42);
  EXPECT_EQ(last_fetch_time, 7);
  EXPECT_TRUE(deprecated);
  EXPECT_EQ(download_link, "http://host/a");
}

TEST(RemoteInfoTest, IsReadFromJson) {
  const RemoteInfo info = RemoteInfo::FromJson(
      Parse(R"({"data_version": "42", "last_fetch_time": -7, "deprecated": true,
                "download_link": ""})"));
  EXPECT_EQ(info, RemoteInfo(42, -7, true, ""));
}

TEST(RemoteInfoTest, EveryMemberMustBeOfItsType) {
  ExpectEveryMemberIsChecked(kRemoteInfo);
}

TEST(RemoteInfoTest, AnythingButAnObjectIsRefused) {
  ExpectOnlyAnObjectIsTaken(kRemoteInfo);
}

TEST(RemoteInfoTest, OtherMembersAreIgnored) {
  ExpectOtherMembersAreIgnored(kRemoteInfo);
}

TEST(RemoteInfoTest, VersionAsANumberIsRefused) {
  Json::Value value = Parse(kRemoteInfo.valid);
  value["data_version"] = 42;
  EXPECT_EQ(ErrorOf([&] { RemoteInfo::FromJson(value); }),
            Thrown{"Invalid json object for RemoteInfo"});
}

TEST(RemoteInfoTest, FetchTimeBeyondIntIsRefused) {
  Json::Value value = Parse(kRemoteInfo.valid);
  value["last_fetch_time"] = Json::Value(Json::UInt64{4294967295});
  EXPECT_EQ(ErrorOf([&] { RemoteInfo::FromJson(value); }),
            Thrown{"Invalid json object for RemoteInfo"});
}

TEST(RemoteInfoTest, VersionTextIsConvertedLikeStoi) {
  ExpectConversionLikeStoi(kRemoteInfo, "data_version", [](const Json::Value& value) {
    return RemoteInfo::FromJson(value).data_version;
  });
}

TEST(RemoteInfoTest, MembersAreCheckedBeforeTheVersionIsConverted) {
  Json::Value value = Parse(kRemoteInfo.valid);
  value["data_version"] = "abc";
  value["download_link"] = 1;
  EXPECT_EQ(ErrorOf([&] { RemoteInfo::FromJson(value); }),
            Thrown{"Invalid json object for RemoteInfo"});
}

TEST(RemoteInfoTest, IsWrittenWithFourMembersAndTheVersionAsText) {
  EXPECT_EQ(RemoteInfo::ToJson(RemoteInfo(-42, 7, false, "http://host/a")),
            Parse(R"({"data_version": "-42", "last_fetch_time": 7, "deprecated": false,
                      "download_link": "http://host/a"})"));
}

TEST(RemoteInfoTest, SurvivesTheRoundTrip) {
  for (const int number : {INT_MIN, -1, 0, 1, INT_MAX}) {
    for (const bool deprecated : {false, true}) {
      const RemoteInfo info(number, number, deprecated, "http://host/?a=[b]&c=\"d\"");
      EXPECT_EQ(RemoteInfo::FromJson(RemoteInfo::ToJson(info)), info);
    }
  }
}

TEST(RemoteInfoTest, EqualityLooksAtEveryField) {
  const RemoteInfo info(1, 2, false, "a");
  EXPECT_TRUE(info == RemoteInfo(1, 2, false, "a"));
  EXPECT_FALSE(info == RemoteInfo(9, 2, false, "a"));
  EXPECT_FALSE(info == RemoteInfo(1, 9, false, "a"));
  EXPECT_FALSE(info == RemoteInfo(1, 2, true, "a"));
  EXPECT_FALSE(info == RemoteInfo(1, 2, false, "A"));
}

TEST(DiffInfoTest, FieldsArePublicInTheirOrder) {
  const DiffInfo info("http://host/a", 10);
  const auto& [download_link, file_size] = info;
  EXPECT_EQ(&download_link, &info.download_link);
  EXPECT_EQ(&file_size, &info.file_size);
  EXPECT_EQ(download_link, "http://host/a");
  EXPECT_EQ(file_size, 10);
}

TEST(DiffInfoTest, EveryMemberMustBeOfItsType) {
  ExpectEveryMemberIsChecked(kDiffInfo);
}

TEST(DiffInfoTest, AnythingButAnObjectIsRefused) {
  ExpectOnlyAnObjectIsTaken(kDiffInfo);
}

TEST(DiffInfoTest, OtherMembersAreIgnored) {
  ExpectOtherMembersAreIgnored(kDiffInfo);
}

TEST(DiffInfoTest, EqualityLooksAtEveryField) {
  const DiffInfo info("a", 1);
  EXPECT_TRUE(info == DiffInfo("a", 1));
  EXPECT_FALSE(info == DiffInfo("b", 1));
  EXPECT_FALSE(info == DiffInfo("a", 2));
}

TEST(DiffInfoBatchTest, HoldsOneEntryForEveryMember) {
  const auto diffs =
      DiffInfo::BatchFromJson(Parse(R"({"10": {"download_link": "ten", "file_size": 10},
                "9": {"download_link": "nine", "file_size": 9}})"));
  EXPECT_EQ(diffs, (std::map<int, DiffInfo>{{9, DiffInfo("nine", 9)}, {10, DiffInfo("ten", 10)}}));
}

TEST(DiffInfoBatchTest, AnythingButAnObjectYieldsAnEmptyMap) {
  for (const NamedValue& row : kEveryType) {
    if (row.kind != Kind::kObject) {
      EXPECT_TRUE(DiffInfo::BatchFromJson(Parse(row.text)).empty()) << row.text;
    }
  }
  EXPECT_TRUE(DiffInfo::BatchFromJson(Parse("{}")).empty());
  EXPECT_TRUE(DiffInfo::BatchFromJson(Json::Value()["absent"]).empty());
}

TEST(DiffInfoBatchTest, FirstOfTwoNamesForOneNumberWins) {
  const auto diffs =
      DiffInfo::BatchFromJson(Parse(R"({"7": {"download_link": "plain", "file_size": 1},
                "07": {"download_link": "with a zero", "file_size": 2}})"));
  EXPECT_EQ(diffs, (std::map<int, DiffInfo>{{7, DiffInfo("with a zero", 2)}}));
}

TEST(DiffInfoBatchTest, BadMemberIsRefusedWithTheRecordsError) {
  for (const NamedValue& row : kEveryType) {
    Json::Value value = Parse(R"({"1": {"download_link": "a", "file_size": 1}})");
    value["2"] = Parse(row.text);
    EXPECT_EQ(ErrorOf([&] { DiffInfo::BatchFromJson(value); }),
              Thrown{"Invalid json object for DiffInfo"})
        << row.text;
  }
}

TEST(DiffInfoBatchTest, NamesAreConvertedLikeStoi) {
  const Json::Value diff = Parse(kDiffInfo.valid);
  for (const VersionText& row : kVersionTexts) {
    Json::Value value(Json::objectValue);
    value[row.text] = diff;
    const auto diffs = DiffInfo::BatchFromJson(value);
    ASSERT_EQ(diffs.size(), 1U) << row.text;
    EXPECT_EQ(diffs.begin()->first, row.version) << row.text;
  }
  for (const char* text : kNoNumbers) {
    Json::Value value(Json::objectValue);
    value[text] = diff;
    EXPECT_THROW(DiffInfo::BatchFromJson(value), std::invalid_argument) << text;
  }
  for (const char* text : kTooLarge) {
    Json::Value value(Json::objectValue);
    value[text] = diff;
    EXPECT_THROW(DiffInfo::BatchFromJson(value), std::out_of_range) << text;
  }
}

TEST(DiffInfoBatchTest, MemberIsReadBeforeItsNameIsConverted) {
  EXPECT_EQ(ErrorOf([] { DiffInfo::BatchFromJson(Parse(R"({"abc": 1})")); }),
            Thrown{"Invalid json object for DiffInfo"});
}

TEST(FileStatusTest, FieldIsPublic) {
  const FileStatus status("00ff");
  const auto& [sha384_digest] = status;
  EXPECT_EQ(&sha384_digest, &status.sha384_digest);
  EXPECT_EQ(sha384_digest, "00ff");
}

TEST(FileStatusTest, EveryMemberMustBeOfItsType) {
  ExpectEveryMemberIsChecked(kFileStatus);
}

TEST(FileStatusTest, AnythingButAnObjectIsRefused) {
  ExpectOnlyAnObjectIsTaken(kFileStatus);
}

TEST(FileStatusTest, OtherMembersAreIgnored) {
  ExpectOtherMembersAreIgnored(kFileStatus);
}

TEST(FileStatusTest, DigestIsKeptAsItIs) {
  for (const char* digest : {"", "00FF", " not a digest ", "00ff"}) {
    Json::Value value(Json::objectValue);
    value["sha384_digest"] = digest;
    EXPECT_EQ(FileStatus::FromJson(value).sha384_digest, digest);
    EXPECT_EQ(FileStatus::ToJson(FileStatus(digest)), value);
  }
}

TEST(FileStatusTest, DigestsAreComparedByteForByte) {
  EXPECT_TRUE(FileStatus("00ff") == FileStatus("00ff"));
  EXPECT_FALSE(FileStatus("00ff") != FileStatus("00ff"));
  EXPECT_FALSE(FileStatus("00ff") == FileStatus("00FF"));
  EXPECT_TRUE(FileStatus("00ff") != FileStatus("00FF"));
  EXPECT_TRUE(FileStatus("00ff") != FileStatus("00f"));
}

TEST(FileStatusBatchTest, HoldsOneEntryForEveryMember) {
  EXPECT_EQ(FileStatus::BatchFromJson(
                Parse(R"({"b/c": {"sha384_digest": "1"}, "a": {"sha384_digest": "2"}})")),
            (std::map<std::string, FileStatus>{{"a", FileStatus("2")}, {"b/c", FileStatus("1")}}));
  EXPECT_TRUE(FileStatus::BatchFromJson(Parse("{}")).empty());
}

TEST(FileStatusBatchTest, AnythingButAnObjectIsRefused) {
  for (const NamedValue& row : kEveryType) {
    if (row.kind != Kind::kObject) {
      EXPECT_EQ(ErrorOf([&] { FileStatus::BatchFromJson(Parse(row.text)); }),
                Thrown{"Invalid json object for FileStatuses"})
          << row.text;
    }
  }
}

TEST(FileStatusBatchTest, BadMemberIsRefusedWithTheRecordsError) {
  for (const NamedValue& row : kEveryType) {
    Json::Value value = Parse(R"({"a": {"sha384_digest": "1"}})");
    value["b"] = Parse(row.text);
    EXPECT_EQ(ErrorOf([&] { FileStatus::BatchFromJson(value); }),
              Thrown{"Invalid json object for FileStatus"})
        << row.text;
  }
}

TEST(FileStatusBatchTest, IsAlwaysWrittenAsAnObject) {
  EXPECT_EQ(FileStatus::BatchToJson({}), Json::Value(Json::objectValue));
  EXPECT_TRUE(FileStatus::BatchToJson({}).isObject());
  EXPECT_EQ(FileStatus::BatchToJson({{"a", FileStatus("1")}, {"b/c", FileStatus("2")}}),
            Parse(R"({"a": {"sha384_digest": "1"}, "b/c": {"sha384_digest": "2"}})"));
}

TEST(DatabaseStatusTest, FieldsArePublicInTheirOrder) {
  const DatabaseStatus status(42, 7, {{"a", FileStatus("1")}});
  const auto& [data_version, last_fetch_time, file_statuses] = status;
  EXPECT_EQ(&data_version, &status.data_version);
  EXPECT_EQ(&last_fetch_time, &status.last_fetch_time);
  EXPECT_EQ(&file_statuses, &status.file_statuses);
  EXPECT_EQ(data_version, 42);
  EXPECT_EQ(last_fetch_time, 7);
  EXPECT_EQ(file_statuses.size(), 1U);
}

TEST(DatabaseStatusTest, EveryMemberMustBeOfItsType) {
  ExpectEveryMemberIsChecked(kDatabaseStatus);
}

TEST(DatabaseStatusTest, AnythingButAnObjectIsRefused) {
  ExpectOnlyAnObjectIsTaken(kDatabaseStatus);
}

TEST(DatabaseStatusTest, OtherMembersAreIgnored) {
  ExpectOtherMembersAreIgnored(kDatabaseStatus);
}

TEST(DatabaseStatusTest, VersionAsANumberIsRefused) {
  EXPECT_EQ(ErrorOf([] {
              DatabaseStatus::FromJson(Parse(R"({"data_version": 42, "last_fetch_time": 7})"));
            }),
            Thrown{"Invalid json object for DatabaseStatus"});
}

TEST(DatabaseStatusTest, FetchTimeBeyondIntIsRefused) {
  EXPECT_EQ(
      ErrorOf([] {
        DatabaseStatus::FromJson(Parse(R"({"data_version": "42", "last_fetch_time": 4294967295})"));
      }),
      Thrown{"Invalid json object for DatabaseStatus"});
}

TEST(DatabaseStatusTest, VersionTextIsConvertedLikeStoi) {
  ExpectConversionLikeStoi(kDatabaseStatus, "data_version", [](const Json::Value& value) {
    return DatabaseStatus::FromJson(value).data_version;
  });
}

TEST(DatabaseStatusTest, AbsentOrWronglyTypedFilesReadAsNoFiles) {
  Json::Value value = Parse(R"({"data_version": "42", "last_fetch_time": 7})");
  EXPECT_EQ(DatabaseStatus::FromJson(value), DatabaseStatus(42, 7, {}));
  for (const NamedValue& row : kEveryType) {
    if (row.kind != Kind::kObject) {
      value["file_statuses"] = Parse(row.text);
      EXPECT_EQ(DatabaseStatus::FromJson(value), DatabaseStatus(42, 7, {})) << row.text;
    }
  }
}

TEST(DatabaseStatusTest, MissingFilesAreWrittenBackAsAnEmptyObject) {
  for (const char* text :
       {R"({"data_version": "42", "last_fetch_time": 7})",
        R"({"data_version": "42", "last_fetch_time": 7, "file_statuses": []})",
        R"({"data_version": "42", "last_fetch_time": 7, "file_statuses": null})"}) {
    const Json::Value written = DatabaseStatus::ToJson(DatabaseStatus::FromJson(Parse(text)));
    EXPECT_EQ(written,
              Parse(R"({"data_version": "42", "last_fetch_time": 7, "file_statuses": {}})"))
        << text;
  }
}

TEST(DatabaseStatusTest, BadFileIsRefusedWithItsRecordsError) {
  Json::Value value = Parse(R"({"data_version": "42", "last_fetch_time": 7})");
  for (const NamedValue& row : kEveryType) {
    value["file_statuses"]["a"] = Parse(row.text);
    EXPECT_EQ(ErrorOf([&] { DatabaseStatus::FromJson(value); }),
              Thrown{"Invalid json object for FileStatus"})
        << row.text;
  }
}

TEST(DatabaseStatusTest, FilesAreReadBeforeTheVersionIsConverted) {
  const Json::Value value =
      Parse(R"({"data_version": "abc", "last_fetch_time": 7, "file_statuses": {"a": 1}})");
  EXPECT_EQ(ErrorOf([&] { DatabaseStatus::FromJson(value); }),
            Thrown{"Invalid json object for FileStatus"});
}

TEST(DatabaseStatusTest, IsWrittenWithThreeMembersAndTheVersionAsText) {
  EXPECT_EQ(DatabaseStatus::ToJson(DatabaseStatus(42, 7, {{"a/b", FileStatus("1")}})),
            Parse(R"({"data_version": "42", "last_fetch_time": 7,
                      "file_statuses": {"a/b": {"sha384_digest": "1"}}})"));
}

TEST(DatabaseStatusTest, NeverInstalledHasVersionMinusOne) {
  EXPECT_EQ(DatabaseStatus(), DatabaseStatus(-1, 0, {}));
  EXPECT_EQ(DatabaseStatus::ToJson(DatabaseStatus())["data_version"], "-1");
}

TEST(DatabaseStatusTest, SurvivesTheRoundTrip) {
  const std::map<std::string, FileStatus> some_files = {
      {"", FileStatus("")},
      {"a", FileStatus("1")},
      {"b/c \"d\"", FileStatus(std::string(96, 'f'))}};
  for (const int number : {INT_MIN, -1, 0, 42, INT_MAX}) {
    for (const auto& files : {std::map<std::string, FileStatus>{}, some_files}) {
      const DatabaseStatus status(number, number, files);
      EXPECT_EQ(DatabaseStatus::FromJson(DatabaseStatus::ToJson(status)), status);
    }
  }
}

TEST(DatabaseStatusTest, EqualityLooksAtEveryField) {
  const FileStatus one("1");
  const FileStatus two("2");
  const DatabaseStatus status(1, 2, {{"a", one}, {"b", two}});
  EXPECT_TRUE(status == DatabaseStatus(1, 2, {{"b", two}, {"a", one}}));
  EXPECT_FALSE(status != DatabaseStatus(1, 2, {{"a", one}, {"b", two}}));
  const struct {
    const char* name;
    DatabaseStatus other;
  } rows[] = {
      {"version", DatabaseStatus(9, 2, {{"a", one}, {"b", two}})},
      {"fetch time", DatabaseStatus(1, 9, {{"a", one}, {"b", two}})},
      {"a file less", DatabaseStatus(1, 2, {{"a", one}})},
      {"a file more", DatabaseStatus(1, 2, {{"a", one}, {"b", two}, {"c", two}})},
      {"another name", DatabaseStatus(1, 2, {{"a", one}, {"c", two}})},
      {"another digest", DatabaseStatus(1, 2, {{"a", one}, {"b", one}})},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(status == row.other) << row.name;
    EXPECT_TRUE(status != row.other) << row.name;
  }
}

}  // namespace
}  // namespace tolm::dataupdate
