// The examples for readers, as somebody would build and run them who has installed the system.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/unique_descriptor.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

using ::testing::HasSubstr;

constexpr char kExamples[] = TOLM_TEST_SOURCE_DIR "/examples/";
constexpr char kLock[] = "/run/data_update/using_oui.lock";

struct Reader {
  const char* name;
  const char* command;  // in a shell, with the examples' directory in $E
};

void PrintTo(const Reader& reader, std::ostream* out) {
  *out << reader.name;
}

class ReaderExampleTest : public DeviceTest, public ::testing::WithParamInterface<Reader> {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    const CommandResult built = RunCommand(
        {"/bin/sh", "-c",
         TOLM_TEST_CC " -std=c99 -Wall -Wextra -pedantic -Werror " TOLM_TEST_CC_FLAGS
                      " -o /tmp/reader \"$0reader.c\" $(pkg-config --cflags --libs tolmdbud)",
         kExamples});
    ASSERT_EQ(built.exit_status, 0) << built.err;
  }

  static CommandResult Read(const std::string& database, const std::string& file) {
    CommandOptions options;
    options.environment = {"E=" + std::string(kExamples), "D=" + database, "F=" + file};
    return RunCommand({"/bin/sh", "-c", GetParam().command}, options);
  }
};

TEST_P(ReaderExampleTest, PrintsAFileOfWhatIsInstalled) {
  InstallFirst();
  const CommandResult result = Read("oui", "sub/b.txt");
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "b");
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(IsFree(kLock));
}

TEST_P(ReaderExampleTest, WaitsForTheInstaller) {
  InstallFirst();
  // Started first: a descriptor that it inherited would hold the lock as well.
  ForkedChild reader([](EventChannel& parent) {
    parent.Receive();
    parent.Send("reading");
    const CommandResult result = Read("oui", "a.txt");
    parent.Send(result.out + result.err);
    return result.exit_status;
  });
  UniqueDescriptor installer(open(kLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(installer.Get(), LOCK_EX | LOCK_NB), 0);
  reader.Channel().Send("go");
  ASSERT_EQ(reader.Channel().Receive(), "reading");
  WriteFile(prefix_ / "a.txt", "replaced");
  installer.Close();
  EXPECT_EQ(reader.Channel().Receive(), "replaced");
  EXPECT_EQ(reader.Process().Wait(), 0);
}

TEST_P(ReaderExampleTest, SaysWhatCannotBeRead) {
  EXPECT_EQ(Tool({"init"}).exit_status, 0);
  for (const auto& [database, file] :
       std::vector<std::pair<std::string, std::string>>{{"oui", "missing"}, {"other", "a.txt"}}) {
    const CommandResult result = Read(database, file);
    EXPECT_NE(result.exit_status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr(database == "other" ? "other" : "missing"));
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, ReaderExampleTest,
                         ::testing::Values(Reader{"C", R"(/tmp/reader "$D" "$F")"},
                                           Reader{"Python", R"(python3 "$E/reader.py" "$D" "$F")"},
                                           Reader{"Shell", R"(sh "$E/reader.sh" "$D" "$F")"}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::testing
