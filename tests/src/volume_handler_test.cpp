#include "dataupdate/volume_handler.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>

#include "tests/src/engine_support.h"
#include "tests/src/service_doubles.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"
#include "tolm/volume.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseConfig;
using dataupdate::UpdateError;
using dataupdate::VolumeHandler;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kMv[] = "/bin/mv";
constexpr char kMain1[] = "/volume1/@database/autoupdate";
constexpr char kMain2[] = "/volume2/@database/autoupdate";
constexpr char kOverflow[] = "Overflow detection, this may be caused by invalid configurations.";
constexpr unsigned long long kLargest = 9223372036854775807ULL;  // Of a signed 64-bit number.

class ReservingDatabase : public FakeDatabaseConfig {
 public:
  ReservingDatabase(const std::string& id, Journal& journal, unsigned long long reserve)
      : FakeDatabaseConfig(id, journal), id_(id), journal_(journal), reserve_(reserve) {}

  unsigned long long GetMinReservedSpaceInbytes() const override {
    journal_.push_back("reserve of " + id_);
    return reserve_;
  }

 private:
  std::string id_;
  Journal& journal_;
  unsigned long long reserve_;
};

// The service's settings in memory; writing fails where it is told to.
class VolumeSettings : public FakeServiceConfig {
 public:
  explicit VolumeSettings(Journal& journal) : FakeServiceConfig(journal), journal_(journal) {
    volume = "";
  }

  void Reserve(const std::string& id, unsigned long long bytes) {
    ids.push_back(id);
    databases_[id] = std::make_shared<ReservingDatabase>(id, journal_, bytes);
  }

  std::shared_ptr<DatabaseConfig> GetDatabaseConfig(const std::string& id) const override {
    return databases_.at(id);
  }
  std::string GetCurVolume() const override {
    if (read_error) {
      read_error();
    }
    return FakeServiceConfig::GetCurVolume();
  }
  void SetCurVolume(const std::string& path) const override {
    journal_.push_back("SetCurVolume '" + path + "'");
    if (refused == path) {
      throw UpdateError("Fail to set config config:cur_volume");
    }
    current = path;
    if (on_set) {
      on_set();
    }
  }

  std::function<void()> read_error;
  std::optional<std::string> refused;
  mutable std::optional<std::string> current;  // What was set.
  std::function<void()> on_set;

 private:
  std::map<std::string, std::shared_ptr<ReservingDatabase>> databases_;
  Journal& journal_;
};

// Answers in place of the handler's own choice, and knows what it was asked.
class OpinionatedHandler : public VolumeHandler {
 public:
  using VolumeHandler::VolumeHandler;
  bool IsSuitable(const void* record, long long required_bytes) const override {
    asked.push_back(*static_cast<const TOLMMountVolInfo*>(record));
    requirements.push_back(required_bytes);
    return answer();
  }

  std::function<bool()> answer = [] { return false; };
  mutable std::vector<TOLMMountVolInfo> asked;
  mutable std::vector<long long> requirements;
};

class VolumeHandlerTest : public ::testing::Test {
 protected:
  // Every line has its place in front. Only the platform logs as well, notices about programs.
  ~VolumeHandlerTest() override {
    for (const SyslogLine& line : SyslogCapture::Lines()) {
      if (line.priority == LOG_NOTICE) {
        continue;
      }
      EXPECT_THAT(line.format, StartsWith("%s:%d "));
      EXPECT_THAT(line.text, MatchesRegex("volume_handler:[0-9]+ .*"));
    }
  }

  // Every line: severity and text.
  static std::vector<std::string> Log() {
    std::vector<std::string> log;
    for (const SyslogLine& line : SyslogCapture::Lines()) {
      const char* const severity = line.priority == LOG_DEBUG     ? "debug"
                                   : line.priority == LOG_INFO    ? "info"
                                   : line.priority == LOG_WARNING ? "warning"
                                   : line.priority == LOG_ERR     ? "err"
                                                                  : "?";
      log.push_back(std::string(severity) + ": " + SyslogCapture::WithoutPlace(line.text));
    }
    return log;
  }

  static TOLMMountVolInfo Record(const std::string& path, std::uint64_t available) {
    TOLMMountVolInfo record{};
    path.copy(record.mount_path, sizeof record.mount_path - 1);
    record.flags = 1;
    record.is_local = 1;
    record.is_healthy = 1;
    record.available = available;
    return record;
  }

