// Tests of the front object. InfoGetter, which stands in the same source, has a program of its own.

#include "dataupdate/update.h"

#include <gmock/gmock.h>
#include <json/json.h>
#include <syslog.h>

#include <memory>
#include <optional>

#include "dataupdate/updater.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/service_doubles.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::FakeTime;
using dataupdate::FileStatus;
using dataupdate::InfoGetter;
using dataupdate::RemoteInfo;
using dataupdate::Update;
using dataupdate::UpdateError;
using dataupdate::Updater;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kAnyLock[] = "/run/data_update/update_any.lock";
constexpr char kXLock[] = "/run/data_update/update_x.lock";
constexpr char kInstall[] = "/volume1/db/x";

// Writes down each call and whether both locks of x are held meanwhile; throws where it is told to.
class Steps {
 public:
  explicit Steps(Journal& journal) : journal_(journal) {}

  void Take(const std::string& step) const {
    journal_.push_back(step + (IsLocked(kAnyLock) && IsLocked(kXLock) ? " [locked]" : ""));
    if (!fails_.empty() && step.rfind(fails_, 0) == 0) {
      error_();
    }
  }
  void Fail(const std::string& step, std::function<void()> error) {
    fails_ = step;
    error_ = std::move(error);
  }

 private:
  Journal& journal_;
  std::string fails_;
  std::function<void()> error_;
};

class FakeInfoGetter : public InfoGetter {
 public:
  explicit FakeInfoGetter(const Steps& steps) : InfoGetter(nullptr, nullptr), steps_(steps) {}

  RemoteInfo GetRemoteInfo(const std::string& name) const override {
    steps_.Take("GetRemoteInfo " + name);
    return remote;
  }
  std::map<int, DiffInfo> GetDiffInfos(const std::string& name) const override {
    steps_.Take("GetDiffInfos " + name);
    return diffs;
  }
  DatabaseStatus GetDatabaseStatus(const std::string& name) const override {
    steps_.Take("GetDatabaseStatus " + name);
    return installed;
  }
  void SetDatabaseStatus(const std::string& name, const DatabaseStatus& status) const override {
    steps_.Take("SetDatabaseStatus " + name);
    stored[name] = status;
  }
  Json::Value GetDatabaseInfo() const override { throw std::logic_error("not the front's"); }
  std::string GetDatabaseUrl() const override { throw std::logic_error("not the front's"); }
  std::string GetQueryString() const override { throw std::logic_error("not the front's"); }

  RemoteInfo remote{5, 50, false, "http://host/x-5.pkg"};
  std::map<int, DiffInfo> diffs = {{5, DiffInfo("http://host/d5", 1)}};
  DatabaseStatus installed{4, 40, {}};
  mutable std::map<std::string, DatabaseStatus> stored;

 private:
  const Steps& steps_;
};

class FakeUpdater : public Updater {
 public:
  explicit FakeUpdater(const Steps& steps) : steps_(steps) {}

  DatabaseStatus Update(const std::string& name, const DatabaseStatus& installed,
                        const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                        const std::string& cur_volume, const std::string& install_prefix,
                        const std::string& root_directory) const override {
    steps_.Take("Update " + name);
    given = {installed, remote, diffs, cur_volume, install_prefix, root_directory};
    return result;
  }

  struct Arguments {
    DatabaseStatus installed;
    RemoteInfo remote;
    std::map<int, DiffInfo> diffs;
    std::string cur_volume;
    std::string install_prefix;
    std::string root_directory;
  };
  mutable std::optional<Arguments> given;
  DatabaseStatus result{5, 50, {{"a", FileStatus("digest")}}};

 private:
  const Steps& steps_;
};

class UpdateTest : public ::testing::Test {
 protected:
  // The log without the lines of the locks.
  static std::vector<std::string> Log(int severity) {
    std::vector<std::string> lines;
    for (const std::string& text : SyslogCapture::Texts(severity)) {
      if (text.rfind("file_lock:", 0) != 0) {
        EXPECT_THAT(text, StartsWith("update:"));
        lines.push_back(SyslogCapture::WithoutPlace(text));
      }
    }
    return lines;
  }

  static std::string Acquired(const std::string& path) {
    return "info file_lock: Acquire lock on file: " + path;
  }
  static std::string Released(const std::string& path) {
    return "info file_lock: Release lock on file: " + path;
  }

