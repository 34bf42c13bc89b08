#include "publish/push.h"

#include <gmock/gmock.h>
#include <json/value.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "package/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/pushed.h"
#include "publish/remote.h"
#include "publish/repository.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/fake_rclone.h"
#include "tests/publish/release_fixture.h"

namespace {

std::function<void()> when_synced;
bool disk_fails = false;

}  // namespace

// Before the C library's, to see what is brought to a store's disk.
extern "C" int syncfs(int file) noexcept {
  if (when_synced) {
    when_synced();
  }
  if (disk_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_syncfs, file));
}

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// What rclone does with a folder, in a fiftieth of its time; that it does so is seen where the
// whole program pushes.
constexpr char kFolder[] = R"(case "$1" in
  backend) echo '{"Features": {"IsLocal": true, "BucketBased": false, "Move": true},'
           echo "\"Root\": \"$3\", \"Hashes\": [\"md5\"]}" ;;
  lsjson) cd "$6" && find . -type f -printf ',{"Path":"%P","Size":%s}' | sed '1s/^,/[/; $s/$/]/' |
            grep . || echo '[]' ;;
  copy) while read -r file; do
          mkdir -p "$3/${file%/*}" && cp "$2/$file" "$3/$file"
        done < "$5" ;;
  check) while read -r file; do
           cmp -s "$2/$file" "$3/$file" && echo "= $file" || echo "* $file"
         done < "$8" ;;
  delete) while read -r file; do rm "$2/$file"; done < "$4" ;;
esac
)";

/// A repository with a release of one file, and a folder as its store.
class PushStepsTest : public ReleaseFixture {
 protected:
  PushStepsTest() {
    InitRepository(NewRepository(), kNow);
    MakeRelease(
        NewRelease(), kNow, [](const std::string&) {},
        [this](const publish::Step& step) { released_.push_back(step); });
    std::filesystem::create_directory(Path("store"));
  }

  publish::PushRequest NewPush() const {
    publish::PushRequest request;
    request.repository = Path("repo");
    request.remote = Path("store");
    return request;
  }
  publish::PushReport Push(const publish::PushRequest& request, std::time_t now = kNow) {
    pushed_.clear();
    return publish::Push(
        request, now, [this](const std::string& note) { notes_.push_back(note); },
        [this](const publish::Step& step) {
          EXPECT_EQ(step.total, 0u) << step.what;
          if (pushed_.empty() || pushed_.back() != step.what) {
            EXPECT_EQ(step.done, 0u) << step.what;
            pushed_.push_back(step.what);
          }
        });
  }
  publish::PushReport Push() { return Push(NewPush()); }

  publish::PushPaths Own() const {
    return {publish::RepositoryPaths(Path("repo")), publish::Remote(Path("store")).Key()};
  }
  std::string InPublic(const std::string& path) const { return Path("repo/public/") + path; }
  std::string InStore(const std::string& path) const { return Path("store/") + path; }

  const FakeRclone rclone_{kFolder};
  std::vector<publish::Step> released_;
  std::vector<std::string> pushed_;
  std::vector<std::string> notes_;
};

constexpr char kPackage[] = "packages/oui/oui_v1000001";
constexpr char kOld[] = "packages/oui/oui_v1000000";
constexpr char kDescription[] = "database_info/1";

TEST_F(PushStepsTest, ListingTheStoreIsTheFirst) {
  EXPECT_THAT(Push().uploaded, ElementsAre("packages/oui/oui_v1000001"));
  ASSERT_THAT(pushed_, Not(IsEmpty()));
  EXPECT_EQ(pushed_.front(), "listing");
  EXPECT_THAT(Push().uploaded, IsEmpty());
  ASSERT_THAT(pushed_, Not(IsEmpty()));
  EXPECT_EQ(pushed_.front(), "listing");
}

