// The installed tool on disks that fail once: whatever it reads, looks at, writes or closes gives
// EIO, the operation says what is amiss or goes on without it, calls nothing intact or up to date
// that it has not seen, and the next undisturbed one ends with the right files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "tests/operation/versioned_device.h"
#include "tests/support/killed_run.h"
#include "tests/support/moments.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Command = std::vector<std::string>;
using Directories = std::vector<std::string>;

const Directories kDisks = {"/volume1", "/var/lib/data_update", "/var/cache/data_update",
                            "/run/data_update"};
const Directories kSettings = {"/usr/tolm/etc/data_update", "/usr/share/data_update"};
constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

class BadDiskTest : public VersionedDeviceTest {
 protected:
  struct Snapshot {
    Tree files;
    std::string record;

    bool operator==(const Snapshot& other) const {
      return files == other.files && record == other.record;
    }
  };

  Snapshot Take() const {
    return {fs::exists(prefix_) ? ReadTree(prefix_) : Tree(),
            fs::exists(version_file_) ? ReadFile(version_file_) : ""};
  }

  static Command ToolCommand(const Command& arguments) {
    Command command = {kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  // Runs the command again and again, each time with another of its calls failing, from what
  // `restore` makes. Gives each end to `look`, which says what it was; prints how often.
  template <typename Restore, typename Look>
  static void FailEverywhere(const Command& arguments, const Directories& disks, int exit_status,
                             std::size_t few, Restore restore, Look look) {
    const Command command = ToolCommand(arguments);
    restore();
    const std::vector<std::string> calls = TraceDiskUse(command, disks, exit_status);
    ASSERT_GT(calls.size(), few);
    const std::size_t count = Moments(few, calls.size());
    std::map<std::string, int> ends;
    for (std::size_t i = FirstMoment() - 1; i < count; ++i) {
      const std::size_t number = 1 + i * (calls.size() - 1) / (count - 1);
      TellProgress(number, calls.size());
      restore();
      const BrokenRun run = RunOnBadDisk(command, disks, number);
      if (run.failed.empty()) {
        ++ends["had fewer calls"];
        continue;
      }
      SCOPED_TRACE("EIO at call " + std::to_string(number) + ": " + run.failed +
                   "\nout: " + run.result.out + "\nerr: " + run.result.err);
      ++ends[look(run)];
    }
    EXPECT_LT(ends["had fewer calls"], static_cast<int>(count / 4));
    std::cout << arguments.front() << ", EIO once at " << count << " of " << calls.size()
              << " calls:";
    for (const auto& [end, times] : ends) {
      std::cout << ' ' << times << ' ' << end << ';';
    }
    std::cout << '\n';
  }

  // One line that says what failed with what, perhaps after why all of it is installed again.
  static void ExpectClearFailure(const CommandResult& result) {
    const std::string reason = "; the database is installed in full\n";
    const std::size_t end_of_reason = result.err.find(reason);
    const std::string failure = end_of_reason == std::string::npos
                                    ? result.err
                                    : result.err.substr(end_of_reason + reason.size());
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(CountLines(failure), 1);
    EXPECT_THAT(failure, StartsWith("tolmdbud: "));
    EXPECT_THAT(failure,
                AnyOf(HasSubstr(" /"), HasSubstr("[/"), HasSubstr("\"/"), HasSubstr(": member "),
                      HasSubstr(" cannot be read; "), HasSubstr(": destination: "),
                      HasSubstr("does a disk fail? \"dmesg\" tells\n")));
  }

  bool HasForcedVersion(const Tree& left) {
    const Tree now = Take().files;
    Tree both = left;
    both.insert(other_.begin(), other_.end());
    return now == both && InstalledVersion("oui") == std::to_string(kOther);
  }

  void Change(const Command& arguments, const std::string& says,
              const std::vector<Command>& recovery) {
    Keep();
    const Snapshot before = Take();
    FailEverywhere(arguments, kDisks, 0, kFewOfAChange, Restore, [&](const BrokenRun& run) {
      const bool is_forced = arguments.front() == "force-install";
      const bool is_done = is_forced ? HasForcedVersion(before.files) : HasNewVersion();
      std::string end = "were done";
      if (run.result.exit_status == 0) {
        EXPECT_EQ(run.result.out, says);
        EXPECT_TRUE(is_done) << ::testing::PrintToString(ListTree(prefix_));
      } else {
        ExpectClearFailure(run.result);
        const bool is_as_before = Take() == before;
        EXPECT_TRUE(is_as_before || is_done || fs::exists(mark_))
            << ::testing::PrintToString(ListTree(prefix_));
        end = is_as_before ? "changed nothing" : "were cut short";
      }
      for (const Command& command : recovery) {
        const CommandResult again = Tool(command);
        EXPECT_EQ(again.exit_status, 0) << command.front() << ": " << again.err;
      }
      ExpectNewVersion();
      return end;
    });
  }

  static constexpr std::size_t kFewOfAChange = 14;
  static constexpr std::size_t kFewOfALook = 12;
};

TEST_F(BadDiskTest, UpdateByDeltas) {
  Install(kOld);
  OfferNewByDeltas();
  Change({"update", "oui"}, "oui: updated to 70003\n", {{"update", "oui"}});
}

TEST_F(BadDiskTest, UpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  Change({"update", "oui"}, "oui: updated to 70003\n", {{"update", "oui"}});
}

TEST_F(BadDiskTest, Fix) {
  Install(kNew);
  WriteFile(prefix_ / "a.bin", "damaged");
  fs::remove(prefix_ / "keep/3");
  Change({"fix", "oui"}, "oui: repaired with 70003\n", {{"fix", "oui"}, {"update", "oui"}});
}

TEST_F(BadDiskTest, ForcedInstallation) {
  Install(kNew);
  Change({"force-install", "oui", "--version", "70000"}, "oui: force-installed 70000\n",
         {{"update", "oui"}});
}

// Whatever of it a disk does not give, the other files' content is not what counts.
TEST_F(BadDiskTest, FileThatCannotBeReadIsInstalledAnew) {
  const Command fix = {"fix", "oui"};
  const Command update = {"update", "oui"};
  for (const Command& arguments : {fix, update}) {
    SCOPED_TRACE(arguments.front());
    Install(kNew);
    Keep();
    Restore();  // The times are other ones, so that all files are looked at.
    const Command command = ToolCommand(arguments);
    const std::vector<std::string> calls = TraceDiskUse(command, kDisks);
    const std::string reading = "read " + (prefix_ / "a.bin").string();
    const auto found = std::find(calls.begin(), calls.end(), reading);
    ASSERT_NE(found, calls.end());
    Restore();
    const BrokenRun run =
        RunOnBadDisk(command, kDisks, static_cast<std::size_t>(found - calls.begin()) + 1);
    ASSERT_EQ(run.failed, reading);
    EXPECT_EQ(run.result.exit_status, 0) << run.result.err;
    EXPECT_THAT(run.result.err, HasSubstr(" cannot be read"));
    EXPECT_THAT(run.result.err, HasSubstr("; the database is installed in full\n"));
    EXPECT_THAT(run.result.out, HasSubstr("70003\n"));
    ExpectNewVersion();
  }
}

// What was not read is not called intact, and not damaged without saying that it was not read.
TEST_F(BadDiskTest, Verify) {
  Install(kNew);
  Keep();
  const auto is_content = [this](const std::string& call) {
    const std::string path = call.substr(call.find(' ') + 1);
    const bool reads = call.rfind("read ", 0) == 0 || call.rfind("open", 0) == 0;
    return reads && path.rfind(prefix_.string() + '/', 0) == 0 && fs::is_regular_file(path);
  };
  FailEverywhere({"verify", "oui"}, kDisks, 0, 2 * kFewOfALook, Restore, [&](const BrokenRun& run) {
    EXPECT_TRUE(HasNewVersion());
    EXPECT_EQ(Tool({"verify", "oui"}).exit_status, 0);
    if (run.result.exit_status == 0) {
      EXPECT_FALSE(is_content(run.failed));
      EXPECT_EQ(run.result.out, "oui: intact, checked 11 of 11 files\n");
      return "saw all";
    }
    if (run.result.exit_status == 1) {
      ExpectClearFailure(run.result);
      return "failed";
    }
    EXPECT_EQ(run.result.exit_status, 11);
    EXPECT_TRUE(is_content(run.failed));
    EXPECT_THAT(run.result.out, HasSubstr(": cannot be read: Input/output error\n"));
    EXPECT_EQ(CountLines(run.result.out), 2);
    return "named the file that cannot be read";
  });
}

TEST_F(BadDiskTest, CheckNeverSaysUpToDate) {
  Install(kOld);
  OfferNewInFull();
  Keep();
  FailEverywhere({"check"}, kDisks, 10, kFewOfALook, Restore, [&](const BrokenRun& run) {
    if (run.result.exit_status == 10) {
      EXPECT_THAT(run.result.out, HasSubstr("70003"));
      return "saw the offer";
    }
    ExpectClearFailure(run.result);
    return "failed";
  });
}

TEST_F(BadDiskTest, StatusTellsTheInstalledVersionOrThatItIsUnknown) {
  Install(kOld);
  OfferNewInFull();
  Keep();
  FailEverywhere({"status"}, kDisks, 0, kFewOfALook, Restore, [&](const BrokenRun& run) {
    EXPECT_THAT(run.result.exit_status, AnyOf(0, 1));
    if (run.result.exit_status == 0) {
      EXPECT_THAT(run.result.out, HasSubstr("70001"));
      return "told all";
    }
    EXPECT_THAT(run.result.err, StartsWith("tolmdbud: "));
    return "failed";
  });
}

TEST_F(BadDiskTest, StartOfTheService) {
  Install(kNew);
  Keep();
  FailEverywhere({"init"}, kDisks, 0, kFewOfALook, Restore, [&](const BrokenRun& run) {
    std::string end = "were done";
    if (run.result.exit_status == 0) {
      EXPECT_EQ(run.result.out, "volume: /volume1\n");
    } else {
      ExpectClearFailure(run.result);
      end = "failed";
    }
    EXPECT_EQ(Tool({"init"}).out, "volume: /volume1\n");
    EXPECT_TRUE(HasNewVersion());
    return end;
  });
}

// The library reads scripts like any text, of which a disk that gives no more is the end.
TEST_F(BadDiskTest, ScriptThatIsNotReadToItsEndChangesNothing) {
  Install(kOld);
  OfferNewByDeltas();
  Keep();
  Restore();
  const Command command = {kTool, "update", "oui"};
  const Directories deltas = {"/volume1/@tmp/data_update/oui_delta_" + std::to_string(kBetween)};
  const std::size_t calls = TraceDiskUse(command, deltas).size();
  std::size_t tried = 0;
  // The script is read after everything else that is there, and then removed with it.
  for (std::size_t number = calls / 2; number <= calls; ++number) {
    Restore();
    const BrokenRun run = RunOnBadDisk(command, deltas, number);
    if (run.failed.find("x.sqlitediff") != std::string::npos) {
      SCOPED_TRACE(run.failed + "\nout: " + run.result.out + "\nerr: " + run.result.err);
      EXPECT_EQ(run.result.exit_status, 0);
      EXPECT_TRUE(HasNewVersion());
      ++tried;
    }
  }
  EXPECT_GE(tried, 4u);
}

// The library's words for it name nothing.
TEST_F(BadDiskTest, DirectoryForUnpackingThatDoesNotOpenIsNamed) {
  Install(kOld);
  OfferNewInFull();
  Keep();
  Restore();
  const Command command = {kTool, "update", "oui"};
  const Directories unpacked = {"/volume1/@tmp/data_update/oui_full"};
  const std::vector<std::string> calls = TraceDiskUse(command, unpacked);
  const auto opening = std::find(calls.begin(), calls.end(), "open64 " + unpacked.front());
  ASSERT_NE(opening, calls.end());
  Restore();
  const BrokenRun run =
      RunOnBadDisk(command, unpacked, static_cast<std::size_t>(opening - calls.begin()) + 1);
  ASSERT_EQ(run.failed, *opening);
  EXPECT_EQ(run.result.exit_status, 1);
  EXPECT_EQ(run.result.err,
            "tolmdbud: oui: a directory for unpacking in /volume1/@tmp/data_update cannot be "
            "opened; does a disk fail? \"dmesg\" tells\n");
}

// What is said to be moved is there; nothing is called intact that is not, and a start and an
// update make everything right.
TEST_F(BadDiskTest, Move) {
  Install(kNew);
  Keep();
  const fs::path settings = "/usr/tolm/etc/data_update/data_update.conf";
  const std::string chosen = fs::exists(settings) ? ReadFile(settings) : "";
  const auto restore = [&] {
    Restore();
    for (const auto& entry : fs::directory_iterator("/volume2")) {
      fs::remove_all(entry.path());
    }
    fs::remove(settings);
    if (!chosen.empty()) {
      WriteFile(settings, chosen);
    }
  };
  const auto is_right = [this] {
    const bool is_on_first = fs::exists(prefix_) && ReadTree(prefix_) == new_;
    const fs::path other = "/volume2/@database/autoupdate/oui";
    return is_on_first || (fs::exists(other) && ReadTree(other) == new_);
  };
  Directories disks = kDisks;
  disks.insert(disks.end(), {"/volume2", kSettings.front()});
  FailEverywhere({"volume", "unmounting", "/volume1"}, disks, 0, kFewOfALook, restore,
                 [&](const BrokenRun& run) {
                   const bool is_moved = run.result.out == "volume: /volume2 (was /volume1)\n";
                   if (is_moved) {
                     EXPECT_EQ(run.result.exit_status, 0);
                     EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), new_);
                   } else {
                     ExpectClearFailure(run.result);
                   }
                   const CommandResult verify = Tool({"verify", "oui"});
                   EXPECT_TRUE(verify.exit_status != 0 || is_right()) << verify.out;
                   EXPECT_EQ(Tool({"init"}).exit_status, 0);
                   const CommandResult update = Tool({"update", "oui"});
                   EXPECT_EQ(update.exit_status, 0) << update.err;
                   EXPECT_EQ(Tool({"verify", "oui"}).exit_status, 0);
                   EXPECT_TRUE(is_right());
                   return is_moved ? "moved" : "failed and said why";
                 });
}

