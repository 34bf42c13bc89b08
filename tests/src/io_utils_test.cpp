#include "dataupdate/io_utils.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <boost/format.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/src/thrown.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/vtable_slot.h"
#include "tolm/exec.h"
#include "tolm/info.h"

namespace tolm::dataupdate {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using tolm::testing::HttpAnswer;
using tolm::testing::HttpServer;
using tolm::testing::MakeTree;
using tolm::testing::ReadFile;
using tolm::testing::ReadTree;
using tolm::testing::ScopedMount;
using tolm::testing::Sha384Hex;
using tolm::testing::SyslogCapture;
using tolm::testing::Tree;
using tolm::testing::UniqueDescriptor;
using tolm::testing::VtableSlot;
using tolm::testing::WriteFile;

namespace fs = std::filesystem;

constexpr char kDigestOfNothing[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b";

/// A name in a directory that no system has: every use of it is a file-system error.
const std::string kTooLongName = "/tmp/" + std::string(300, 'n');

std::ptrdiff_t OpenDescriptors() {
  const fs::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

TEST(IOUtilsSlotTest, OperationsKeepTheirSlots) {
  EXPECT_EQ(VtableSlot(&IOUtils::GetSize), 2U);
  EXPECT_EQ(VtableSlot(&IOUtils::GetFsSize), 3U);
  EXPECT_EQ(VtableSlot(&IOUtils::ReadJson), 4U);
  EXPECT_EQ(VtableSlot(&IOUtils::WriteJson), 5U);
  EXPECT_EQ(VtableSlot(&IOUtils::FileCreateOver), 6U);
  EXPECT_EQ(VtableSlot(&IOUtils::RmRf), 7U);
  EXPECT_EQ(VtableSlot(&IOUtils::CopyFile), 8U);
  EXPECT_EQ(VtableSlot(&IOUtils::Download), 9U);
  EXPECT_EQ(VtableSlot(&IOUtils::TolmMkdir), 10U);
  EXPECT_EQ(VtableSlot(&IOUtils::IterateDirectory), 11U);
  EXPECT_EQ(sizeof(IOUtils), sizeof(void*)) << "it holds no state";
}

TEST(FlatFileNameTest, SeparatorsAndDotsBecomeUnderscores) {
  EXPECT_EQ(FlatFileName(""), "");
  EXPECT_EQ(FlatFileName("a/b.json"), "a_b_json");
  EXPECT_EQ(FlatFileName("dir/sub/file.tar.gz"), "dir_sub_file_tar_gz");
  EXPECT_EQ(FlatFileName("/../.x"), "_____x");
  EXPECT_EQ(FlatFileName("plain-name_1"), "plain-name_1");
}

TEST(NoexceptFormatTest, FillsInItsArguments) {
  EXPECT_EQ((NoexceptFormat("Fail to set config %s:%s") % "a" % 5).str(), "Fail to set config a:5");
  EXPECT_EQ((NoexceptFormat("errno=%d") % 13).str(), "errno=13");
}

TEST(NoexceptFormatTest, ArgumentsAreNotFormatsThemselves) {
  EXPECT_EQ((NoexceptFormat("<%s>") % "%s%d%1%%n").str(), "<%s%d%1%%n>");
}

TEST(NoexceptFormatTest, MissingArgumentsReadAsNothing) {
  EXPECT_EQ((NoexceptFormat("a %s b %s c") % 1).str(), "a 1 b  c");
  EXPECT_EQ(NoexceptFormat("a %s b").str(), "a  b");
}

TEST(NoexceptFormatTest, AdditionalArgumentsAreIgnored) {
  EXPECT_EQ((NoexceptFormat("a %s") % 1 % 2 % 3).str(), "a 1");
  EXPECT_EQ((NoexceptFormat("a") % 1).str(), "a");
}

TEST(NoexceptFormatTest, NeverThrowsForMalformedFormats) {
  static const std::string empty;
  EXPECT_TRUE(noexcept(NoexceptFormat(empty)));
  for (const char* text : {"", "%", "%%", "%s%", "%1", "%1$", "%|", "%|5", "%1% %s", "%9999s", "% ",
                           "%y", "%*s", "\xff%\xff"}) {
    EXPECT_NO_THROW({
      boost::format format = NoexceptFormat(text);
      format % 1 % "two";
      format.str();
    }) << text;
  }
}

TEST(GetSha384Test, EmptyStreamYieldsTheDigestOfNoData) {
  std::istringstream empty;
  EXPECT_EQ(GetSha384(empty), kDigestOfNothing);
}

TEST(GetSha384Test, DigestsArePublishedOnes) {
  std::istringstream abc("abc");
  EXPECT_EQ(GetSha384(abc),
            "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
            "8086072ba1e7cc2358baeca134c825a7");
  std::istringstream million_a(std::string(1000000, 'a'));
  EXPECT_EQ(GetSha384(million_a),
            "9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b"
            "07b8b3dc38ecc4ebae97ddd87f3d8985");
}

TEST(GetSha384Test, EveryLengthAroundThePiecesIsCoveredWhole) {
  for (const std::size_t size :
       {1U, 63U, 64U, 65U, 127U, 128U, 1000U, 65472U, 65535U, 65536U, 65537U, 65600U, 200001U}) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      data[i] = static_cast<char>(i * 31 >> 3);
    }
    WriteFile("/tmp/data", data);
    const std::string expected = Sha384Hex("/tmp/data");
    std::istringstream memory(data);
    EXPECT_EQ(GetSha384(memory), expected) << size;
    std::fstream file("/tmp/data");
    EXPECT_EQ(GetSha384(file), expected) << size;
    EXPECT_EQ(expected.size(), 96U);
  }
}

TEST(GetSha384Test, StreamThatIsNotGoodYieldsTheDigestOfNoData) {
  std::fstream missing("/tmp/missing");
  EXPECT_EQ(GetSha384(missing), kDigestOfNothing);
  for (const auto state : {std::ios::eofbit, std::ios::failbit, std::ios::badbit}) {
    std::istringstream in("data");
    in.setstate(state);
    EXPECT_EQ(GetSha384(in), kDigestOfNothing);
  }
}

/// Hands over data in pieces, then does something else.
class ScriptedBuffer : public std::streambuf {
 public:
  explicit ScriptedBuffer(std::string data) : data_(std::move(data)) {}
  std::streamsize asked_for = 0;
  std::streamsize available_at_once = 1000;
  std::streamsize available_at_end = 0;
  bool throws_at_end = false;