TEST_F(PushStepsTest, HowMuchIsPackedIsNotKnownBefore) {
  std::vector<std::uint64_t> packed;
  std::vector<std::uint64_t> totals;
  for (const publish::Step& step : released_) {
    if (std::string(step.what) == "packing") {
      packed.push_back(step.done);
      totals.push_back(step.total);
    }
  }
  EXPECT_THAT(packed, ::testing::Contains(::testing::Gt(0u)));
  EXPECT_THAT(totals, AllOf(Not(IsEmpty()), Each(0u)));
}

TEST_F(PushStepsTest, EverythingThatWasDoneIsReportedAndRemembered) {
  const publish::PushReport first = Push();
  EXPECT_EQ(first.remote, Path("store"));
  EXPECT_THAT(first.uploaded, ElementsAre(kPackage));
  EXPECT_EQ(first.uploaded_bytes, std::filesystem::file_size(InPublic(kPackage)));
  EXPECT_EQ(first.proved, 1u);
  EXPECT_EQ(first.packages, 1u);
  EXPECT_TRUE(first.is_new_description);
  EXPECT_THAT(first.removed, IsEmpty());
  EXPECT_THAT(first.waiting, IsEmpty());
  EXPECT_THAT(pushed_,
              ElementsAre("listing", "uploading", "comparing", "replacing the description"));
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(ReadTree(Path("store")), ReadTree(Path("repo/public")));
  Json::Value expected;
  expected["format"] = 1;
  expected["remote"] = Path("store");
  expected["description"] = Sha384Hex(InPublic(kDescription));
  expected["pushed"] = Json::Int64(kNow);
  expected["packages"][kPackage]["proved"] = Sha384Hex(InPublic(kPackage));
  EXPECT_EQ(ReadFile(Own().File()), publish::FormatJson(expected));
  const std::string id = ReadFile(Own().Id());
  EXPECT_THAT(id, ::testing::MatchesRegex("[0-9a-f]{32}\n"));
  EXPECT_TRUE(std::filesystem::is_empty(Own().Work()));
  EXPECT_THAT(FakeRclone::Calls(),
              Contains(HasSubstr("--files-from-raw " + Own().Work() + "/files")));

  const publish::PushReport second = Push(NewPush(), kNow + 1);
  EXPECT_THAT(second.uploaded, IsEmpty());
  EXPECT_EQ(second.uploaded_bytes, 0u);
  EXPECT_EQ(second.proved, 0u);
  EXPECT_EQ(second.packages, 1u);
  EXPECT_FALSE(second.is_new_description);
  EXPECT_THAT(pushed_, ElementsAre("listing"));
  expected["pushed"] = Json::Int64(kNow + 1);
  EXPECT_EQ(ReadFile(Own().File()), publish::FormatJson(expected));
  EXPECT_EQ(ReadFile(Own().Id()), id) << "by which a mark is known as its own";
}

TEST_F(PushStepsTest, PackagesAreOnTheDiskOfAFolderBeforeTheDescriptionNamesThem) {
  std::vector<std::vector<std::string>> synced;
  when_synced = [&] {
    std::vector<std::string> there;
    for (const char* path : {kPackage, kDescription}) {
      if (std::filesystem::exists(InStore(path))) {
        there.emplace_back(path);
      }
    }
    synced.push_back(there);
    const Json::Value mark = publish::ReadJsonFile(InStore(".tolmdbpub-push"));
    EXPECT_EQ(mark["id"].asString() + '\n', ReadFile(Own().Id())) << "whose push it is";
  };
  Push();
  EXPECT_THAT(synced, ElementsAre(ElementsAre(kPackage), ElementsAre(kPackage, kDescription)));
  synced.clear();
  Push();
  EXPECT_THAT(synced, ElementsAre(ElementsAre(kPackage, kDescription)))
      << "whoever brought it there may not have";
  when_synced = nullptr;
}

TEST_F(PushStepsTest, DiskThatFailsEndsThePushBeforeTheDescription) {
  disk_fails = true;
  try {
    Push();
    ADD_FAILURE() << "was pushed";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.what(), Path("store") + ": Input/output error");
  }
  disk_fails = false;
  EXPECT_FALSE(std::filesystem::exists(InStore(kDescription)));
  EXPECT_FALSE(std::filesystem::exists(Own().File())) << "nothing counts as brought";
  EXPECT_THAT(Push().uploaded, IsEmpty()) << "what was brought all the same is proved";
}