  Journal journal_;
  std::shared_ptr<VolumeSettings> settings_ = std::make_shared<VolumeSettings>(journal_);
  const VolumeHandler handler_ = VolumeHandler(settings_);
  FakePlatform platform_;
};

TEST_F(VolumeHandlerTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<VolumeHandler>);
  EXPECT_EQ(VtableSlot(&VolumeHandler::InitVolume), 2U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::UnmountVolumeEvent), 3U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::MountVolumeEvent), 4U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::FindSuitableVolume), 5U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::GetMainDirPath), 6U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::CreateDirectories), 7U);
  EXPECT_EQ(VtableSlot(&VolumeHandler::IsSuitable), 8U);
}

TEST_F(VolumeHandlerTest, MainDirectoryIsBelowTheVolume) {
  EXPECT_EQ(handler_.GetMainDirPath("/volume1"), kMain1);
  EXPECT_EQ(handler_.GetMainDirPath(""), "/@database/autoupdate");
  EXPECT_EQ(handler_.GetMainDirPath("/100%s"), "/100%s/@database/autoupdate");
}

TEST_F(VolumeHandlerTest, DatabasesMoveFromTheFirstMainDirectoryAskedForToTheSecond) {
  class AskedHandler : public VolumeHandler {
   public:
    using VolumeHandler::VolumeHandler;
    std::string GetMainDirPath(const std::string& volume) const override {
      asked.push_back(volume);
      return VolumeHandler::GetMainDirPath(volume);
    }
    mutable std::vector<std::string> asked;
  };
  settings_->volume = "/volume1";
  platform_.volumes = {{"/volume2", 10}};
  platform_.SetProgram(kMv, [](auto&) { return 0; });
  const AskedHandler handler(settings_);
  handler.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(handler.asked, ElementsAre("/volume1", "/volume2"));
}

// --- What has no text is logged as nothing

TEST_F(VolumeHandlerTest, FailureWithoutATextIsLoggedAsEmpty) {
  settings_->read_error = [] { throw dataupdate::Wordless(); };
  handler_.InitVolume();
  handler_.MountVolumeEvent("/volume1");
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre("err: Failed to init volume for the Autoupdate: ",
                                 "err: Ignoring the mount event of '/volume1': ",
                                 "err: Autoupdate failed to handle unmount volume event: "));
}

// --- Directories

TEST_F(VolumeHandlerTest, DirectoryIsMadeWithItsParents) {
  handler_.CreateDirectories("/tmp/a/b/c");
  EXPECT_TRUE(fs::is_directory("/tmp/a/b/c"));
}

TEST_F(VolumeHandlerTest, ExistingDirectoryIsSuccessAndKept) {
  WriteFile("/tmp/a/file", "kept");
  handler_.CreateDirectories("/tmp/a");
  EXPECT_EQ(ReadFile("/tmp/a/file"), "kept");
}

TEST_F(VolumeHandlerTest, LinkToADirectoryIsSuccess) {
  fs::create_directory("/tmp/a");
  fs::create_directory_symlink("a", "/tmp/link");
  handler_.CreateDirectories("/tmp/link");
  handler_.CreateDirectories("/tmp/link/b");
  EXPECT_TRUE(fs::is_directory("/tmp/a/b"));
}

TEST_F(VolumeHandlerTest, FileInTheWayOfADirectoryIsAFailure) {
  WriteFile("/tmp/file", "kept");
  EXPECT_THAT(UpdateErrorOf([&] { handler_.CreateDirectories("/tmp/file"); }),
              StartsWith("Failed to create '/tmp/file': "));
  EXPECT_EQ(UpdateErrorOf([&] { handler_.CreateDirectories("/tmp/file/a"); }),
            "Failed to create '/tmp/file/a': Not a directory");
  EXPECT_EQ(ReadFile("/tmp/file"), "kept");
}

TEST_F(VolumeHandlerTest, RefusedDirectoryIsAFailureWithTheSystemsReason) {
  const ScopedMount volume = ScopedMount::Tmpfs("/tmp/volume", 65536);
  volume.MakeReadOnly();
  EXPECT_EQ(UpdateErrorOf([&] { handler_.CreateDirectories("/tmp/volume/a/b"); }),
            "Failed to create '/tmp/volume/a/b': Read-only file system");
}

// --- Suitability

struct SuitabilityRow {
  const char* name;
  FakePlatform::Volume volume;
  long long required_bytes;
  bool suitable;
  bool policy_asked;
};