  Journal journal_;
  Steps steps_{journal_};
  std::shared_ptr<FakeInfoGetter> info_ = std::make_shared<FakeInfoGetter>(steps_);
  std::shared_ptr<FakeUpdater> updater_ = std::make_shared<FakeUpdater>(steps_);
  std::shared_ptr<FakeServiceConfig> config_ = std::make_shared<FakeServiceConfig>(journal_);
  const Update update_ = Update(updater_, info_, config_);
  FakePlatform platform_;
};

TEST_F(UpdateTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Update>);
  EXPECT_EQ(VtableSlot(&Update::UpdateAllProjects), 2U);
  EXPECT_EQ(VtableSlot(&Update::UpdateProject), 3U);
  EXPECT_EQ(VtableSlot(&Update::FixAllProjects), 4U);
  EXPECT_EQ(VtableSlot(&Update::FixProject), 5U);
  EXPECT_EQ(VtableSlot(&Update::ForceInstall), 6U);
  EXPECT_THROW(VtableSlot(&Update::OperateAllProjects), std::logic_error);
}

// --- One database: update

TEST_F(UpdateTest, UpdateAsksInOrderUnderBothLocksAndStoresTheNewState) {
  FakeDatabaseConfig& x = config_->Add("x");
  x.install_prefix = "/prefix";
  x.root_directory = "/root-directory";
  update_.UpdateProject("x");
  EXPECT_THAT(journal_,
              ElementsAre("CheckSupported x", "GetDatabaseStatus x [locked]",
                          "GetRemoteInfo x [locked]", "GetDiffInfos x [locked]",
                          "GetDatabaseConfig x", "GetCurVolume", "GetInstallPrefix",
                          "GetRootDirectory", "Update x [locked]", "SetDatabaseStatus x [locked]"));
  ASSERT_TRUE(updater_->given);
  EXPECT_EQ(updater_->given->installed, info_->installed);
  EXPECT_EQ(updater_->given->remote, info_->remote);
  EXPECT_EQ(updater_->given->diffs, info_->diffs);
  EXPECT_EQ(updater_->given->cur_volume, "/volume1");
  EXPECT_EQ(updater_->given->install_prefix, "/prefix");
  EXPECT_EQ(updater_->given->root_directory, "/root-directory");
  EXPECT_EQ(info_->stored.at("x"), updater_->result);
  EXPECT_THAT(platform_.Story(),
              ElementsAre(Acquired(kAnyLock), Acquired(kXLock), "warning update: Update x",
                          "warning update: Update x completed and succeed", Released(kXLock),
                          Released(kAnyLock)));
  EXPECT_TRUE(fs::exists(kAnyLock));
  EXPECT_TRUE(fs::exists(kXLock));
}

TEST_F(UpdateTest, UpToDateDatabaseIsLeftAloneWithoutAskingForTheVolume) {
  config_->Add("x");
  config_->volume_missing = true;
  for (const int installed : {5, 6}) {
    SCOPED_TRACE(installed);
    journal_.clear();
    SyslogCapture::Clear();
    info_->installed = DatabaseStatus(installed, 40, {});
    update_.UpdateProject("x");
    EXPECT_THAT(journal_, ElementsAre("CheckSupported x", "GetDatabaseStatus x [locked]",
                                      "GetRemoteInfo x [locked]", "GetDiffInfos x [locked]",
                                      "GetDatabaseConfig x"));
    EXPECT_EQ(SyslogCapture::Lines().size(), 5U);
    EXPECT_THAT(Log(LOG_INFO), ElementsAre("'x' has been up to date"));
    EXPECT_FALSE(IsLocked(kAnyLock));
    EXPECT_FALSE(IsLocked(kXLock));
  }
  EXPECT_THAT(info_->stored, IsEmpty());
}

TEST_F(UpdateTest, UpdateWithoutAVolumeEndsNormally) {
  config_->Add("x");
  config_->volume = "";
  update_.UpdateProject("x");
  EXPECT_THAT(Log(LOG_WARNING), ElementsAre("Update x", "There is no volume, stopping updating."));
  EXPECT_THAT(Log(LOG_INFO), IsEmpty());
  EXPECT_FALSE(updater_->given);
  EXPECT_THAT(info_->stored, IsEmpty());
}

