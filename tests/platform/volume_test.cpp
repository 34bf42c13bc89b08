#include "tolm/volume.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/scratch.h"
#include "tests/support/mounts.h"
#include "tolm/err.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kPatterns[] = "/usr/tolm/etc/volumes.conf";
constexpr std::uint64_t kSize = 1 << 20;

// What this program's fstatvfs and statx below do.
std::function<int(struct statvfs*)> on_fstatvfs;
std::atomic<int> fstatvfs_calls{0};
bool mount_numbers_unknown = false;

struct FreeList {
  void operator()(TOLMMountVolInfo* list) const { TOLMMountVolInfoFree(list); }
};
using List = std::unique_ptr<TOLMMountVolInfo, FreeList>;

List Enumerate() {
  return List(TOLMMountVolAllEnum(0, 1, 0));
}

std::vector<std::string> PathsOf(const List& list) {
  std::vector<std::string> paths;
  for (const TOLMMountVolInfo* record = list.get(); record != nullptr; record = record->next)
    paths.push_back(record->mount_path);
  return paths;
}

std::vector<std::string> Paths() {
  return PathsOf(Enumerate());
}

// The one record of that path, which must be a volume.
TOLMMountVolInfo Describe(const std::string& path) {
  TOLMMountVolInfo info{};
  EXPECT_EQ(TOLMMountVolInfoGet(path.c_str(), &info), 0) << path;
  return info;
}

int ErrorOfGet(const std::string& path) {
  const auto info = std::make_unique<TOLMMountVolInfo>();
  return TOLMMountVolInfoGet(path.c_str(), info.get()) == 0 ? 0 : TLIBCErrGet();
}

std::uint64_t AvailableAt(const std::string& path) {
  struct statvfs answer;
  EXPECT_EQ(statvfs(path.c_str(), &answer), 0);
  return std::uint64_t{answer.f_bavail} * answer.f_frsize;
}

// The kernel's mount table, changed line by line, in the real one's place.
class ChangedMountTable {
 public:
  explicit ChangedMountTable(const std::function<std::string(const std::string& line)>& change)
      : mount_(Write(change)) {}

 private:
  static ScopedMount Write(const std::function<std::string(const std::string& line)>& change) {
    std::string table;
    for (const std::string& line : ReadLines("/proc/self/mountinfo"))
      table += change(line) + "\n";
    WriteFile("/tmp/mountinfo", table);
    return ScopedMount::Bind("/tmp/mountinfo", "/proc/self/mountinfo");
  }

  ScopedMount mount_;
};

// The fields of a line: number, parent, device, root, mount point, its options, ..., "-", type,
// source, the file system's options.
std::string WithFields(const std::string& line, const std::string& mount_point,
                       const std::function<void(std::vector<std::string>& fields)>& change) {
  std::istringstream in(line);
  std::vector<std::string> fields;
  for (std::string field; in >> field;)
    fields.push_back(field);
  if (fields.at(4) != mount_point)
    return line;
  change(fields);
  std::string changed;
  for (const std::string& field : fields)
    changed += (changed.empty() ? "" : " ") + field;
  return changed;
}

std::string WithType(const std::string& line, const std::string& mount_point,
                     const std::string& type) {
  return WithFields(line, mount_point, [&](std::vector<std::string>& fields) {
    *(std::find(fields.begin(), fields.end(), "-") + 1) = type;
  });
}

// Every test has two volumes, /volume1 and /volume2.
class VolumeTest : public ::testing::Test {
 protected:
  VolumeTest() {
    on_fstatvfs = nullptr;
    fstatvfs_calls = 0;
    mount_numbers_unknown = false;
  }
};

// ---- Which are listed ----

TEST_F(VolumeTest, MountedVolumesAreListedInTheKernelsOrder) {
  const ScopedMount later = ScopedMount::Tmpfs("/volume20", kSize);
  const ScopedMount last = ScopedMount::Tmpfs("/volume10", kSize);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume20", "/volume10"));
}

TEST_F(VolumeTest, ReservedValuesHaveNoEffect) {
  EXPECT_THAT(PathsOf(List(TOLMMountVolAllEnum(1, 0, -1))), ElementsAre("/volume1", "/volume2"));
}

TEST_F(VolumeTest, UnmountedVolumeIsGone) {
  {
    const ScopedMount third = ScopedMount::Tmpfs("/volume3", kSize);
    EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume3"));
  }
  EXPECT_TRUE(fs::is_directory("/volume3"));
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
}

