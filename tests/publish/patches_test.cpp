#include "publish/patches.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "package/error.h"
#include "publish/small_vcdiff.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::FileDeltaKind;
using publish::MakePatches;
using publish::Patch;
using publish::Patches;
using publish::TreeFile;
using publish::WorkBudget;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class PatchesTest : public ReleaseFixture {
 protected:
  static std::uint64_t Memory() {
    return publish::EncoderMemoryBytes(publish::DeltaOptions().memory_limit_bytes);
  }

  void Release(const Tree& before, const Tree& after) {
    before_ = ReleaseFixture::Release("before", before);
    after_ = ReleaseFixture::Release("after", after);
  }

  const TreeFile& Before(const std::string& key) const { return before_.files.at(key); }
  const TreeFile& After(const std::string& key) const { return after_.files.at(key); }

  // Lines of a number each, with words of their own for each seed.
  static std::string Lines(std::size_t size, unsigned seed) {
    std::minstd_rand random(seed);
    const std::string words = std::to_string(random()) + " is what the register says of ";
    std::string lines;
    while (lines.size() < size) {
      lines += words + std::to_string(random()) + '\n';
    }
    return lines;
  }

  publish::Tree before_;
  publish::Tree after_;
  WorkBudget budget_{4, Memory()};
  Patches patches_{Path("patches"), {}, budget_};
};

TEST_F(PatchesTest, APairOfFilesIsWorkedOnOnce) {
  Release({{"a", Noise(5000, 1)}}, {{"a", Noise(5000, 1) + "x"}});
  EXPECT_FALSE(patches_.Has(Before("/a"), After("/a")));
  const Patch patch = patches_.Get(Before("/a"), After("/a"));
  EXPECT_EQ(patch.delta.kind, FileDeltaKind::kVcdiff);
  EXPECT_TRUE(patches_.Has(Before("/a"), After("/a")));
  fs::remove(Path("after/a"));
  EXPECT_EQ(patches_.Get(Before("/a"), After("/a")).path, patch.path);
}

TEST_F(PatchesTest, PatchOfOtherContentIsNotTaken) {
  Release({{"a", Noise(5000, 1)}}, {{"a", Noise(5000, 1) + "x"}});
  const Patch patch = patches_.Get(Before("/a"), After("/a"));
  const publish::Tree other = ReleaseFixture::Release("other", {{"a", Noise(5000, 1) + "y"}});
  EXPECT_FALSE(patches_.Has(Before("/a"), other.files.at("/a")));
  const Patch another = patches_.Get(Before("/a"), other.files.at("/a"));
  EXPECT_NE(another.path, patch.path);
  EXPECT_FALSE(fs::exists(patch.path));
}

TEST_F(PatchesTest, ForgottenAndClearedPatchesAreGone) {
  Release({{"a", Noise(5000, 1)}, {"b", Noise(5000, 1)}},
          {{"a", Noise(5000, 1) + "x"}, {"b", Noise(5000, 1) + "x"}});
  MakePatches(before_, after_, {}, patches_, 2, {});
  const std::string path = patches_.Get(Before("/a"), After("/a")).path;
  patches_.Forget("/a");
  EXPECT_FALSE(patches_.Has(Before("/a"), After("/a")));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(patches_.Has(Before("/b"), After("/b")));
  patches_.Clear();
  EXPECT_FALSE(patches_.Has(Before("/b"), After("/b")));
  EXPECT_FALSE(fs::exists(Path("patches")));
  // And made anew when they are asked for.
  EXPECT_TRUE(fs::exists(patches_.Get(Before("/b"), After("/b")).path));
  EXPECT_TRUE(fs::exists(patches_.Get(Before("/a"), After("/a")).path));
  EXPECT_THAT(ListTree(Path("patches")), ElementsAre("0.vcdiff", "1.vcdiff"));
}

TEST_F(PatchesTest, FileThatGoesWholeLeavesNoPatch) {
  Release({{"a", Noise(5000, 1)}, {"b", "b"}, {"c", ""}, {"d", "d"}},
          {{"a", Noise(5000, 2)}, {"b", Noise(24)}, {"c", Noise(25)}, {"d", Noise(25)}});
  const auto note_of = [this](const std::string& key) {
    const Patch patch = patches_.Get(Before(key), After(key));
    EXPECT_EQ(patch.delta.kind, FileDeltaKind::kWhole) << key;
    EXPECT_EQ(patch.path, "") << key;
    return patch.delta.note;
  };
  const auto larger = MatchesRegex("not larger than its vcdiff patch of [0-9]+ bytes");
  EXPECT_THAT(note_of("/a"), larger);
  EXPECT_EQ(note_of("/b"), "too small for a patch");
  EXPECT_EQ(note_of("/c"), "too small for a patch");
  EXPECT_THAT(note_of("/d"), larger);
  EXPECT_THAT(ListTree(Path("patches")), IsEmpty());
}

// The program of the encoder is started for files that are larger.
TEST_F(PatchesTest, FilesUpToALimitAreEncodedWithoutAProgram) {
  const std::size_t most = publish::kMostSmallVcdiffBytes;
  Release({{"new", Noise(most - 1)}, {"old", Noise(most)}, {"larger", Noise(most)}},
          {{"new", Noise(most - 1) + "x"},
           {"old", "x" + Noise(most).substr(2)},
           {"larger", Noise(most) + "x"}});
  const std::string path = ::getenv("PATH");
  ::setenv("PATH", "/nowhere", 1);
  const Patch grown = patches_.Get(Before("/new"), After("/new"));
  const Patch shrunk = patches_.Get(Before("/old"), After("/old"));
  EXPECT_THROW(patches_.Get(Before("/larger"), After("/larger")), package::Error);
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(grown.delta.kind, FileDeltaKind::kVcdiff);
  EXPECT_EQ(shrunk.delta.kind, FileDeltaKind::kVcdiff);
}