TEST_F(UpdateTest, UnsupportedDatabaseIsRefusedBeforeAnyLock) {
  EXPECT_EQ(UpdateErrorOf([&] { update_.UpdateProject("y"); }), "Project y not supported");
  EXPECT_EQ(UpdateErrorOf([&] { update_.FixProject("y"); }), "Project y not supported");
  EXPECT_THAT(platform_.Story(), ElementsAre("info update: Update y fail: Project y not supported",
                                             "info update: Fix y fail: Project y not supported"));
  EXPECT_FALSE(fs::exists("/run/data_update"));
}

TEST_F(UpdateTest, FailureOfEachStepIsSaidAfterTheLocksAreReleased) {
  config_->Add("x");
  for (const char* step :
       {"GetDatabaseStatus", "GetRemoteInfo", "GetDiffInfos", "Update", "SetDatabaseStatus"}) {
    SCOPED_TRACE(step);
    SyslogCapture::Clear();
    steps_.Fail(step, [] { throw UpdateError("broken", UpdateError::kFileNotExist); });
    const dataupdate::Thrown thrown = dataupdate::ErrorOf([&] { update_.UpdateProject("x"); });
    EXPECT_EQ(thrown.message, "broken");
    EXPECT_EQ(thrown.code, UpdateError::kFileNotExist) << "the code is kept";
    const std::vector<SyslogLine> lines = SyslogCapture::Lines();
    ASSERT_GE(lines.size(), 3U);
    const auto text = [&](std::size_t from_end) {
      return SyslogCapture::WithoutPlace(lines[lines.size() - from_end].text);
    };
    EXPECT_EQ(text(3), std::string("Release lock on file: ") + kXLock);
    EXPECT_EQ(text(2), std::string("Release lock on file: ") + kAnyLock);
    EXPECT_EQ(text(1), "Update x fail: broken");
    EXPECT_EQ(lines.back().priority, LOG_INFO);
    EXPECT_EQ(lines.back().format, "%s:%d Update %s fail: %s");
    EXPECT_FALSE(IsLocked(kAnyLock));
    EXPECT_FALSE(IsLocked(kXLock));
    EXPECT_THAT(info_->stored, IsEmpty());
  }
}

TEST_F(UpdateTest, MissingVolumeSettingIsAFailureOfTheUpdate) {
  config_->Add("x");
  config_->volume_missing = true;
  EXPECT_EQ(UpdateErrorOf([&] { update_.UpdateProject("x"); }),
            "section-key: 'config'-'cur_volume' not found");
  EXPECT_THAT(Log(LOG_INFO),
              ElementsAre("Update x fail: section-key: 'config'-'cur_volume' not found"));
}

TEST_F(UpdateTest, OtherExceptionsPassUnsaid) {
  config_->Add("x");
  info_->installed = DatabaseStatus();
  steps_.Fail("GetRemoteInfo", [] { throw std::runtime_error("not one of ours"); });
  EXPECT_THROW(update_.UpdateProject("x"), std::runtime_error);
  EXPECT_THROW(update_.FixProject("x"), std::runtime_error);
  EXPECT_THROW(update_.ForceInstall("x", 0), std::runtime_error);
  EXPECT_THROW(update_.UpdateAllProjects(), std::runtime_error);
  EXPECT_THROW(update_.FixAllProjects(), std::runtime_error);
  EXPECT_THAT(Log(LOG_INFO), IsEmpty());
  EXPECT_THAT(Log(LOG_WARNING), IsEmpty());
  EXPECT_FALSE(IsLocked(kAnyLock));
  EXPECT_FALSE(IsLocked(kXLock));
}

struct LockRow {
  const char* name;
  const char* path;
  void (*operation)(const Update& update);
  const char* failure_line;  // Null: the operation says nothing itself.
};

class UpdateLockTest : public UpdateTest, public ::testing::WithParamInterface<LockRow> {};

const LockRow kLocks[] = {
    {"UpdateAny", kAnyLock, [](const Update& u) { u.UpdateProject("x"); }, "Update x fail: "},
    {"UpdateProject", kXLock, [](const Update& u) { u.UpdateProject("x"); }, "Update x fail: "},
    {"FixAny", kAnyLock, [](const Update& u) { u.FixProject("x"); }, "Fix x fail: "},
    {"FixProject", kXLock, [](const Update& u) { u.FixProject("x"); }, "Fix x fail: "},
    {"ForceAny", kAnyLock, [](const Update& u) { u.ForceInstall("x", 0); }, nullptr},
    {"ForceProject", kXLock, [](const Update& u) { u.ForceInstall("x", 0); }, nullptr},
};

