#include "dataupdate/updater.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::dataupdate {
namespace {

const RemoteInfo kRemote(7, 70, false, "-no-url");

TEST(PublicHeaderTest, StatusFunctionsAreUsableAlone) {
  std::filesystem::create_directories("/tmp/x");
  std::ofstream("/tmp/x/a") << "content";
  const std::map<std::string, FileStatus> status = CalculateStatus({"/a", "/none"}, "/tmp/x");
  EXPECT_EQ(status.size(), 1U);
  EXPECT_TRUE(CheckStatus(status, "/tmp/x"));
  EXPECT_FALSE(CheckStatus(status, "/tmp/y"));
}

TEST(PublicHeaderTest, FixerIsUsableAlone) {
  const Fixer fixer("x", kRemote, "/volume1", "/tmp/x", "/volume1");
  EXPECT_TRUE(fixer.IsFixNeeded(DatabaseStatus()));
  EXPECT_THROW(fixer.Fix(), std::exception);
}

TEST(PublicHeaderTest, UpdaterIsUsableAlone) {
  const Updater updater;
  EXPECT_THROW(updater.Update("x", DatabaseStatus(), kRemote, {}, "/volume1", "/tmp/x", "/volume1"),
               std::exception);
}

}  // namespace
}  // namespace tolm::dataupdate
