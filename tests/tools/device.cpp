#include "tests/tools/device.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <regex>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

CommandResult Tool(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {kTool};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunCommand(command);
}

bool IsFree(const std::string& lock_file) {
  const UniqueDescriptor file(open(lock_file.c_str(), O_RDONLY | O_CLOEXEC));
  return file.Get() >= 0 && flock(file.Get(), LOCK_EX | LOCK_NB) == 0;
}

std::string WithoutAge(const std::string& out) {
  return std::regex_replace(
      out, std::regex(" as of [^(]*\\(asked [^)]* ago; --refresh asks now\\)"), "");
}

int CountLines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

DeviceTest::DeviceTest() = default;
DeviceTest::~DeviceTest() = default;

void DeviceTest::SetUp() {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}});
  publisher_.PackFull("oui", 1, first_);
  publisher_.PackFull("oui", 2, second_);
  publisher_.PackDelta("oui", 2,
                       R"({"/a.txt": {"operation": "create", "input_file": "a"},
                           "/gone.txt": {"operation": "delete"}})",
                       {{"a", "two"}});
  publisher_.Offer("oui", 1);
}

void DeviceTest::InstallFirst() {
  const CommandResult result = Tool({"update", "oui"});
  ASSERT_EQ(result.exit_status, 0) << result.err;
  ASSERT_EQ(ReadTree(prefix_), first_);
}

void DeviceTest::ExpectNothingLeft() {
  EXPECT_FALSE(std::filesystem::exists("/volume1/@tmp/data_update"));
  EXPECT_FALSE(std::filesystem::exists(mark_));
  EXPECT_TRUE(IsFree("/run/data_update/update_any.lock"));
  EXPECT_TRUE(IsFree("/run/data_update/update_oui.lock"));
  EXPECT_TRUE(IsFree("/run/data_update/fresh_info.lock"));
  EXPECT_TRUE(IsFree("/run/data_update/operator.lock"));
}

void DeviceTest::ExpectRefusedUpdate(const ::testing::Matcher<std::string>& message) {
  const Tree before = ReadTree(prefix_);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, ::testing::StartsWith("tolmdbud: oui"));
  EXPECT_THAT("tolmdbud: oui: " + LastMessage() + "\n", message);
  EXPECT_EQ(CountLines(result.err), 1);
  EXPECT_EQ(ReadTree(prefix_), before);
  EXPECT_EQ(InstalledVersion("oui"), "1");
  ExpectNothingLeft();
}

}  // namespace tolm::testing