TEST_P(UpdateLockTest, IsWaitedForTenMinutes) {
  config_->Add("x");
  const HeldLock other(GetParam().path, LOCK_EX);
  const FakeTime time;
  const std::string message = std::string("Fail to lock ") + GetParam().path;
  EXPECT_EQ(UpdateErrorOf([&] { GetParam().operation(update_); }), message);
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_THAT(time.Sleeps(), ::testing::Each(useconds_t{100000}));
  EXPECT_THAT(journal_, ::testing::Not(::testing::Contains(StartsWith("Get"))));
  if (GetParam().failure_line != nullptr) {
    EXPECT_THAT(Log(LOG_INFO), ElementsAre(GetParam().failure_line + message));
  } else {
    EXPECT_THAT(Log(LOG_INFO), IsEmpty());
  }
  if (GetParam().path != kAnyLock) {
    EXPECT_FALSE(IsLocked(kAnyLock)) << "released again";
  } else {
    EXPECT_FALSE(fs::exists(kXLock)) << "the lock of all comes first";
  }
}

TEST_P(UpdateLockTest, IsHadAsSoonAsItIsFree) {
  config_->Add("x");
  info_->installed = DatabaseStatus(5, 50, {});
  info_->remote.download_link = "http://host/5";
  platform_.OfferPackage("http://host/5", {{"a", "1"}});
  HeldLock other(GetParam().path, LOCK_EX);
  FakeTime time;
  time.on_sleep = [&] { other.Release(); };
  GetParam().operation(update_);
  EXPECT_EQ(time.Sleeps().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Operations, UpdateLockTest, ::testing::ValuesIn(kLocks),
                         [](const auto& row) { return row.param.name; });

TEST_F(UpdateTest, LocksOfOtherDatabasesAreNotTaken) {
  config_->Add("x");
  const HeldLock other("/run/data_update/update_y.lock", LOCK_EX);
  const HeldLock readers("/run/data_update/using_x.lock", LOCK_SH);
  const HeldLock refresh("/run/data_update/fresh_info.lock", LOCK_EX);
  const FakeTime time;
  update_.UpdateProject("x");
  EXPECT_THAT(time.Sleeps(), IsEmpty());
}

// --- One database: fix

TEST_F(UpdateTest, HealthyDatabaseIsLeftAloneWithoutAWord) {
  config_->Add("x");
  update_.FixProject("x");
  EXPECT_THAT(journal_, ElementsAre("CheckSupported x", "GetDatabaseStatus x [locked]",
                                    "GetRemoteInfo x [locked]", "GetDatabaseConfig x",
                                    "GetCurVolume", "GetInstallPrefix", "GetRootDirectory"));
  EXPECT_THAT(platform_.Story(), ElementsAre(Acquired(kAnyLock), Acquired(kXLock), Released(kXLock),
                                             Released(kAnyLock)));
}

TEST_F(UpdateTest, DamagedDatabaseIsReinstalledAndItsStateStored) {
  config_->Add("x");
  info_->installed = DatabaseStatus(4, 40, {{"a", FileStatus("other")}});
  platform_.OfferPackage("http://host/x-5.pkg", {{"a", "new"}});
  MakeTree(kInstall, {{"a", "damaged"}});
  update_.FixProject("x");
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
  EXPECT_EQ(info_->stored.at("x"),
            DatabaseStatus(5, 50, {{"a", FileStatus(Sha384Hex("/volume1/db/x/a"))}}));
  EXPECT_EQ(journal_.back(), "SetDatabaseStatus x [locked]");
  const std::vector<std::string> story = platform_.Story();
  ASSERT_GE(story.size(), 3U);
  EXPECT_THAT(std::vector<std::string>(story.end() - 3, story.end()),
              ElementsAre("warning update: Fix x completed and succeed", Released(kXLock),
                          Released(kAnyLock)));
  EXPECT_THAT(platform_.Calls(), ::testing::Contains("download http://host/x-5.pkg to "
                                                     "/volume1/@tmp/data_update/x_v5"));
}

TEST_F(UpdateTest, FailedFixIsSaidAfterTheLocksAreReleased) {
  config_->Add("x");
  info_->installed = DatabaseStatus();
  EXPECT_EQ(UpdateErrorOf([&] { update_.FixProject("x"); }),
            "Fail to wget url: http://host/x-5.pkg");
  EXPECT_THAT(info_->stored, IsEmpty());
  const std::vector<std::string> story = platform_.Story();
  ASSERT_GE(story.size(), 3U);
  EXPECT_THAT(std::vector<std::string>(story.end() - 3, story.end()),
              ElementsAre(Released(kXLock), Released(kAnyLock),
                          "info update: Fix x fail: Fail to wget url: http://host/x-5.pkg"));
  EXPECT_EQ(SyslogCapture::Lines().back().format, "%s:%d Fix %s fail: %s");
}

TEST_F(UpdateTest, FixKeepsTheErrorsCode) {
  config_->Add("x");
  for (const char* step : {"GetDatabaseStatus", "GetRemoteInfo"}) {
    steps_.Fail(step, [] { throw UpdateError("broken", UpdateError::kFileNotExist); });
    EXPECT_EQ(dataupdate::ErrorOf([&] { update_.FixProject("x"); }).code,
              UpdateError::kFileNotExist);
  }
  EXPECT_THAT(Log(LOG_INFO), ElementsAre("Fix x fail: broken", "Fix x fail: broken"));
}

TEST_F(UpdateTest, FixPassesAnEmptyVolumeOn) {
  config_->Add("x");
  config_->volume = "";
  info_->installed = DatabaseStatus();
  EXPECT_EQ(UpdateErrorOf([&] { update_.FixProject("x"); }),
            "Fail to wget url: http://host/x-5.pkg");
  EXPECT_THAT(platform_.Calls(), ElementsAre("mkdir /@tmp/data_update",
                                             "download http://host/x-5.pkg to "
                                             "/@tmp/data_update/x_v5"));
}

// --- One database: force install

TEST_F(UpdateTest, ForceInstallAsksInOrderUnderBothLocksAndStoresAStateWithoutFiles) {
  config_->Add("x");
  platform_.OfferPackage("http://host/x-5.pkg", {{"a", "new"}});
  MakeTree(kInstall, {{"survivor", "old"}});
  update_.ForceInstall("x", 0);
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}, {"survivor", "old"}}));
  EXPECT_THAT(journal_,
              ElementsAre("GetRemoteInfo x [locked]", "GetDatabaseConfig x", "GetCurVolume",
                          "GetInstallPrefix", "SetDatabaseStatus x [locked]"));
  EXPECT_EQ(info_->stored.at("x"), DatabaseStatus(5, 50, {}));
  EXPECT_THAT(Log(LOG_INFO), IsEmpty());
  EXPECT_THAT(Log(LOG_WARNING), IsEmpty());
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  EXPECT_EQ(platform_.Story().front(), Acquired(kAnyLock));
  EXPECT_EQ(platform_.Story().back(), Released(kAnyLock));
}