void PrintTo(const SuitabilityRow& row, std::ostream* out) {
  *out << row.name;
}

class VolumeSuitabilityTest : public VolumeHandlerTest,
                              public ::testing::WithParamInterface<SuitabilityRow> {};

TEST_P(VolumeSuitabilityTest, IsJudged) {
  const FakePlatform::Volume& volume = GetParam().volume;
  platform_.volumes = {volume};
  TOLMMountVolInfo record = Record(volume.mount_path, volume.available);
  record.flags = volume.flags;
  record.is_local = volume.is_local;
  record.is_healthy = volume.is_healthy;
  EXPECT_EQ(handler_.IsSuitable(&record, GetParam().required_bytes), GetParam().suitable);
  if (GetParam().policy_asked) {
    EXPECT_THAT(platform_.Calls(), ElementsAre("policy of /volume1"));
  } else {
    EXPECT_THAT(platform_.Calls(), IsEmpty());
  }
  EXPECT_THAT(journal_, IsEmpty()) << "the requirement was given";
}

constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Table, VolumeSuitabilityTest,
    ::testing::Values(
        SuitabilityRow{"Good", {"/volume1", 1000, 1, 1, 1, true}, 999, true, true},
        SuitabilityRow{"ExactlyEnough", {"/volume1", 1000, 1, 1, 1, true}, 1000, true, true},
        SuitabilityRow{"OneByteShort", {"/volume1", 999, 1, 1, 1, true}, 1000, false, true},
        SuitabilityRow{"NothingRequired", {"/volume1", 0, 1, 1, 1, true}, 0, true, true},
        SuitabilityRow{"MostRequired",
                       {"/volume1", kLargest, 1, 1, 1, true},
                       static_cast<long long>(kLargest),
                       true,
                       true},
        SuitabilityRow{"AvailableBeyond63Bits", {"/volume1", kHuge, 1, 1, 1, true}, 1, true, true},
        SuitabilityRow{"MoreFlags", {"/volume1", 1, 0xffffffff, 1, 1, true}, 1, true, true},
        SuitabilityRow{
            "LowestFlagMissing", {"/volume1", 1, 0xfffffffe, 1, 1, true}, 1, false, false},
        SuitabilityRow{"NoFlag", {"/volume1", 1, 0, 1, 1, true}, 1, false, false},
        SuitabilityRow{"NotAllowed", {"/volume1", 1, 1, 1, 1, false}, 1, false, true},
        SuitabilityRow{"NotLocal", {"/volume1", 1, 1, 0, 1, true}, 1, false, true},
        SuitabilityRow{"NotHealthy", {"/volume1", 1, 1, 1, 0, true}, 1, false, true},
        SuitabilityRow{"AnyNonZeroWillDo", {"/volume1", 1, 1, -1, 256, true}, 1, true, true}),
    [](const auto& row) { return row.param.name; });

TEST_F(VolumeHandlerTest, RequirementIsTheSumOverAllDatabases) {
  settings_->Reserve("x", 4294967295U);
  settings_->Reserve("y", 0);
  settings_->Reserve("z", 5);
  platform_.volumes = {{"/volume1"}};
  for (const long long not_computed : {-1LL, -2LL, std::numeric_limits<long long>::min()}) {
    journal_.clear();
    TOLMMountVolInfo record = Record("/volume1", 4294967300U);
    EXPECT_TRUE(handler_.IsSuitable(&record, not_computed));
    EXPECT_THAT(journal_,
                ElementsAre("GetDatabaseIDs", "reserve of x", "reserve of y", "reserve of z"));
    --record.available;
    EXPECT_FALSE(handler_.IsSuitable(&record, not_computed));
  }
}

TEST_F(VolumeHandlerTest, DatabasesThatReserveNothingFitAFullVolume) {
  settings_->Reserve("x", 0);
  settings_->Reserve("y", 0);
  platform_.volumes = {{"/volume1", 0}};
  EXPECT_EQ(handler_.FindSuitableVolume(""), "/volume1");
}

TEST_F(VolumeHandlerTest, LargestSumIsNoOverflow) {
  settings_->Reserve("x", kLargest - 1);
  settings_->Reserve("y", 1);
  platform_.volumes = {{"/volume1", kLargest}};
  EXPECT_EQ(handler_.FindSuitableVolume(""), "/volume1");
}

struct OverflowRow {
  const char* name;
  std::vector<unsigned long long> reserves;
};