TEST_F(PatchesTest, WindowIsNamedWhereTheOldFileIsLarger) {
  constexpr std::size_t kWindow = std::size_t{512} * 1024;
  Release({{"fits", Noise(kWindow)}, {"larger", Noise(kWindow + 1)}},
          {{"fits", Noise(kWindow) + "x"}, {"larger", Noise(kWindow + 1) + "x"}});
  publish::DeltaOptions options;
  options.memory_limit_bytes = kWindow;
  Patches patches(Path("patches"), options, budget_);
  const Patch fits = patches.Get(Before("/fits"), After("/fits"));
  const Patch larger = patches.Get(Before("/larger"), After("/larger"));
  EXPECT_EQ(fits.delta.kind, FileDeltaKind::kVcdiff);
  EXPECT_EQ(fits.delta.note, "");
  EXPECT_EQ(larger.delta.kind, FileDeltaKind::kVcdiff);
  EXPECT_EQ(larger.delta.note, "the old file is larger than the source window of 524288 bytes");
}

// However small they are, and whatever is free besides.
TEST_F(PatchesTest, ComparingSqliteFilesTakesItsShareOfTheMemory) {
  Release({{"a", Table(0)}}, {{"a", Table(1)}});
  WorkBudget budget(2, std::uint64_t{64} * 1024 * 1024);
  const WorkBudget::Share little(budget, 1);
  Patches patches(Path("none"), {}, budget);
  std::atomic<bool> has_ended{false};
  std::thread work([&] {
    EXPECT_THROW(patches.Get(Before("/a"), After("/a")), WorkBudget::Stopped);
    has_ended = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return budget.waiting() == 1 || has_ended; }));
  budget.Stop();
  work.join();
}

TEST_F(PatchesTest, NoEncoderIsAskedForALargeFileThatHasChangedWholly) {
  Release({{"a", Noise(1U << 20, 1)}}, {{"a", Noise(1U << 20, 2)}});
  const std::string path = ::getenv("PATH");
  ::setenv("PATH", "/nowhere", 1);
  const Patch patch = patches_.Get(Before("/a"), After("/a"));
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(patch.delta.kind, FileDeltaKind::kWhole);
  EXPECT_EQ(patch.delta.note, "has next to nothing in common with the old file");
}

TEST_F(PatchesTest, ImageInATextThatHasChangedWhollyIsTakenFromTheOldFile) {
  const std::string image = Noise(360000, 1);
  Release({{"a", Lines(720000, 2) + image}}, {{"a", image + Lines(720000, 3)}});
  const Patch patch = patches_.Get(Before("/a"), After("/a"));
  EXPECT_EQ(patch.delta.kind, FileDeltaKind::kVcdiff) << patch.delta.note;
  EXPECT_LT(*patch.delta.packed_bytes, 360000U);
}

TEST_F(PatchesTest, WhatWaitsForItsShareEndsWhenNoneIsGivenAnyMore) {
  Release({{"a", Noise(5000, 1)}, {"b", Noise(5000, 1)}},
          {{"a", Noise(5000, 1) + "x"}, {"b", Noise(5000, 1) + "x"}});
  WorkBudget budget(1, Memory());
  const WorkBudget::Share never_free(budget, 0);
  Patches patches(Path("none"), {}, budget);
  std::thread work(
      [&] { EXPECT_THROW(MakePatches(before_, after_, {}, patches, 2, {}), WorkBudget::Stopped); });
  EXPECT_TRUE(WaitUntil([&] { return budget.waiting() == 2; }));
  budget.Stop();
  work.join();
  EXPECT_FALSE(patches.Has(Before("/a"), After("/a")));
}

TEST_F(PatchesTest, ProgressOfSeveralJobsOnlyGrows) {
  Tree before;
  Tree after;
  for (unsigned i = 0; i < 40; ++i) {
    before["f" + std::to_string(i)] = Noise(2000, i);
    after["f" + std::to_string(i)] = Noise(2000, i) + "x";
  }
  Release(before, after);
  std::vector<std::size_t> steps;
  MakePatches(before_, after_, {}, patches_, 4,
              [&](const std::string&, std::size_t done, std::size_t total) {
                EXPECT_EQ(total, 40U);
                steps.push_back(done);
              });
  EXPECT_EQ(steps.size(), 41U);
  EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
  EXPECT_EQ(steps.back(), 40U);
  // What is there already counts from the beginning.
  MakePatches(before_, after_, {}, patches_, 4,
              [](const std::string&, std::size_t done, std::size_t) { EXPECT_EQ(done, 40U); });
}

// The lowest of those that fail in the order of work: the larger file.
TEST_F(PatchesTest, FailureOfOneOfSeveralIsThrownOnce) {
  Release({{"a", Noise(3000, 1)}, {"b", Noise(3000, 2)}, {"c", Noise(3000, 3)}},
          {{"a", Noise(3000, 4)}, {"b", Noise(5000, 5)}, {"c", Noise(3000, 6)}});
  fs::remove(Path("after/b"));
  fs::remove(Path("after/c"));
  for (const int jobs : {1, 4}) {
    try {
      MakePatches(before_, after_, {}, patches_, jobs, {});
      ADD_FAILURE() << jobs;
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), package::Code::kRead);
      EXPECT_THAT(error.what(), HasSubstr("after/b")) << jobs;
    }
  }
}

}  // namespace
}  // namespace tolm::testing