TEST_F(UpdateTest, ForceInstallChoosesTheVersionInTheLink) {
  struct Row {
    const char* name;
    int offered;
    const char* offered_link;
    int argument;
    int target;
    const char* link;
  };
  const Row rows[] = {
      {"newest", 20230105, "http://h/20230105/x-20230105.pkg", 0, 20230105,
       "http://h/20230105/x-20230105.pkg"},
      {"one before", 20230105, "http://h/20230105/x-20230105.pkg", -1, 20230104,
       "http://h/20230104/x-20230104.pkg"},
      {"the first", 5, "http://h/x-5.pkg", 1, 1, "http://h/x-1.pkg"},
      {"absolute", 20230105, "http://h/20230105/x-20230105.pkg", 7, 7, "http://h/7/x-7.pkg"},
      {"link without the version", 20230105, "http://h/latest.pkg", -1, 20230104,
       "http://h/latest.pkg"},
      {"below zero", 5, "http://h/x-5.pkg", -7, -2, "http://h/x--2.pkg"},
      {"exactly to zero", 5, "http://h/x-5.pkg", -5, 0, "http://h/x-0.pkg"},
      {"replaced text is not searched again", 1, "http://h/1-11.pkg", 11, 11,
       "http://h/11-1111.pkg"},
      {"every occurrence, the host's too", 5, "http://h5/55.pkg", 6, 6, "http://h6/66.pkg"},
      {"negative offer", -1, "http://h/x-1.pkg", 3, 3, "http://h/x3.pkg"},
  };
  config_->Add("x");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    info_->remote = RemoteInfo(row.offered, 50, false, row.offered_link);
    platform_.OfferPackage(row.link, {{"a", row.name}});
    update_.ForceInstall("x", row.argument);
    EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", row.name}}));
    EXPECT_EQ(info_->stored.at("x"), DatabaseStatus(row.target, 50, {}));
  }
}

