#include "publish/vcdiff_encoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "package/error.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"
#include "vcdiff/decoder.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::EncodeVcdiff;
using publish::SourceWindowBytes;
using ::testing::HasSubstr;

constexpr std::uint64_t kMiB = 1024 * 1024;

// A variable of the environment as a test needs it.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value) : name_(name) {
    const char* before = ::getenv(name);
    before_ = before != nullptr ? std::optional<std::string>(before) : std::nullopt;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedVariable() {
    if (before_) {
      ::setenv(name_, before_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> before_;
};

class VcdiffEncoderTest : public ::testing::Test {
 protected:
  std::string Encode(const std::string& before, const std::string& after,
                     std::uint64_t window = kMiB) {
    WriteFile(Path("before"), before);
    WriteFile(Path("after"), after);
    fs::remove(Path("delta"));
    EncodeVcdiff(Path("before"), Path("after"), Path("delta"), window);
    return ReadFile(Path("delta"));
  }

  vcdiff::DecodeResult Decode(const std::string& source, std::string& target) {
    vcdiff::FileInput delta(Path("delta"), vcdiff::FileAccess::kRead);
    vcdiff::MemoryInput input("source", reinterpret_cast<const std::uint8_t*>(source.data()),
                              source.size());
    vcdiff::MemorySink sink;
    const vcdiff::DecodeResult result = vcdiff::Decode(delta, input, sink, {});
    target.assign(sink.Bytes().begin(), sink.Bytes().end());
    return result;
  }

  std::string Path(const std::string& name) const { return directory_.Path() / name; }

  TemporaryDirectory directory_;
};

TEST_F(VcdiffEncoderTest, WindowCoversTheSourceUpToTheLimit) {
  EXPECT_EQ(SourceWindowBytes(1, 512 * kMiB), kMiB / 2);
  EXPECT_EQ(SourceWindowBytes(kMiB, 512 * kMiB), kMiB);
  EXPECT_EQ(SourceWindowBytes(kMiB + 1, 512 * kMiB), 2 * kMiB);
  EXPECT_EQ(SourceWindowBytes(1000 * kMiB, 512 * kMiB), 512 * kMiB);
  EXPECT_EQ(SourceWindowBytes(1000 * kMiB, 600 * kMiB), 512 * kMiB);
  EXPECT_EQ(SourceWindowBytes(UINT64_MAX, UINT64_MAX), 2048 * kMiB);
  EXPECT_EQ(SourceWindowBytes(kMiB, 0), kMiB / 2);
}

TEST_F(VcdiffEncoderTest, MemoryIsThriceTheWindowAndSome) {
  EXPECT_EQ(publish::VcdiffMemoryBytes(512 * kMiB), 1600 * kMiB);
  EXPECT_EQ(publish::VcdiffMemoryBytes(kMiB), 67 * kMiB);
}

TEST_F(VcdiffEncoderTest, FileThatIsThereIsNoDelta) {
  WriteFile(Path("delta"), "there");
  WriteFile(Path("after"), "1");
  try {
    EncodeVcdiff(Path("after"), Path("after"), Path("delta"), kMiB);
    ADD_FAILURE() << "was written over";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), package::Code::kWrite);
    EXPECT_EQ(error.errno_value(), EEXIST);
  }
  EXPECT_EQ(ReadFile(Path("delta")), "there");
}

TEST_F(VcdiffEncoderTest, DeltaGivesTheNewFileAndHasAChecksumInEachWindow) {
  const std::string before = Noise(300000, 1);
  const std::string after = before.substr(150000) + "inserted" + before.substr(0, 150000);
  EXPECT_LT(Encode(before, after).size(), 200U);
  std::string target;
  const vcdiff::DecodeResult result = Decode(before, target);
  EXPECT_TRUE(target == after);
  EXPECT_EQ(result.windows_with_checksum, result.windows);
  EXPECT_GE(result.windows, 1U);
  EXPECT_EQ(fs::status(Path("delta")).permissions() & fs::perms(0133), fs::perms::none);
}

TEST_F(VcdiffEncoderTest, WrongSourceIsNoticed) {
  const std::string before = Noise(300000, 1);
  Encode(before, before.substr(1000));
  std::string target;
  EXPECT_THROW(Decode(Noise(300000, 2), target), vcdiff::Error);
}

// The third byte after the magic: no secondary compressor, code table or application header.
TEST_F(VcdiffEncoderTest, HeaderSaysNothingOfThisMachine) {
  const std::string delta = Encode(Noise(3000, 1), Noise(3000, 2));
  ASSERT_GT(delta.size(), 5U);
  EXPECT_EQ(delta.substr(0, 5), std::string("\xd6\xc3\xc4\0\0", 5));
  EXPECT_EQ(delta.find("before"), std::string::npos);
}

// A text and its compressed form share nothing; what devices patch is the compressed file itself.
TEST_F(VcdiffEncoderTest, CompressedFilesArePatchedAsTheyAre) {
  const auto gzip = [this](const std::string& content) {
    WriteFile(Path("plain"), content);
    EXPECT_EQ(RunCommand({"gzip", "-nf", Path("plain")}).exit_status, 0);
    return ReadFile(Path("plain.gz"));
  };
  const std::string before = gzip(std::string(100000, 'a') + Noise(1000, 1));
  const std::string after = gzip(std::string(100000, 'b') + Noise(1000, 1));
  Encode(before, after);
  std::string target;
  Decode(before, target);
  EXPECT_TRUE(target == after);
}

TEST_F(VcdiffEncoderTest, OptionsOfTheEnvironmentHaveNoEffect) {
  const std::string before = Noise(30000, 1);
  const std::string usual = Encode(before, before + "x");
  const ScopedVariable options("XDELTA", "-n -S lzma");
  EXPECT_TRUE(Encode(before, before + "x") == usual);
}

TEST_F(VcdiffEncoderTest, ContentMovedBeyondTheWindowIsSentAgain) {
  const std::string before = Noise(4 * kMiB, 1);
  const std::string after = before.substr(3 * kMiB) + before.substr(0, 3 * kMiB);
  EXPECT_LT(Encode(before, after, 4 * kMiB).size(), 1000U);
  EXPECT_GT(Encode(before, after, kMiB / 2).size(), kMiB);
  std::string target;
  Decode(before, target);
  EXPECT_TRUE(target == after);
}

TEST_F(VcdiffEncoderTest, MissingEncoderNamesItsPackage) {
  WriteFile(Path("before"), "1");
  const ScopedVariable path("PATH", directory_.Path());
  try {
    EncodeVcdiff(Path("before"), Path("before"), Path("delta"), kMiB);
    ADD_FAILURE() << "encoded without an encoder";
  } catch (const package::Error& error) {
    EXPECT_STREQ(error.what(), "xdelta3 is not installed (Debian package xdelta3)");
  }
}

TEST_F(VcdiffEncoderTest, FailureTellsTheEncodersWords) {
  WriteFile(Path("after"), "1");
  try {
    EncodeVcdiff(Path("none"), Path("after"), Path("delta"), kMiB);
    ADD_FAILURE() << "encoded without a source";
  } catch (const package::Error& error) {
    EXPECT_THAT(error.what(), HasSubstr("xdelta3 failed with status 1: "));
    EXPECT_THAT(error.what(), HasSubstr("none"));
  }
}

}  // namespace
}  // namespace tolm::testing