TEST_F(VolumeTest, MountBelowAVolumeIsNone) {
  const ScopedMount inner = ScopedMount::Tmpfs("/volume1/inner", kSize);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
}

TEST_F(VolumeTest, BoundDirectoryIsAMountPointAsWell) {
  fs::create_directory("/volume1/shown");
  const ScopedMount bound = ScopedMount::Bind("/volume1/shown", "/volume3");
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume3"));
  EXPECT_EQ(Describe("/volume3").available, AvailableAt("/volume1"));
}

TEST_F(VolumeTest, BoundFileIsNone) {
  WriteFile("/tmp/file", "no volume");
  const ScopedMount bound = ScopedMount::Bind("/tmp/file", "/volume3");
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
}

TEST_F(VolumeTest, OfSeveralMountsOnOnePlaceTheVisibleOneIsListed) {
  const ScopedMount below = ScopedMount::Tmpfs("/volume3", kSize);
  const ScopedMount other = ScopedMount::Tmpfs("/volume4", kSize);
  {
    const ScopedMount above = ScopedMount::Tmpfs("/volume3", 2 * kSize);
    EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume4", "/volume3"));
    EXPECT_EQ(Describe("/volume3").available, 2 * kSize);
  }
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume3", "/volume4"));
  EXPECT_EQ(Describe("/volume3").available, kSize);
}

TEST_F(VolumeTest, KernelWithoutMountNumbersIsBelievedToShowTheLastOne) {
  mount_numbers_unknown = true;
  const ScopedMount below = ScopedMount::Tmpfs("/volume3", kSize);
  const ScopedMount above = ScopedMount::Tmpfs("/volume3", 2 * kSize);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume3"));
  EXPECT_EQ(Describe("/volume3").available, 2 * kSize);
}

TEST_F(VolumeTest, MountHiddenBelowAnotherOneIsNotListed) {
  WriteFile(kPatterns, "/srv/pool/*\n");
  const ScopedMount hidden = ScopedMount::Tmpfs("/srv/pool/a", kSize);
  EXPECT_THAT(Paths(), ElementsAre("/srv/pool/a"));
  const ScopedMount above = ScopedMount::Tmpfs("/srv/pool", kSize);
  EXPECT_THAT(Paths(), IsEmpty()) << "nothing is there";
  EXPECT_EQ(ErrorOfGet("/srv/pool/a"), ENODEV);
  WriteFile("/srv/pool/a", "");
  EXPECT_THAT(Paths(), IsEmpty()) << "a file is there";
  fs::remove("/srv/pool/a");
  fs::create_directory("/srv/pool/a");
  EXPECT_THAT(Paths(), IsEmpty()) << "another directory is there";
  EXPECT_EQ(ErrorOfGet("/srv/pool/a"), ENODEV);
}

TEST_F(VolumeTest, EveryNameOfAMountPointIsReadAsItIs) {
  for (const char* path :
       {"/volume3 with blanks", "/volume3\ttab", "/volume3\nline", "/volume3\\040", "/volume3#",
        "/volume3\"'$(x)`", "/volume3\xc3\xa4", "/volume3\xff"}) {
    const ScopedMount mount = ScopedMount::Tmpfs(path, kSize);
    EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", path));
    EXPECT_EQ(Describe(path).available, kSize);
    EXPECT_NE(TOLMVolumeServicePolicy(&*Enumerate()), 0);
  }
}

struct LongPathRow {
  const char* name;
  std::size_t length;
  bool listed;
};

