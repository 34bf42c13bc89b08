// How much memory the installed tool takes to install what is large: one file of a gibibyte, and a
// hundred thousand files. The times are for the reader; only the memory is bounded.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/rules.h"
#include "tests/support/killed_run.h"
#include "tests/support/noise.h"
#include "tests/support/sanitized.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kMebibyte = 1 << 20;
constexpr int kVersion = 70001;
constexpr char kSource[] = "/tmp/source";

// One mebibyte of the large file. The first ones cannot be compressed, and are more than the bound
// in all: neither the package nor the file fits the memory. The others are soon packed.
class Block {
 public:
  static constexpr int kIncompressible = kSanitized ? 8 : 96;
  static constexpr int kAll = kSanitized ? 16 : 1024;

  const std::string& Make(int number) {
    if (number <= kIncompressible) {
      std::mt19937_64 random(static_cast<std::uint64_t>(number));
      for (std::size_t at = 0; at < bytes_.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t value = random();
        std::memcpy(&bytes_[at], &value, sizeof value);
      }
    }
    std::memcpy(bytes_.data(), &number, sizeof number);
    return bytes_;
  }

 private:
  std::string bytes_ = std::string(kMebibyte, '\0');
};

std::uint64_t AvailableMemoryBytes() {
  std::ifstream lines("/proc/meminfo");
  for (std::string name; lines >> name;) {
    std::uint64_t kibibytes = 0;
    if (name == "MemAvailable:" && lines >> kibibytes) {
      return kibibytes * 1024;
    }
  }
  return 0;
}

// The steps of an installation in full, told apart by the calls that begin them.
class Phases {
 public:
  explicit Phases(const MeasuredRun& run) : calls_(run.calls) {
    const std::size_t lock = Find("flock /run/data_update/using_oui.lock", 0);
    const std::size_t download = Last("posix_spawn /usr/bin/wget", lock);
    const std::size_t verify = Find("mkdirat /volume1/@tmp/data_update/oui_full", download);
    const std::size_t unpack = Find("/volume1/@tmp/data_update/oui_full/", verify);
    const std::size_t plan = Last("/volume1/@tmp/data_update/oui_full/", lock);
    const std::size_t digest = Last("fchmod /volume1/@database/", calls_.size());
    const std::size_t clean = Find("/volume1/@tmp/data_update/oui_v", digest);
    const std::size_t record = Find("/var/lib/data_update/oui/version.json", clean);
    Add("description", 0, At(download));
    Add("download", At(download), At(verify));
    Add("verify", At(verify), At(unpack));
    Add("unpack", At(unpack), At(plan));
    Add("plan", At(plan), At(lock));
    Add("copy", At(lock), At(digest));
    Add("digest", At(digest), At(clean));
    Add("clean", At(clean), At(record));
    Add("record", At(record), run.seconds);
  }

  void Print() const {
    std::cout << std::fixed << std::setprecision(2);
    for (const auto& [name, seconds] : phases_) {
      std::cout << "  " << std::setw(12) << std::left << name << seconds << " s\n";
    }
  }

 private:
  bool Holds(std::size_t i, const std::string& part) const {
    return calls_[i].call.find(part) != std::string::npos;
  }

  std::size_t Find(const std::string& part, std::size_t from) const {
    std::size_t i = from;
    while (i < calls_.size() && !Holds(i, part)) {
      ++i;
    }
    EXPECT_LT(i, calls_.size()) << part;
    return i;
  }

  std::size_t Last(const std::string& part, std::size_t before) const {
    std::size_t i = before;
    while (i > 0 && !Holds(i - 1, part)) {
      --i;
    }
    EXPECT_GT(i, 0u) << part;
    return i - 1;
  }

  double At(std::size_t i) const { return i < calls_.size() ? calls_[i].seconds : 0; }

  void Add(const std::string& name, double from, double to) {
    EXPECT_LE(from, to) << name;
    phases_.emplace_back(name, to - from);
  }

  const std::vector<TimedCall>& calls_;
  std::vector<std::pair<std::string, double>> phases_;
};

