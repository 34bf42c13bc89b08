#include "package/payload_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <clocale>
#include <filesystem>
#include <fstream>
#include <random>

#include "package/payload_reader.h"
#include "tests/package/expect_code.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Kind;
using package::Member;
using package::PayloadReader;
using package::Seal;
using ::testing::ElementsAre;

const Seal kSeal{"oui", Kind::kFull, 7};

class PayloadWriterTest : public ::testing::Test {
 protected:
  fs::path Source() const { return directory_.Path() / "source"; }

  std::string Write(const package::Progress& progress = {}, const Seal& seal = kSeal) {
    const fs::path path = directory_.Path() / "payload";
    std::uint64_t size = 0;
    {
      const base::Descriptor out(
          ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      size = package::WritePayload(Source(), seal, out.Get(), progress);
    }
    std::string bytes = ReadFile(path);
    EXPECT_EQ(bytes.size(), size);
    return bytes;
  }

  std::optional<Code> WriteCode() {
    return CodeOf([this] { Write(); });
  }

  TemporaryDirectory directory_;
};

TEST_F(PayloadWriterTest, MembersAreSortedBehindTheSeal) {
  MakeTree(Source(), {{"b", "1"}, {"a/z", "2"}, {"a/b/", ""}, {"a.txt", "3"}, {"l -> a/z", ""}});
  const PayloadFile file(Write());
  PayloadReader reader(file.fd(), file.size());
  EXPECT_EQ(reader.seal().name, "oui");
  EXPECT_EQ(reader.seal().version, 7);
  std::vector<std::string> names;
  for (Member member; reader.Next(member);) {
    names.push_back(member.name);
  }
  EXPECT_THAT(names, ElementsAre("a", "a/b", "a/z", "a.txt", "b", "l"));
}

TEST_F(PayloadWriterTest, SameTreeGivesTheSameBytes) {
  const Tree tree = {{"b", std::string(100000, 'x')}, {"a/z", "2"}, {"l -> a/z", ""}};
  MakeTree(Source(), tree);
  const std::string first = Write();
  fs::remove_all(Source());
  MakeTree(Source(), tree);
  fs::last_write_time(Source() / "b", fs::file_time_type::clock::now() - std::chrono::hours(5));
  ASSERT_EQ(::chown((Source() / "b").c_str(), 0, 0), 0);
  EXPECT_EQ(Write(), first);
}

TEST_F(PayloadWriterTest, DeltaIsCompressedHarderThanAFullPackage) {
  std::mt19937 random(1);
  std::string words;
  while (words.size() < 500000) {
    words += "word" + std::to_string(random() % 5000) + (random() % 9 == 0 ? "\n" : " ");
  }
  MakeTree(Source(), {{"a", words}});
  EXPECT_LT(Write({}, {"oui", Kind::kDelta, 7}).size(), Write().size());
}

TEST_F(PayloadWriterTest, LargeDeltasAreCompressedLikeFullPackages) {
  constexpr std::uint64_t kMost = std::uint64_t{32} << 20;
  const int full = package::CompressionLevel(Kind::kFull, 0);
  EXPECT_EQ(package::CompressionLevel(Kind::kFull, kMost), full);
  EXPECT_GT(package::CompressionLevel(Kind::kDelta, kMost), full);
  EXPECT_EQ(package::CompressionLevel(Kind::kDelta, kMost + 1), full);
}

TEST_F(PayloadWriterTest, HardLinkedFilesAreWrittenWhole) {
  MakeTree(Source(), {{"a", "content"}});
  fs::create_hard_link(Source() / "a", Source() / "b");
  const PayloadFile file(Write());
  PayloadReader reader(file.fd(), file.size());
  for (Member member; reader.Next(member);) {
    EXPECT_EQ(member.type, package::MemberType::kFile);
    EXPECT_EQ(member.size_bytes, 7U);
  }
}

TEST_F(PayloadWriterTest, NamesDoNotDependOnTheLocale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  MakeTree(Source(), {{"gr\xc3\xbcn", "1"}});
  const PayloadFile file(Write());
  PayloadReader reader(file.fd(), file.size());
  Member member;
  ASSERT_TRUE(reader.Next(member));
  EXPECT_EQ(member.name, "gr\xc3\xbcn");
}

TEST_F(PayloadWriterTest, LongNamesAreKept) {
  const std::string name = std::string(200, 'd') + "/" + std::string(255, 'f');
  MakeTree(Source(), {{name, "1"}});
  const PayloadFile file(Write());
  PayloadReader reader(file.fd(), file.size());
  Member member;
  ASSERT_TRUE(reader.Next(member));
  ASSERT_TRUE(reader.Next(member));
  EXPECT_EQ(member.name, name);
}

TEST_F(PayloadWriterTest, ProgressReachesTheTotal) {
  MakeTree(Source(), {{"a", std::string(1 << 20, 'x')}, {"b", "12345"}});
  std::uint64_t last = 0;
  Write([&last](std::uint64_t bytes) {
    EXPECT_GT(bytes, last);
    last = bytes;
  });
  EXPECT_EQ(last, (std::uint64_t{1} << 20) + 5);
}

TEST_F(PayloadWriterTest, WhatADeviceWouldRefuseIsNotPacked) {
  struct Row {
    const char* why;
    Code code;
    std::function<void(const fs::path&)> make;
  };
  const Row rows[] = {{"fifo", Code::kMemberType,
                       [](const fs::path& p) { ASSERT_EQ(::mkfifo((p / "f").c_str(), 0600), 0); }},
                      {"fifo further down", Code::kMemberType,
                       [](const fs::path& p) {
                         fs::create_directories(p / "d/e");
                         ASSERT_EQ(::mkfifo((p / "d/e/f").c_str(), 0600), 0);
                       }},
                      {"the format's own name", Code::kMemberPath,
                       [](const fs::path& p) { WriteFile(p / ".tolmpkg", "x"); }},
                      {"the format's own name as a directory", Code::kMemberPath,
                       [](const fs::path& p) { fs::create_directory(p / ".tolmpkg"); }},
                      {"newline in a name", Code::kMemberPath,
                       [](const fs::path& p) { WriteFile(p / "a\nb", "x"); }},
                      {"name that is not UTF-8", Code::kMemberPath,
                       [](const fs::path& p) { WriteFile(p / "\xff", "x"); }},
                      {"path that is too long", Code::kMemberPath, [](fs::path p) {
                         for (int i = 0; i < 9; ++i) {
                           p /= std::string(250, 'd');
                         }
                         fs::create_directories(p);
                       }}};
  for (const Row& row : rows) {
    fs::remove_all(Source());
    MakeTree(Source(), {{"good", "1"}});
    row.make(Source());
    EXPECT_EQ(WriteCode(), row.code) << row.why;
  }
}

TEST_F(PayloadWriterTest, SealNameIsFreeFurtherDown) {
  MakeTree(Source(), {{"d/.tolmpkg", "x"}});
  EXPECT_EQ(WriteCode(), std::nullopt);
}

TEST_F(PayloadWriterTest, EmptyOrMissingTreesAreRefused) {
  EXPECT_EQ(WriteCode(), Code::kRead);
  fs::create_directory(Source());
  EXPECT_EQ(WriteCode(), Code::kNoMembers);
}

TEST_F(PayloadWriterTest, FileThatGrowsWhilePackedIsRefused) {
  MakeTree(Source(), {{"a", std::string(1 << 20, 'x')}});
  const auto grow = [this](std::uint64_t) {
    std::ofstream(Source() / "a", std::ios::app) << "more";
  };
  EXPECT_EQ(CodeOf([&] { Write(grow); }), Code::kChanged);
}

TEST_F(PayloadWriterTest, FullDiskIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  std::ifstream random("/dev/urandom", std::ios::binary);
  std::string noise(1 << 20, '\0');
  random.read(noise.data(), static_cast<std::streamsize>(noise.size()));
  MakeTree(Source(), {{"a", noise}});
  const base::Descriptor out(::open("/small/p", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(CodeOf([&] { package::WritePayload(Source(), kSeal, out.Get(), {}); }), Code::kNoSpace);
}

}  // namespace
}  // namespace tolm::testing
