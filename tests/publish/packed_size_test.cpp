#include "publish/packed_size.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <random>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/payload_writer.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::CompressionChoice;
using publish::PackedSizeMeter;

const package::Effort kEffort = package::EffortFor(0);

// Text that compresses, but not at every level to the same size.
std::string Words(std::size_t size_bytes, unsigned int seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size_bytes) {
    text += "word" + std::to_string(random() % 5000) + (random() % 9 == 0 ? "\n" : " ");
  }
  text.resize(size_bytes);
  return text;
}

class PackedSizeTest : public ::testing::Test {
 protected:
  std::string File(const std::string& name, const std::string& content) {
    WriteFile(directory_.Path() / name, content);
    return directory_.Path() / name;
  }

  // The payload that holds the file alone.
  std::uint64_t PayloadBytes(const std::string& content, const package::Packing& packing) {
    WriteFile(directory_.Path() / "tree/file", content);
    const base::Descriptor out(::open((directory_.Path() / "payload").c_str(),
                                      O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return package::WritePayload(directory_.Path() / "tree", {"x", package::Kind::kDelta, 1},
                                 packing, {out.Get(), directory_.Path()}, {});
  }

  TemporaryDirectory directory_;
  PackedSizeMeter meter_{package::Packing()};
};

TEST_F(PackedSizeTest, IsWhatThePayloadGrowsBy) {
  for (const CompressionChoice choice :
       {CompressionChoice::kXz, CompressionChoice::kZstd, CompressionChoice::kAuto}) {
    const package::Packing packing{choice};
    const std::uint64_t empty = PayloadBytes("", packing);
    for (const std::size_t size : {1000U, 10000U, 100000U}) {
      const std::string content = Words(size, 1);
      const auto grown = static_cast<double>(PayloadBytes(content, packing) - empty);
      const auto measured =
          static_cast<double>(*PackedSizeMeter(packing).Measure(File("file", content), kEffort));
      // The seal and the header before the file are in the same stream, the compressor learns from
      // what came before, and each container has a frame of its own.
      EXPECT_NEAR(measured, grown, 80 + grown * 0.02) << size << CompressionChoiceText(choice);
    }
  }
}

TEST_F(PackedSizeTest, IsThatOfTheContainerThatIsTaken) {
  const auto size_as = [](CompressionChoice choice, const std::string& file) {
    return *PackedSizeMeter(package::Packing{choice}).Measure(file, kEffort);
  };
  const auto expect = [&](const std::string& file, CompressionChoice taken) {
    const bool pays = package::XzPays(size_as(CompressionChoice::kXz, file),
                                      size_as(CompressionChoice::kZstd, file));
    EXPECT_EQ(pays, taken == CompressionChoice::kXz) << file;
    EXPECT_EQ(size_as(CompressionChoice::kAuto, file), size_as(taken, file)) << file;
  };
  expect(File("numbers", Numbers(20000)), CompressionChoice::kXz);
  expect(File("noise", Noise(20000)), CompressionChoice::kZstd);
  expect(File("small", "a"), CompressionChoice::kZstd);
}

TEST_F(PackedSizeTest, OfTheQuickerEffortIsLarger) {
  const std::string file = File("file", Words(100000, 1));
  EXPECT_GT(meter_.Measure(file, package::EffortFor(std::uint64_t{1} << 40)),
            meter_.Measure(file, kEffort));
}

TEST_F(PackedSizeTest, DoesNotDependOnWhatWasMeasuredBefore) {
  const std::string one = File("one", Words(60000, 1));
  const std::string other = File("other", Words(80000, 2));
  const auto alone = PackedSizeMeter({}).Measure(one, kEffort);
  meter_.Measure(other, kEffort);
  EXPECT_EQ(meter_.Measure(one, kEffort), alone);
  EXPECT_FALSE(meter_.Measure(other, kEffort, 1000));
  EXPECT_EQ(meter_.Measure(one, kEffort), alone);
}

TEST_F(PackedSizeTest, LimitIsTheLargestSizeThatIsStillTold) {
  for (const std::string& file :
       {File("numbers", Numbers(20000)), File("noise", Noise(20000)), File("small", "a")}) {
    for (const CompressionChoice choice :
         {CompressionChoice::kXz, CompressionChoice::kZstd, CompressionChoice::kAuto}) {
      PackedSizeMeter meter(package::Packing{choice});
      const std::uint64_t size = *meter.Measure(file, kEffort);
      EXPECT_EQ(meter.Measure(file, kEffort, size), size) << CompressionChoiceText(choice);
      EXPECT_FALSE(meter.Measure(file, kEffort, size - 1)) << CompressionChoiceText(choice);
    }
  }
}

// An .xz file of nothing has 12 bytes at its beginning and 12 at its end, and 8 of an empty index.
TEST_F(PackedSizeTest, IsExact) {
  PackedSizeMeter xz(package::Packing{CompressionChoice::kXz});
  EXPECT_EQ(xz.Measure(File("empty", ""), kEffort), 32U);
  EXPECT_GT(xz.Measure(File("one", "a"), kEffort), 32U);
}

TEST_F(PackedSizeTest, MissingFileIsReported) {
  EXPECT_THROW(meter_.Measure(directory_.Path() / "none", kEffort), package::Error);
}

}  // namespace
}  // namespace tolm::testing