class VolumeOverflowTest : public VolumeHandlerTest,
                           public ::testing::WithParamInterface<OverflowRow> {
 protected:
  void SetUp() override {
    int number = 0;
    for (const unsigned long long reserve : GetParam().reserves) {
      settings_->Reserve("x" + std::to_string(++number), reserve);
    }
    platform_.volumes = {{"/volume1", kHuge}, {"/volume2", kHuge}};
  }

  template <typename Call>
  static std::string RuntimeErrorOf(Call call) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "(nothing was thrown)";
  }
};

TEST_P(VolumeOverflowTest, EndsTheJudgement) {
  const TOLMMountVolInfo record = Record("/volume1", kHuge);
  EXPECT_EQ(RuntimeErrorOf([&] { handler_.IsSuitable(&record, -1); }), kOverflow);
}

TEST_P(VolumeOverflowTest, EndsTheSearchBeforeAnyVolumeIsListed) {
  EXPECT_EQ(RuntimeErrorOf([&] { handler_.FindSuitableVolume(""); }), kOverflow);
  EXPECT_THAT(platform_.Calls(), IsEmpty());
}

TEST_P(VolumeOverflowTest, IsAnErrorOfTheStart) {
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre(std::string("err: Failed to init volume for the Autoupdate: ") +
                                 kOverflow));
}

TEST_P(VolumeOverflowTest, IsAnErrorOfTheMountEvent) {
  handler_.MountVolumeEvent("/volume1");
  EXPECT_THAT(
      Log(), ElementsAre(std::string("err: Ignoring the mount event of '/volume1': ") + kOverflow));
}

TEST_P(VolumeOverflowTest, IsAnErrorOfTheUnmountEventAndLeavesNoVolume) {
  settings_->volume = "/volume1";
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(),
              ElementsAre(std::string("err: Autoupdate failed to handle unmount volume event: ") +
                          kOverflow));
  EXPECT_EQ(settings_->current, "");
}

INSTANTIATE_TEST_SUITE_P(Table, VolumeOverflowTest,
                         ::testing::Values(OverflowRow{"OneBeyond", {kLargest, 1}},
                                           OverflowRow{"BothLargest", {kLargest, kLargest}},
                                           OverflowRow{"OneAlone", {kLargest + 1}},
                                           OverflowRow{"InTheMiddle", {1, kLargest, 1}}),
                         [](const auto& row) { return row.param.name; });

// --- The choice

TEST_F(VolumeHandlerTest, FirstSuitableVolumeWinsWhateverTheOthersHave) {
  settings_->Reserve("x", 10);
  platform_.volumes = {{"/volume4", 9}, {"/volume3", 10}, {"/volume1", 1000000}};
  EXPECT_EQ(handler_.FindSuitableVolume(""), "/volume3");
  EXPECT_THAT(platform_.Calls(), ElementsAre("list volumes", "policy of /volume4",
                                             "policy of /volume3", "release volumes"));
}

TEST_F(VolumeHandlerTest, WithoutDatabasesTheFirstUsableVolumeWins) {
  platform_.volumes = {{"/volume2", 0, 0}, {"/volume3", 0}, {"/volume1", 1000}};
  EXPECT_EQ(handler_.FindSuitableVolume(""), "/volume3");
}

TEST_F(VolumeHandlerTest, ExcludedVolumeIsNotLookedAt) {
  platform_.volumes = {{"/volume1", 10}, {"/volume2", 10}};
  EXPECT_EQ(handler_.FindSuitableVolume("/volume1"), "/volume2");
  EXPECT_THAT(platform_.Calls(),
              ElementsAre("list volumes", "policy of /volume2", "release volumes"));
}

TEST_F(VolumeHandlerTest, ExclusionIsExact) {
  for (const char* excluded : {"/volume", "/volume10", "/volume1/", "/VOLUME1", ""}) {
    platform_.volumes = {{"/volume1", 10}};
    EXPECT_EQ(handler_.FindSuitableVolume(excluded), "/volume1") << excluded;
  }
}

TEST_F(VolumeHandlerTest, FailedListingIsAnErrorWithThePlatformsNumberInHexadecimal) {
  platform_.platform_error = 0xbeef;
  EXPECT_EQ(UpdateErrorOf([&] { handler_.FindSuitableVolume(""); }),
            "Failed to enum all volumes: beef");
  EXPECT_THAT(platform_.Calls(), ElementsAre("list volumes")) << "there is nothing to release";
}

