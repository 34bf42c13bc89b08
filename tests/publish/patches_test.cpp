#include "publish/patches.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "package/error.h"
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
using ::testing::HasSubstr;

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
}

TEST_F(PatchesTest, NoEncoderIsAskedForALargeFileThatHasChangedWholly) {
  Release({{"a", Noise(2000000, 1)}}, {{"a", Noise(2000000, 2)}});
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
