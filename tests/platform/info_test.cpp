#include "tolm/info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tolm/err.h"

namespace tolm::testing {
namespace {

using ::testing::MatchesRegex;

TEST(InfoTest, NamesProductVersionSystemAndArchitectureButNotTheHost) {
  char text[256];
  const int length = TLIBTminfoUserAgentGet("database", text, sizeof text);
  EXPECT_EQ(length, static_cast<int>(std::strlen(text)));
  EXPECT_THAT(text, MatchesRegex("database/[0-9]+\\.[0-9]+\\.[0-9]+ \\(Linux; armv7l\\)"));
}

TEST(InfoTest, ExactSizeSufficesAndOneLessFails) {
  char text[256];
  const int length = TLIBTminfoUserAgentGet("database", text, sizeof text);
  ASSERT_GT(length, 0);
  const auto needed = static_cast<std::size_t>(length) + 1;
  std::vector<char> buffer(needed, 'x');
  EXPECT_EQ(TLIBTminfoUserAgentGet("database", buffer.data(), needed), length);
  EXPECT_STREQ(buffer.data(), text);
  EXPECT_LT(TLIBTminfoUserAgentGet("database", buffer.data(), needed - 1), 0);
  EXPECT_EQ(TLIBCErrGet(), ERANGE);
  EXPECT_STREQ(buffer.data(), "");
}

TEST(InfoTest, SizeZeroFailsAndWritesNothing) {
  char text[] = "untouched";
  EXPECT_LT(TLIBTminfoUserAgentGet("database", text, 0), 0);
  EXPECT_STREQ(text, "untouched");
}

TEST(InfoTest, NullPointersFail) {
  char text[] = "something";
  EXPECT_LT(TLIBTminfoUserAgentGet(nullptr, text, sizeof text), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_STREQ(text, "");
  EXPECT_LT(TLIBTminfoUserAgentGet("database", nullptr, 100), 0);
}

}  // namespace
}  // namespace tolm::testing

// A machine of the test's own, for the library under test too.
extern "C" __attribute__((visibility("default"))) int uname(utsname* system) noexcept {
  *system = utsname{};
  std::strcpy(system->sysname, "Linux");
  std::strcpy(system->nodename, "tell-tale-host");
  std::strcpy(system->machine, "armv7l");
  return 0;
}
