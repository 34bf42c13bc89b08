#include "operation/library_failure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>

#include "base/paths.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::operation {
namespace {

struct Row {
  std::string name;
  std::string message;
  std::string reason;
  std::string text;
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class LibraryFailureTest : public ::testing::TestWithParam<Row> {};

TEST_P(LibraryFailureTest, IsToldInWordsForPeople) {
  testing::WriteFile(paths::kDatabaseDefaults, R"({"oui": {}})");
  const auto failure = FailureIn(GetParam().message);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->reason, GetParam().reason);
  EXPECT_EQ(failure->text, GetParam().text);
}

const Row kRows[] = {
    {"DatabaseThatIsNotConfigured", "Project geo not supported", reasons::kUnknownDatabase,
     "there is no such database"},
    {"FileThatADiskDoesNotGiveToItsEnd", "Fail during reading for SHA digest", reasons::kOther,
     "an installed file cannot be read to its end"},
    {"DirectoryThatADiskDoesNotGive", "Input/output error", reasons::kOther,
     "a directory cannot be read: Input/output error"},
    {"DirectoryThatADiskDoesNotGiveToAnUpdate", "Fail to update: Input/output error",
     reasons::kOther, "Fail to update: a directory cannot be read: Input/output error"},
    {"DirectoryThatADiskDoesNotGiveToAnInstallation", "Fail to install: Input/output error",
     reasons::kOther, "Fail to install: a directory cannot be read: Input/output error"},
    {"VolumeThatIsFull", "write /volume1/x: No space left on device", reasons::kNoRoom,
     "write /volume1/x: No space left on device"},
    {"DescriptionThatIsNoJson", "Fail to decode: /var/cache/data_update/database_info.json",
     reasons::kDescriptionDamaged, "the description of the server is no JSON"},
    {"DescriptionThatIsRefused",
     "Fail to decode: /var/cache/data_update/database_info.json (too deep)",
     reasons::kDescriptionDamaged, "the description of the server is refused: too deep"},
    {"AnotherFileThatIsDamaged", "Fail to decode: /tmp/x", reasons::kOther, "/tmp/x is damaged"},
    {"AnotherMissingFile", "File not exist: /tmp/x", reasons::kOther, "/tmp/x is missing"},
};
INSTANTIATE_TEST_SUITE_P(Texts, LibraryFailureTest, ::testing::ValuesIn(kRows), NameOf);

TEST(LibraryFailureTextTest, WhatSaysNoMoreIsLeftAsItIs) {
  EXPECT_FALSE(FailureIn("anything else"));
  EXPECT_FALSE(FailureIn("Input/output error while waiting"));
  EXPECT_FALSE(FailureIn("Project geo"));
}

// On a device with settings, one lock that is held and a volume that is full.
class LibraryTextTest : public ::testing::Test {
 protected:
  LibraryTextTest() {
    testing::WriteFile(paths::kServiceDefaults,
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume1"}})");
    testing::WriteFile(paths::kDatabaseDefaults, R"({"oui": {}})");
  }

