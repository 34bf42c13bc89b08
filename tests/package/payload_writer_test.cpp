#include "package/payload_writer.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "package/compression.h"
#include "package/encoder.h"
#include "package/extract.h"
#include "package/payload_reader.h"
#include "tests/package/expect_code.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/noise.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Compression;
using package::CompressionChoice;
using package::Kind;
using package::Member;
using package::Packing;
using package::PayloadReader;
using package::Seal;
using ::testing::ElementsAre;

const Seal kSeal{"oui", Kind::kFull, 7};

// After so many entries a listing fails; never when negative.
int the_listing_ends_after = -1;

// How files without a name are read.
enum class NamelessReading { kWorks, kEnds, kFails };
NamelessReading nameless_reading = NamelessReading::kWorks;

class PayloadWriterTest : public ::testing::Test {
 protected:
  fs::path Source() const { return directory_.Path() / "source"; }

  std::string Write(const package::Progress& progress = {}, const Packing& packing = {}) {
    const fs::path path = directory_.Path() / "payload";
    std::uint64_t size = 0;
    {
      const base::Descriptor out(
          ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      size =
          package::WritePayload(Source(), kSeal, packing, {out.Get(), directory_.Path()}, progress);
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

TEST(PackingMemoryTest, IsThatOfTheEncodersThatWorkWithTheWindow) {
  Packing packing;
  for (const int mebibytes : {1, 8, 32}) {
    packing.window_mebibytes = mebibytes;
    packing.compression = CompressionChoice::kXz;
    const std::uint64_t xz = package::PackingMemoryBytes(packing);
    EXPECT_EQ(xz, 12 * packing.WindowBytes());
    packing.compression = CompressionChoice::kZstd;
    const std::uint64_t zstd = package::PackingMemoryBytes(packing);
    EXPECT_EQ(zstd, 7 * packing.WindowBytes());
    packing.compression = CompressionChoice::kAuto;
    EXPECT_EQ(package::PackingMemoryBytes(packing), xz + zstd);
  }
}

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

TEST_F(PayloadWriterTest, TheSmallerContainerIsTaken) {
  struct Row {
    const char* what;
    Tree tree;
    Compression taken;
  };
  for (const Row& row : {Row{"numbers", {{"a", Numbers(20000)}}, Compression::kXz},
                         Row{"noise", {{"a", Noise(30000)}}, Compression::kZstd},
                         Row{"next to nothing", {{"a", "1"}}, Compression::kZstd}}) {
    fs::remove_all(Source());
    MakeTree(Source(), row.tree);
    const std::string xz = Write({}, {CompressionChoice::kXz});
    const std::string zstd = Write({}, {CompressionChoice::kZstd});
    EXPECT_EQ(package::CompressionOf(xz), Compression::kXz) << row.what;
    EXPECT_EQ(package::CompressionOf(zstd), Compression::kZstd) << row.what;
    EXPECT_EQ(package::XzPays(xz.size(), zstd.size()), row.taken == Compression::kXz) << row.what;
    EXPECT_TRUE(Write() == (row.taken == Compression::kXz ? xz : zstd)) << row.what;
  }
}

TEST_F(PayloadWriterTest, EveryContainerHoldsTheSame) {
  const Tree tree = {{"a", Numbers(300000)}, {"b/", ""}, {"b/c", Noise(5000)}, {"l -> a", ""}};
  MakeTree(Source(), tree);
  for (const CompressionChoice choice :
       {CompressionChoice::kXz, CompressionChoice::kZstd, CompressionChoice::kAuto}) {
    const PayloadFile file(Write({}, {choice}));
    const fs::path out = directory_.Path() / CompressionChoiceText(choice);
    fs::create_directory(out);
    package::ExtractPayload(file.fd(), file.size(), OpenDirectory(out).Get(), nullptr);
    EXPECT_TRUE(ReadTree(out) == ReadTree(Source())) << CompressionChoiceText(choice);
  }
}

TEST_F(PayloadWriterTest, BytesDoNotDependOnHowManyProcessorsThereAre) {
  MakeTree(Source(), {{"a", Numbers(400000)}, {"b", Noise(30000)}});
  const std::string together = Write();
  cpu_set_t before;
  ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int i = 0; CPU_COUNT(&one) == 0; ++i) {
    if (CPU_ISSET(i, &before)) {
      CPU_SET(i, &one);
    }
  }
  ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
  const std::string alone = Write();
  ASSERT_EQ(::sched_setaffinity(0, sizeof before, &before), 0);
  EXPECT_TRUE(alone == together);
}

TEST_F(PayloadWriterTest, XzIsGivenUpWhenItDoesNotPaySoFar) {
  MakeTree(Source(), {{"a", Noise(300000)}, {"b", Numbers(400000)}});
  Packing packing;
  EXPECT_EQ(package::CompressionOf(Write({}, packing)), Compression::kXz) << "it would pay";
  packing.trial_bytes = 250000;
  const std::string given_up = Write({}, packing);
  EXPECT_EQ(package::CompressionOf(given_up), Compression::kZstd);
  EXPECT_TRUE(given_up == Write({}, {CompressionChoice::kZstd}));
  packing.trial_bytes = 650000;
  EXPECT_EQ(package::CompressionOf(Write({}, packing)), Compression::kXz) << "it pays by then";
}

TEST_F(PayloadWriterTest, PayloadBeginsWhereTheFileStands) {
  for (const std::string& content : {Numbers(20000), Noise(30000)}) {
    MakeTree(Source(), {{"a", content}});
    const std::string alone = Write();
    const fs::path path = directory_.Path() / "behind";
    const base::Descriptor out(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    ASSERT_EQ(::write(out.Get(), "before", 6), 6);
    package::WritePayload(Source(), kSeal, {}, {out.Get(), directory_.Path()}, {});
    ASSERT_EQ(::write(out.Get(), "after", 5), 5);
    EXPECT_TRUE(ReadFile(path) == "before" + alone + "after");
  }
}

TEST_F(PayloadWriterTest, NothingIsLeftBeside) {
  MakeTree(Source(), {{"a", "1"}});
  fs::create_directory(directory_.Path() / "spare");
  const fs::path path = directory_.Path() / "p";
  const base::Descriptor out(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  package::WritePayload(Source(), kSeal, {}, {out.Get(), directory_.Path() / "spare"}, {});
  EXPECT_TRUE(fs::is_empty(directory_.Path() / "spare"));
  EXPECT_EQ(
      CodeOf([&] {
        package::WritePayload(Source(), kSeal, {}, {out.Get(), directory_.Path() / "none"}, {});
      }),
      Code::kWrite);
}

std::uint64_t TarBytes(const fs::path& source, bool has_only_ascii) {
  std::uint64_t bytes = 0;
  package::TarWriter writer([&bytes](const std::string& piece) { bytes += piece.size(); }, {},
                            has_only_ascii);
  writer.AddSeal(kSeal);
  writer.AddTree(OpenDirectory(source));
  writer.Finish();
  return bytes;
}

TEST_F(PayloadWriterTest, AnnouncedSizesCoverTheStream) {
  Tree tree = {{"a", Numbers(300000)}, {std::string(200, 'd') + "/" + std::string(255, 'f'), "1"}};
  for (int i = 0; i < 50; ++i) {
    tree["many/file" + std::to_string(i)] = "content";
  }
  for (const bool has_only_ascii : {true, false}) {
    if (!has_only_ascii) {
      tree["gr\xc3\xbcn"] = "";
    }
    MakeTree(Source(), tree);
    const package::TreeSize size = package::MeasureTree(Source());
    EXPECT_EQ(size.has_only_ascii, has_only_ascii);
    EXPECT_EQ(size.content_bytes, 300000U + 1 + 50 * 7);
    const std::uint64_t tar_bytes = TarBytes(Source(), has_only_ascii);
    EXPECT_GE(size.tar_bytes, tar_bytes);
    EXPECT_LE(size.tar_bytes, tar_bytes * 12 / 10);
  }
}

TEST_F(PayloadWriterTest, AnnouncedSizesCoverFilesAroundTheSizeOfARecord) {
  for (const std::size_t bytes : {511U, 512U, 513U}) {
    Tree tree;
    for (int i = 0; i < 50; ++i) {
      tree["file" + std::to_string(i)] = std::string(bytes, 'x');
    }
    fs::remove_all(Source());
    MakeTree(Source(), tree);
    EXPECT_GE(package::MeasureTree(Source()).tar_bytes, TarBytes(Source(), true)) << bytes;
  }
}

// The seal at its largest and the end take ten records, and each header one.
TEST_F(PayloadWriterTest, AnnouncedSizeIsThatOfItsRecords) {
  const auto records = [this](const Tree& tree) {
    fs::remove_all(Source());
    MakeTree(Source(), tree);
    const std::uint64_t bytes = package::MeasureTree(Source()).tar_bytes;
    EXPECT_EQ(bytes % 512, 0U);
    return bytes / 512;
  };
  EXPECT_EQ(records({{"a", ""}}), 12U);
  EXPECT_EQ(records({{"a", "1"}, {"b", std::string(512, 'x')}}), 15U);
  EXPECT_EQ(records({{"a", std::string(513, 'x')}}), 14U);
  EXPECT_EQ(records({{std::string(99, 'x'), ""}}), 12U);
  EXPECT_EQ(records({{std::string(100, 'x'), ""}}), 12U + 3) << "a header for its name";
  EXPECT_EQ(records({{"l -> " + std::string(100, 'x'), ""}}), 12U);
  EXPECT_EQ(records({{"l -> " + std::string(101, 'x'), ""}}), 12U + 3) << "one for where it leads";
  EXPECT_EQ(records({{"gr\xc3\xbcn", ""}}), 12U + 2 * 3) << "for its name, and the seal's";
  EXPECT_EQ(records({{"l -> \x80", ""}}), 12U + 2 * 3);
}

TEST_F(PayloadWriterTest, ExtendedHeadersTellNoTimeEither) {
  MakeTree(Source(), {{std::string(200, 'x'), "1"}});
  std::string stream;
  package::TarWriter writer([&stream](const std::string& piece) { stream += piece; }, {}, true);
  writer.AddSeal(kSeal);
  writer.AddTree(OpenDirectory(Source()));
  writer.Finish();
  EXPECT_NE(stream.find("path=" + std::string(200, 'x')), std::string::npos);
  EXPECT_EQ(stream.find("mtime="), std::string::npos);
}

TEST_F(PayloadWriterTest, FailureOfWhoTakesTheStreamEndsItAtOnce) {
  MakeTree(Source(), {{"a", std::string(4 << 20, 'x')}});
  std::uint64_t read = 0;
  package::TarWriter writer([](const std::string&) { throw std::out_of_range("no more"); },
                            [&read](std::uint64_t bytes) { read = bytes; }, true);
  EXPECT_THROW(
      {
        writer.AddSeal(kSeal);
        writer.AddTree(OpenDirectory(Source()));
      },
      std::out_of_range);
  EXPECT_LT(read, std::uint64_t{1} << 20);
}

TEST_F(PayloadWriterTest, OnlyOtherNamesThanAsciiNeedAHeaderMore) {
  MakeTree(Source(), {{"a", "content"}, {"b", "content"}});
  EXPECT_TRUE(package::MeasureTree(Source()).has_only_ascii);
  // Seal and members, a header and a content each, and the end.
  EXPECT_EQ(TarBytes(Source(), true), (3 * 2 + 2) * 512U);
  EXPECT_EQ(TarBytes(Source(), false), (3 * 4 + 2) * 512U);
}

// What a header of the ustar format (POSIX.1-2017, pax) says in octal digits.
unsigned long Field(const std::string& header, std::size_t at, std::size_t size) {
  return std::stoul(header.substr(at, size), nullptr, 8);
}

// "<name> <mode> <owner>:<group> <modification time> <type>" of every member of a stream with short
// names.
std::vector<std::string> HeadersOf(const std::string& stream) {
  std::vector<std::string> headers;
  for (std::size_t at = 0; at + 512 <= stream.size() && stream[at] != '\0';) {
    const std::string header = stream.substr(at, 512);
    std::ostringstream line;
    line << header.c_str() << ' ' << std::oct << Field(header, 100, 8) << ' '
         << Field(header, 108, 8) << ':' << Field(header, 116, 8) << ' ' << Field(header, 136, 12)
         << ' ' << header[156];
    headers.push_back(line.str());
    at += 512 + (Field(header, 124, 12) + 511) / 512 * 512;
  }
  return headers;
}

TEST_F(PayloadWriterTest, HeadersTellPermissionsAndNeitherOwnerNorTime) {
  MakeTree(Source(), {{"d/", ""}, {"d/program", "1"}, {"secret", "2"}, {"usual", "3"}});
  fs::create_symlink("usual", Source() / "link");
  ASSERT_EQ(::chmod((Source() / "d").c_str(), 0711), 0);
  ASSERT_EQ(::chmod((Source() / "d/program").c_str(), 04755), 0);
  ASSERT_EQ(::chmod((Source() / "secret").c_str(), 0600), 0);
  ASSERT_EQ(::chmod((Source() / "usual").c_str(), 0644), 0);
  std::string stream;
  package::TarWriter writer([&stream](const std::string& piece) { stream += piece; }, {}, true);
  writer.AddSeal(kSeal);
  writer.AddTree(OpenDirectory(Source()));
  writer.Finish();
  EXPECT_THAT(HeadersOf(stream),
              ElementsAre(".tolmpkg 644 0:0 0 0", "d/ 711 0:0 0 5", "d/program 755 0:0 0 0",
                          "link 777 0:0 0 2", "secret 600 0:0 0 0", "usual 644 0:0 0 0"));
}

TEST_F(PayloadWriterTest, NameThatTurnsUpLateIsRefusedAndNotAltered) {
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  MakeTree(Source(), {{"gr\xc3\xbcn", "1"}});
  EXPECT_EQ(CodeOf([&] { TarBytes(Source(), true); }), Code::kInternal);
}

TEST_F(PayloadWriterTest, WhatALinkLeadsToMayBeOtherThanAscii) {
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  fs::create_directory(Source());
  fs::create_symlink("gr\xc3\xbcn", Source() / "link");
  EXPECT_FALSE(package::MeasureTree(Source()).has_only_ascii);
  const PayloadFile file(Write());
  PayloadReader reader(file.fd(), file.size());
  Member member;
  ASSERT_TRUE(reader.Next(member));
  EXPECT_EQ(member.target, "gr\xc3\xbcn");
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
                      {"a name of what is unpacked into", Code::kMemberPath,
                       [](const fs::path& p) { WriteFile(p / ".tolmpkg-7-staging", "x"); }},
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

TEST_F(PayloadWriterTest, FileThatGrowsAndHidesItIsRefused) {
  MakeTree(Source(), {{"a", std::string(1 << 20, 'x')}});
  const fs::file_time_type before = fs::last_write_time(Source() / "a");
  const auto grow = [&](std::uint64_t) {
    std::ofstream(Source() / "a", std::ios::app) << "more";
    fs::last_write_time(Source() / "a", before);
  };
  EXPECT_EQ(CodeOf([&] { Write(grow); }), Code::kChanged);
}

TEST_F(PayloadWriterTest, FileOfAnotherTimeAfterwardsIsRefused) {
  MakeTree(Source(), {{"a", "content"}});
  const fs::file_time_type before = fs::last_write_time(Source() / "a");
  for (const std::chrono::nanoseconds later : std::initializer_list<std::chrono::nanoseconds>{
           std::chrono::seconds(1), std::chrono::nanoseconds(1)}) {
    fs::last_write_time(Source() / "a", before);
    EXPECT_EQ(CodeOf([&] {
                Write([&](std::uint64_t) { fs::last_write_time(Source() / "a", before + later); });
              }),
              Code::kChanged)
        << later.count();
  }
}

TEST_F(PayloadWriterTest, ListingThatFailsInItsMiddleIsAFailure) {
  MakeTree(Source(), {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  for (int entries = 0; entries < 5; ++entries) {
    the_listing_ends_after = entries;
    EXPECT_EQ(WriteCode(), Code::kRead) << entries;
  }
  the_listing_ends_after = -1;
  EXPECT_EQ(WriteCode(), std::nullopt);
}

// How far back a frame's decoder must be able to look (RFC 8878, section 3.1.1.1.2).
std::uint64_t WindowOfZstdFrame(const std::string& bytes) {
  const auto descriptor = static_cast<unsigned char>(bytes.at(5));
  const std::uint64_t base = std::uint64_t{1} << (10 + (descriptor >> 3));
  return base + base / 8 * (descriptor & 7);
}

TEST_F(PayloadWriterTest, MuchContentIsCompressedWithLessEffort) {
  MakeTree(Source(), {{"a", ""}});
  fs::resize_file(Source() / "a", (std::uint64_t{256} << 20) + 1);
  const Packing packing{CompressionChoice::kZstd};
  const std::string quick = Write({}, packing);
  EXPECT_EQ(WindowOfZstdFrame(quick), package::EffortFor(~std::uint64_t{0}).most_zstd_window_bytes);
}

TEST_F(PayloadWriterTest, SpareFileThatCannotBeReadIsAFailure) {
  MakeTree(Source(), {{"a", Noise(30000)}});  // zstd is taken, which stands there
  for (const auto& [reading, reason] :
       {std::pair{NamelessReading::kEnds, EIO}, std::pair{NamelessReading::kFails, ENXIO}}) {
    nameless_reading = reading;
    try {
      Write();
      ADD_FAILURE() << "not noticed";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), Code::kRead);
      EXPECT_EQ(error.errno_value(), reason);
    }
    nameless_reading = NamelessReading::kWorks;
  }
}

TEST_F(PayloadWriterTest, FullDiskIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  MakeTree(Source(), {{"a", Noise(1 << 20)}});
  const base::Descriptor full(::open("/small/p", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const base::Descriptor wide(
      ::open((directory_.Path() / "p").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const auto code = [&](CompressionChoice choice, const base::Descriptor& out,
                        const std::string& spare) {
    return CodeOf([&] {
      package::WritePayload(Source(), kSeal, {choice}, {out.Get(), spare}, {});
    });
  };
  EXPECT_EQ(code(CompressionChoice::kAuto, full, directory_.Path()), Code::kNoSpace);
  EXPECT_EQ(code(CompressionChoice::kAuto, wide, "/small"), Code::kNoSpace);
  EXPECT_EQ(code(CompressionChoice::kXz, full, ""), Code::kNoSpace);
  EXPECT_EQ(code(CompressionChoice::kZstd, full, ""), Code::kNoSpace);
}

}  // namespace
}  // namespace tolm::testing

// Before the C library's: a disk that fails, or loses what was written.
extern "C" ssize_t pread(int file, void* buffer, size_t size, off_t offset) {
  using tolm::testing::NamelessReading;
  using Call = ssize_t(int, void*, size_t, off_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "pread64"));
  struct stat status {};
  if (tolm::testing::nameless_reading != NamelessReading::kWorks && ::fstat(file, &status) == 0 &&
      status.st_nlink == 0) {
    errno = ENXIO;
    return tolm::testing::nameless_reading == NamelessReading::kEnds ? 0 : -1;
  }
  return real(file, buffer, size, offset);
}

// A listing of a damaged directory.
extern "C" dirent* readdir(DIR* directory) {
  using Call = dirent*(DIR*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "readdir64"));
  if (tolm::testing::the_listing_ends_after == 0) {
    errno = EIO;
    return nullptr;
  }
  if (tolm::testing::the_listing_ends_after > 0) {
    --tolm::testing::the_listing_ends_after;
  }
  return real(directory);
}