TEST_F(UpdateTest, ForceInstallOfAVersionBelowEveryIntIsAnError) {
  constexpr int kLeast = std::numeric_limits<int>::min();
  config_->Add("x");
  info_->remote = RemoteInfo(-1, 50, false, "http://h/x.pkg");
  EXPECT_EQ(UpdateErrorOf([&] { update_.ForceInstall("x", kLeast); }),
            "No such version: -2147483649");
  info_->remote = RemoteInfo(0, 50, false, "http://h/x.pkg");
  platform_.OfferPackage("http://h/x.pkg", {{"a", "least"}});
  update_.ForceInstall("x", kLeast);
  EXPECT_EQ(info_->stored.at("x").data_version, kLeast);
}

TEST_F(UpdateTest, ForceInstallDoesNotAskWhetherTheDatabaseIsSupported) {
  config_->Add("x");
  config_->ids.clear();
  platform_.OfferPackage("http://host/x-5.pkg", {{"a", "new"}});
  update_.ForceInstall("x", 0);
  EXPECT_THAT(journal_, ::testing::Not(::testing::Contains(StartsWith("CheckSupported"))));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
}

TEST_F(UpdateTest, FailedForceInstallPassesUnsaidAndStoresNothing) {
  config_->Add("x");
  EXPECT_EQ(UpdateErrorOf([&] { update_.ForceInstall("x", 9); }),
            "Fail to wget url: http://host/x-9.pkg");
  platform_.OfferFile("http://host/x-5.pkg", "no package");
  EXPECT_EQ(UpdateErrorOf([&] { update_.ForceInstall("x", 0); }),
            "Fail to force install: tolmarchive_open /volume1/@tmp/data_update/x_debug failed, "
            "ret: 5");
  steps_.Fail("GetRemoteInfo", [] { throw UpdateError("no offer"); });
  EXPECT_EQ(UpdateErrorOf([&] { update_.ForceInstall("x", 0); }), "no offer");
  EXPECT_THAT(info_->stored, IsEmpty());
  EXPECT_THAT(Log(LOG_INFO), IsEmpty());
  EXPECT_THAT(Log(LOG_WARNING), IsEmpty());
  EXPECT_FALSE(IsLocked(kAnyLock));
  EXPECT_FALSE(IsLocked(kXLock));
}

// --- All databases

class UpdateAllTest : public UpdateTest {
 protected:
  std::vector<std::string> visited_;
  const std::function<void(const std::string&)> visit_ = [this](const std::string& name) {
    visited_.push_back(name);
  };
};