TEST_F(VolumeHandlerTest, NoSuitableVolumeIsAnErrorAndTheListIsReleased) {
  platform_.volumes = {{"/volume1", 0, 0}, {"/volume2", 0, 1, 0}};
  EXPECT_EQ(UpdateErrorOf([&] { handler_.FindSuitableVolume(""); }),
            "Cannot find suitable volume.");
  EXPECT_THAT(platform_.Calls(),
              ElementsAre("list volumes", "policy of /volume2", "release volumes"));
}

TEST_F(VolumeHandlerTest, OnlyTheExcludedVolumeIsNone) {
  platform_.volumes = {{"/volume1", 10}};
  EXPECT_EQ(UpdateErrorOf([&] { handler_.FindSuitableVolume("/volume1"); }),
            "Cannot find suitable volume.");
}

TEST_F(VolumeHandlerTest, ListIsReleasedWhenJudgingAVolumeFails) {
  OpinionatedHandler handler(settings_);
  platform_.volumes = {{"/volume1", 10}, {"/volume2", 10}};
  const std::function<bool()> failures[] = {
      []() -> bool { throw UpdateError("x"); },
      []() -> bool { throw std::bad_alloc(); },
      []() -> bool { throw 5; },
  };
  for (const auto& failure : failures) {
    handler.answer = failure;
    EXPECT_ANY_THROW(handler.FindSuitableVolume(""));
    EXPECT_EQ(platform_.Calls().back(), "release volumes");
    EXPECT_THAT(platform_.volume_lists, IsEmpty());
  }
  EXPECT_EQ(platform_.Calls().size(), 6U) << "listed and released three times each";
}

TEST_F(VolumeHandlerTest, RequirementIsComputedOnceForAllVolumes) {
  settings_->Reserve("x", 7);
  OpinionatedHandler handler(settings_);
  platform_.volumes = {{"/volume1"}, {"/volume2"}, {"/volume3"}};
  EXPECT_THROW(handler.FindSuitableVolume("/volume2"), UpdateError);
  EXPECT_THAT(handler.requirements, ElementsAre(7, 7));
  EXPECT_THAT(journal_, ElementsAre("GetDatabaseIDs", "reserve of x"));
}

// --- The start

TEST_F(VolumeHandlerTest, StartWithAChosenVolumeAsksThePlatformNothing) {
  settings_->volume = "/volume1";
  handler_.InitVolume();
  EXPECT_THAT(platform_.Calls(), IsEmpty());
  EXPECT_THAT(journal_, ElementsAre("GetCurVolume"));
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_FALSE(fs::exists("/volume1/@database"));
}

TEST_F(VolumeHandlerTest, StartPreparesAndChoosesTheFirstSuitableVolume) {
  settings_->Reserve("x", 10);
  platform_.volumes = {{"/volume1", 9}, {"/volume2", 10}};
  bool prepared = false;
  settings_->on_set = [&] { prepared = fs::is_directory(kMain2); };
  handler_.InitVolume();
  EXPECT_TRUE(prepared) << "the directory comes before the choice";
  EXPECT_THAT(journal_, ElementsAre("GetCurVolume", "GetDatabaseIDs", "reserve of x",
                                    "SetCurVolume '/volume2'"));
  EXPECT_THAT(Log(), ElementsAre("warning: Autoupdate set the new volume at '/volume2'."));
  EXPECT_FALSE(fs::exists("/volume1/@database"));
}

TEST_F(VolumeHandlerTest, StartWithoutTheSettingIsSaidAndNothingElse) {
  settings_->volume_missing = true;
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre("info: Failed to init volume: section-key: "
                                 "'config'-'cur_volume' not found"));
  EXPECT_THAT(platform_.Calls(), IsEmpty());
}

TEST_F(VolumeHandlerTest, StartWithoutASuitableVolumeIsSaid) {
  platform_.volumes = {{"/volume1", 0, 0}};
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre("info: Failed to init volume: Cannot find suitable volume."));
  EXPECT_FALSE(settings_->current);
}

TEST_F(VolumeHandlerTest, StartWithAFailedListingIsSaid) {
  platform_.platform_error = 5;
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre("info: Failed to init volume: Failed to enum all volumes: 5"));
}