TEST_F(PushStepsTest, DryRunReportsWhatWouldBeDoneAndDoesNothing) {
  publish::PushRequest dry = NewPush();
  dry.dry_run = true;
  const Tree before = ReadTree(Path("repo"));
  const publish::PushReport first = Push(dry);
  EXPECT_EQ(first.remote, Path("store"));
  EXPECT_THAT(first.uploaded, ElementsAre(kPackage));
  EXPECT_EQ(first.uploaded_bytes, std::filesystem::file_size(InPublic(kPackage)));
  EXPECT_EQ(first.proved, 0u);
  EXPECT_EQ(first.packages, 1u);
  EXPECT_TRUE(first.is_new_description);
  EXPECT_THAT(pushed_, ElementsAre("listing"));
  EXPECT_EQ(ReadTree(Path("repo")), before);
  EXPECT_TRUE(std::filesystem::is_empty(Path("store")));
  Push();
  const publish::PushReport second = Push(dry);
  EXPECT_THAT(second.uploaded, IsEmpty());
  EXPECT_FALSE(second.is_new_description);
}

TEST_F(PushStepsTest, WhatWasProvedIsProvedAgainOnlyWhenThatIsAskedFor) {
  Push();
  ChangeByte(InStore(kPackage), 20);
  EXPECT_EQ(Push().proved, 0u);
  publish::PushRequest again = NewPush();
  again.again = true;
  const publish::PushReport repaired = Push(again);
  EXPECT_THAT(repaired.uploaded, ElementsAre(kPackage));
  EXPECT_EQ(repaired.proved, 2u) << "before and after";
  EXPECT_THAT(pushed_, ElementsAre("listing", "comparing", "uploading", "comparing"));
  EXPECT_EQ(Push(again).proved, 1u);
  EXPECT_THAT(pushed_, ElementsAre("listing", "comparing"));
  EXPECT_EQ(ReadFile(InStore(kPackage)), ReadFile(InPublic(kPackage)));
}

TEST_F(PushStepsTest, WhatNobodyHasProvedIsProvedAndReplacedOnlyWhereItDiffers) {
  std::filesystem::create_directories(InStore("packages/oui"));
  std::filesystem::copy_file(InPublic(kPackage), InStore(kPackage));
  const publish::PushReport right = Push();
  EXPECT_THAT(right.uploaded, IsEmpty());
  EXPECT_EQ(right.proved, 1u);
  EXPECT_EQ(Push().proved, 0u) << "it is remembered";
  std::filesystem::remove(Own().File());
  WriteFile(InStore(kPackage), "of another size");
  const publish::PushReport wrong = Push();
  EXPECT_THAT(wrong.uploaded, ElementsAre(kPackage));
  EXPECT_EQ(wrong.proved, 1u) << "what has another size need not be compared before";
  EXPECT_EQ(ReadFile(InStore(kPackage)), ReadFile(InPublic(kPackage)));
}

