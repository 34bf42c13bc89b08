#include "publish/outside.h"

#include <gtest/gtest.h>

#include "publish/files.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

TEST(OutsideTest, PackageInAStoreIsReadToItsEnd) {
  const TemporaryDirectory directory;
  const std::string content = Noise(200001, 1);
  WriteFile(directory.Path() / "packages/oui/oui_v1", content);
  publish::Settings settings;
  settings.base_url = {"http", "example.org"};
  const auto outside = publish::OutsideInStore(directory.Path(), settings);
  const std::string link = settings.base_url.Text() + "/packages/oui/oui_v1";
  EXPECT_EQ(outside->Look(link).size_bytes, content.size());
  const publish::OutsidePackage measured = outside->Measure(link);
  EXPECT_EQ(measured.problem, "");
  EXPECT_EQ(measured.size_bytes, content.size());
  EXPECT_EQ(measured.sha384, publish::Sha384OfText(content));
  EXPECT_EQ(outside->Measure(link + "2").problem, "is not there");
}

}  // namespace
}  // namespace tolm::testing