// A setting is there or not, and what else stands in the file is never lost.
TEST_F(BadDiskTest, SettingsAreAsBeforeOrAsAfter) {
  const std::string file = kOverrides;
  const std::string kept = R"({"oui": {"auto_update": true, "install_dest": "%VOLUME%"}})";
  const auto restore = [&] {
    for (const auto& entry : fs::directory_iterator(fs::path(file).parent_path())) {
      if (entry.path().filename().string().rfind("databases.conf", 0) == 0) {
        fs::remove(entry.path());
      }
    }
    WriteFile(file, kept);
  };
  fs::create_directories(fs::path(file).parent_path());
  restore();
  ASSERT_EQ(Tool({"schedule", "oui", "off"}).exit_status, 0);
  const std::string after = ReadFile(file);
  ASSERT_THAT(after, HasSubstr("%VOLUME%"));
  FailEverywhere({"schedule", "oui", "off"}, kSettings, 0, 2 * kFewOfALook, restore,
                 [&](const BrokenRun& run) {
                   const std::string now = ReadFile(file);
                   EXPECT_FALSE(fs::exists(file + ".aside"));
                   if (run.result.exit_status == 0) {
                     EXPECT_EQ(now, after);
                     return "were done";
                   }
                   EXPECT_EQ(run.result.exit_status, 1);
                   EXPECT_EQ(CountLines(run.result.err), 1);
                   EXPECT_THAT(now, AnyOf(kept, after));
                   return "failed";
                 });
}