class MemoryTest : public DeviceTest {
 protected:
  void SetUp() override { ConfigureDevice(publisher_, {{"oui", kOnVolume}}); }

  // Piece by piece, unlike the publisher of the other tests.
  void Pack(const std::string& compression = "auto") {
    const fs::path package = publisher_.FullPackage("oui", kVersion);
    fs::create_directories(package.parent_path());
    const CommandResult result = RunCommand(
        {"/usr/bin/tolmdbpub", "pack", kSource, package, "--name", "oui", "--kind", "full",
         "--version", std::to_string(kVersion), "--key", publisher_.Keys() / "signing.key",
         "--cert", publisher_.Keys() / "signing.pem", "--compression", compression});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    fs::remove_all(kSource);
    publisher_.Offer("oui", kVersion);
  }

  // To the next version, whose full package is another one: nobody is to ask for it.
  void OfferDeltaThatChanges(const std::vector<std::string>& names) {
    std::string patches;
    for (const std::string& name : names) {
      patches += (patches.empty() ? "{\"/" : ", \"/") + name +
                 R"(": {"operation": "create", "input_file": "file"})";
    }
    publisher_.PackDelta("oui", kVersion + 1, patches + '}', {{"file", "changed"}});
    publisher_.PackFull("oui", kVersion + 1, {{"other", "other"}});
    publisher_.Offer("oui", kVersion + 1, {kVersion + 1});
  }

  void ExpectPeakBelow(std::uint64_t bound, const MeasuredRun& run) {
    std::cout << "peak " << run.peak_bytes / 1024 << " KiB resident, " << run.seconds << " s\n";
    Phases(run).Print();
    if (kSanitized) {
      GTEST_SKIP() << "installed, but a sanitizer's own memory says nothing of the tool's";
    }
    EXPECT_LE(run.peak_bytes, bound);
  }
};

TEST_F(MemoryTest, OneFileOfAGibibyte) {
  constexpr std::uint64_t kNeeded = 3 * Block::kAll * kMebibyte;
  if (AvailableMemoryBytes() < kNeeded) {
    GTEST_SKIP() << "the files are in memory, of which there is too little";
  }
  fs::create_directories(kSource);
  Block block;
  std::ofstream source(fs::path(kSource) / "large");
  for (int i = 0; i < Block::kAll; ++i) {
    source << block.Make(i);
  }
  source.close();
  Pack("zstd");  // Trying xz on so much noise takes long.
  const MeasuredRun run = Measure({kTool, "update", "oui"});
  EXPECT_EQ(run.result.out, "oui: updated to 70001\n");
  std::ifstream installed(prefix_ / "large");
  std::string read(kMebibyte, '\0');
  for (int i = 0; i < Block::kAll; ++i) {
    installed.read(read.data(), static_cast<std::streamsize>(read.size()));
    ASSERT_TRUE(installed && read == block.Make(i)) << "block " << i;
  }
  EXPECT_EQ(installed.peek(), std::ifstream::traits_type::eof());
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  ExpectPeakBelow(32 * kMebibyte, run);
}

// That of xz, which is filled by what is unpacked.
TEST_F(MemoryTest, TheLargestDictionary) {
  constexpr std::size_t kNoise = kMebibyte / 4;
  const std::string content = Noise(kNoise) + std::string(40 * kMebibyte - kNoise, 'x');
  WriteFile(fs::path(kSource) / "large", content);
  Pack("xz");
  const MeasuredRun run = Measure({kTool, "update", "oui"});
  EXPECT_EQ(run.result.out, "oui: updated to 70001\n");
  EXPECT_TRUE(ReadFile(prefix_ / "large") == content);
  EXPECT_GT(run.peak_bytes, 32 * kMebibyte) << "it is not that large";
  ExpectPeakBelow(64 * kMebibyte, run);
}