TEST_F(PushStepsTest, WhatIsNeededNoMoreIsRemovedWhenTheGraceTimeIsOver) {
  constexpr std::time_t kDay = 24 * 60 * 60;
  WriteFile(InStore(kOld), "x");
  WriteFile(InStore("packages/oui/notes"), "x");
  EXPECT_THAT(Push().waiting, ElementsAre(kOld));
  const publish::PushReport before = Push(NewPush(), kNow + kDay - 1);
  EXPECT_THAT(before.waiting, ElementsAre(kOld));
  EXPECT_THAT(before.removed, IsEmpty());
  publish::PushRequest longer = NewPush();
  longer.grace_days = 2;
  EXPECT_THAT(Push(longer, kNow + kDay).removed, IsEmpty());
  EXPECT_EQ(publish::LoadPushed(Own()).gone, (std::map<std::string, std::int64_t>{{kOld, kNow}}))
      << "since the first push that did not need it";
  publish::PushRequest dry = NewPush();
  dry.dry_run = true;
  EXPECT_THAT(Push(dry, kNow + kDay).removed, ElementsAre(kOld));
  EXPECT_TRUE(std::filesystem::exists(InStore(kOld)));
  const publish::PushReport after = Push(NewPush(), kNow + kDay);
  EXPECT_THAT(after.removed, ElementsAre(kOld));
  EXPECT_THAT(after.waiting, IsEmpty());
  EXPECT_THAT(pushed_, ElementsAre("listing", "removing"));
  EXPECT_FALSE(std::filesystem::exists(InStore(kOld)));
  EXPECT_TRUE(std::filesystem::exists(InStore("packages/oui/notes")));
  EXPECT_THAT(publish::LoadPushed(Own()).gone, IsEmpty());
}

TEST_F(PushStepsTest, WhatAnotherDescriptionNamesWaitsWhateverLeadsThere) {
  publish::PushRequest at_once = NewPush();
  at_once.grace_days = 0;
  const std::string other = InStore("database_info/other");
  WriteFile(InStore("database_info/no-description"), "x");
  WriteFile(other, ReadFile(InPublic(kDescription)));
  ReplaceInFile(other, "oui_v1000001", "oui_v1000000");
  ReplaceInFile(other, "example.org", "another.example/prefix");
  WriteFile(InStore(kOld), "x");
  WriteFile(InStore("packages/oui/oui_v100000"), "x");
  const publish::PushReport report = Push(at_once);
  EXPECT_THAT(report.waiting, ElementsAre(kOld));
  EXPECT_THAT(report.removed, ElementsAre("packages/oui/oui_v100000"));
  EXPECT_TRUE(std::filesystem::exists(InStore(kOld)));
  ReplaceInFile(other, "http://another.example/prefix/", "/");
  EXPECT_THAT(Push(at_once).waiting, ElementsAre(kOld));
  std::filesystem::remove(other);
  EXPECT_THAT(Push(at_once).removed, ElementsAre(kOld));
}

TEST_F(PushStepsTest, DescriptionsLeftAsideAreRemovedAndNameNothing) {
  publish::PushRequest at_once = NewPush();
  at_once.grace_days = 0;
  const std::string aside = InStore("database_info/.tolmdbpub-new-0123");
  WriteFile(aside, ReadFile(InPublic(kDescription)));
  ReplaceInFile(aside, "oui_v1000001", "oui_v1000000");
  WriteFile(InStore(kOld), "x");
  WriteFile(InStore(".tolmdbpub-push-new-0123"), "another push's, on its way");
  const publish::PushReport report = Push(at_once);
  EXPECT_THAT(report.removed, ElementsAre(kOld)) << "of packages";
  EXPECT_FALSE(std::filesystem::exists(aside));
  EXPECT_TRUE(std::filesystem::exists(InStore(".tolmdbpub-push-new-0123")));
}

TEST_F(PushStepsTest, PackageThatIsNotTheReleasedOneStopsThePushBeforeTheStoreChanges) {
  ChangeByte(InPublic(kPackage), 20);
  ExpectError([&] { Push(); }, InPublic(kPackage) + ": is not what was released");
  EXPECT_TRUE(std::filesystem::is_empty(Path("store"))) << "its mark is gone, too";
  EXPECT_TRUE(std::filesystem::is_empty(Own().Work()));
}

TEST_F(PushStepsTest, NewerDescriptionThereStopsThePushBeforeAnythingIsUploaded) {
  WriteFile(InStore(kDescription), ReadFile(InPublic(kDescription)));
  ReplaceInFile(InStore(kDescription), "1000001", "1000002");
  const Tree before = ReadTree(Path("store"));
  ExpectError([&] { Push(); }, ::testing::HasSubstr("the description there is newer"));
  EXPECT_EQ(ReadTree(Path("store")), before);
}