TEST_F(VolumeHandlerTest, StartChoosesNoVolumeThatCannotBePrepared) {
  WriteFile("/volume1/@database", "in the way");
  platform_.volumes = {{"/volume1", 10}, {"/volume2", 10}};
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre(std::string("info: Failed to init volume: Failed to create '") +
                                 kMain1 + "': Not a directory"));
  EXPECT_FALSE(settings_->current);
}

TEST_F(VolumeHandlerTest, StartWhoseChoiceCannotBeKeptIsSaid) {
  platform_.volumes = {{"/volume1", 10}};
  settings_->refused = "/volume1";
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre("info: Failed to init volume: Fail to set config "
                                 "config:cur_volume"));
}

TEST_F(VolumeHandlerTest, OtherExceptionsOfTheStartAreErrors) {
  settings_->read_error = [] { throw std::bad_alloc(); };
  handler_.InitVolume();
  EXPECT_THAT(Log(), ElementsAre("err: Failed to init volume for the Autoupdate: std::bad_alloc"));
}

// --- A volume was mounted

TEST_F(VolumeHandlerTest, MountWithAChosenVolumeIsOfNoInterest) {
  settings_->volume = "/volume1";
  for (const char* mounted : {"/volume2", "/volume1"}) {
    SyslogCapture::Clear();
    handler_.MountVolumeEvent(mounted);
    EXPECT_THAT(Log(), ElementsAre(std::string("debug: Ignoring the uninteresting event of '") +
                                   mounted + "'."));
  }
  EXPECT_THAT(platform_.Calls(), IsEmpty());
}

TEST_F(VolumeHandlerTest, MountOfAnUnknownVolumeIsAnError) {
  platform_.volumes = {{"/volume1", 10}};
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), ElementsAre("err: Failed to get volume info for '/volume2'."));
  EXPECT_THAT(platform_.Calls(), ElementsAre("describe /volume2"));
  EXPECT_FALSE(settings_->current);
}

TEST_F(VolumeHandlerTest, MountOfASuitableVolumePreparesAndChoosesItSilently) {
  settings_->Reserve("x", 10);
  platform_.volumes = {{"/volume1", 100}, {"/volume2", 10}};
  bool prepared = false;
  settings_->on_set = [&] { prepared = fs::is_directory(kMain2); };
  handler_.MountVolumeEvent("/volume2");
  EXPECT_TRUE(prepared) << "the directory comes before the choice";
  EXPECT_THAT(platform_.Calls(), ElementsAre("describe /volume2", "policy of /volume2"));
  EXPECT_THAT(journal_, ElementsAre("GetCurVolume", "GetDatabaseIDs", "reserve of x",
                                    "SetCurVolume '/volume2'"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(VolumeHandlerTest, MountOfAnUnsuitableVolumeIsIgnoredSilently) {
  settings_->Reserve("x", 11);
  platform_.volumes = {{"/volume2", 10}};
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_FALSE(settings_->current);
  EXPECT_FALSE(fs::exists("/volume2/@database"));
}

TEST_F(VolumeHandlerTest, MountedVolumeIsJudgedAsAListOfOneWithItsOwnRequirement) {
  OpinionatedHandler handler(settings_);
  platform_.volumes = {{"/volume2", 10}};
  handler.MountVolumeEvent("/volume2");
  ASSERT_EQ(handler.asked.size(), 1U);
  EXPECT_STREQ(handler.asked[0].mount_path, "/volume2");
  EXPECT_EQ(handler.asked[0].next, nullptr);
  EXPECT_THAT(handler.requirements, ElementsAre(-1));
}

TEST_F(VolumeHandlerTest, MountOfAVolumeThatCannotBePreparedIsAnError) {
  WriteFile("/volume2/@database", "in the way");
  platform_.volumes = {{"/volume2", 10}};
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), ElementsAre(std::string("err: Ignoring the mount event of '/volume2': "
                                             "Failed to create '") +
                                 kMain2 + "': Not a directory"));
  EXPECT_FALSE(settings_->current);
}

TEST_F(VolumeHandlerTest, MountWithoutReadableSettingsIsAnError) {
  settings_->volume_missing = true;
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), ElementsAre("err: Ignoring the mount event of '/volume2': section-key: "
                                 "'config'-'cur_volume' not found"));
}

TEST_F(VolumeHandlerTest, MountWhoseChoiceCannotBeKeptIsAnError) {
  platform_.volumes = {{"/volume2", 10}};
  settings_->refused = "/volume2";
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), ElementsAre("err: Ignoring the mount event of '/volume2': Fail to set config "
                                 "config:cur_volume"));
}