 protected:
  std::streamsize showmanyc() override {
    if (position_ == data_.size()) {
      return throws_at_end ? 1 : available_at_end;
    }
    return std::min(available_at_once, static_cast<std::streamsize>(data_.size() - position_));
  }
  std::streamsize xsgetn(char* to, std::streamsize count) override {
    asked_for = std::max(asked_for, count);
    if (position_ == data_.size()) {
      throw std::runtime_error("the disk is broken");
    }
    const std::size_t length = data_.copy(to, static_cast<std::size_t>(count), position_);
    position_ += length;
    return static_cast<std::streamsize>(length);
  }

 private:
  std::string data_;
  std::size_t position_ = 0;
};

std::string DigestOf(const std::string& data) {
  std::istringstream in(data);
  return GetSha384(in);
}

TEST(GetSha384Test, FailureWhileReadingIsReported) {
  for (const char* data : {"", "some data before"}) {
    ScriptedBuffer buffer(data);
    buffer.throws_at_end = true;
    std::istream in(&buffer);
    EXPECT_EQ(ErrorOf([&] { GetSha384(in); }), Thrown{"Fail during reading for SHA digest"});
  }
}

TEST(GetSha384Test, EndsWhereNothingIsAvailable) {
  const std::string data(1000, 'x');
  for (const std::streamsize end : {0, -1}) {
    ScriptedBuffer buffer(data);
    buffer.available_at_end = end;
    std::istream in(&buffer);
    EXPECT_EQ(GetSha384(in), DigestOf(data));
    EXPECT_EQ(in.eof(), end == -1);
  }
}

TEST(GetSha384Test, ReadsAtMost64CharactersAtOnce) {
  const std::string data(100000, 'x');
  for (const std::streamsize piece : {1, 63, 64, 1000}) {
    ScriptedBuffer buffer(data);
    buffer.available_at_once = piece;
    std::istream in(&buffer);
    EXPECT_EQ(GetSha384(in), DigestOf(data));
    EXPECT_EQ(buffer.asked_for, std::min<std::streamsize>(piece, 64));
  }
}

TEST(TolmGetUserAgentTest, IsThePlatformsText) {
  char expected[1024];
  ASSERT_GT(TLIBTminfoUserAgentGet("database", expected, sizeof expected), 0);
  EXPECT_EQ(TolmGetUserAgent("database"), expected);
}

TEST(GetSizeTest, WhatIsNotThereOrHoldsNoFilesIsZero) {
  MakeTree("/tmp/t", {{"empty/", ""}, {"dirs/a/b/", ""}, {"dirs/c/", ""}});
  const IOUtils io;
  EXPECT_EQ(io.GetSize("/tmp/missing"), 0U);
  EXPECT_EQ(io.GetSize("/tmp/missing/below"), 0U);
  EXPECT_EQ(io.GetSize(""), 0U);
  EXPECT_EQ(io.GetSize("/tmp/t/empty"), 0U);
  EXPECT_EQ(io.GetSize("/tmp/t/dirs"), 0U);
  EXPECT_EQ(io.GetSize("/dev/null"), 0U);
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  EXPECT_EQ(io.GetSize("/tmp/fifo"), 0U);
}

TEST(GetSizeTest, FilesCountWithTheirSizeAlsoThroughALink) {
  MakeTree("/tmp/t", {{"file", "12345"}, {"link -> file", ""}, {"nowhere -> missing", ""}});
  const IOUtils io;
  EXPECT_EQ(io.GetSize("/tmp/t/file"), 5U);
  EXPECT_EQ(io.GetSize("/tmp/t/link"), 5U);
  EXPECT_EQ(io.GetSize("/tmp/t/nowhere"), 0U);
}

TEST(GetSizeTest, DirectoryIsTheSumOfTheRegularFilesBelowIt) {
  MakeTree("/tmp/t", {{"d/a", "1"},
                      {"d/sub/b", "12"},
                      {"d/sub/deep/c", "1234"},
                      {"d/link to a file -> a", ""},         // Counts the file again.
                      {"d/link to a directory -> sub", ""},  // Is not entered.
                      {"d/dangling -> missing", ""}});
  ASSERT_EQ(mkfifo("/tmp/t/d/fifo", 0600), 0);
  EXPECT_EQ(IOUtils().GetSize("/tmp/t/d"), 1U + 2U + 4U + 1U);
  fs::create_directory_symlink("/tmp/t/d", "/tmp/t/link");
  EXPECT_EQ(IOUtils().GetSize("/tmp/t/link"), 8U);
}

TEST(GetSizeTest, SumGoesBeyond32Bits) {
  fs::create_directory("/tmp/d");
  for (const char* name : {"/tmp/d/a", "/tmp/d/b"}) {
    WriteFile(name, "");
    fs::resize_file(name, 3ULL << 30);
  }
  EXPECT_EQ(IOUtils().GetSize("/tmp/d/a"), 3ULL << 30);
  EXPECT_EQ(IOUtils().GetSize("/tmp/d"), 6ULL << 30);
}

TEST(GetSizeTest, FileSystemErrorIsReportedWithItsText) {
  MakeTree("/tmp/t", {{"loop -> loop", ""}, {"d/loop -> loop", ""}});
  for (const std::string& path :
       {kTooLongName, std::string("/tmp/t/loop"), std::string("/tmp/t/d")}) {
    const Thrown thrown = ErrorOf([&] { IOUtils().GetSize(path); });
    const std::string start = "Fail to get size on " + path + ": ";
    EXPECT_EQ(thrown.message.rfind(start, 0), 0U) << thrown;
    const char* reason = std::strerror(path == kTooLongName ? ENAMETOOLONG : ELOOP);
    EXPECT_NE(thrown.message.find(reason, start.size()), std::string::npos) << thrown;
    EXPECT_EQ(thrown.code, UpdateError::kGeneral);
  }
}

/// Walks nothing, but hands over what it was given, or throws.
class OtherWalk : public IOUtils {
 public:
  void IterateDirectory(const std::string& directory,
                        std::function<void(const std::string&)> callback,
                        bool recursive) const override {
    asked.push_back(directory + (recursive ? " recursive" : ""));
    if (fails) {
      throw UpdateError(std::string("no walk"), UpdateError::kFileNotExist);
    }
    for (const std::string& entry : entries) {
      callback(entry);
    }
  }
  mutable std::vector<std::string> asked;
  std::vector<std::string> entries;
  bool fails = false;
};

TEST(GetSizeTest, DirectoryIsWalkedThroughTheVirtualOperation) {
  WriteFile("/tmp/five", "12345");
  fs::create_directory("/tmp/d");
  OtherWalk io;
  io.entries = {"/tmp/five", "/tmp/five", "/tmp/missing", "/tmp"};
  EXPECT_EQ(io.GetSize("/tmp/d"), 10U);
  EXPECT_THAT(io.asked, ElementsAre("/tmp/d recursive"));
  EXPECT_EQ(io.GetSize("/tmp/five"), 5U);
  EXPECT_EQ(io.asked.size(), 1U);
}

TEST(GetSizeTest, ErrorOfTheWalkPassesUnchanged) {
  OtherWalk io;
  io.fails = true;
  EXPECT_EQ(ErrorOf([&] { io.GetSize("/tmp"); }), (Thrown{"no walk", UpdateError::kFileNotExist}));
}

TEST(GetFsSizeTest, GivesWhatIsAvailableThenTheCapacity) {
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 1024 * 1024);
  const auto [available, capacity] = IOUtils().GetFsSize("/tmp/small");
  EXPECT_EQ(capacity, 1024U * 1024U);
  EXPECT_EQ(available, 1024 * 1024);
  WriteFile("/tmp/small/file", std::string(256 * 1024, 'x'));
  EXPECT_EQ(IOUtils().GetFsSize("/tmp/small").first, 768 * 1024);
  EXPECT_EQ(IOUtils().GetFsSize("/tmp/small").second, 1024U * 1024U);
  static_assert(
      std::is_same_v<decltype(IOUtils().GetFsSize("")), std::pair<std::int64_t, std::uint64_t>>);
}

