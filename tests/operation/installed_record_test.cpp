#include "operation/installed_record.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/file.h"
#include "operation/service.h"
#include "tests/support/files.h"

namespace {

off_t readable_bytes = -1;  // Of every file on a bad disk; negative for a good one.

}  // namespace

#pragma GCC visibility push(default)  // The standard library's streams call it.
ssize_t read(int fd, void* buffer, std::size_t size) {
  if (readable_bytes >= 0 && lseek(fd, 0, SEEK_CUR) >= readable_bytes) {
    errno = EIO;
    return -1;
  }
  using Call = ssize_t(int, void*, std::size_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "read"));
  return real(fd, buffer, size);
}
#pragma GCC visibility pop

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::WriteFile;

const fs::path kVersionFile = "/var/lib/data_update/oui/version.json";
const fs::path kRecord = "/var/lib/data_update/oui/installed.json";

RecordedFile FileOf(const std::string& name) {
  return {{name, S_IFREG | 0644, 3, 1700000000123456789, 1700000001000000000, 0},
          std::string(96, 'a')};
}

class InstalledRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(kVersionFile, "{}");
    record_.version = 7;
    record_.version_file = VersionFileDigest("oui");
    record_.fingerprint = 0xfedcba9876543210;
  }

  void Add(const RecordedFile& file) { record_.files[file.seen.name] = file; }

  void ExpectReadAsWritten() {
    WriteRecord("oui", record_);
    const std::optional<InstalledRecord> read = ReadRecord("oui");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->version, record_.version);
    EXPECT_EQ(read->fingerprint, record_.fingerprint);
    ASSERT_EQ(read->files.size(), record_.files.size());
    for (const auto& [name, file] : record_.files) {
      ASSERT_EQ(read->files.count(name), 1u) << name;
      const RecordedFile& other = read->files.at(name);
      EXPECT_EQ(other.seen.mode, file.seen.mode);
      EXPECT_EQ(other.seen.owner, file.seen.owner);
      EXPECT_EQ(other.seen.size, file.seen.size);
      EXPECT_EQ(other.seen.modified_ns, file.seen.modified_ns);
      EXPECT_EQ(other.seen.changed_ns, file.seen.changed_ns);
      EXPECT_EQ(other.sha384, file.sha384);
    }
  }

  InstalledRecord record_;
};

TEST_F(InstalledRecordTest, IsReadAsItWasWritten) {
  Add(FileOf("a.txt"));
  RecordedFile largest = FileOf("sub/b.txt");
  largest.seen = {"sub/b.txt",
                  S_IFLNK | 07777,
                  std::numeric_limits<std::uint64_t>::max(),
                  std::numeric_limits<std::int64_t>::min(),
                  std::numeric_limits<std::int64_t>::max(),
                  std::numeric_limits<uid_t>::max()};
  Add(largest);
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, AnyNameOfAFileIsKept) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  for (const std::string& name : {std::string("\""), std::string("\\u0041"), std::string("\n"),
                                  std::string("\xC3\xA9"), std::string("\\"), std::string("a\\\"b"),
                                  std::string("\001"
                                              "1f"),
                                  every_byte}) {
    Add(FileOf(name));
  }
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, NoFilesAreARecordToo) {
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, IsJsonThatEverybodyMayRead) {
  Add(FileOf("a\tb"));
  Add(FileOf("c"));
  WriteRecord("oui", record_);
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string text = ReadFile(kRecord);
  Json::Value value;
  ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  EXPECT_EQ(value["version"], 7);
  EXPECT_EQ(value["files"]["a\tb"]["mode"], "100644");
  EXPECT_EQ(value["files"]["c"]["size"], 3);
  struct stat status;
  ASSERT_EQ(stat(kRecord.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(InstalledRecordTest, HasOneFormWhoeverWritesIt) {
  RecordedFile file = FileOf("a \t\"b");
  file.seen.owner = 12;
  file.seen.modified_ns = -1700000000123456789;
  Add(file);
  Add(FileOf("c"));
  record_.version_file = std::string(96, '0');
  record_.fingerprint = 0xfedc;
  const mode_t mask = umask(077);
  WriteRecord("oui", record_);
  umask(mask);
  EXPECT_EQ(
      ReadFile(kRecord),
      "{\n"
      "\"format\": 1,\n"
      "\"version\": 7,\n"
      "\"version_file\": \"" +
          std::string(96, '0') +
          "\",\n"
          "\"tree\": \"000000000000fedc\",\n"
          "\"files\": {\n"
          "\"a \\u0009\\\"b\": {\"mode\": \"100644\", \"owner\": 12, \"size\": 3, \"modified\": "
          "-1700000000123456789, \"changed\": 1700000001000000000, \"sha384\": \"" +
          std::string(96, 'a') +
          "\"},\n"
          "\"c\": {\"mode\": \"100644\", \"owner\": 0, \"size\": 3, \"modified\": "
          "1700000000123456789, \"changed\": 1700000001000000000, \"sha384\": \"" +
          std::string(96, 'a') + "\"}\n}\n}\n");
  struct stat status;
  ASSERT_EQ(stat(kRecord.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(InstalledRecordTest, ThousandsOfFilesAreReadAsTheyWereWritten) {
  for (int i = 0; i < 3000; ++i) {
    Add(FileOf("sub/" + std::to_string(i)));
  }
  ExpectReadAsWritten();
  EXPECT_EQ(ReadRecordHead("oui").version, 7);
}

TEST_F(InstalledRecordTest, BelongsToOneVersionFile) {
  Add(FileOf("a"));
  WriteRecord("oui", record_);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kCurrent);
  EXPECT_EQ(ReadRecordHead("oui").fingerprint, record_.fingerprint);
  WriteFile(kVersionFile, "{ }");
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kOutdated);
  EXPECT_FALSE(ReadRecord("oui").has_value());
  fs::remove(kVersionFile);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kOutdated);
}

TEST_F(InstalledRecordTest, MissingOneIsNotADamagedOne) {
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kMissing);
  EXPECT_FALSE(ReadRecord("oui").has_value());
}

TEST_F(InstalledRecordTest, OneThatIsCutOffAnywhereIsDamaged) {
  Add(FileOf("a"));
  Add(FileOf("b"));
  WriteRecord("oui", record_);
  const std::string whole = ReadFile(kRecord);
  // The last line's end does not matter.
  for (std::size_t size = 0; size + 1 < whole.size(); ++size) {
    WriteFile(kRecord, whole.substr(0, size));
    EXPECT_FALSE(ReadRecord("oui").has_value()) << size;
    EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kDamaged) << size;
  }
  WriteFile(kRecord, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kCurrent);
  const std::optional<InstalledRecord> read = ReadRecord("oui");
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->files.size(), 2U);
}