TEST_F(MemoryTest, AHundredThousandFiles) {
  constexpr int kFiles = kSanitized ? 1000 : 100000;
  const auto name = [](int i) {
    return "directory" + std::to_string(i / 1000) + "/file" + std::to_string(i) + ".data";
  };
  for (int i = 0; i < kFiles; ++i) {
    WriteFile(fs::path(kSource) / name(i), "content " + std::to_string(i));
  }
  Pack("xz");  // What "auto" takes, too, after trying both for so much longer.
  const MeasuredRun run = Measure({kTool, "update", "oui"});
  EXPECT_EQ(run.result.out, "oui: updated to 70001\n");
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(ReadFile(prefix_ / name(i)), "content " + std::to_string(i));
  }
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  const MeasuredRun verification = Measure({kTool, "verify", "oui"});
  EXPECT_EQ(verification.result.out, "oui: intact, checked " + std::to_string(kFiles) + " of " +
                                         std::to_string(kFiles) + " files\n");
  OfferDeltaThatChanges({name(0), name(1), name(kFiles / 2), name(kFiles - 2), name(kFiles - 1)});
  const MeasuredRun delta = Measure({kTool, "update", "oui"});
  EXPECT_EQ(delta.result.out, "oui: updated to 70002\n");
  EXPECT_EQ(delta.result.err, "");
  EXPECT_EQ(ReadFile(prefix_ / name(1)), "changed");
  EXPECT_EQ(ReadFile(prefix_ / name(2)), "content 2");
  std::cout << "by a delta: " << delta.peak_bytes / 1024 << " KiB resident, " << delta.seconds
            << " s\n";
  if (!kSanitized) {
    EXPECT_LE(verification.peak_bytes, 96 * kMebibyte);
    EXPECT_LE(delta.peak_bytes, 96 * kMebibyte);
  }
  ExpectPeakBelow(96 * kMebibyte, run);
}

// At all three bounds, and all of it in the one record that is looked for. Named objects are the
// values that take most.
std::string LargestRecord(const std::string& link) {
  const std::string head = R"({"deprecated":false,"db_list":{"oui":{"data_version":"70001",)"
                           R"("last_fetch_time":1,"download_link":")" +
                           link + R"(","x":)";
  const std::string nested = std::string(rules::kDescriptionDepth - 5, '[') + '{';
  const std::string tail = '}' + std::string(nested.size() - 1, ']') + "}}}";
  constexpr std::uint64_t kOthers = 7;
  constexpr std::size_t kNameDigits = 6;
  const std::uint64_t objects = rules::kDescriptionValues - kOthers - nested.size();
  std::string list;
  for (std::uint64_t i = 0; i < objects; ++i) {
    const std::string number = std::to_string(i);
    list +=
        (i == 0 ? "\"" : ",\"") + std::string(kNameDigits - number.size(), '0') + number + "\":{}";
  }
  const std::string document = head + nested + list + tail;
  return document + std::string(rules::kDescriptionBytes - document.size(), ' ');
}

TEST_F(MemoryTest, DescriptionAtItsBounds) {
  WriteFile(fs::path(kSource) / "file", "content");
  Pack();
  const std::vector<std::vector<std::string>> commands = {
      {kTool, "update", "oui"}, {kTool, "check"}, {kTool, "status"}, {kTool, "update", "oui"}};
  std::vector<std::uint64_t> ordinary;
  for (const auto& command : commands) {
    ordinary.push_back(Measure(command).peak_bytes);
  }
  fs::remove_all("/var/lib/data_update/oui");
  fs::remove("/var/cache/data_update/database_info.json");
  const std::string description = LargestRecord(
      publisher_.Server().Url(Publisher::PathOf(publisher_.FullPackage("oui", kVersion))));
  publisher_.Server().SetBody("/database_info/1", description);
  for (std::size_t i = 0; i < commands.size(); ++i) {
    const std::uint64_t peak = Measure(commands[i]).peak_bytes;
    std::cout << commands[i][1] << ": " << ordinary[i] / 1024 << " KiB, " << peak / 1024
              << " KiB with the largest description\n";
    if (!kSanitized) {
      EXPECT_LE(peak, ordinary[i] + 64 * kMebibyte) << commands[i][1];
    }
  }
  EXPECT_EQ(InstalledVersion("oui"), std::to_string(kVersion));
  EXPECT_EQ(ReadFile("/var/cache/data_update/database_info.json"), description);
}

}  // namespace
}  // namespace tolm::testing