// Nothing is done with other settings than the operator has made, and a file that a disk does not
// give is not called a wrong one.
TEST_F(BadDiskTest, SettingsThatAreNotReadEndAnUpdateWithTheirName) {
  Install(kOld);
  OfferNewInFull();
  Keep();
  FailEverywhere({"update", "oui"}, kSettings, 0, 2 * kFewOfALook, Restore,
                 [&](const BrokenRun& run) {
                   if (run.result.exit_status == 0) {
                     EXPECT_EQ(run.result.out, "oui: updated to 70003\n");
                     ExpectNewVersion();
                     return "were done";
                   }
                   EXPECT_EQ(run.result.exit_status, 1);
                   EXPECT_EQ(CountLines(run.result.err), 1);
                   EXPECT_THAT(run.result.err, HasSubstr(run.failed.substr(run.failed.find('/'))));
                   EXPECT_THAT(run.result.err, HasSubstr("Input/output error"));
                   return "failed";
                 });
}

TEST_F(BadDiskTest, SettingsThatCannotBeReadAreNotWrittenOver) {
  fs::create_directories(fs::path(kOverrides).parent_path());
  fs::create_symlink("/proc/self/mem", kOverrides);  // Nothing is at its beginning.
  const CommandResult result = Tool({"schedule", "oui", "off"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("cannot be read: Input/output error; nothing was done\n"));
  EXPECT_TRUE(fs::is_symlink(kOverrides));
  EXPECT_FALSE(fs::exists(kOverrides + std::string(".aside")));
}

// What it says is not forgotten because a disk does not give it.
TEST_F(BadDiskTest, FloorsThatCannotBeReadStay) {
  Install(kOld);
  OfferNewInFull();
  const fs::path floors = "/var/lib/data_update/trust.json";
  const std::string kept = ReadFile(floors);
  fs::remove(floors);
  fs::create_symlink("/proc/self/mem", floors);  // Nothing is at its beginning.
  const CommandResult result = Tool({"update", "oui"});
  ExpectClearFailure(result);
  EXPECT_THAT(result.err, HasSubstr("trust.json: cannot be read: Input/output error\n"));
  EXPECT_TRUE(fs::is_symlink(floors));
  EXPECT_FALSE(fs::exists(floors.string() + ".aside"));
  fs::remove(floors);
  WriteFile(floors, kept);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70003\n");
}

}  // namespace
}  // namespace tolm::testing
