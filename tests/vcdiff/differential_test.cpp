// Random pairs of files, encoded by the common encoder under all kinds of settings.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"
#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"
#include "vcdiff/info.h"

namespace tolm::vcdiff {
namespace {

using testing::CommandResult;
using testing::ReadFile;
using testing::RunCommand;
using testing::TemporaryDirectory;
using testing::WriteFile;

// Content of the kinds that databases have, from a generator that is the same everywhere.
class Generator {
 public:
  explicit Generator(std::uint32_t seed) : random_(seed) {}

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  std::string Random(std::size_t size) {
    std::string bytes(size, '\0');
    for (char& c : bytes) {
      c = static_cast<char>(random_());
    }
    return bytes;
  }

  std::string Text(std::size_t size) {
    static const char* const kWords[] = {"alpha ", "beta ",   "gamma\n", "delta,",
                                         "0x00ff", "vendor ", "name: ",  "\t"};
    std::string text;
    while (text.size() < size) {
      text += kWords[Below(std::size(kWords))];
    }
    text.resize(size);
    return text;
  }

  std::string Content(std::size_t size) {
    switch (Below(4)) {
      case 0:
        return Random(size);
      case 1:
        return std::string(size, static_cast<char>(random_()));
      default:
        return Text(size);
    }
  }

  std::string Source() {
    std::string source;
    for (std::size_t pieces = Below(6); pieces > 0; --pieces) {
      source += Content(Below(15000));
    }
    return source;
  }

  // The source with pieces added, removed, moved and overwritten.
  std::string Changed(std::string text) {
    for (std::size_t changes = Below(12); changes > 0; --changes) {
      const std::size_t at = Below(text.size() + 1);
      const std::size_t size = Below(4000);
      switch (Below(4)) {
        case 0:
          text.insert(at, Content(size));
          break;
        case 1:
          text.erase(at, size);
          break;
        case 2:
          text.insert(Below(text.size() + 1), text.substr(at, size));
          break;
        default:
          text.replace(at, std::min(size, text.size() - at), Content(size));
      }
    }
    return text;
  }

 private:
  std::mt19937 random_;
};

struct Setting {
  const char* name;
  std::vector<std::string> options;
};

class DifferentialTest : public ::testing::TestWithParam<Setting> {};

constexpr std::uint32_t kPairs = 140;

// The target of a delta through files that are mapped.
std::string DecodeFile(const std::string& delta, const std::string& source) {
  FileInput delta_input(delta, FileAccess::kMap);
  FileInput source_input(source, FileAccess::kMap);
  MemorySink target;
  Decode(delta_input, source_input, target, Limits());
  return {target.Bytes().begin(), target.Bytes().end()};
}

TEST_P(DifferentialTest, EveryDeltaDecodesToItsTarget) {
  const TemporaryDirectory directory;
  const std::string source_path = directory.Path() / "source";
  const std::string target_path = directory.Path() / "target";
  const std::string delta_path = directory.Path() / "delta";
  std::vector<std::string> command = {"xdelta3", "-q", "-e", "-f"};
  // A window of the source no larger than needed: the default of 64 MiB is most of the encoder's
  // time. A later option wins.
  command.insert(command.end(), {"-B", "1048576"});
  command.insert(command.end(), GetParam().options.begin(), GetParam().options.end());
  command.insert(command.end(), {"-s", source_path, target_path, delta_path});
  for (std::uint32_t pair = 0; pair < kPairs; ++pair) {
    Generator generator(pair);
    const std::string source = generator.Source();
    const std::string target = generator.Changed(source);
    WriteFile(source_path, source);
    WriteFile(target_path, target);
    const CommandResult encoded = RunCommand(command);
    ASSERT_EQ(encoded.exit_status, 0) << encoded.err;
    ASSERT_TRUE(MustDecode(ReadFile(delta_path), source) == target) << "pair " << pair;
    ASSERT_TRUE(DecodeFile(delta_path, source_path) == target) << "pair " << pair;
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, DifferentialTest,
    ::testing::Values(
        Setting{"Default", {"-B", "67108864"}}, Setting{"Fastest", {"-1", "-S", "none"}},
        Setting{"Middle", {"-5", "-S", "none"}}, Setting{"Best", {"-9", "-S", "none"}},
        Setting{"NoMatching", {"-0", "-S", "none"}}, Setting{"BestLzma", {"-9", "-S", "lzma"}},
        Setting{"FastestLzma", {"-1", "-S", "lzma"}},
        Setting{"SmallWindows", {"-W", "16384", "-S", "none"}},
        Setting{"SmallWindowsLzma", {"-W", "16384", "-S", "lzma"}},
        Setting{"NoChecksums", {"-n", "-S", "none"}},
        Setting{"NoChecksumsLzma", {"-n", "-S", "lzma", "-W", "16384"}},
        Setting{"NoApplicationHeader", {"-A", "-S", "none"}},
        Setting{"LongApplicationHeader", {"-A=" + std::string(3000, 'h'), "-S", "none"}},
        Setting{"SmallInstructionBuffer", {"-I", "1024", "-S", "none"}},
        Setting{"SmallSourceWindow", {"-B", "524288", "-W", "16384"}}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::vcdiff