TEST_F(PushStepsTest, WhatIsNoRepositoryIsNotPushed) {
  publish::PushRequest request = NewPush();
  request.repository = Path("tree");
  ExpectError([&] { Push(request); },
              ::testing::HasSubstr("no repository (made by \"init\") is there"));
  EXPECT_TRUE(std::filesystem::is_empty(Path("store")));
}

TEST_F(PushStepsTest, UploadedAreReportedInOrderAndOnlyWhatIsThereIsRemembered) {
  publish::ReleaseRequest another = NewRelease();
  another.name = "geo";
  MakeRelease(
      another, kNow, [](const std::string&) {}, [](const publish::Step&) {});
  const std::string geo = "packages/geo/geo_v1000001";
  std::filesystem::create_directories(InStore("packages/geo"));
  std::filesystem::copy_file(InPublic(geo), InStore(geo));
  ChangeByte(InStore(geo), 20);
  std::filesystem::create_directories(Own().Directory());
  publish::Pushed pushed;
  pushed.proved[kOld] = "1";
  SavePushed(Own(), pushed);
  EXPECT_THAT(Push().uploaded, ElementsAre(geo, kPackage));
  EXPECT_EQ(publish::LoadPushed(Own()).proved,
            (std::map<std::string, std::string>{{geo, Sha384Hex(InPublic(geo))},
                                                {kPackage, Sha384Hex(InPublic(kPackage))}}));
}

/// A push to a store that a shell script plays; what it holds is below /tmp/fakes/store.
class PlayedPushTest : public PushStepsTest {
 protected:
  /// @p commands come before its own, and see what it is asked for in their arguments.
  publish::PushReport PushTo(const std::string& commands, const std::string& features,
                             int grace_days = 1) {
    const FakeRclone rclone(
        "S=/tmp/fakes/store\nmkdir -p $S/database_info\n" + commands +
        "\ncase \"$1\" in\n  backend) echo '{\"Features\": {\"IsLocal\": false, " + features +
        "}, \"Hashes\": [\"md5\"]}' ;;\n" + R"(  lsjson) echo '[]' ;;
  copyto) cp "$2" "$S/${3#store:}" ;;
  moveto) mv "$S/${2#store:}" "$S/${3#store:}" ;;
  cat) cat "$S/${2#store:}" 2>/dev/null || exit 4 ;;
  check) sed 's/^/= /' "$8" ;;
  delete) while read -r file; do rm "$S/$file"; done < "$4" ;;
esac
)");
    publish::PushRequest request = NewPush();
    request.remote = "store:";
    request.grace_days = grace_days;
    return Push(request);
  }
  static constexpr char kBucket[] = R"("BucketBased": true, "Move": false)";
  static constexpr char kServer[] = R"("BucketBased": false, "Move": true)";
};

TEST_F(PlayedPushTest, RcloneHoldsTheLockAsLongAsItRuns) {
  EXPECT_TRUE(PushTo("readlink /proc/$$/fd/0 > /tmp/fakes/$1", kBucket).is_new_description);
  const publish::PushPaths own(publish::RepositoryPaths(Path("repo")),
                               publish::Sha384OfText("store:").substr(0, 32));
  for (const char* command : {"lsjson", "copy", "check", "copyto", "cat", "delete"}) {
    EXPECT_EQ(ReadFile(std::string("/tmp/fakes/") + command), own.Lock() + '\n') << command;
  }
  EXPECT_EQ(ReadTree("/tmp/fakes/store"),
            (Tree{{"database_info/", ""}, {kDescription, ReadFile(InPublic(kDescription))}}));
}

