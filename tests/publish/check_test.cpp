#include "publish/check.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include "publish/repository.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;

class CheckDescriptionTest : public ReleaseFixture {
 protected:
  CheckDescriptionTest() { InitRepository(NewRepository(), kNow); }

  publish::CheckReport Check() {
    publish::CheckRequest request;
    request.repository = Path("repo");
    return CheckRepository(request, kNow, [](const publish::Step&) {});
  }

  // The only file that is served.
  std::string Description() const {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Path("repo/public"))) {
      if (entry.is_regular_file()) {
        return entry.path();
      }
    }
    return "";
  }
};

TEST_F(CheckDescriptionTest, SignedOneOfARepositoryThatSignsNoneIsWrong) {
  EXPECT_THAT(Check().wrong, IsEmpty());
  const std::string description = Description();
  std::string content = ReadFile(description);
  WriteFile(description,
            content.insert(content.find('{') + 1, R"("signed": "{}", "signature": "AAAA",)"));
  const publish::CheckReport report = Check();
  EXPECT_THAT(report.wrong,
              Contains(description + ": is signed, and the settings have no info key"));
  EXPECT_EQ(report.problems.at("signature"), 1u);
}

}  // namespace
}  // namespace tolm::testing