TEST(GetFsSizeTest, OnlyADirectoryIsAnswered) {
  MakeTree("/tmp/t", {{"file", ""}, {"dangling -> missing", ""}, {"loop -> loop", ""}});
  for (const std::string& path :
       {std::string("/tmp/missing"), std::string("/tmp/t/file"), std::string("/tmp/t/dangling"),
        std::string("/tmp/t/loop"), std::string("/dev/null"), std::string(), kTooLongName}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().GetFsSize(path); }),
              Thrown{"Invalid filesystem to testing space"})
        << path;
  }
  fs::create_directory_symlink("/tmp", "/tmp/t/link");
  EXPECT_EQ(IOUtils().GetFsSize("/tmp/t/link").second, IOUtils().GetFsSize("/tmp").second);
}

TEST(ReadJsonTest, GivesTheDocumentWithItsComments) {
  WriteFile("/tmp/a.json", "// before\n{\"a\": [1, -2, 1.5, true, null, \"\\u00e4/\"] /* in */}\n");
  const Json::Value value = IOUtils().ReadJson("/tmp/a.json");
  ASSERT_EQ(value["a"].size(), 6U);
  EXPECT_EQ(value["a"][0], 1);
  EXPECT_EQ(value["a"][1], -2);
  EXPECT_EQ(value["a"][2], 1.5);
  EXPECT_EQ(value["a"][3], true);
  EXPECT_TRUE(value["a"][4].isNull());
  EXPECT_EQ(value["a"][5], "\u00e4/");
  EXPECT_EQ(value.getComment(Json::commentBefore), "// before");
}

TEST(ReadJsonTest, AnyJsonTypeIsADocument) {
  for (const char* text : {"null", "true", "5", "1.5", "\"text\"", "[]", "{}", " {}\n"}) {
    WriteFile("/tmp/a.json", text);
    EXPECT_NO_THROW(IOUtils().ReadJson("/tmp/a.json")) << text;
  }
}

TEST(ReadJsonTest, MissingFileHasACodeOfItsOwn) {
  MakeTree("/tmp/t", {{"file", ""}, {"dangling -> missing", ""}});
  for (const char* path : {"/tmp/t/missing", "/tmp/t/no/such/parent", "/tmp/t/file/below",
                           "/tmp/t/dangling", "", "relative"}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().ReadJson(path); }),
              (Thrown{std::string("File not exist: ") + path, UpdateError::kFileNotExist}));
  }
}

TEST(ReadJsonTest, FileThatCannotBeOpenedIsReported) {
  MakeTree("/tmp/t", {{"loop -> loop", ""}});
  const UniqueDescriptor socket_file(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{AF_UNIX, "/tmp/t/socket"};
  ASSERT_EQ(bind(socket_file.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  for (const std::string& path :
       {std::string("/tmp/t/loop"), std::string("/tmp/t/socket"), kTooLongName}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().ReadJson(path); }), Thrown{"Fail to read: " + path});
  }
}

