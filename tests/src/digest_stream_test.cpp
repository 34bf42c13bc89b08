#include "digest_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

#include "dataupdate/io_utils.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::dataupdate {
namespace {

using tolm::testing::ReadFile;
using tolm::testing::ScopedMount;
using tolm::testing::Sha384Hex;
using tolm::testing::WriteFile;

namespace fs = std::filesystem;

constexpr std::uint64_t kFourGiB = std::uint64_t{1} << 32;
constexpr char kPath[] = "/volume1/file";
constexpr char kDigestOfNothing[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b";

/// A file whose last byte is "x" and that takes one page of memory.
void MakeSparseFile(std::uint64_t size) {
  WriteFile(kPath, "");
  fs::resize_file(kPath, size - 1);
  std::ofstream(kPath, std::ios::in | std::ios::app) << "x";
  ASSERT_EQ(fs::file_size(kPath), size);
}

TEST(DigestStreamTest, WholeFileIsReadAtEverySize) {
  for (const std::size_t size : {0U, 1U, 64U, 65535U, 65536U, 65537U, 300000U}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i * 2654435761U >> 13);
    }
    WriteFile(kPath, content);
    DigestStream stream(kPath);
    EXPECT_EQ(GetSha384(stream), Sha384Hex(kPath)) << size;
  }
}

// As far as the stream's own number goes, which has 32 bits on some machines.
std::streamsize Told(std::uint64_t rest) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::streamsize>::max();
  return static_cast<std::streamsize>(std::min(rest, kMost));
}

TEST(DigestStreamTest, RestIsToldIn64Bits) {
  for (const std::uint64_t size : {kFourGiB - 1, kFourGiB, kFourGiB + 1, kFourGiB + 65536,
                                   3 * kFourGiB, kFourGiB / 2, kFourGiB / 2 + 1}) {
    MakeSparseFile(size);
    DigestStream stream(kPath);
    EXPECT_EQ(stream.rdbuf()->in_avail(), Told(size));
    if (size > kFourGiB) {
      stream.seekg(static_cast<std::streamoff>(size - kFourGiB));
      EXPECT_EQ(stream.rdbuf()->in_avail(), Told(kFourGiB)) << size;
    }
    stream.seekg(-1, std::ios::end);
    EXPECT_EQ(stream.rdbuf()->in_avail(), 1) << size;
    EXPECT_EQ(stream.get(), 'x') << size;
    EXPECT_EQ(stream.rdbuf()->in_avail(), 0) << size;
  }
}

// The expected digests are sha384sum's:
//   truncate -s <size - 1> file; printf x >> file; sha384sum file
TEST(DigestStreamTest, DigestCoversAFileOfExactly4GiB) {
  MakeSparseFile(kFourGiB);
  DigestStream stream(kPath);
  EXPECT_EQ(GetSha384(stream),
            "a78971ab0d1ff6b2b17dad5a67ca05484c166cfb04ecadaa"
            "be6f0166d6bc637306d7a349968ed5beb26e7f6f2f072b58");
}

TEST(DigestStreamTest, MissingFileIsAFailedStreamAndIsNotCreated) {
  DigestStream stream("/tmp/missing");
  EXPECT_TRUE(stream.fail());
  EXPECT_EQ(GetSha384(stream), kDigestOfNothing);
  EXPECT_FALSE(fs::exists("/tmp/missing"));
}

TEST(DigestStreamTest, FileIsNeitherTruncatedNorChanged) {
  WriteFile(kPath, "content");
  const auto before = fs::last_write_time(kPath);
  {
    DigestStream stream(kPath);
    GetSha384(stream);
  }
  EXPECT_EQ(ReadFile(kPath), "content");
  EXPECT_EQ(fs::last_write_time(kPath), before);
}

// The file is opened for writing too, so what cannot be replaced does not pass as intact either.
TEST(DigestStreamTest, FileThatCannotBeWrittenIsAFailedStream) {
  WriteFile("/tmp/locked/file", "content");
  const ScopedMount mount = ScopedMount::ReadOnly("/tmp/locked");
  DigestStream stream("/tmp/locked/file");
  EXPECT_TRUE(stream.fail());
  EXPECT_EQ(GetSha384(stream), kDigestOfNothing);
}

TEST(DigestStreamTest, WhatIsNoRegularFileYieldsTheDigestOfNoData) {
  fs::create_directory("/tmp/directory");
  DigestStream directory("/tmp/directory");
  EXPECT_EQ(GetSha384(directory), kDigestOfNothing);
  DigestStream null("/dev/null");
  EXPECT_EQ(GetSha384(null), kDigestOfNothing);
  DigestStream endless("/dev/zero");
  EXPECT_EQ(GetSha384(endless), kDigestOfNothing);
}

TEST(DigestStreamTest, DescriptorIsClosedWithTheStream) {
  const auto open_descriptors = [] {
    const fs::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
  };
  WriteFile(kPath, "content");
  const auto before = open_descriptors();
  {
    DigestStream stream(kPath);
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(open_descriptors(), before + 1);
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace tolm::dataupdate
