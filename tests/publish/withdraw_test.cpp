#include "publish/withdraw.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "publish/catalog.h"
#include "publish/repository.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class WithdrawReleaseTest : public ReleaseFixture {
 protected:
  WithdrawReleaseTest() { InitRepository(NewRepository(), kNow); }

  void Make(const std::string& table) {
    ++now_;
    WriteFile(Path("tree/t.db"), table);
    publish::ReleaseRequest request;
    request.repository = Path("repo");
    request.name = "oui";
    request.directory = Path("tree");
    request.allow_shrink = true;
    MakeRelease(
        request, now_, [](const std::string&) {}, [](const publish::Step&) {});
  }

  // The versions that devices are offered a delta to.
  std::vector<int> OfferedDeltas() const {
    const publish::Catalog catalog =
        publish::LoadCatalog(publish::RepositoryPaths(Path("repo")).CatalogFile());
    std::vector<int> versions;
    for (const publish::Release& release : catalog.databases.at("oui").releases) {
      if (release.delta && release.delta->withdrawn == 0) {
        versions.push_back(release.version);
      }
    }
    return versions;
  }

  std::time_t now_ = kNow;
};

TEST_F(WithdrawReleaseTest, DeltasThatTheBadVersionDroveOutAreOfferedAgain) {
  // Not a part of a delta by SQL: what brings the good rows back is smaller than the full package.
  const std::string index = "CREATE INDEX i ON t(v);";
  Make(Table(0, index));
  Make(Table(1, index));
  ASSERT_THAT(OfferedDeltas(), ElementsAre(1000002));
  Make(Table(0, index + "DELETE FROM t; VACUUM;"));
  ASSERT_THAT(OfferedDeltas(), IsEmpty());
  publish::WithdrawRequest request;
  request.repository = Path("repo");
  request.name = "oui";
  request.version = 1000003;
  const publish::WithdrawReport report = WithdrawRelease(
      request, ++now_, [](const std::string&) {}, [](const publish::Step&) {});
  EXPECT_EQ(report.restored, 1000002);
  EXPECT_THAT(OfferedDeltas(), ElementsAre(1000002, 1000003, 1000004));
}

}  // namespace
}  // namespace tolm::testing