TEST_F(VolumeHandlerTest, OtherExceptionsOfTheMountEventAreErrors) {
  settings_->read_error = [] { throw std::bad_alloc(); };
  handler_.MountVolumeEvent("/volume2");
  EXPECT_THAT(Log(), ElementsAre("err: Ignoring the mount event of '/volume2': std::bad_alloc"));
}

// --- A volume is about to go away

class VolumeUnmountTest : public VolumeHandlerTest {
 protected:
  VolumeUnmountTest() {
    settings_->volume = "/volume1";
    MakeTree(kMain1, kDatabases);
    platform_.volumes = {{"/volume1", 10}, {"/volume2", 10}};
  }

  const Tree kDatabases = {{"x/", ""}, {"x/a", "1"}, {"y/", ""}, {"y/b", "2"}};
  const std::string kMoving =
      std::string("warning: Moving databases from ") + kMain1 + " to " + kMain2;
  const std::string kDisabled =
      "info: Autoupdate for DBs using volume is going to be disabled normally: ";
  const std::string kFailed = "err: Autoupdate failed to handle unmount volume event: ";
};

TEST_F(VolumeUnmountTest, OtherVolumesAreOfNoInterest) {
  for (const char* other : {"/volume2", "/volume1/", "/volume", ""}) {
    SyslogCapture::Clear();
    handler_.UnmountVolumeEvent(other);
    EXPECT_THAT(Log(), ElementsAre(std::string("debug: Ignoring the uninteresting event of '") +
                                   other + "'."));
  }
  EXPECT_THAT(platform_.Calls(), IsEmpty());
  EXPECT_FALSE(settings_->current);
}

TEST_F(VolumeUnmountTest, VolumeIsGivenUpBeforeAnotherIsLookedForAndTheMoveEndsBeforeItIsChosen) {
  platform_.SetProgram(kMv, [](const auto&) { return 0; });
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(journal_, ElementsAre("GetCurVolume", "SetCurVolume ''", "GetDatabaseIDs",
                                    "SetCurVolume '/volume2'"));
  EXPECT_THAT(Log(), ElementsAre(kMoving));
}

TEST_F(VolumeUnmountTest, MoveIsRunWithSourceAndTargetOnly) {
  std::vector<std::string> given;
  std::optional<std::string> chosen_meanwhile;
  bool parent_only = false;
  platform_.SetProgram(kMv, [&](const std::vector<std::string>& arguments) {
    given = arguments;
    chosen_meanwhile = settings_->current;
    parent_only = fs::is_directory("/volume2/@database") && !fs::exists(kMain2);
    return 0;
  });
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(given, ElementsAre(kMain1, kMain2));
  EXPECT_EQ(chosen_meanwhile, "") << "there is no volume while the databases move";
  EXPECT_TRUE(parent_only) << "the parent is made, the target is not";
  EXPECT_EQ(settings_->current, "/volume2");
  EXPECT_THAT(platform_.Calls(),
              ElementsAre("list volumes", "policy of /volume2", "release volumes",
                          std::string("run /bin/mv ") + kMain1 + " " + kMain2));
}

TEST_F(VolumeUnmountTest, RealMoveCrossesFileSystems) {
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_EQ(ReadTree(kMain2), kDatabases);
  EXPECT_FALSE(fs::exists(kMain1));
  EXPECT_EQ(settings_->current, "/volume2");
  EXPECT_THAT(Log(), ElementsAre(kMoving));
}

TEST_F(VolumeUnmountTest, EmptyTargetIsReplacedByTheMovedDirectory) {
  fs::create_directories(kMain2);
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_EQ(ReadTree(kMain2), kDatabases);
  EXPECT_EQ(settings_->current, "/volume2");
}

TEST_F(VolumeUnmountTest, FileOrLinkInTheTargetsPlaceIsReplaced) {
  WriteFile("/volume2/elsewhere/kept", "1");
  fs::create_directories("/volume2/@database");
  fs::create_directory_symlink("/volume2/elsewhere", kMain2);
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_FALSE(fs::is_symlink(kMain2));
  EXPECT_EQ(ReadTree(kMain2), kDatabases);
  EXPECT_EQ(ReadFile("/volume2/elsewhere/kept"), "1");
}