TEST_F(UpdateAllTest, EveryScheduledDatabaseIsVisitedInTheListsOrder) {
  config_->Add("c");
  config_->Add("a").scheduled = false;
  config_->Add("b");
  update_.OperateAllProjects(visit_);
  EXPECT_THAT(visited_, ElementsAre("c", "b"));
  EXPECT_THAT(journal_,
              ElementsAre("GetDatabaseIDs", "GetDatabaseConfig c", "GetScheduled", "GetCurVolume",
                          "GetDatabaseConfig a", "GetScheduled", "GetCurVolume",
                          "GetDatabaseConfig b", "GetScheduled", "GetCurVolume"));
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(UpdateAllTest, NoDatabasesMeanNoLocks) {
  update_.UpdateAllProjects();
  update_.FixAllProjects();
  EXPECT_THAT(journal_, ElementsAre("GetDatabaseIDs", "GetDatabaseIDs"));
  EXPECT_FALSE(fs::exists("/run/data_update"));
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(UpdateAllTest, NothingScheduledAndNoVolumeIsSilent) {
  config_->Add("a").scheduled = false;
  config_->Add("b").scheduled = false;
  config_->volume = "";
  update_.UpdateAllProjects();
  EXPECT_THAT(platform_.Story(), IsEmpty());
  EXPECT_FALSE(fs::exists("/run/data_update"));
}

TEST_F(UpdateAllTest, MissingVolumeStopsTheRunAtTheFirstScheduledDatabase) {
  config_->Add("a").scheduled = false;
  config_->Add("b");
  config_->Add("c");
  config_->volume = "";
  update_.OperateAllProjects(visit_);
  EXPECT_THAT(visited_, IsEmpty());
  EXPECT_THAT(journal_, ::testing::Not(::testing::Contains("GetDatabaseConfig c")));
  EXPECT_THAT(platform_.Story(),
              ElementsAre("warning update: There is no volume, stopping operation."));
}

TEST_F(UpdateAllTest, FailureEndsTheRunAndNamesTheDatabase) {
  config_->Add("a");
  config_->Add("b");
  config_->Add("c");
  const dataupdate::Thrown thrown = dataupdate::ErrorOf([&] {
    update_.OperateAllProjects([this](const std::string& name) {
      visit_(name);
      if (name == "b") {
        throw UpdateError("100% broken", UpdateError::kFileNotExist);
      }
    });
  });
  EXPECT_EQ(thrown.message, "Fail on project 'b': 100% broken");
  EXPECT_EQ(thrown.code, UpdateError::kGeneral) << "a new error";
  EXPECT_THAT(visited_, ElementsAre("a", "b"));
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(UpdateAllTest, FirstOfThreeStaysUpdatedWhenTheSecondFails) {
  config_->Add("a");
  config_->Add("b");
  config_->Add("c");
  steps_.Fail("Update b", [] { throw UpdateError("broken"); });
  EXPECT_EQ(UpdateErrorOf([&] { update_.UpdateAllProjects(); }), "Fail on project 'b': broken");
  ASSERT_EQ(info_->stored.size(), 1U);
  EXPECT_EQ(info_->stored.at("a"), updater_->result);
  EXPECT_THAT(journal_, ::testing::Not(::testing::Contains("CheckSupported c")));
  EXPECT_THAT(Log(LOG_INFO), ElementsAre("Update b fail: broken"));
}

TEST_F(UpdateAllTest, SettingsThatCannotBeReadNameTheDatabase) {
  config_->Add("a").scheduled = false;
  config_->volume_missing = true;
  EXPECT_EQ(UpdateErrorOf([&] { update_.UpdateAllProjects(); }),
            "Fail on project 'a': section-key: 'config'-'cur_volume' not found");
}

TEST_F(UpdateAllTest, EmptyOperationIsABadCall) {
  config_->Add("a");
  EXPECT_THROW(update_.OperateAllProjects({}), std::bad_function_call);
}

TEST_F(UpdateAllTest, EmptyOperationIsNotNoticedWhenNothingIsVisited) {
  config_->Add("a").scheduled = false;
  update_.OperateAllProjects({});
  EXPECT_THAT(journal_, ::testing::Contains("GetScheduled"));
}

TEST_F(UpdateAllTest, RunsOnAllGoThroughTheVirtualOperations) {
  struct Replaced : Update {
    using Update::Update;
    void UpdateProject(const std::string& name) const override {
      calls.push_back("update " + name);
    }
    void FixProject(const std::string& name) const override { calls.push_back("fix " + name); }
    mutable std::vector<std::string> calls;
  };
  config_->Add("a");
  config_->Add("b");
  const Replaced replaced(updater_, info_, config_);
  replaced.UpdateAllProjects();
  replaced.FixAllProjects();
  EXPECT_THAT(replaced.calls, ElementsAre("update a", "update b", "fix a", "fix b"));
}

TEST_F(UpdateAllTest, FailureInAFixOfAllNamesTheDatabase) {
  config_->Add("a");
  info_->installed = DatabaseStatus();
  EXPECT_EQ(UpdateErrorOf([&] { update_.FixAllProjects(); }),
            "Fail on project 'a': Fail to wget url: http://host/x-5.pkg");
  EXPECT_THAT(Log(LOG_INFO), ElementsAre("Fix a fail: Fail to wget url: http://host/x-5.pkg"));
}

}  // namespace
}  // namespace tolm::testing
