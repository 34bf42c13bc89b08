#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "operation/doctor_looks.h"
#include "operation/download_limit.h"
#include "tests/operation/doctor_report.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tolm/volume.h"

namespace {

// The volume that the platform tells of, when a test wants that.
const TOLMMountVolInfo* told_volume = nullptr;
int told_policy = 1;
bool tells_types = true;

}  // namespace

// A file system that does not tell what an entry is, when a test wants that. Under a name of our
// own, since with large files the header gives two functions the same one.
extern "C" dirent* ReadEntry(DIR*) __asm__("readdir64");
dirent* ReadEntry(DIR* directory) {
  static auto* const read = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
  dirent* const entry = read(directory);
  if (entry != nullptr && !tells_types) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

int TOLMMountVolInfoGet(const char*, TOLMMountVolInfo* record) {
  if (told_volume == nullptr) {
    return -1;
  }
  *record = *told_volume;
  return 0;
}

int TOLMVolumeServicePolicy(const TOLMMountVolInfo*) {
  return told_policy;
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

using State = Finding::State;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;

constexpr char kPlugin[] = "/usr/tolm/lib/plugins/database_autoupdate/version_change/tell";

std::vector<Finding> FindingsOfPlugin(mode_t mode) {
  testing::WriteFile(kPlugin, "#!/bin/sh\n");
  EXPECT_EQ(chmod(kPlugin, mode), 0);
  const Service service;
  Findings findings;
  LookAtPlugins({service, 0}, findings);
  return findings.all();
}

TEST(DoctorGroundTest, PluginThatIsNotRunIsAProblem) {
  EXPECT_THAT(
      FindingsOfPlugin(0644),
      ElementsAre(AllOf(Field(&Finding::state, State::kProblem), Field(&Finding::subject, kPlugin),
                        Field(&Finding::message, "it is not run, since it is not executable"))));
}

TEST(DoctorGroundTest, PluginThatIsRunIsNone) {
  for (const mode_t mode : std::initializer_list<mode_t>{0755, 0700}) {
    EXPECT_THAT(FindingsOfPlugin(mode), Each(Field(&Finding::state, State::kOk)));
  }
}

TEST(DoctorGroundTest, PluginsThatAreRunAreCountedAndOthersPassedOver) {
  const fs::path directory = fs::path(kPlugin).parent_path();
  const Service service;
  const auto report = [&service] {
    Findings findings;
    LookAtPlugins({service, 0}, findings);
    return testing::Report(findings.all());
  };
  fs::remove_all(directory);
  EXPECT_EQ(report(), "ok plug-ins: there are none\n");
  for (const char* passed_over : {".hidden", "old~"}) {
    testing::WriteFile(directory / passed_over, "no program");
  }
  fs::create_directories(directory / "more");
  for (const mode_t mode : std::initializer_list<mode_t>{0700, 0601}) {
    const fs::path file = directory / std::to_string(mode);
    testing::WriteFile(file, "#!/bin/sh\n");
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
  }
  EXPECT_EQ(report(), "ok plug-ins: 2 would be run\n");
  fs::create_symlink("/nonexistent", directory / "dangling");
  EXPECT_THAT(report(), ::testing::StartsWith("problem plug-ins: " + directory.string()));
  fs::remove_all(directory);
  testing::WriteFile(directory, "");
  EXPECT_EQ(report(), "problem plug-ins: " + directory.string() + ": " + directory.string() +
                          ": Not a directory\n");
}

// ---- Volumes ----

class DoctorVolumeTest : public ::testing::Test {
 protected:
  DoctorVolumeTest() {
    testing::WriteFile(paths::kDatabaseDefaults,
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"},
                           "root": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
    testing::WriteFile(paths::kServiceDefaults,
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume1"}})");
    record_.is_local = 1;
    record_.is_healthy = 1;
    record_.flags = 1;
    record_.available = 5000;
    told_volume = &record_;
    told_policy = 1;
  }
  ~DoctorVolumeTest() override { told_volume = nullptr; }

  std::string ReportOfVolume(const std::vector<std::string>& names = {},
                             const std::string& volume = "/volume1",
                             bool has_settings = true) const {
    Patient patient{service_, 0};
    patient.has_settings = has_settings;
    patient.names = names;
    patient.volume = volume;
    Findings findings;
    LookAtVolume(patient, findings);
    return testing::Report(findings.all());
  }
  std::string ReportOfRoom(const std::optional<Json::Value>& offers) const {
    Patient patient{service_, 0};
    patient.names = {"oui"};
    patient.volume = "/volume1";
    patient.offers = offers;
    Findings findings;
    LookAtRoom(patient, findings);
    return testing::Report(findings.all());
  }

  const testing::ScopedMount volume_ = testing::ScopedMount::Tmpfs("/volume1", 20 << 20);
  const Service service_ = BuildService([](const std::string&) {});
  TOLMMountVolInfo record_{};
};

TEST_F(DoctorVolumeTest, EachReasonAgainstAVolumeIsTold) {
  EXPECT_EQ(ReportOfVolume(), "ok volume: /volume1: it is mounted, 5.0 kB free\n");
  const auto unfit = [](const std::string& why) {
    return "problem volume: /volume1: it " + why +
           "; mend that, or choose another: tolmdbud volume unmounting /volume1\n";
  };
  record_.is_local = 0;
  EXPECT_EQ(ReportOfVolume(), unfit("is a network volume"));
  record_.is_local = 1;
  record_.is_healthy = 0;
  EXPECT_EQ(ReportOfVolume(), unfit("does not answer"));
  record_.is_healthy = 1;
  record_.flags = 2;
  EXPECT_EQ(ReportOfVolume(), unfit("is mounted read-only"));
  record_.flags = 3;
  told_policy = 0;
  EXPECT_EQ(ReportOfVolume(), unfit("is closed to services by .no-services"));
  told_volume = nullptr;
  EXPECT_EQ(ReportOfVolume(),
            "problem volume: /volume1: it is chosen and not mounted, nothing is updated; mount "
            "it; when it is gone for good: tolmdbud volume unmounting /volume1\n");
  EXPECT_EQ(ReportOfRoom(std::nullopt), "");
}

TEST_F(DoctorVolumeTest, VolumeThatIsNotOwnGroundIsNoneToKeepDatabasesOn) {
  ASSERT_TRUE(fs::create_directory("/volume1/@database"));
  ASSERT_EQ(chmod("/volume1/@database", 0777), 0);
  EXPECT_EQ(ReportOfVolume(),
            "problem volume: /volume1/@database can be written by everybody; chmod go-w "
            "/volume1/@database\n");
}

TEST_F(DoctorVolumeTest, VolumeThatTellsNoTypesIsNoneToKeepDatabasesOn) {
  tells_types = false;
  const std::string report = ReportOfVolume();
  tells_types = true;
  EXPECT_EQ(report,
            "problem volume: /volume1: /volume1: the file system does not tell directories from "
            "files when it lists them; no database can be kept there; choose another volume\n");
}

TEST_F(DoctorVolumeTest, VolumeIsMissedOnlyByDatabasesThatAreKeptOnOne) {
  EXPECT_EQ(ReportOfVolume({"root", "nobody's"}, ""),
            "note volume: none is chosen, and no database is kept on one\n");
  EXPECT_EQ(ReportOfVolume({"root", "oui"}, ""),
            "problem volume: none is chosen, nothing is updated; tolmdbud init, which says what "
            "keeps it from choosing one\n");
  EXPECT_EQ(ReportOfVolume({}, "", false), "skipped volume: the settings do not tell it\n");
}

TEST_F(DoctorVolumeTest, RoomIsThatOfTheLargestDownloadAndNotAByteMore) {
  const std::uint64_t free = LimitFor("/volume1/x")->bytes;
  const auto offering = [](std::uint64_t bytes) {
    Json::Value offers;
    Json::Value& oui = offers["db_list"]["oui"];
    oui["data_version"] = "2";
    oui["last_fetch_time"] = 1;
    oui["deprecated"] = false;
    oui["download_link"] = "http://127.0.0.1:1/x";
    oui["diff_files"] = Json::Value(Json::objectValue);
    oui["file_size"] = Json::UInt64{bytes};
    return offers;
  };
  const std::string beyond = "19.9 MB free beyond the 5 % reserve";
  EXPECT_EQ(free, std::uint64_t{20 << 20} / 20 * 19);
  EXPECT_EQ(ReportOfRoom(std::nullopt), "ok room: /volume1: " + beyond + '\n');
  EXPECT_EQ(ReportOfRoom(offering(free)), "ok room: /volume1: " + beyond + '\n');
  EXPECT_EQ(ReportOfRoom(offering(free + 1)),
            "problem room: /volume1: 19.9 MB needed, " + beyond + "; make room there\n");
  testing::WriteFile("/volume1/full", std::string((20 << 20) - 8192, 'x'));
  EXPECT_EQ(ReportOfRoom(std::nullopt),
            "problem room: /volume1: 1 B needed, 0 B free beyond the 5 % reserve; make room "
            "there\n");
}

// ---- Rights ----

class DoctorRightsTest : public ::testing::Test {
 protected:
  DoctorRightsTest() {
    for (const char* directory : {paths::kStateDirectory, paths::kLockDirectory}) {
      fs::remove_all(directory);
      fs::create_directories(directory);
    }
  }

  static void Make(const std::string& file, mode_t mode, uid_t owner = 0) {
    testing::WriteFile(file, "");
    ASSERT_EQ(chmod(file.c_str(), mode), 0);
    ASSERT_EQ(chown(file.c_str(), owner, owner), 0);
  }
  static std::string Rights() {
    const Service service;
    Patient patient{service, 0};
    patient.names = {"oui"};
    Findings findings;
    LookAtRights(patient, findings);
    return testing::Report(findings.all());
  }

  const std::string locks_ = std::string(paths::kLockDirectory) + '/';
  const std::string state_ = std::string(paths::kStateDirectory) + '/';
  const std::string well_ = "ok rights: what operations stand on is root's alone\n";
  const std::string held_ = ": others can open it, and hold up every operation for ever; chmod ";
};

TEST_F(DoctorRightsTest, WhatIsMissingOrRootsAloneIsWell) {
  Make(locks_ + "a.lock", 0600);
  Make(locks_ + "using_a.lock", 0644);
  Make(locks_ + "notes.txt", 0666);
  Make(state_ + "history.jsonl", 0645);
  Make(state_ + "oui/version.json", 0644);
  Make(paths::kTrustState, 0600);
  fs::create_symlink(locks_ + "notes.txt", locks_ + "b.lock");
  EXPECT_EQ(Rights(), well_);
}

TEST_F(DoctorRightsTest, LockThatOthersOpenHoldsUpEveryOperation) {
  Make(locks_ + "a.lock", 0640);
  EXPECT_EQ(Rights(),
            "problem rights: " + locks_ + "a.lock" + held_ + "600 " + locks_ + "a.lock\n");
  Make(locks_ + "a.lock", 0701);
  EXPECT_EQ(Rights(),
            "problem rights: " + locks_ + "a.lock" + held_ + "700 " + locks_ + "a.lock\n");
}

TEST_F(DoctorRightsTest, ReadersLockMayBeReadAndNotWritten) {
  Make(locks_ + "using_a.lock", 0664);
  EXPECT_EQ(Rights(), "problem rights: " + locks_ +
                          "using_a.lock: others can write it; chmod 644 " + locks_ +
                          "using_a.lock\n");
}

TEST_F(DoctorRightsTest, GroupOfReadersMayOpenLocksWhereTheOperatorSaysSo) {
  testing::WriteFile(paths::kOperationSettings,
                     R"({"reader_group": "root", "reader_group_locks": "all"})");
  Make(locks_ + "a.lock", 0670);
  EXPECT_EQ(Rights(), well_);
  Make(locks_ + "a.lock", 0661);
  EXPECT_EQ(Rights(),
            "problem rights: " + locks_ + "a.lock" + held_ + "660 " + locks_ + "a.lock\n");
}

TEST_F(DoctorRightsTest, StateIsWrittenByRootAloneAndFloorsAreSecret) {
  Make(state_ + "oui/version.json", 0646);
  Make(state_ + "oui/installed.json", 0600, 1000);
  Make(paths::kTrustState, 0640);
  fs::permissions(state_ + "oui", fs::perms(0777));
  const std::string report = Rights();
  for (const std::string& line :
       {"problem rights: " + state_ + "oui can be written by everybody; chmod go-w " + state_ +
            "oui\n",
        "problem rights: " + state_ + "oui/version.json: others can write it; chmod 644 " + state_ +
            "oui/version.json\n",
        "problem rights: " + state_ + "oui/installed.json: it belongs to user 1000; chown root " +
            state_ + "oui/installed.json\n",
        std::string("problem rights: ") + paths::kTrustState +
            ": it is for root's eyes only; chmod 600 " + paths::kTrustState + '\n'}) {
    EXPECT_THAT(report, ::testing::HasSubstr(line));
  }
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 4) << report;
}

TEST_F(DoctorRightsTest, DirectoryThatOthersAddToIsNotOwnAndDamagedSettingsOpenNoLock) {
  ASSERT_EQ(chmod(paths::kStateDirectory, 01777), 0);
  EXPECT_EQ(Rights(), std::string("problem rights: ") + paths::kStateDirectory +
                          " can be written by everybody; chmod go-w " + paths::kStateDirectory +
                          '\n');
  ASSERT_EQ(chmod(paths::kStateDirectory, 0755), 0);
  testing::WriteFile(paths::kOperationSettings, "{");
  Make(locks_ + "a.lock", 0660);
  EXPECT_EQ(Rights(),
            "problem rights: " + locks_ + "a.lock" + held_ + "600 " + locks_ + "a.lock\n");
}

TEST_F(DoctorRightsTest, FileInPlaceOfADirectoryIsAProblem) {
  testing::WriteFile(state_ + "oui", "");
  const std::string report = Rights();
  EXPECT_THAT(report, ::testing::HasSubstr(state_ + "oui is no directory"));
  EXPECT_THAT(report, ::testing::HasSubstr("problem rights: " + state_ + "oui: " + state_ +
                                           "oui: Not a directory\n"));
}

}  // namespace
}  // namespace tolm::operation