TEST(ReadJsonTest, FileThatCannotBeReadIsReported) {
  EXPECT_EQ(ErrorOf([] { IOUtils().ReadJson("/tmp"); }), Thrown{"Fail to read: /tmp"});
  // Opens, but its reads fail.
  EXPECT_EQ(ErrorOf([] { IOUtils().ReadJson("/proc/self/mem"); }),
            Thrown{"Fail to read: /proc/self/mem"});
}

TEST(ReadJsonTest, WhatIsNotJsonIsReported) {
  const std::string texts[] = {"",
                               " \n",
                               "// only a comment\n",
                               "{",
                               "{\"a\"}",
                               "{\"a\": }",
                               "[1 2]",
                               "nul",
                               "text",
                               "\"open",
                               "{\"a\": 1e999}",
                               std::string(10, '\0'),
                               "\xff\xfe{\0}\0",
                               "<html></html>"};
  for (const std::string& text : texts) {
    WriteFile("/tmp/a.json", text);
    EXPECT_EQ(ErrorOf([] { IOUtils().ReadJson("/tmp/a.json"); }),
              Thrown{"Fail to decode: /tmp/a.json"})
        << text;
  }
}

TEST(ReadJsonTest, DocumentCutAnywhereIsReported) {
  const std::string whole = R"({"a": [1, {"b": "c"}], "d": null})";
  for (std::size_t length = 0; length < whole.size(); ++length) {
    WriteFile("/tmp/a.json", whole.substr(0, length));
    EXPECT_EQ(ErrorOf([] { IOUtils().ReadJson("/tmp/a.json"); }),
              Thrown{"Fail to decode: /tmp/a.json"})
        << length;
  }
  WriteFile("/tmp/a.json", whole);
  EXPECT_NO_THROW(IOUtils().ReadJson("/tmp/a.json"));
}

std::string Nested(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  for (std::size_t i = 0; i < depth; ++i) {
    text += open;
  }
  text += "1";
  for (std::size_t i = 0; i < depth; ++i) {
    text += close;
  }
  return text;
}

TEST(ReadJsonTest, NestingThatIsTooDeepIsADecodingFailure) {
  for (const std::size_t depth : {1001U, 5000U, 100000U}) {
    for (const std::string& text : {Nested(depth, "[", "]"), Nested(depth, "{\"a\":", "}")}) {
      WriteFile("/tmp/a.json", text);
      EXPECT_EQ(ErrorOf([] { IOUtils().ReadJson("/tmp/a.json"); }),
                Thrown{"Fail to decode: /tmp/a.json"})
          << depth;
    }
  }
  WriteFile("/tmp/a.json", Nested(900, "[", "]"));
  EXPECT_NO_THROW(IOUtils().ReadJson("/tmp/a.json"));
}

Json::Value SomeDocument() {
  Json::Value value;
  value["a"]["b"] = 1;
  value["c"] = "d";
  return value;
}

TEST(WriteJsonTest, IndentsByOneTab) {
  IOUtils().WriteJson("/tmp/a.json", SomeDocument());
  EXPECT_EQ(ReadFile("/tmp/a.json"),
            "{\n"
            "\t\"a\" : \n"
            "\t{\n"
            "\t\t\"b\" : 1\n"
            "\t},\n"
            "\t\"c\" : \"d\"\n"
            "}\n");
}

TEST(WriteJsonTest, WrittenDocumentsAreReadBack) {
  Json::Value value = SomeDocument();
  value["text"] = "\"\\\n\t/\u00e4";
  value["large"] = Json::Value(Json::UInt64{18446744073709551615ULL});
  value["list"].append(Json::Value());
  value["list"].append(-1.5);
  value["empty"] = Json::Value(Json::objectValue);
  for (const Json::Value& document : {value, Json::Value(), Json::Value("text"), value["list"]}) {
    IOUtils().WriteJson("/tmp/a.json", document);
    EXPECT_EQ(IOUtils().ReadJson("/tmp/a.json"), document);
  }
}

TEST(WriteJsonTest, MissingParentsAreMade) {
  IOUtils().WriteJson("/tmp/a/b/c/d.json", SomeDocument());
  EXPECT_EQ(IOUtils().ReadJson("/tmp/a/b/c/d.json"), SomeDocument());
}

TEST(WriteJsonTest, ExistingFileIsRewrittenInPlace) {
  WriteFile("/tmp/t/a.json", std::string(10000, ' '));
  fs::create_hard_link("/tmp/t/a.json", "/tmp/t/other name");
  fs::permissions("/tmp/t/a.json", fs::perms(0604));
  IOUtils().WriteJson("/tmp/t/a.json", SomeDocument());
  EXPECT_EQ(IOUtils().ReadJson("/tmp/t/other name"), SomeDocument());
  EXPECT_LT(fs::file_size("/tmp/t/a.json"), 100U);
  EXPECT_EQ(fs::status("/tmp/t/a.json").permissions(), fs::perms(0604));
  EXPECT_EQ(ReadTree("/tmp/t").size(), 2U) << "no temporary file";
}

TEST(WriteJsonTest, ParentThatCannotBeMadeIsReported) {
  WriteFile("/tmp/file", "");
  fs::create_directory("/tmp/locked");
  const ScopedMount mount = ScopedMount::ReadOnly("/tmp/locked");
  for (const std::string& path :
       {std::string("/tmp/file/sub/a.json"), std::string("/tmp/locked/sub/a.json"),
        kTooLongName + "/a.json"}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().WriteJson(path, SomeDocument()); }),
              Thrown{"Fail to create parent folder: " + path});
  }
}

