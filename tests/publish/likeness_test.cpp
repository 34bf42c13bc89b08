#include "publish/likeness.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "package/error.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

constexpr std::size_t kBytes = 1500000;

class LikenessTest : public ::testing::Test {
 protected:
  double Saves(const std::string& before, const std::string& after) const {
    WriteFile(Path("before"), before);
    WriteFile(Path("after"), after);
    return publish::MostThatADeltaSaves(Path("before"), Path("after"));
  }

  // Records of random bytes, which keep only so many at their end when `generation` differs.
  static std::string Records(std::size_t size, std::size_t kept, unsigned generation) {
    std::minstd_rand keys(1);
    std::minstd_rand rest(generation);
    std::string records;
    while (records.size() < kBytes) {
      for (std::size_t i = 0; i < size; ++i) {
        records += static_cast<char>((i < size - kept ? rest : keys)() >> 8);
      }
    }
    return records;
  }

  // Lines of digits: little in each byte, and nothing of it in another text.
  static std::string Text(unsigned seed) {
    std::minstd_rand random(seed);
    std::string text;
    while (text.size() < kBytes) {
      text += std::to_string(random()) + (random() % 4 == 0 ? "\n" : " ");
    }
    return text;
  }

  // The same with lines of digits in place of random bytes that differ.
  static std::string TextRecords(std::size_t size, std::size_t kept, unsigned generation) {
    const std::string text = Text(generation);
    const std::string keys = Noise(kBytes, 1);
    std::string records;
    for (std::size_t at = 0; at + size <= kBytes; at += size) {
      records += text.substr(at, size - kept) + keys.substr(at, kept);
    }
    return records;
  }

  std::string Path(const std::string& name) const { return directory_.Path() / name; }

  TemporaryDirectory directory_;
};

TEST_F(LikenessTest, FilesWithoutAnythingInCommonAreTold) {
  EXPECT_LT(Saves(Noise(kBytes, 1), Noise(kBytes, 2)), 0.001);
  EXPECT_LT(Saves(Text(1), Text(2)), 0.02);
  EXPECT_LT(Saves(Records(24, 8, 1), Records(24, 8, 2)), 0.01) << "too short to be taken";
}

TEST_F(LikenessTest, FilesThatADeltaPaysForAreNotGivenUp) {
  const std::string noise = Noise(kBytes, 1);
  const std::string text = Text(1);
  std::string scattered = text;
  for (std::size_t at = 0; at + 100 < scattered.size(); at += 60) {
    scattered[at] = 'x';
  }
  const struct {
    const char* name;
    std::string before;
    std::string after;
  } kRows[] = {
      {"the same", noise, noise},
      {"moved", noise, "x" + noise.substr(kBytes / 2) + noise.substr(0, kBytes / 2)},
      {"a twentieth is left", noise, Noise(kBytes, 2) + noise.substr(0, kBytes / 20)},
      {"grown by much", noise.substr(0, kBytes / 10), Noise(kBytes, 2) + noise},
      {"a byte in each line", text, scattered},
      {"the shortest matches", Records(24, 9, 1), Records(24, 9, 2)},
      {"keys of 12 bytes", Records(48, 12, 1), Records(48, 12, 2)},
      {"keys of 16 bytes", Records(128, 16, 1), Records(128, 16, 2)},
      {"an image in text", text + noise.substr(0, kBytes / 2),
       Text(2) + noise.substr(0, kBytes / 2)},
      {"a small image in much text", text + noise.substr(0, kBytes / 32),
       Text(2) + noise.substr(0, kBytes / 32)},
      {"keys of 12 bytes in text", TextRecords(128, 12, 1), TextRecords(128, 12, 2)},
  };
  for (const auto& row : kRows) {
    EXPECT_GT(Saves(row.before, row.after), 0.1) << row.name;
  }
}

TEST_F(LikenessTest, WhereSamplesSayNothingADeltaIsTried) {
  EXPECT_GE(Saves(Noise(kBytes, 1), std::string(kBytes, 'a')), 1);
  EXPECT_GE(Saves(Noise(kBytes, 1), "short"), 1);
  EXPECT_GE(Saves(Noise(kBytes, 1), ""), 1);
}

// Noise of 16 different bytes: a compressed file needs half of each.
std::string Letters(std::size_t size) {
  std::string text = Noise(size, 1);
  for (char& c : text) {
    c = static_cast<char>('a' + static_cast<unsigned char>(c) % 16);
  }
  return text;
}

// Where nothing compresses, a match of nine bytes saves five, and pieces leave two thirds at least
// of what the whole does: 7.5 bytes for each, less what is known of their costs.
TEST_F(LikenessTest, WhatIsSavedIsEstimatedByTheBytesThatTheyHaveInCommon) {
  const std::string noise = Noise(kBytes, 1);
  EXPECT_NEAR(Saves(noise, noise), 7.30, 0.01);
  EXPECT_NEAR(Saves(noise.substr(0, kBytes / 10), noise), 0.73, 0.01);
  const std::string small = noise.substr(0, 5000);
  EXPECT_NEAR(Saves(small, small), 3.01836, 0.00002) << "of few bytes little is known";
  const std::string letters = Letters(20000);
  EXPECT_NEAR(Saves(letters, letters), 1.54, 0.03) << "that is half";
  EXPECT_NEAR(Saves(letters, letters + noise.substr(0, 20000)), 0.607, 0.01);
  const std::string mixed = std::string(200000, 'a') + noise.substr(0, 400000);
  EXPECT_NEAR(Saves(mixed, mixed), 10.77, 0.02) << "all of it is looked into";
}

TEST_F(LikenessTest, FilesOfDifferentSizesAreSampledAlike) {
  const std::string noise = Noise(kBytes, 1);
  EXPECT_NEAR(Saves(noise, noise.substr(kBytes / 2, 40000)), 5.73, 0.05);
  // Of just so many bytes chance decides how many samples there are.
  for (unsigned seed = 1; seed < 6; ++seed) {
    const std::string many = Noise(std::size_t{1} << 18, seed);
    EXPECT_NEAR(Saves(many, many), 6.96, 0.02);
  }
}

TEST_F(LikenessTest, SamplesSaySomethingFromAThousandOn) {
  const std::string noise = Noise(1032, 1);
  std::string repeated;
  for (int i = 0; i < 20; ++i) {
    repeated += noise.substr(0, 512);
  }
  EXPECT_EQ(Saves(repeated, repeated), 1) << "the same again is none";
  EXPECT_EQ(Saves("", noise.substr(0, 1031)), 1);
  EXPECT_EQ(Saves("", noise), 0);
}

TEST_F(LikenessTest, NothingIsPassedOverAtTheEndsNorBetweenPiecesThatAreRead) {
  const std::string small = Noise(5000, 1);
  EXPECT_GT(Saves(small.substr(0, 9), small), 0);
  EXPECT_GT(Saves(small.substr(small.size() - 9), small), 0);
  EXPECT_EQ(Saves(small.substr(0, 8), small), 0) << "too short to be taken";
  const std::string noise = Noise(kBytes, 1);
  EXPECT_GT(Saves(noise.substr((1u << 20) - 8, 16), noise), 0);
}

TEST_F(LikenessTest, MissingFileIsNamed) {
  WriteFile(Path("after"), "x");
  try {
    publish::MostThatADeltaSaves(Path("before"), Path("after"));
    FAIL();
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), package::Code::kRead);
  }
}

}  // namespace
}  // namespace tolm::testing