class VolumeLongPathTest : public VolumeTest, public ::testing::WithParamInterface<LongPathRow> {
 protected:
  // A directory, and a path of the wanted length to it. Longer paths than the system takes are
  // walked in steps.
  static UniqueDescriptor MakeDirectory(std::size_t length, std::string* path) {
    *path = "/tmp";
    UniqueDescriptor directory(open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC));
    while (path->size() < length) {
      std::size_t step = std::min<std::size_t>(length - path->size() - 1, 200);
      if (length - path->size() - 1 - step == 1)
        --step;  // Otherwise a name without a letter would be left.
      const std::string name(step, 'x');
      EXPECT_EQ(mkdirat(directory.Get(), name.c_str(), 0755), 0);
      directory =
          UniqueDescriptor(openat(directory.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      *path += "/" + name;
    }
    return directory;
  }
};

TEST_P(VolumeLongPathTest, IsListedWhenItFitsIntoARecord) {
  std::string path;
  const UniqueDescriptor directory = MakeDirectory(GetParam().length, &path);
  ASSERT_EQ(path.size(), GetParam().length);
  const std::string target = "/proc/self/fd/" + std::to_string(directory.Get());
  ASSERT_EQ(mount("tmpfs", target.c_str(), "tmpfs", 0, nullptr), 0);
  WriteFile(kPatterns, "/volume1\n" + path + "\n");
  if (GetParam().listed) {
    EXPECT_THAT(Paths(), ElementsAre("/volume1", path));
    EXPECT_EQ(Describe(path).is_healthy, 1);
    EXPECT_EQ(TOLMVolumeServicePolicy(std::make_unique<TOLMMountVolInfo>(Describe(path)).get()), 0)
        << "the mark's path is too long to be looked at";
  } else {
    EXPECT_THAT(Paths(), ElementsAre("/volume1"));
    EXPECT_EQ(ErrorOfGet(path), ENODEV);
    EXPECT_EQ(ErrorOfGet(path.substr(0, 4095)), ENODEV);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, VolumeLongPathTest,
                         ::testing::Values(LongPathRow{"Longest", 4095, true},
                                           LongPathRow{"OneTooLong", 4096, false},
                                           LongPathRow{"MuchTooLong", 6000, false}),
                         [](const auto& row) { return row.param.name; });

TEST_F(VolumeTest, WithoutAVolumeTheListIsNullAndSaysSo) {
  umount2("/volume1", MNT_DETACH);
  umount2("/volume2", MNT_DETACH);
  EXPECT_EQ(Enumerate(), nullptr);
  EXPECT_EQ(TLIBCErrGet(), ENODEV);
}

TEST_F(VolumeTest, UnreadableMountTableIsAFailure) {
  const ScopedMount no_proc = ScopedMount::Tmpfs("/proc", kSize);
  EXPECT_EQ(Enumerate(), nullptr);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_EQ(ErrorOfGet("/volume1"), ENOENT);
}

TEST_F(VolumeTest, SuccessLeavesTheLastErrorAlone) {
  EXPECT_EQ(ErrorOfGet("/nowhere"), ENODEV);
  EXPECT_EQ(TOLMMountVolInfoGet(nullptr, nullptr), -1);
  EXPECT_NE(Enumerate(), nullptr);
  Describe("/volume1");
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
}

TEST_F(VolumeTest, NoDescriptorStaysOpen) {
  const auto count = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = count();
  Paths();
  Describe("/volume1");
  ErrorOfGet("/nowhere");
  EXPECT_EQ(count(), before);
}

TEST_F(VolumeTest, ThreadsMayAskAtOnce) {
  const auto ask = [] {
    for (int i = 0; i < 20; ++i) {
      EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
      EXPECT_EQ(ErrorOfGet("/volume2"), 0);
    }
  };
  std::thread other(ask);
  ask();
  other.join();
}

TEST_F(VolumeTest, ReleasingNothingIsNothing) {
  TOLMMountVolInfoFree(nullptr);
}

// ---- Patterns ----

struct PatternRow {
  const char* name;
  const char* file;
  std::vector<std::string> listed;
};

class VolumePatternTest : public VolumeTest, public ::testing::WithParamInterface<PatternRow> {};

TEST_P(VolumePatternTest, ChooseTheVolumes) {
  const ScopedMount blank = ScopedMount::Tmpfs("/data disk", kSize);
  const ScopedMount hash = ScopedMount::Tmpfs("/#data", kSize);
  const ScopedMount plain = ScopedMount::Tmpfs("/mnt/a", kSize);
  const ScopedMount hidden = ScopedMount::Tmpfs("/mnt/.b", kSize);
  WriteFile(kPatterns, GetParam().file);
  EXPECT_EQ(Paths(), GetParam().listed);
  for (const char* path : {"/volume1", "/volume2", "/data disk", "/#data", "/mnt/a", "/mnt/.b"}) {
    const bool listed = std::count(GetParam().listed.begin(), GetParam().listed.end(), path) != 0;
    EXPECT_EQ(ErrorOfGet(path), listed ? 0 : ENODEV) << path;
  }
  if (GetParam().listed.empty()) {
    EXPECT_EQ(Enumerate(), nullptr);
    EXPECT_EQ(TLIBCErrGet(), ENODEV);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, VolumePatternTest,
    ::testing::Values(
        PatternRow{"EmptyFile", "", {}}, PatternRow{"OnlyALineEnd", "\n", {}},
        PatternRow{"OnlyComments", "# /volume1\n  # /volume2\n#\n", {}},
        PatternRow{"OnePath", "/volume2\n", {"/volume2"}},
        PatternRow{"WithoutLineEnd", "/volume2", {"/volume2"}},
        PatternRow{"CarriageReturn", "/volume2\r\n", {"/volume2"}},
        PatternRow{"BlanksAround", " \t/volume2 \t\n", {"/volume2"}},
        PatternRow{"CommentsBetween", "# one\n/volume1\n\n# two\n/mnt/a\n", {"/volume1", "/mnt/a"}},
        PatternRow{"OrderIsTheKernels",
                   "/mnt/a\n/volume2\n/volume1\n",
                   {"/volume1", "/volume2", "/mnt/a"}},
        PatternRow{"Twice", "/volume1\n/volume1\n/volume[1]\n", {"/volume1"}},
        PatternRow{"BlankInside", "/data disk\n", {"/data disk"}},
        PatternRow{"HashInside", "/#data\n", {"/#data"}},
        PatternRow{"HashAtTheEndOfALine", "/volume1 # the first\n", {}},
        PatternRow{"StarInAName", "/mnt/*\n", {"/mnt/a"}},
        PatternRow{"HiddenName", "/mnt/.*\n", {"/mnt/.b"}},
        PatternRow{"StarStopsAtASlash", "/m*\n", {}},
        PatternRow{"QuestionMark", "/volume?\n", {"/volume1", "/volume2"}},
        PatternRow{"Set", "/volume[13]\n", {"/volume1"}},
        PatternRow{"OtherThanASet", "/volume[!1]\n", {"/volume2"}},
        PatternRow{"Backslash", "/volume\\1\n/volume\\?\n", {"/volume1"}},
        PatternRow{"BeginningOnly", "/volume\n", {}},
        PatternRow{"SlashAtTheEnd", "/volume1/\n", {}}, PatternRow{"Relative", "volume1\n", {}},
        PatternRow{"OtherCase", "/VOLUME1\n", {}},
        PatternRow{"OpenSet", "/volume[1\n/volume2\n", {"/volume2"}}),
    [](const auto& row) { return row.param.name; });

TEST_F(VolumeTest, WithoutAFileVolumesHaveNumbers) {
  ASSERT_FALSE(fs::exists(kPatterns));
  const ScopedMount number = ScopedMount::Tmpfs("/volume12x", kSize);
  const ScopedMount none = ScopedMount::Tmpfs("/volumes", kSize);
  const ScopedMount other = ScopedMount::Tmpfs("/srv", kSize);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume12x"));
}

TEST_F(VolumeTest, LinkToNoFileIsNoFile) {
  fs::create_directories("/usr/tolm/etc");
  fs::create_symlink("nowhere", kPatterns);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
}

TEST_F(VolumeTest, FileThatCannotBeOpenedIsAFailure) {
  fs::create_directories("/usr/tolm/etc");
  fs::create_symlink("volumes.conf", kPatterns);  // Leads to itself.
  EXPECT_EQ(Enumerate(), nullptr);
  EXPECT_EQ(TLIBCErrGet(), ELOOP);
  EXPECT_EQ(ErrorOfGet("/volume1"), ELOOP);
}

TEST_F(VolumeTest, FileThatCannotBeReadIsAFailure) {
  fs::create_directories(kPatterns);
  EXPECT_EQ(Enumerate(), nullptr);
  EXPECT_EQ(TLIBCErrGet(), EISDIR);
  EXPECT_EQ(ErrorOfGet("/volume1"), EISDIR);
}

TEST_F(VolumeTest, ChangedFileCountsAtOnce) {
  WriteFile(kPatterns, "/volume1\n");
  EXPECT_THAT(Paths(), ElementsAre("/volume1"));
  WriteFile(kPatterns, "/volume2\n");
  EXPECT_THAT(Paths(), ElementsAre("/volume2"));
}

// ---- The record ----

TEST_F(VolumeTest, RecordOfAUsualVolume) {
  const ScopedMount third = ScopedMount::Tmpfs("/volume3", kSize);
  WriteFile("/volume3/file", std::string(100000, 'x'));
  const TOLMMountVolInfo info = Describe("/volume3");
  EXPECT_EQ(info.next, nullptr);
  EXPECT_STREQ(info.mount_path, "/volume3");
  EXPECT_EQ(info.flags, 1U);
  EXPECT_EQ(info.is_local, 1);
  EXPECT_EQ(info.is_healthy, 1);
  EXPECT_EQ(info.available, AvailableAt("/volume3"));
  EXPECT_LT(info.available, kSize);
}

TEST_F(VolumeTest, ListAndSingleRecordAgree) {
  const List list = Enumerate();
  for (const TOLMMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
    const TOLMMountVolInfo single = Describe(record->mount_path);
    EXPECT_STREQ(single.mount_path, record->mount_path);
    EXPECT_EQ(single.flags, record->flags);
    EXPECT_EQ(single.is_local, record->is_local);
    EXPECT_EQ(single.is_healthy, record->is_healthy);
    EXPECT_EQ(single.next, nullptr);
  }
}

TEST_F(VolumeTest, ReadOnlyMountPointIsNotReadWrite) {
  const ScopedMount third = ScopedMount::Tmpfs("/volume3", kSize);
  third.MakeReadOnly();
  EXPECT_EQ(Describe("/volume3").flags, 0U);
  EXPECT_EQ(Describe("/volume3").is_healthy, 1);
  third.MakeWritable();
  EXPECT_EQ(Describe("/volume3").flags, 1U);
}

TEST_F(VolumeTest, ReadOnlyFileSystemIsNotReadWrite) {
  const ScopedMount third = ScopedMount::Tmpfs("/volume3", kSize);
  const ScopedMount second_way = ScopedMount::Bind("/volume3", "/volume4");
  ASSERT_EQ(mount(nullptr, "/volume3", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(Describe("/volume3").flags, 0U);
  EXPECT_EQ(Describe("/volume4").flags, 0U) << "the other way leads to the same file system";
}

struct OptionsRow {
  const char* name;
  const char* mount_options;
  const char* system_options;
  unsigned int flags;
};

class VolumeOptionsTest : public VolumeTest, public ::testing::WithParamInterface<OptionsRow> {};

TEST_P(VolumeOptionsTest, AreReadAsWholeWords) {
  const ChangedMountTable table([&](const std::string& line) {
    return WithFields(line, "/volume1", [&](std::vector<std::string>& fields) {
      fields[5] = GetParam().mount_options;
      fields.back() = GetParam().system_options;
    });
  });
  EXPECT_EQ(Describe("/volume1").flags, GetParam().flags);
  EXPECT_EQ(Describe("/volume2").flags, 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Table, VolumeOptionsTest,
    ::testing::Values(OptionsRow{"BothWritable", "rw,relatime", "rw,size=4k", 1},
                      OptionsRow{"MountReadOnly", "ro,relatime", "rw,size=4k", 0},
                      OptionsRow{"SystemReadOnly", "rw,relatime", "ro,size=4k", 0},
                      OptionsRow{"BothReadOnly", "ro", "ro", 0},
                      OptionsRow{"ReadOnlyLast", "relatime,ro", "rw", 0},
                      OptionsRow{"ReadOnlyAfterErrors", "rw", "rw,errors=remount-ro,rootcontext=ro",
                                 1}),
    [](const auto& row) { return row.param.name; });

struct TypeRow {
  const char* type;
  int is_local;
};

void PrintTo(const TypeRow& row, std::ostream* out) {
  *out << row.type;
}

class VolumeTypeTest : public VolumeTest, public ::testing::WithParamInterface<TypeRow> {};

TEST_P(VolumeTypeTest, SaysWhetherTheVolumeIsLocal) {
  const ChangedMountTable table(
      [&](const std::string& line) { return WithType(line, "/volume1", GetParam().type); });
  const TOLMMountVolInfo info = Describe("/volume1");
  EXPECT_EQ(info.is_local, GetParam().is_local);
  EXPECT_EQ(info.flags, 1U);
  EXPECT_EQ(info.is_healthy, GetParam().is_local) << "a server is not asked";
  EXPECT_EQ(info.available != 0, GetParam().is_local != 0);
  EXPECT_EQ(fstatvfs_calls, GetParam().is_local);
  EXPECT_EQ(TOLMVolumeServicePolicy(&info), GetParam().is_local);
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, VolumeTypeTest,
    ::testing::Values(TypeRow{"ext4", 1}, TypeRow{"btrfs", 1}, TypeRow{"xfs", 1},
                      TypeRow{"vfat", 1}, TypeRow{"fuseblk", 1}, TypeRow{"overlay", 1},
                      TypeRow{"fuse.mergerfs", 1}, TypeRow{"nfs", 0}, TypeRow{"nfs4", 0},
                      TypeRow{"cifs", 0}, TypeRow{"smb3", 0}, TypeRow{"9p", 0}, TypeRow{"afs", 0},
                      TypeRow{"fuse.sshfs", 0}, TypeRow{"fuse.glusterfs", 0}, TypeRow{"ceph", 0},
                      TypeRow{"fuse.ceph", 0}, TypeRow{"fuse.rclone", 0}, TypeRow{"fuse.s3fs", 0},
                      TypeRow{"davfs", 0}, TypeRow{"lustre", 0}, TypeRow{"beegfs", 0},
                      TypeRow{"orangefs", 0}, TypeRow{"coda", 0}),
    [](const auto& row) {
      std::string name = row.param.type;
      std::replace(name.begin(), name.end(), '.', '_');
      return name;
    });

TEST_F(VolumeTest, NetworkFileSystemBelowALocalOneIsNotListed) {
  const ScopedMount below = ScopedMount::Tmpfs("/volume3", kSize);
  const ScopedMount above = ScopedMount::Tmpfs("/volume3", kSize);
  bool changed = false;
  const ChangedMountTable table([&](const std::string& line) {
    const std::string with_type = changed ? line : WithType(line, "/volume3", "nfs4");
    changed = changed || with_type != line;
    return with_type;
  });
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2", "/volume3"));
  EXPECT_EQ(Describe("/volume3").is_local, 1);
}

TEST_F(VolumeTest, FileSystemThatAnswersWithAnErrorIsListedAsNotHealthy) {
  on_fstatvfs = [](struct statvfs*) {
    errno = EIO;
    return -1;
  };
  EXPECT_THAT(Paths(), ElementsAre("/volume1", "/volume2"));
  const TOLMMountVolInfo info = Describe("/volume1");
  EXPECT_EQ(info.is_healthy, 0);
  EXPECT_EQ(info.is_local, 1);
  EXPECT_EQ(info.available, 0U);
  EXPECT_EQ(TOLMVolumeServicePolicy(&info), 0);
}

TEST_F(VolumeTest, MountPointThatCannotBeReachedIsListedAsNotHealthy) {
  // A table that leads in a circle, as the path of a volume that fails.
  const ChangedMountTable table([](const std::string& line) {
    return WithFields(line, "/volume1",
                      [](std::vector<std::string>& fields) { fields[4] = "/volume3"; });
  });
  fs::create_symlink("/volume3", "/volume3");
  EXPECT_THAT(Paths(), ElementsAre("/volume3", "/volume2"));
  EXPECT_EQ(Describe("/volume3").is_healthy, 0);
}

TEST_F(VolumeTest, SpaceBeyond64BitsIsTheMost) {
  on_fstatvfs = [](struct statvfs* answer) {
    *answer = {};
    answer->f_frsize = 4096;
    answer->f_bavail = std::numeric_limits<std::uint64_t>::max() / 4096 + 1;
    return 0;
  };
  EXPECT_EQ(Describe("/volume1").available, std::numeric_limits<std::uint64_t>::max());
}

TEST_F(VolumeTest, SpaceIsWhatAnUnprivilegedWriterMayUse) {
  on_fstatvfs = [](struct statvfs* answer) {
    *answer = {};
    answer->f_bsize = 65536;  // Not the unit of the counts.
    answer->f_frsize = 1024;
    answer->f_blocks = 1000;
    answer->f_bfree = 500;
    answer->f_bavail = 7;
    return 0;
  };
  EXPECT_EQ(Describe("/volume1").available, 7U * 1024);
}

// ---- One volume by its path ----

TEST_F(VolumeTest, OnlyTheExactMountPointIsDescribed) {
  fs::create_directory("/volume1/directory");
  fs::create_directory("/volume9");
  fs::create_directory_symlink("/volume1", "/volume8");
  ASSERT_EQ(chdir("/"), 0);
  for (const char* path :
       {"", "/", "volume1", "/volume", "/volume1/", "//volume1", "/volume1/.", "/volume1/directory",
        "/tmp/../volume1", "/volume9", "/volume8", "/nowhere", "/volume1 ", "/VOLUME1"}) {
    EXPECT_EQ(ErrorOfGet(path), ENODEV) << path;
  }
  EXPECT_EQ(ErrorOfGet("/volume1"), 0);
}

TEST_F(VolumeTest, MountPointThatMatchesNoPatternIsNoVolume) {
  EXPECT_EQ(ErrorOfGet("/tmp"), ENODEV);
  EXPECT_EQ(ErrorOfGet("/proc"), ENODEV);
}

TEST_F(VolumeTest, FailureLeavesTheRecordUntouched) {
  TOLMMountVolInfo info;
  std::memset(&info, 0x5a, sizeof info);
  const TOLMMountVolInfo before = info;
  EXPECT_EQ(TOLMMountVolInfoGet("/nowhere", &info), -1);
  EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
}

TEST_F(VolumeTest, OtherVolumesAreNotAskedForOne) {
  Describe("/volume2");
  EXPECT_EQ(fstatvfs_calls, 1);
}

TEST_F(VolumeTest, NullPointersAreRefused) {
  TOLMMountVolInfo info{};
  EXPECT_EQ(TOLMMountVolInfoGet(nullptr, &info), -1);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_EQ(ErrorOfGet("/nowhere"), ENODEV);
  EXPECT_EQ(TOLMMountVolInfoGet("/volume1", nullptr), -1);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_EQ(ErrorOfGet("/nowhere"), ENODEV);
  EXPECT_EQ(TOLMVolumeServicePolicy(nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
}

// ---- Policy ----

TEST_F(VolumeTest, ServicesMayUseAVolumeWithoutAMark) {
  fs::create_directory("/volume1/below");
  WriteFile("/volume1/below/.no-services", "");
  WriteFile("/volume1/.no-services-here", "");
  for (const char* path : {"/volume1", "/volume2"}) {
    const TOLMMountVolInfo info = Describe(path);
    EXPECT_NE(TOLMVolumeServicePolicy(&info), 0) << path;
  }
}

TEST_F(VolumeTest, AnyMarkRefusesServices) {
  const TOLMMountVolInfo info = Describe("/volume1");
  const std::function<void(const char*)> marks[] = {
      [](const char* mark) { WriteFile(mark, ""); },
      [](const char* mark) { WriteFile(mark, "text"); },
      [](const char* mark) { fs::create_directory(mark); },
      [](const char* mark) { fs::create_symlink("nowhere", mark); },
  };
  for (const auto& make_mark : marks) {
    make_mark("/volume1/.no-services");
    EXPECT_EQ(TOLMVolumeServicePolicy(&info), 0);
    fs::remove("/volume1/.no-services");
    EXPECT_NE(TOLMVolumeServicePolicy(&info), 0) << "asked anew each time";
  }
}

TEST_F(VolumeTest, WhatCannotBeLookedAtIsRefused) {
  TOLMMountVolInfo info = Describe("/volume1");
  WriteFile("/volume1/file", "");
  std::strcpy(info.mount_path, "/volume1/file");
  EXPECT_EQ(TOLMVolumeServicePolicy(&info), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
}

TEST_F(VolumeTest, RemoteOrFailingVolumesAreRefused) {
  TOLMMountVolInfo info = Describe("/volume1");
  info.is_local = 0;
  EXPECT_EQ(TOLMVolumeServicePolicy(&info), 0);
  info.is_local = 1;
  info.is_healthy = 0;
  EXPECT_EQ(TOLMVolumeServicePolicy(&info), 0);
}

}  // namespace
}  // namespace tolm::testing

#pragma GCC visibility push(default)

extern "C" int fstatvfs(int fd, struct statvfs* answer) noexcept {
  using Function = int(int, struct statvfs*);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "fstatvfs64"));
  ++tolm::testing::fstatvfs_calls;
  return tolm::testing::on_fstatvfs ? tolm::testing::on_fstatvfs(answer) : real(fd, answer);
}

extern "C" int statx(int directory, const char* path, int flags, unsigned int mask,
                     struct statx* answer) noexcept {
  const long result = syscall(SYS_statx, directory, path, flags, mask, answer);
  if (tolm::testing::mount_numbers_unknown && result == 0)
    answer->stx_mask &= ~static_cast<unsigned int>(STATX_MNT_ID);
  return static_cast<int>(result);
}

#pragma GCC visibility pop