TEST(WriteJsonTest, FileThatCannotBeOpenedIsReported) {
  MakeTree("/tmp/t", {{"file", ""}, {"directory/", ""}, {"locked/a.json", "before"}});
  const ScopedMount mount = ScopedMount::ReadOnly("/tmp/t/locked");
  for (const std::string& path :
       {std::string("/tmp/t/file/a.json"), std::string("/tmp/t/directory"),
        std::string("/tmp/t/locked/a.json"), std::string("/tmp/t/locked/b.json"), kTooLongName}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().WriteJson(path, SomeDocument()); }),
              Thrown{"Fail to write: " + path});
  }
  EXPECT_EQ(ReadFile("/tmp/t/locked/a.json"), "before");
}

TEST(WriteJsonTest, FullDiskIsReported) {
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 4096);
  const Json::Value large(std::string(100000, 'x'));
  EXPECT_EQ(ErrorOf([&] { IOUtils().WriteJson("/tmp/small/a.json", large); }),
            Thrown{"Fail to write: /tmp/small/a.json"});
  // Small enough to fail only when the file is closed.
  EXPECT_EQ(ErrorOf([&] { IOUtils().WriteJson("/dev/full", SomeDocument()); }),
            Thrown{"Fail to write: /dev/full"});
}

void SetAge(const std::string& path, std::chrono::seconds age) {
  const timespec times[2] = {{0, UTIME_NOW}, {time(nullptr) - age.count(), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(FileCreateOverTest, ComparesTheModificationTime) {
  WriteFile("/tmp/file", "");
  const IOUtils io;
  SetAge("/tmp/file", std::chrono::hours(2));
  EXPECT_TRUE(io.FileCreateOver("/tmp/file", 3600));
  EXPECT_TRUE(io.FileCreateOver("/tmp/file", 0));
  EXPECT_FALSE(io.FileCreateOver("/tmp/file", 3 * 3600));
  SetAge("/tmp/file", -std::chrono::hours(1));
  EXPECT_FALSE(io.FileCreateOver("/tmp/file", 0));
  EXPECT_TRUE(io.FileCreateOver("/tmp/file", -2 * 3600));
}

TEST(FileCreateOverTest, LinksAreFollowed) {
  MakeTree("/tmp/t", {{"file", ""}, {"link -> file", ""}});
  SetAge("/tmp/t/file", std::chrono::hours(2));
  EXPECT_TRUE(IOUtils().FileCreateOver("/tmp/t/link", 3600));
}

TEST(FileCreateOverTest, FileWithoutAttributesIsReportedWithItsErrno) {
  MakeTree("/tmp/t", {{"file", ""}, {"loop -> loop", ""}});
  const std::pair<std::string, int> rows[] = {{"/tmp/t/missing", ENOENT},
                                              {"/tmp/t/file/below", ENOTDIR},
                                              {"/tmp/t/loop", ELOOP},
                                              {kTooLongName, ENAMETOOLONG}};
  for (const auto& [path, number] : rows) {
    EXPECT_EQ(ErrorOf([p = path] { IOUtils().FileCreateOver(p, 0); }),
              Thrown{"Failed to get attribute of " + path + ", errno=" + std::to_string(number)});
  }
}

TEST(RmRfTest, RemovesEverythingBelowThePath) {
  MakeTree("/tmp/t", {{"d/a", "1"}, {"d/sub/deep/b", "2"}, {"d/empty/", ""}, {"file", ""}});
  IOUtils().RmRf("/tmp/t/d");
  IOUtils().RmRf("/tmp/t/file");
  EXPECT_EQ(ReadTree("/tmp/t"), Tree());
}

TEST(RmRfTest, LinksAreRemovedAndNotFollowed) {
  MakeTree("/tmp/t", {{"kept/a", "1"}, {"d/link -> ../kept", ""}, {"link -> kept", ""}});
  IOUtils().RmRf("/tmp/t/d");
  IOUtils().RmRf("/tmp/t/link");
  EXPECT_EQ(ReadTree("/tmp/t"), (Tree{{"kept/", ""}, {"kept/a", "1"}}));
}

TEST(RmRfTest, MissingPathIsNoFailure) {
  EXPECT_NO_THROW(IOUtils().RmRf("/tmp/missing"));
  EXPECT_NO_THROW(IOUtils().RmRf("/tmp/missing/below"));
}

TEST(RmRfTest, FailureIsReported) {
  MakeTree("/tmp/t", {{"d/a", "1"}});
  const ScopedMount mount = ScopedMount::ReadOnly("/tmp/t");
  EXPECT_EQ(ErrorOf([] { IOUtils().RmRf("/tmp/t/d"); }), Thrown{"Fail to remove all: /tmp/t/d"});
  EXPECT_EQ(ErrorOf([] { IOUtils().RmRf(kTooLongName); }),
            Thrown{"Fail to remove all: " + kTooLongName});
}

TEST(CopyFileTest, MakesTheParentsAndCopiesContentAndMode) {
  WriteFile("/tmp/from", "content");
  fs::permissions("/tmp/from", fs::perms(0640));
  IOUtils().CopyFile("/tmp/from", "/tmp/a/b/to");
  EXPECT_EQ(ReadFile("/tmp/a/b/to"), "content");
  EXPECT_EQ(fs::status("/tmp/a/b/to").permissions(), fs::perms(0640));
}

TEST(CopyFileTest, ReplacesWhatIsThere) {
  const Tree start = {{"from", "new"},      {"kept", "kept"},       {"file", "old and longer"},
                      {"link -> kept", ""}, {"dangling -> no", ""}, {"empty directory/", ""}};
  MakeTree("/tmp/t", start);
  ASSERT_EQ(mkfifo("/tmp/t/fifo", 0600), 0);
  for (const char* name : {"file", "link", "dangling", "empty directory", "fifo", "nothing"}) {
    const std::string to = std::string("/tmp/t/") + name;
    IOUtils().CopyFile("/tmp/t/from", to);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(to))) << name;
    EXPECT_EQ(ReadFile(to), "new") << name;
  }
  EXPECT_EQ(ReadFile("/tmp/t/kept"), "kept");
  EXPECT_FALSE(fs::exists("/tmp/t/no"));
}

TEST(CopyFileTest, ReaderOfTheReplacedFileKeepsItWhole) {
  WriteFile("/tmp/from", "new");
  WriteFile("/tmp/to", "old");
  std::ifstream reader("/tmp/to");
  IOUtils().CopyFile("/tmp/from", "/tmp/to");
  std::string text;
  reader >> text;
  EXPECT_EQ(text, "old");
}

TEST(CopyFileTest, CopiesBetweenFileSystems) {
  const std::string content(3 * 1024 * 1024 + 17, 'c');
  WriteFile("/volume1/from", content);
  WriteFile("/volume2/to", "old");
  IOUtils().CopyFile("/volume1/from", "/volume2/to");
  EXPECT_EQ(ReadFile("/volume2/to"), content);
  IOUtils().CopyFile("/volume1/from", "/var/db/exampledb/to");
  EXPECT_EQ(ReadFile("/var/db/exampledb/to"), content);
}

TEST(CopyFileTest, LinkIsCopiedAsALink) {
  MakeTree("/tmp/t", {{"file", "content"},
                      {"directory/a", ""},
                      {"to a file -> file", ""},
                      {"to a directory -> directory", ""},
                      {"dangling -> missing", ""}});
  IOUtils().CopyFile("/tmp/t/to a file", "/tmp/copy/1");
  IOUtils().CopyFile("/tmp/t/to a directory", "/tmp/copy/2");
  IOUtils().CopyFile("/tmp/t/dangling", "/tmp/copy/3");
  EXPECT_EQ(ReadTree("/tmp/copy"),
            (Tree{{"1 -> file", ""}, {"2 -> directory", ""}, {"3 -> missing", ""}}));
}

TEST(CopyFileTest, DirectoryBecomesAnEmptyDirectory) {
  MakeTree("/tmp/t", {{"d/a", "1"}, {"d/sub/b", "2"}});
  IOUtils().CopyFile("/tmp/t/d", "/tmp/copy/d");
  EXPECT_EQ(ReadTree("/tmp/copy"), (Tree{{"d/", ""}}));
}

TEST(CopyFileTest, NonEmptyDirectoryIsNotReplaced) {
  MakeTree("/tmp/t", {{"from", "new"}, {"to/file", "kept"}});
  const Thrown thrown = ErrorOf([] { IOUtils().CopyFile("/tmp/t/from", "/tmp/t/to"); });
  EXPECT_EQ(thrown.message.rfind("Fail to copy from /tmp/t/from to /tmp/t/to: ", 0), 0U) << thrown;
  EXPECT_NE(thrown.message.find(std::strerror(ENOTEMPTY)), std::string::npos) << thrown;
  EXPECT_EQ(ReadFile("/tmp/t/to/file"), "kept");
}

TEST(CopyFileTest, EveryFailedStepIsReportedWithItsText) {
  MakeTree("/tmp/t", {{"from", "1"}, {"file", "2"}, {"locked/old", "3"}});
  ASSERT_EQ(mkfifo("/tmp/t/fifo", 0600), 0);
  const ScopedMount locked = ScopedMount::ReadOnly("/tmp/t/locked");
  const ScopedMount small = ScopedMount::Tmpfs("/tmp/small", 4096);
  WriteFile("/tmp/large", std::string(100000, 'x'));
  const struct {
    const char* name;
    std::string from;
    std::string to;
    int reason;
  } rows[] = {
      {"parent is a file", "/tmp/t/from", "/tmp/t/file/sub/to", ENOTDIR},
      {"parent cannot be made", "/tmp/t/from", "/tmp/t/locked/sub/to", EROFS},
      {"old cannot be removed", "/tmp/t/from", "/tmp/t/locked/old", EROFS},
      {"new cannot be made", "/tmp/t/from", "/tmp/t/locked/new", EROFS},
      {"name is too long", "/tmp/t/from", kTooLongName, ENAMETOOLONG},
      {"source is missing", "/tmp/t/missing", "/tmp/t/to", ENOENT},
      {"source is a fifo", "/tmp/t/fifo", "/tmp/t/to", ENOTSUP},
      {"disk is full", "/tmp/large", "/tmp/small/to", ENOSPC},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Thrown thrown = ErrorOf([&] { IOUtils().CopyFile(row.from, row.to); });
    const std::string start = "Fail to copy from " + row.from + " to " + row.to + ": ";
    EXPECT_EQ(thrown.message.rfind(start, 0), 0U) << thrown;
    EXPECT_NE(thrown.message.find(std::strerror(row.reason), start.size()), std::string::npos)
        << thrown;
    EXPECT_EQ(thrown.code, UpdateError::kGeneral);
  }
  EXPECT_EQ(ReadFile("/tmp/t/locked/old"), "3");
  EXPECT_FALSE(fs::exists("/tmp/small/to"));
}

TEST(TolmMkdirTest, MakesTheDirectoryWithItsParents) {
  umask(022);
  IOUtils().TolmMkdir("/tmp/a/b/c");
  EXPECT_TRUE(fs::is_directory("/tmp/a/b/c"));
  EXPECT_EQ(fs::status("/tmp/a/b").permissions(), fs::perms(0755));
  EXPECT_NO_THROW(IOUtils().TolmMkdir("/tmp/a/b/c"));
}

TEST(TolmMkdirTest, FailureIsReported) {
  WriteFile("/tmp/file", "");
  for (const std::string& path :
       {std::string("/tmp/file"), std::string("/tmp/file/below"), kTooLongName}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().TolmMkdir(path); }), Thrown{"Fail to create dir " + path});
  }
}

