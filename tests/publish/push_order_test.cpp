#include "publish/push_order.h"

#include <gmock/gmock.h>

#include <ctime>
#include <string>

#include "publish/repository.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

/// A repository that signs its descriptions.
class SignedOrderTest : public ReleaseFixture {
 protected:
  SignedOrderTest() { InitRepository(NewSignedRepository(now_), now_); }

  publish::Settings Settings() const {
    return publish::LoadSettings(publish::RepositoryPaths(Path("repo")).SettingsFile());
  }
  std::string Description() const {
    return ReadFile(publish::RepositoryPaths(Path("repo")).Description(Settings()));
  }

  const std::time_t now_ = std::time(nullptr);  // Certificates are judged by the machine's clock.
};

TEST_F(SignedOrderTest, NewerOneThatIsBelievedIsReplacedByNobodysWill) {
  publish::PushOrder order;
  order.remote = "store";
  order.next = Description();
  MakeRelease(
      NewRelease(), now_ + 1, [](const std::string&) {}, [](const publish::Step&) {});
  order.present = Description();
  order.insist = true;
  ExpectError([&] { RequireMayFollow(order, Settings(), now_ + 2, [](const std::string&) {}); },
              HasSubstr("the description there is newer: its number is "));
}

TEST_F(SignedOrderTest, NewerOneIsNotReplacedByARepositoryThatOffersNone) {
  publish::PushOrder order;
  order.remote = "store";
  order.next = "{}";
  order.present = Description();
  order.insist = true;
  ExpectError([&] { RequireMayFollow(order, Settings(), now_ + 2, [](const std::string&) {}); },
              AllOf(HasSubstr("the description there is newer: its number is "),
                    HasSubstr("and this repository's has none")));
}

}  // namespace
}  // namespace tolm::testing