  static std::string LineFor(const std::string& message) {
    const std::optional<Failure> failure = FailureIn(message);
    return failure ? failure->reason + ": " + LineOf("", *failure) : "nothing";
  }
};

const std::string kAnew = "; \"tolmdbpub install-config\" makes it anew";

struct TextRow {
  const char* message;
  std::string line;
};

TEST_F(LibraryTextTest, EveryTextIsToldInWordsForPeople) {
  const std::string right_server =
      "; is that the right server (db_netloc in /usr/share/data_update/data_update.conf)? The "
      "publisher's \"tolmdbpub check\" tells what it has";
  for (
      const TextRow& row : {
          TextRow{"Fail to wget url: http://h/x", "download-failed: http://h/x was not downloaded"},
          {"Fail to decode: /usr/share/data_update/data_update.conf",
           "configuration-damaged: /usr/share/data_update/data_update.conf is damaged" + kAnew},
          {"Fail to read: /usr/share/data_update/databases.conf (EIO)",
           "configuration-damaged: /usr/share/data_update/databases.conf cannot be read" + kAnew},
          {"Fail to read: /tmp/x (EIO)", "other: /tmp/x cannot be read"},
          {"File not exist: /usr/share/data_update/databases.conf",
           "not-configured: not configured: /usr/share/data_update/databases.conf is missing; see "
           "tolmdbpub install-config"},
          {"section-key: 'config'-'db_netloc' not found",
           "configuration-damaged: /usr/share/data_update/data_update.conf is damaged: "
           "config.db_netloc is missing" +
               kAnew},
          {"section-key: 'geo'-'format_version' not found",
           "configuration-damaged: /usr/share/data_update/databases.conf is damaged: "
           "geo.format_version is missing" +
               kAnew},
          {"section-key: 'geo-ip'-'format_version' not found",
           "configuration-damaged: /usr/share/data_update/databases.conf is damaged: "
           "geo-ip.format_version is missing" +
               kAnew},
          {"Invalid value 'HOME' for",
           "configuration-damaged: /usr/share/data_update/databases.conf or "
           "/usr/tolm/etc/data_update/databases.conf is damaged: install_dest is \"HOME\" and not "
           "%VOLUME% or %ROOTFS%" +
               kAnew},
          {"Bad type conversion",
           "configuration-damaged: a setting in /usr/share/data_update/data_update.conf or "
           "/usr/share/data_update/databases.conf is of the wrong type" +
               kAnew},
          {"Invalid json object for RemoteInfo",
           "description-damaged: the description from http://127.0.0.1:1 has no usable record of "
           "it" +
               right_server},
          {"Invalid json object for DiffInfo",
           "description-damaged: the description from http://127.0.0.1:1 has a damaged record of a "
           "delta for it" +
               right_server},
          {"Cannot find suitable volume.",
           "no-volume: no volume is suitable; \"tolmdbud volume show\" says why"},
          {"Disk space is too low",
           "no-room: no room: more is needed than is free beyond the 5 % reserve; make room there"},
          {"Fail to create dir /var/x/y", "other: /var/x/y cannot be made"},
          {"the version that the server offers is no number",
           "description-damaged: the description from http://127.0.0.1:1 is damaged: the version "
           "that the server offers is no number" +
               right_server},
          {"a version that the server offers a delta for is no number",
           "description-damaged: the description from http://127.0.0.1:1 is damaged: a version "
           "that the server offers a delta for is no number" +
               right_server},
          {"the answer from http://h/x is no JSON",
           "description-damaged: the answer from http://h/x is no JSON" + right_server},
          {"write /volume1/x: Disk quota exceeded",
           "no-room: write /volume1/x: Disk quota exceeded; make room there"},
          {"Project geo not supported",
           "unknown-database: there is no such database; configured: oui"},
          {"the Project geo not supported", "nothing"},
          {"geo not supported", "nothing"},
      }) {
    EXPECT_EQ(LineFor(row.message), row.line) << row.message;
  }
}

TEST_F(LibraryTextTest, DamagedSettingsAreToldWithWhatIsWrong) {
  const std::string file = "/usr/share/data_update/data_update.conf";
  for (const auto& [text, problem] : std::map<std::string, std::string>{
           {"{", "line 1, column 2: Missing '}' or object member name"},
           {"[]", "it holds no JSON object"}}) {
    testing::WriteFile(paths::kServiceDefaults, text);
    EXPECT_EQ(LineFor("Fail to decode: " + file),
              "configuration-damaged: " + file + " is damaged: " + problem + kAnew);
  }
}

TEST_F(LibraryTextTest, SectionOfTheOverridesAloneIsToldAsThat) {
  testing::WriteFile(paths::kDatabaseOverrides, R"({"geo": {}, "oui": {}, "config": {}})");
  EXPECT_EQ(LineFor("section-key: 'geo'-'format_version' not found"),
            "configuration-damaged: /usr/tolm/etc/data_update/databases.conf lists geo, which "
            "/usr/share/data_update/databases.conf does not have; take it out of the former");
  EXPECT_EQ(LineFor("section-key: 'oui'-'format_version' not found"),
            "configuration-damaged: /usr/share/data_update/databases.conf is damaged: "
            "oui.format_version is missing" +
                kAnew);
  EXPECT_EQ(LineFor("section-key: 'config'-'db_ver' not found"),
            "configuration-damaged: /usr/share/data_update/data_update.conf is damaged: "
            "config.db_ver is missing" +
                kAnew);
}

TEST_F(LibraryTextTest, TwentyConfiguredDatabasesAreNamed) {
  const auto configure = [](int count) {
    std::string sections = "{";
    for (int i = 10; i < 10 + count; ++i) {
      sections += (i == 10 ? "\"d" : ", \"d") + std::to_string(i) + "\": {}";
    }
    testing::WriteFile(paths::kDatabaseDefaults, sections + "}");
  };
  std::string all = "d10";
  for (int i = 11; i < 30; ++i) {
    all += ", d" + std::to_string(i);
  }
  const std::string begin =
      std::string(reasons::kUnknownDatabase) + ": there is no such database; configured: ";
  for (const auto& [count, names] : std::map<int, std::string>{
           {0, "none"}, {1, "d10"}, {2, "d10, d11"}, {20, all}, {21, all + ", ..."}}) {
    configure(count);
    EXPECT_EQ(LineFor("Project geo not supported"), begin + names);
  }
}

TEST_F(LibraryTextTest, LockThatIsNotHadIsToldWithThoseWhoHoldIt) {
  const std::string me = "process " + std::to_string(getpid()) + ", operation_libra";
  for (const char* name : {"update_oui.lock", "using_oui.lock"}) {
    const std::string lock = std::string("/run/data_update/") + name;
    testing::WriteFile(lock, "");
    const bool is_readers = name[1] == 's';
    const std::string begin =
        is_readers ? "readers do not let go of the database: " : "another operation does not end: ";
    const std::string end =
        is_readers ? "; end that process, or wait for it" : "; try again when that has ended";
    const std::string message = "Fail to lock " + lock + " (busy)";
    EXPECT_EQ(LineFor(message),
              "busy: " + begin + lock + " is held by nobody who is seen from here" + end);
    const testing::UniqueDescriptor first(open(lock.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(first.Get(), LOCK_SH | LOCK_NB), 0);
    EXPECT_EQ(LineFor(message), "busy: " + begin + lock + " is held by " + me + end);
  }
}

TEST_F(LibraryTextTest, DirectoryThatIsNotMadeIsNoRoomOnAFullVolumeOnly) {
  const auto volume = testing::ScopedMount::Tmpfs("/volume1", 1 << 20);
  EXPECT_EQ(LineFor("Fail to create dir /volume1/x/y"), "other: /volume1/x/y cannot be made");
  testing::WriteFile("/volume1/file", std::string(1000 << 10, 'x'));
  EXPECT_EQ(LineFor("Fail to create dir /volume1/x/y"),
            "no-room: no room on /volume1: more is needed than the 0 B free beyond the 5 % "
            "reserve; make room there");
}

class LibraryPlaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::WriteFile(paths::kServiceDefaults, R"({"config": {"cur_volume": "/volume1"}})");
  }

  static std::string LineFor(const std::string& message) {
    const std::optional<Failure> failure = FailureIn(message);
    return failure ? LineOf("oui", *failure) : "nothing";
  }
};

constexpr char kDisk[] = "; does a disk fail? \"dmesg\" tells";

TEST_F(LibraryPlaceTest, PlaceOfUnpackingIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: a directory for unpacking in /volume1/@tmp/data_update cannot be opened") +
      kDisk;
  EXPECT_EQ(LineFor("Failed to extract package at tolmarchive_init"), said);
  EXPECT_EQ(LineFor("Fail to force install: Failed to extract package at tolmarchive_init"), said);
}

TEST_F(LibraryPlaceTest, VolumeWhoseRoomCannotBeSeenIsNamedWhereTheLibraryDoesNot) {
  const std::string said =
      std::string("oui: whether there is room on /volume1 cannot be seen") + kDisk;
  EXPECT_EQ(LineFor("Invalid filesystem to testing space"), said);
  EXPECT_EQ(LineFor("Fail to get available space"), said);
}

}  // namespace
}  // namespace tolm::operation