TEST_F(InstalledRecordTest, OneOfAnotherFormIsDamaged) {
  Add(FileOf("a"));
  WriteRecord("oui", record_);
  const std::string whole = ReadFile(kRecord);
  for (const auto& [text, other] : std::vector<std::pair<std::string, std::string>>{
           {"\"format\": 1", "\"format\": 2"},
           {"\"version\": 7", "\"version\": \"7\""},
           {"\"version\": 7", "\"version\": 7777777777"},
           {"\"tree\": \"f", "\"tree\": \"x"},
           {"\"files\"", "\"Files\""},
           {"\"size\": 3", "\"size\": -3"},
           {"\"100644\"", "\"100648\""},
           {"aaa\"}", "aaA\"}"},
           {"\"a\"", "\"\\x\""},
           {"\"a\"", "\"\\u00z1\""},
           {"\"a\"", "\"a\\"},
           {"\"a\": {", ": {"},
           {"\"a\"", "\"\\u001\""},
           {"\"a\"", "\"a\\\""},
           {"\"version\": 7,", "\"version\": 7, "},
           {"aaa\"}", "aaa\"} "},
           {"\n}\n}\n", "\n}\n]\n"}}) {
    std::string changed = whole;
    changed.replace(changed.find(text), text.size(), other);
    WriteFile(kRecord, changed);
    EXPECT_FALSE(ReadRecord("oui").has_value()) << other;
  }
  WriteFile(kRecord, "");
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kDamaged);
}

TEST_F(InstalledRecordTest, OneThatIsNotGivenIsNeitherMissingNorDamaged) {
  fs::create_directory(kRecord);  // It opens, and cannot be read.
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kUnreadable);
  EXPECT_THROW(ReadRecord("oui"), base::FileError);
  fs::remove(kRecord);
  fs::create_symlink(kRecord.filename(), kRecord);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kUnreadable);
  EXPECT_THROW(ReadRecord("oui"), base::FileError);

  fs::remove_all(kRecord.parent_path());
  WriteFile(kRecord.parent_path(), "");
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kMissing);
  EXPECT_FALSE(ReadRecord("oui").has_value());
}

TEST_F(InstalledRecordTest, OneWhoseEndADiskDoesNotGiveIsNotCalledDamaged) {
  for (int i = 0; i < 1000; ++i) {
    Add(FileOf("sub/" + std::to_string(i)));
  }
  WriteRecord("oui", record_);
  readable_bytes = 100000;
  const RecordState state = ReadRecordHead("oui").state;
  EXPECT_THROW(ReadRecord("oui"), base::FileError);
  readable_bytes = -1;
  EXPECT_EQ(state, RecordState::kUnreadable);
}

TEST_F(InstalledRecordTest, VersionFileThatIsNoFileMakesItOutdated) {
  WriteRecord("oui", record_);
  fs::remove(kVersionFile);
  ASSERT_EQ(mkfifo(kVersionFile.c_str(), 0600), 0);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kOutdated);
  EXPECT_FALSE(ReadRecord("oui").has_value());
}

TEST_F(InstalledRecordTest, DigestOfALinkIsThatOfThePathInIt) {
  const fs::path directory = kVersionFile.parent_path();
  WriteFile(directory / "text", "to/nowhere");
  fs::create_symlink("to/nowhere", directory / "link");
  RecordedFile link = FileOf("link");
  link.seen.mode = S_IFLNK | 0777;
  const std::string digest = DigestOf(directory, FileOf("text").seen, [] {});
  EXPECT_EQ(digest.size(), 96u);
  EXPECT_NE(digest, DigestOf(directory, FileOf("version.json").seen, [] {}));
  EXPECT_EQ(DigestOf(directory, link.seen, [] {}), digest);
}

TEST_F(InstalledRecordTest, InstalledVersionIsTheRecordsOrTheVersionFiles) {
  EXPECT_EQ(InstalledVersionOf("oui"), kNeverInstalled);
  WriteRecord("oui", record_);
  EXPECT_EQ(InstalledVersionOf("oui"), 7);
  WriteFile(kVersionFile, R"({"data_version": "8", "last_fetch_time": 1700000000})");
  EXPECT_EQ(InstalledVersionOf("oui"), 8);
  fs::remove(kVersionFile);
  EXPECT_EQ(InstalledVersionOf("oui"), kNeverInstalled);
}

}  // namespace
}  // namespace tolm::operation
