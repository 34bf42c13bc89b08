#include "package/payload_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lzma.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/package/expect_code.h"
#include "tests/package/payload_builder.h"
#include "tests/package/payload_file.h"

namespace tolm::testing {
namespace {

using package::Block;
using package::Code;
using package::Member;
using package::MemberPath;
using package::MemberType;
using package::PayloadReader;
using Filter = PayloadBuilder::Filter;

std::vector<Member> ReadAll(const std::string& payload) {
  const PayloadFile file(payload);
  PayloadReader reader(file.fd(), file.size());
  std::vector<Member> members;
  for (Member member; reader.Next(member);) {
    members.push_back(member);
  }
  return members;
}

std::string ReadContent(PayloadReader& reader) {
  std::string content;
  for (Block block; reader.NextBlock(block);) {
    content.resize(block.offset, '\0');
    content.append(static_cast<const char*>(block.data), block.size);
  }
  return content;
}

TEST(PayloadReaderTest, MembersComeInOrderWithTheirProperties) {
  const std::vector<Member> members = ReadAll(PayloadBuilder()
                                                  .Seal()
                                                  .File("./a", "12345", 06755)
                                                  .Directory("d/", 01777)
                                                  .SymbolicLink("d/l", "/any/where")
                                                  .HardLink("d/h", "./a")
                                                  .File("empty", "")
                                                  .Finish());
  ASSERT_EQ(members.size(), 5U);
  EXPECT_EQ(members[0].type, MemberType::kFile);
  EXPECT_EQ(members[0].name, "a");
  EXPECT_EQ(members[0].size_bytes, 5U);
  EXPECT_EQ(members[0].mode, 0755U);
  EXPECT_EQ(members[1].type, MemberType::kDirectory);
  EXPECT_EQ(members[1].mode, 0777U);
  EXPECT_EQ(members[2].type, MemberType::kSymbolicLink);
  EXPECT_EQ(members[2].path, (MemberPath{"d", "l"}));
  EXPECT_EQ(members[2].target, "/any/where");
  EXPECT_EQ(members[3].type, MemberType::kHardLink);
  EXPECT_EQ(members[3].linked_to, MemberPath{"a"});
  EXPECT_EQ(members[4].size_bytes, 0U);
}

TEST(PayloadReaderTest, PermittedCompressionsAreRead) {
  for (const Filter filter : {Filter::kNone, Filter::kGzip, Filter::kXz, Filter::kZstd}) {
    const PayloadFile file(PayloadBuilder(filter).Seal().File("a", "content").Finish());
    PayloadReader reader(file.fd(), file.size());
    EXPECT_EQ(reader.seal().name, "oui");
    Member member;
    ASSERT_TRUE(reader.Next(member));
    EXPECT_EQ(ReadContent(reader), "content");
    EXPECT_FALSE(reader.Next(member));
  }
}

TEST(PayloadReaderTest, OtherFormatsAreRefused) {
  const std::string bzip2 = PayloadBuilder(Filter::kBzip2).Seal().File("a", "x").Finish();
  const std::string mtree = "#mtree\n.tolmpkg type=file size=0\na type=file\n";
  for (const std::string& payload : {bzip2, mtree, std::string(1, 'x'), std::string(4096, 'x')}) {
    EXPECT_EQ(CodeOf([&] { ReadAll(payload); }), Code::kPayload);
  }
}

TEST(PayloadReaderTest, FirstMemberMustBeTheSeal) {
  struct Row {
    const char* why;
    std::string payload;
  };
  const Row rows[] = {{"zeros", std::string(10240, '\0')},
                      {"empty archive", PayloadBuilder().Finish()},
                      {"another file first", PayloadBuilder().File("a", "x").Seal().Finish()},
                      {"a directory", PayloadBuilder().Directory(".tolmpkg").Finish()},
                      {"a symbolic link", PayloadBuilder().SymbolicLink(".tolmpkg", "a").Finish()},
                      {"a hard link", PayloadBuilder().HardLink(".tolmpkg", "a").Finish()},
                      {"with a prefix", PayloadBuilder().File("./.tolmpkg", kGoodSeal).Finish()},
                      {"further down", PayloadBuilder().File("d/.tolmpkg", kGoodSeal).Finish()}};
  for (const Row& row : rows) {
    EXPECT_EQ(CodeOf([&] { ReadAll(row.payload); }), Code::kNoSeal) << row.why;
  }
}

TEST(PayloadReaderTest, SealIsBounded) {
  std::string seal = kGoodSeal;
  seal.resize(4096, ' ');
  EXPECT_EQ(CodeOf([&] { ReadAll(PayloadBuilder().Seal(seal).Finish()); }), std::nullopt);
  EXPECT_EQ(CodeOf([&] { ReadAll(PayloadBuilder().Seal(seal + " ").Finish()); }), Code::kBadSeal);
  EXPECT_EQ(CodeOf([&] { ReadAll(PayloadBuilder().Seal("").Finish()); }), Code::kBadSeal);
}

TEST(PayloadReaderTest, HostileMembersAreRefused) {
  struct Row {
    const char* why;
    Code code;
    std::string payload;
  };
  const auto after_seal = [](auto add) {
    PayloadBuilder builder;
    builder.Seal();
    add(builder);
    return builder.Finish();
  };
  const Row rows[] = {
      {"fifo", Code::kMemberType, after_seal([](auto& b) { b.Special("f", AE_IFIFO); })},
      {"character device", Code::kMemberType,
       after_seal([](auto& b) { b.Special("f", AE_IFCHR); })},
      {"block device", Code::kMemberType, after_seal([](auto& b) { b.Special("f", AE_IFBLK); })},
      {"absolute", Code::kMemberPath, after_seal([](auto& b) { b.File("/tmp/f", "x"); })},
      {"parent", Code::kMemberPath, after_seal([](auto& b) { b.File("a/../../f", "x"); })},
      {"parent directory", Code::kMemberPath, after_seal([](auto& b) { b.Directory(".."); })},
      {"absolute link", Code::kMemberPath,
       after_seal([](auto& b) { b.SymbolicLink("/tmp/f", "x"); })},
      {"second seal", Code::kMemberPath, after_seal([](auto& b) { b.Seal(); })},
      {"below the seal", Code::kMemberPath, after_seal([](auto& b) { b.File(".tolmpkg/a", "x"); })},
      {"link as destination", Code::kMemberPath,
       after_seal([](auto& b) { b.SymbolicLink(".", "/etc"); })},
      {"hard link out", Code::kHardLink, after_seal([](auto& b) { b.HardLink("a", "../x"); })},
      {"hard link absolute", Code::kHardLink,
       after_seal([](auto& b) { b.HardLink("a", "/etc/passwd"); })},
      {"hard link to the seal", Code::kHardLink,
       after_seal([](auto& b) { b.HardLink("a", ".tolmpkg"); })},
      {"hard link to the destination", Code::kHardLink,
       after_seal([](auto& b) { b.HardLink("a", "."); })},
      {"hard link with a body", Code::kHardLink,
       PayloadBuilder::WithHardLinkBody(
           PayloadBuilder(Filter::kNone).Seal().File("x", "1").Finish(), "a", "x", "body")},
      {"hard link with a body of one byte", Code::kHardLink,
       PayloadBuilder::WithHardLinkBody(
           PayloadBuilder(Filter::kNone).Seal().File("x", "1").Finish(), "a", "x", "b")}};
  for (const Row& row : rows) {
    EXPECT_EQ(CodeOf([&] { ReadAll(row.payload); }), row.code) << row.why;
  }
}

TEST(PayloadReaderTest, EntryForTheDestinationIsPassedOver) {
  const std::vector<Member> members =
      ReadAll(PayloadBuilder().Seal().Directory("./").File("./a", "x").Finish());
  ASSERT_EQ(members.size(), 1U);
  EXPECT_EQ(members[0].name, "a");
}

TEST(PayloadReaderTest, NamesDoNotDependOnTheLocale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  const std::string name = "gr\xc3\xbcn/\xff";
  const std::vector<Member> members =
      ReadAll(PayloadBuilder().Seal().File(name, "x").SymbolicLink("l", "\xc3\xbc").Finish());
  ASSERT_EQ(members.size(), 2U);
  EXPECT_EQ(members[0].name, name);
  EXPECT_EQ(members[1].target, "\xc3\xbc");
}

TEST(PayloadReaderTest, SparseFilesKeepTheirOffsets) {
  const PayloadFile file(PayloadBuilder().Seal().SparseFile("s", 1 << 20, "tail").Finish());
  PayloadReader reader(file.fd(), file.size());
  Member member;
  ASSERT_TRUE(reader.Next(member));
  EXPECT_EQ(member.size_bytes, std::uint64_t{1} << 20);
  EXPECT_EQ(ReadContent(reader), std::string((1 << 20) - 4, '\0') + "tail");
}

// Every cut that takes something away is noticed, but an archive may lack its end mark.
TEST(PayloadReaderTest, PayloadCutAnywhereNeverYieldsAShorterFile) {
  const std::string payload =
      PayloadBuilder(Filter::kNone).Seal().File("a", std::string(3000, 'x')).Finish();
  for (std::size_t length = 1; length < payload.size(); length += 97) {
    const PayloadFile file(payload.substr(0, length));
    std::string content(3000, 'x');
    const auto code = CodeOf([&] {
      PayloadReader reader(file.fd(), file.size());
      Member member;
      if (reader.Next(member)) {
        content = ReadContent(reader);
      }
    });
    EXPECT_TRUE(code.has_value() || content == std::string(3000, 'x')) << length;
  }
}

TEST(PayloadReaderTest, SealThatIsCutIsADamagedPayload) {
  const std::string payload = PayloadBuilder(Filter::kNone).Seal().File("a", "1").Finish();
  const std::size_t begin = payload.find(kGoodSeal);
  ASSERT_NE(begin, std::string::npos);
  EXPECT_EQ(CodeOf([&] { ReadAll(payload.substr(0, begin + 10)); }), Code::kPayload);
}

TEST(PayloadReaderTest, ReasonIsTheArchiveLibrarysWhereNothingWasReadYet) {
  const std::string xz = PayloadBuilder(Filter::kXz).Seal().File("a", "1").Finish();
  try {
    ReadAll(xz.substr(0, 12) + std::string(500, '\xff'));
    ADD_FAILURE() << "not refused";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kPayload);
    EXPECT_THAT(error.what(), ::testing::StartsWith("payload: "));
    EXPECT_THAT(error.what(), ::testing::Not(::testing::HasSubstr("than the")));
  }
}

std::optional<Code> CodeOfReadingAll(const std::string& payload) {
  return CodeOf([&] { ReadAll(payload); });
}

// An archive of so many bytes ends with a buffer of the archive library's filters.
std::string PayloadOfWholeBuffers(Filter filter) {
  constexpr std::size_t kBufferBytes = 128 * 1024;
  const auto build = [](Filter with, std::size_t size) {
    return PayloadBuilder(with).Seal().File("a", std::string(size, 'a')).Finish();
  };
  const std::size_t besides = build(Filter::kNone, kBufferBytes).size() - kBufferBytes;
  std::string payload = build(filter, 2 * kBufferBytes - besides);
  EXPECT_TRUE(filter != Filter::kNone || payload.size() == 2 * kBufferBytes);
  return payload;
}

// What holds for all of a stream, checksums and sizes, stands at its end.
TEST(PayloadReaderTest, CompressedStreamIsReadToItsEnd) {
  PayloadOfWholeBuffers(Filter::kNone);
  for (const Filter filter : {Filter::kXz, Filter::kZstd, Filter::kGzip}) {
    const std::string payload = PayloadOfWholeBuffers(filter);
    EXPECT_EQ(CodeOfReadingAll(payload), std::nullopt);
    EXPECT_EQ(CodeOfReadingAll(payload.substr(0, payload.size() - 1)), Code::kPayload);
  }
  std::string payload = PayloadOfWholeBuffers(Filter::kXz);
  constexpr std::size_t kInTheIndex = 16;  // bytes before the end
  payload[payload.size() - kInTheIndex] ^= 1;
  EXPECT_EQ(CodeOfReadingAll(payload), Code::kPayload);
}

std::string CompressedWithXz(const std::string& bytes) {
  std::string compressed(lzma_stream_buffer_bound(bytes.size()), '\0');
  std::size_t size = 0;
  EXPECT_EQ(lzma_easy_buffer_encode(
                0, LZMA_CHECK_CRC32, nullptr, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                bytes.size(), reinterpret_cast<std::uint8_t*>(compressed.data()), &size,
                compressed.size()),
            LZMA_OK);
  compressed.resize(size);
  return compressed;
}

// However little it is that stands between the archive's end and the stream's.
TEST(PayloadReaderTest, StreamIsReadToItsEndAlsoWhereItsLastPieceIsAByte) {
  const std::string archive = PayloadOfWholeBuffers(Filter::kNone);
  for (const std::size_t behind : {0U, 1U, 2U}) {
    const std::string payload = CompressedWithXz(archive + std::string(behind, 'x'));
    EXPECT_EQ(CodeOfReadingAll(payload), std::nullopt) << behind;
    EXPECT_EQ(CodeOfReadingAll(payload.substr(0, payload.size() - 1)), Code::kPayload) << behind;
  }
}

// Writers fill the last record, and POSIX has nothing to say of what follows the end mark.
TEST(PayloadReaderTest, WhatFollowsTheEndMarkHasNoMeaning) {
  const std::string payload = PayloadBuilder(Filter::kNone).Seal().File("a", "1").Finish();
  const std::string another = PayloadBuilder(Filter::kNone).Seal().File("b", "2").Finish();
  for (const std::string& behind : {std::string(10240, '\0'), std::string(100000, 'x'), another}) {
    const std::vector<Member> members = ReadAll(payload + behind);
    ASSERT_EQ(members.size(), 1U);
    EXPECT_EQ(members[0].name, "a");
  }
}

TEST(PayloadReaderTest, FileThatBecomesShorterIsTold) {
  const PayloadFile file(
      PayloadBuilder(Filter::kNone).Seal().File("a", std::string(1 << 20, 'x')).Finish());
  PayloadReader reader(file.fd(), file.size());
  ASSERT_EQ(::ftruncate(file.fd(), 500000), 0);
  EXPECT_EQ(CodeOf([&] {
              Member member;
              while (reader.Next(member)) {
              }
            }),
            Code::kChanged);
}

}  // namespace
}  // namespace tolm::testing