TEST_F(PlayedPushTest, OtherDescriptionsAloneAreReadForWhatTheyName) {
  const std::string list = R"([ "$1" != lsjson ] || { echo '[{"Path":"database_info/1","Size":2},
    {"Path":"database_info/other","Size":2},{"Path":"packages/oui/oui_v1000000","Size":1},
    {"Path":"packages/oui/notes","Size":1}]'; exit; }
    [ "$1" != cat ] || echo "$2" >> /tmp/read
    [ "$1" != delete ] || exit 0)";
  EXPECT_THAT(PushTo(list, kBucket, 0).removed, ElementsAre(kOld));
  std::istringstream lines(ReadFile("/tmp/read"));
  std::set<std::string> read;
  for (std::string line; std::getline(lines, line);) {
    read.insert(line);
  }
  EXPECT_THAT(read, ElementsAre("store:.tolmdbpub-push", "store:database_info/1",
                                "store:database_info/other"));
}

TEST_F(PlayedPushTest, PackagesThatAreNotThereAsTheyWereUploadedStopIt) {
  const std::string lying = R"([ "$1" != check ] || { sed 's/^/* /' "$8"; exit 1; })";
  const std::string none = "store:: packages/oui/oui_v1000001 is not there as it was uploaded";
  ExpectError([&] { PushTo(lying, kBucket); }, none);
  publish::ReleaseRequest another = NewRelease();
  another.name = "pci";
  MakeRelease(
      another, kNow, [](const std::string&) {}, [](const publish::Step&) {});
  ExpectError([&] { PushTo(lying, kBucket); }, none + ", nor are 1 more");
  EXPECT_THAT(ReadTree("/tmp/fakes/store"), ElementsAre(::testing::Pair("database_info/", "")))
      << "neither its description nor its mark";
}

TEST_F(PlayedPushTest, DescriptionIsNotTouchedWhenAnotherPushHasBegunMeanwhile) {
  ExpectError(
      [&] {
        PushTo(R"([ "$1" != copy ] || echo '{"id": "other", "owner": "there", "since": 1,
                                             "expires": 4102444800}' > $S/.tolmdbpub-push)",
               kBucket);
      },
      "store:: another push to it has begun at the same time");
  EXPECT_FALSE(std::filesystem::exists("/tmp/fakes/store/database_info/1"));
  EXPECT_TRUE(std::filesystem::exists("/tmp/fakes/store/.tolmdbpub-push")) << "the other one's";
}

TEST_F(PlayedPushTest, DescriptionThatIsNotThereAsItWasUploadedIsTold) {
  ExpectError(
      [&] {
        PushTo(
            R"(case "$1 $3" in "copyto store:database_info/1") echo x > "$S/${3#store:}"; exit ;; esac)",
            kBucket);
      },
      "store:: the description is not there as it was uploaded");
}

TEST_F(PlayedPushTest, GapWithoutADescriptionIsNoted) {
  EXPECT_TRUE(PushTo("", kServer).is_new_description);
  EXPECT_THAT(notes_, IsEmpty());
  std::filesystem::remove_all(Path("repo/state/pushed"));
  EXPECT_TRUE(
      PushTo(R"(case "$*" in *no-check-dest*) exit 1 ;; esac)", kServer).is_new_description);
  EXPECT_THAT(notes_,
              ElementsAre("store:: cannot put a file into another one's place, so that for a "
                          "moment there was no description"));
}

TEST_F(PlayedPushTest, DescriptionThatHasBecomeNewerMeanwhileStays) {
  WriteFile(Path("newer"), ReadFile(InPublic(kDescription)));
  ReplaceInFile(Path("newer"), "1000001", "1000002");
  ExpectError(
      [&] { PushTo("[ \"$1\" != copy ] || cp " + Path("newer") + " $S/database_info/1", kBucket); },
      ::testing::HasSubstr("the description there is newer: it offers oui 1000002"));
  EXPECT_EQ(ReadFile("/tmp/fakes/store/database_info/1"), ReadFile(Path("newer")));
  const publish::PushPaths own(publish::RepositoryPaths(Path("repo")),
                               publish::Sha384OfText("store:").substr(0, 32));
  EXPECT_EQ(publish::LoadPushed(own).proved.count(kPackage), 1u) << "what is there is remembered";
  EXPECT_EQ(publish::LoadPushed(own).pushed, 0);
}

}  // namespace
}  // namespace tolm::testing