std::vector<std::string> Walk(const IOUtils& io, const std::string& directory, bool recursive) {
  std::vector<std::string> paths;
  io.IterateDirectory(
      directory, [&](const std::string& path) { paths.push_back(path); }, recursive);
  return paths;
}

TEST(IterateDirectoryTest, SeparatorAtTheEndMakesNoDifference) {
  MakeTree("/tmp/x", {{"a", ""}, {"d/b", ""}});
  const auto expected = UnorderedElementsAre("/tmp/x/a", "/tmp/x/d/b", "/tmp/x/d");
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x", true), expected);
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x/", true), expected);
  fs::create_directory_symlink("/tmp/x", "/tmp/link");
  EXPECT_THAT(Walk(IOUtils(), "/tmp/link", false),
              UnorderedElementsAre("/tmp/link/a", "/tmp/link/d"));
}

TEST(IterateDirectoryTest, DirectoriesAreHandedOverWithoutRecursionToo) {
  MakeTree("/tmp/x", {{"a", ""}, {"d/b", ""}, {"empty/", ""}});
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x", false),
              UnorderedElementsAre("/tmp/x/a", "/tmp/x/d", "/tmp/x/empty"));
}

TEST(IterateDirectoryTest, DirectoryComesAfterItsContents) {
  MakeTree("/tmp/x", {{"1/2/3/4", ""}});
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x", true),
              ElementsAre("/tmp/x/1/2/3/4", "/tmp/x/1/2/3", "/tmp/x/1/2", "/tmp/x/1"));
}

