#include "vcdiff/background_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tolm::vcdiff {
namespace {

constexpr std::size_t kLong = 64U << 10;

class BackgroundWriterTest : public ::testing::Test {
 protected:
  BackgroundWriter::Write Keep() {
    return [this](const std::uint8_t* data, std::size_t size) {
      written_.append(reinterpret_cast<const char*>(data), size);
      writer_ = std::this_thread::get_id();
    };
  }
  static const std::uint8_t* Raw(const std::string& bytes) {
    return reinterpret_cast<const std::uint8_t*>(bytes.data());
  }

  std::string written_;
  std::thread::id writer_;
};

TEST_F(BackgroundWriterTest, PiecesOfAnySizeKeepTheirOrder) {
  std::vector<std::string> pieces;
  std::string wanted;
  for (std::size_t i = 0; i < 300; ++i) {
    pieces.emplace_back(i % 3 == 0 ? kLong + i : i, static_cast<char>('a' + i % 26));
    wanted += pieces.back();
  }
  BackgroundWriter writer(Keep());
  for (const std::string& piece : pieces) {
    writer.Push(Raw(piece), piece.size());
  }
  writer.Settle();
  EXPECT_TRUE(written_ == wanted);
}

TEST_F(BackgroundWriterTest, ShortPiecesNeedNoThread) {
  BackgroundWriter writer(Keep());
  const std::string piece(kLong - 1, 'x');
  writer.Push(Raw(piece), piece.size());
  EXPECT_EQ(written_, piece) << "it is written before Settle";
  EXPECT_EQ(writer_, std::this_thread::get_id());
}

TEST_F(BackgroundWriterTest, LongPiecesAreWrittenByAThread) {
  BackgroundWriter writer(Keep());
  const std::string piece(kLong, 'x');
  writer.Push(Raw(piece), piece.size());
  writer.Settle();
  EXPECT_EQ(written_, piece);
  EXPECT_NE(writer_, std::this_thread::get_id());
}

TEST_F(BackgroundWriterTest, FailureComesOutOfSettleAndNothingIsWrittenAfterIt) {
  int calls = 0;
  BackgroundWriter writer([&](const std::uint8_t*, std::size_t) {
    ++calls;
    throw std::runtime_error("full");
  });
  const std::string piece(kLong, 'x');
  std::string message;
  try {
    writer.Push(Raw(piece), piece.size());
    writer.Settle();
  } catch (const std::runtime_error& error) {
    message = error.what();
  }
  EXPECT_EQ(message, "full");
  EXPECT_EQ(calls, 1);
}

TEST_F(BackgroundWriterTest, EndsWithoutSettle) {
  const std::string piece(kLong, 'x');
  {
    BackgroundWriter writer(Keep());
    for (int i = 0; i < 10; ++i) {
      writer.Push(Raw(piece), piece.size());
    }
  }
  EXPECT_EQ(written_.size() % kLong, 0U) << "only whole pieces";
}

}  // namespace
}  // namespace tolm::vcdiff
