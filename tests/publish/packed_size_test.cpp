#include "publish/packed_size.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/payload_writer.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::PackedSizeMeter;

const int kLevel = package::CompressionLevel(package::Kind::kDelta, 0);

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
  std::uint64_t PayloadBytes(const std::string& content) {
    WriteFile(directory_.Path() / "tree/file", content);
    const base::Descriptor out(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    return package::WritePayload(directory_.Path() / "tree", {"x", package::Kind::kDelta, 1},
                                 out.Get(), {});
  }

  TemporaryDirectory directory_;
  PackedSizeMeter meter_;
};

TEST_F(PackedSizeTest, IsWhatThePayloadGrowsBy) {
  const std::uint64_t empty = PayloadBytes("");
  for (const std::size_t size : {1000U, 100000U, 1000000U}) {
    const std::string content = Words(size, 1);
    const auto grown = static_cast<double>(PayloadBytes(content) - empty);
    const auto measured = static_cast<double>(*meter_.Measure(File("file", content), kLevel));
    // The seal and the header before the file are in the same stream, and the compressor learns
    // from what came before. Another level is farther off.
    const double tolerance = 60 + grown * 0.02;
    EXPECT_NEAR(measured, grown, tolerance) << size;
    const int other = package::CompressionLevel(package::Kind::kFull, 0);
    const auto elsewhere = static_cast<double>(*meter_.Measure(File("file", content), other));
    EXPECT_TRUE(size < 2000 || std::abs(elsewhere - grown) > tolerance) << elsewhere;
  }
}

TEST_F(PackedSizeTest, DoesNotDependOnWhatWasMeasuredBefore) {
  const std::string one = File("one", Words(200000, 1));
  const std::string other = File("other", Words(300000, 2));
  const auto alone = PackedSizeMeter().Measure(one, kLevel);
  meter_.Measure(other, kLevel);
  EXPECT_EQ(meter_.Measure(one, kLevel), alone);
  EXPECT_FALSE(meter_.Measure(other, kLevel, 1000));
  EXPECT_EQ(meter_.Measure(one, kLevel), alone);
}

TEST_F(PackedSizeTest, LimitIsTheLargestSizeThatIsStillTold) {
  const std::string file = File("file", Words(200000, 1));
  const std::uint64_t size = *meter_.Measure(file, kLevel);
  EXPECT_EQ(meter_.Measure(file, kLevel, size), size);
  EXPECT_FALSE(meter_.Measure(file, kLevel, size - 1));
}

TEST_F(PackedSizeTest, MissingFileIsReported) {
  EXPECT_THROW(meter_.Measure(directory_.Path() / "none", kLevel), package::Error);
}

}  // namespace
}  // namespace tolm::testing