TEST_F(VolumeUnmountTest, TargetWithContentIsAnErrorAndNothingIsMoved) {
  WriteFile(std::string(kMain2) + "/x/other", "kept");
  handler_.UnmountVolumeEvent("/volume1");
  ASSERT_EQ(Log().size(), 2U);
  EXPECT_EQ(Log()[0], kMoving);
  EXPECT_THAT(Log()[1], StartsWith(kFailed));
  EXPECT_THAT(Log()[1], HasSubstr("Directory not empty"));
  EXPECT_THAT(Log()[1], HasSubstr(kMain2));
  EXPECT_EQ(settings_->current, "");
  EXPECT_THAT(platform_.Calls(), Not(Contains(StartsWith("run "))));
  EXPECT_EQ(ReadTree(kMain1), kDatabases);
  EXPECT_EQ(ReadFile(std::string(kMain2) + "/x/other"), "kept");
}

TEST_F(VolumeUnmountTest, ParentThatCannotBeMadeLeavesNoVolume) {
  WriteFile("/volume2/@database", "in the way");
  handler_.UnmountVolumeEvent("/volume1");
  ASSERT_EQ(Log().size(), 2U);
  EXPECT_EQ(Log()[0], kMoving);
  EXPECT_THAT(Log()[1], StartsWith(kDisabled + "Failed to create '/volume2/@database': "));
  EXPECT_EQ(settings_->current, "");
  EXPECT_EQ(ReadTree(kMain1), kDatabases);
}

TEST_F(VolumeUnmountTest, MoveThatCannotBeRunIsAnErrorAndLeavesNoVolume) {
  platform_.SetProgram(kMv, [](const auto&) { return -1; });
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kMoving, kFailed + "Failed to move databases."));
  EXPECT_EQ(settings_->current, "");
}

TEST_F(VolumeUnmountTest, MovesOwnExitStatusDoesNotCount) {
  for (const int status : {1, 127, 128 + 9}) {
    settings_->current.reset();
    SyslogCapture::Clear();
    platform_.SetProgram(kMv, [status](const auto&) { return status; });
    handler_.UnmountVolumeEvent("/volume1");
    EXPECT_EQ(settings_->current, "/volume2") << status;
    EXPECT_THAT(Log(), ElementsAre(kMoving));
  }
}

TEST_F(VolumeUnmountTest, WithoutAnotherSuitableVolumeThereIsNoneAndNothingIsMoved) {
  platform_.volumes[1].allowed = false;
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kDisabled + "Cannot find suitable volume."));
  EXPECT_EQ(settings_->current, "");
  EXPECT_EQ(ReadTree(kMain1), kDatabases);
  EXPECT_THAT(platform_.Calls(), Not(Contains(StartsWith("run "))));
}

TEST_F(VolumeUnmountTest, FailedListingLeavesNoVolume) {
  platform_.volumes.clear();
  platform_.platform_error = 12;
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kDisabled + "Failed to enum all volumes: c"));
  EXPECT_EQ(settings_->current, "");
}

TEST_F(VolumeUnmountTest, ChoiceThatCannotBeTakenBackStopsEverything) {
  settings_->refused = "";
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kDisabled + "Fail to set config config:cur_volume"));
  EXPECT_THAT(platform_.Calls(), IsEmpty());
  EXPECT_EQ(ReadTree(kMain1), kDatabases);
}

TEST_F(VolumeUnmountTest, NewChoiceThatCannotBeKeptLeavesNoVolume) {
  settings_->refused = "/volume2";
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kMoving, kDisabled + "Fail to set config config:cur_volume"));
  EXPECT_EQ(settings_->current, "");
}

TEST_F(VolumeUnmountTest, WithoutReadableSettingsNothingIsDone) {
  settings_->volume_missing = true;
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kDisabled + "section-key: 'config'-'cur_volume' not found"));
  EXPECT_THAT(platform_.Calls(), IsEmpty());
}

TEST_F(VolumeUnmountTest, OtherExceptionsAreErrors) {
  settings_->read_error = [] { throw std::bad_alloc(); };
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_THAT(Log(), ElementsAre(kFailed + "std::bad_alloc"));
}

TEST_F(VolumeUnmountTest, MissingDatabasesDoNotKeepTheVolume) {
  fs::remove_all("/volume1/@database");
  handler_.UnmountVolumeEvent("/volume1");
  EXPECT_EQ(settings_->current, "/volume2");
  EXPECT_FALSE(fs::exists(kMain2));
}

}  // namespace
}  // namespace tolm::testing