TEST(IterateDirectoryTest, DirectoryCanBeRemovedByItsWalk) {
  MakeTree("/tmp/x", {{"1/2/3/4", ""}, {"1/5", ""}, {"6/", ""}});
  IOUtils().IterateDirectory(
      "/tmp/x", [](const std::string& path) { EXPECT_TRUE(fs::remove(path)) << path; }, true);
  EXPECT_TRUE(fs::is_empty("/tmp/x"));
}

TEST(IterateDirectoryTest, EveryKindOfEntryIsHandedOverAndLinksAreNotEntered) {
  MakeTree("/tmp/x", {{".hidden", ""},
                      {"file", ""},
                      {"link -> file", ""},
                      {"up -> ..", ""},
                      {"dangling -> missing", ""}});
  ASSERT_EQ(mkfifo("/tmp/x/fifo", 0600), 0);
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x", true),
              UnorderedElementsAre("/tmp/x/.hidden", "/tmp/x/file", "/tmp/x/link", "/tmp/x/up",
                                   "/tmp/x/dangling", "/tmp/x/fifo"));
}

TEST(IterateDirectoryTest, EmptyDirectoryHandsOverNothing) {
  fs::create_directory("/tmp/x");
  EXPECT_THAT(Walk(IOUtils(), "/tmp/x", true), IsEmpty());
}

/// Notes each directory and walks it.
class NotedWalk : public IOUtils {
 public:
  void IterateDirectory(const std::string& directory,
                        std::function<void(const std::string&)> callback,
                        bool recursive) const override {
    directories.push_back(directory + (recursive ? " recursive" : ""));
    IOUtils::IterateDirectory(directory, std::move(callback), recursive);
  }
  mutable std::vector<std::string> directories;
};

TEST(IterateDirectoryTest, SubdirectoriesAreWalkedThroughTheVirtualOperation) {
  MakeTree("/tmp/x", {{"1/2/a", ""}});
  const NotedWalk io;
  Walk(io, "/tmp/x", true);
  EXPECT_THAT(io.directories,
              ElementsAre("/tmp/x recursive", "/tmp/x/1 recursive", "/tmp/x/1/2 recursive"));
}

TEST(IterateDirectoryTest, MissingPathIsReported) {
  MakeTree("/tmp/t", {{"file", ""}, {"loop -> loop", ""}, {"dangling -> missing", ""}});
  for (const std::string& path :
       {std::string("/tmp/missing"), std::string(), std::string("/tmp/t/file/below"),
        std::string("/tmp/t/loop"), std::string("/tmp/t/dangling"), kTooLongName}) {
    EXPECT_EQ(ErrorOf([&] { Walk(IOUtils(), path, true); }),
              Thrown{"failed to read file stat: " + path});
  }
}

TEST(IterateDirectoryTest, OtherThanADirectoryIsReported) {
  WriteFile("/tmp/file", "");
  for (const std::string path : {"/tmp/file", "/dev/null"}) {
    EXPECT_EQ(ErrorOf([&] { Walk(IOUtils(), path, false); }), Thrown{"not a directory: " + path});
  }
}

TEST(IterateDirectoryTest, EmptyCallbackIsTheStandardLibrarysError) {
  MakeTree("/tmp/x", {{"a", ""}});
  EXPECT_THROW(IOUtils().IterateDirectory("/tmp/x", {}, false), std::bad_function_call);
}

TEST(IterateDirectoryTest, ExceptionOfTheCallbackEndsTheWalkAndPasses) {
  MakeTree("/tmp/x", {{"1/2/a", ""}, {"1/2/b", ""}});
  const std::ptrdiff_t before = OpenDescriptors();
  int calls = 0;
  const auto callback = [&](const std::string&) {
    ++calls;
    throw std::domain_error("not ours");
  };
  EXPECT_THROW(IOUtils().IterateDirectory("/tmp/x", callback, true), std::domain_error);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(ErrorOf([] {
              IOUtils().IterateDirectory(
                  "/tmp/x", [](const std::string&) { throw UpdateError("ours"); }, true);
            }),
            Thrown{"ours"});
}

class DownloadTest : public ::testing::Test {
 protected:
  static constexpr char kOutput[] = "/tmp/output";

  std::string Url(const std::string& path) const { return server_.Url(path); }
  static void ExpectFails(const std::string& url) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().Download(kOutput, url); }),
              Thrown{"Fail to wget url: " + url});
    EXPECT_FALSE(fs::exists(fs::symlink_status(kOutput))) << "nothing may stay behind";
  }

  HttpServer server_;
};

TEST_F(DownloadTest, BodyIsWrittenToTheOutput) {
  const std::string body = std::string("\0binary\n", 8) + std::string(300000, 'b');
  server_.SetBody("/db/package", body);
  IOUtils().Download(kOutput, Url("/db/package"));
  EXPECT_EQ(ReadFile(kOutput), body);
}

TEST_F(DownloadTest, OldOutputIsReplaced) {
  server_.SetBody("/file", "new");
  WriteFile(kOutput, "old and longer");
  IOUtils().Download(kOutput, Url("/file"));
  EXPECT_EQ(ReadFile(kOutput), "new");
}

TEST_F(DownloadTest, UserAgentIsSentAndLogged) {
  server_.SetBody("/file", "x");
  SyslogCapture::Clear();
  IOUtils().Download(kOutput, Url("/file"));
  const std::string user_agent = TolmGetUserAgent("database");
  ASSERT_EQ(server_.Requests().size(), 1U);
  EXPECT_EQ(server_.Requests()[0].user_agent, user_agent);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_DEBUG),
              ElementsAre("Use " + user_agent + " as user agent string"));
  EXPECT_THAT(SyslogCapture::Texts(LOG_DEBUG)[0], ::testing::MatchesRegex("utils:[0-9]+ Use .*"));
  EXPECT_EQ(SyslogCapture::Lines()[0].format.rfind("%s:%d ", 0), 0U);
}

TEST_F(DownloadTest, QueryArrivesAsItWasGiven) {
  server_.SetBody("/info", "x");
  IOUtils().Download(kOutput, Url("/info?a[]=1&b=%20&c=d"));
  EXPECT_EQ(server_.Requests()[0].target, "/info?a[]=1&b=%20&c=d");
}

TEST_F(DownloadTest, RedirectIsFollowed) {
  server_.Redirect("/old", "/new");
  server_.SetBody("/new", "moved");
  IOUtils().Download(kOutput, Url("/old"));
  EXPECT_EQ(ReadFile(kOutput), "moved");
}

TEST_F(DownloadTest, ErrorStatusLeavesNoOutput) {
  for (const int status : {404, 403, 500}) {
    HttpAnswer answer;
    answer.status = status;
    answer.body = "an explanation";
    server_.SetAnswer("/file", answer);
    WriteFile(kOutput, "old");
    ExpectFails(Url("/file"));
  }
}

TEST_F(DownloadTest, ShortBodyIsTriedThreeTimesAndLeavesNoOutput) {
  HttpAnswer answer;
  answer.stated_length = 100;
  answer.body = "too short";
  server_.SetAnswer("/file", answer);
  ExpectFails(Url("/file"));
  EXPECT_EQ(server_.RequestCount("/file"), 3U);
}

TEST_F(DownloadTest, RefusedConnectionLeavesNoOutput) {
  // Bound, so that nobody else gets the port, but nobody listens.
  const UniqueDescriptor nobody(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(nobody.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(getsockname(nobody.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  WriteFile(kOutput, "old");
  ExpectFails("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/file");
}

TEST_F(DownloadTest, HangingServerIsLeftWhenCancelled) {
  server_.Hang("/file");
  std::thread canceller([&] {
    EXPECT_TRUE(server_.WaitForRequest("/file"));
    TLIBCExecCancel(1);
  });
  ExpectFails(Url("/file"));
  canceller.join();
  EXPECT_EQ(server_.RequestCount("/file"), 1U);
}

TEST_F(DownloadTest, AnswerThatComesLateIsWaitedFor) {
  server_.Hang("/file", "late");
  std::thread releaser([&] {
    EXPECT_TRUE(server_.WaitForRequest("/file"));
    server_.Release();
  });
  IOUtils().Download(kOutput, Url("/file"));
  releaser.join();
  EXPECT_EQ(ReadFile(kOutput), "late");
}

TEST_F(DownloadTest, OutputThatCannotBeWrittenIsAFailedDownload) {
  server_.SetBody("/file", "x");
  for (const char* output : {"/tmp/missing/output", "/proc/output"}) {
    EXPECT_EQ(ErrorOf([&] { IOUtils().Download(output, Url("/file")); }),
              Thrown{"Fail to wget url: " + Url("/file")});
  }
}

TEST_F(DownloadTest, FullDiskLeavesNoOutput) {
  server_.SetBody("/file", std::string(100000, 'x'));
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 4096);
  EXPECT_EQ(ErrorOf([&] { IOUtils().Download("/tmp/small/output", Url("/file")); }),
            Thrown{"Fail to wget url: " + Url("/file")});
  EXPECT_TRUE(fs::is_empty("/tmp/small"));
}

TEST_F(DownloadTest, UrlThatIsNoneFails) {
  for (const char* url : {"", "http://", "gopher://127.0.0.1/x", "http://127.0.0.1:0/"}) {
    ExpectFails(url);
  }
}

TEST_F(DownloadTest, UrlThatLooksLikeAnOptionFailsAndRunsNothing) {
  server_.SetBody("/file", "x");
  WriteFile("/tmp/list", Url("/file") + "\n");
  for (const char* url : {"-i/tmp/list", "--input-file=/tmp/list", "--version", "--help", "-"}) {
    WriteFile(kOutput, "old");
    ExpectFails(url);
  }
  EXPECT_THAT(server_.Requests(), IsEmpty());
}

}  // namespace
}  // namespace tolm::dataupdate
