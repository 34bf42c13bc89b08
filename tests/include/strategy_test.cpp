#include "dataupdate/strategy.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::dataupdate {
namespace {

constexpr char kNoUrl[] = "-no-url";

// What strategies are made of is there for classes that derive from the base.
struct Opened : BaseStrategy {
  using BaseStrategy::_CheckDigest;
  using BaseStrategy::_ExtractTarballTo;
  using BaseStrategy::_IsSpaceEnough;
};

TEST(PublicHeaderTest, BaseStrategyIsUsableAlone) {
  BaseStrategy strategy;
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_TRUE(strategy.GetModifiedFiles().empty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
  std::ofstream("/tmp/file") << "content";
  EXPECT_FALSE(Opened::_CheckDigest("/tmp/file", "no digest"));
  EXPECT_FALSE(Opened::_IsSpaceEnough("/tmp", -(1LL << 60)));
  EXPECT_THROW(Opened::_ExtractTarballTo("/tmp/file", "/tmp"), std::exception);
  EXPECT_EQ(ModifyInfo().operation, 0);
  EXPECT_EQ(ModifyInfo().source_path, "");
}

TEST(PublicHeaderTest, FullStrategyIsUsableAlone) {
  FullStrategy strategy("x", RemoteInfo(7, 70, false, kNoUrl), "/volume1", "/tmp/x", "/volume1");
  EXPECT_THROW(strategy.PrepareUpdate(), std::exception);
  EXPECT_THROW(strategy.ApplyUpdate(), std::exception) << "there is no install directory";
  EXPECT_TRUE(strategy.GetModifiedFiles().empty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
}

TEST(PublicHeaderTest, ForceInstallByLinkIsUsableAlone) {
  ForceInstallByLink strategy("x", kNoUrl, "/volume1", "/tmp/x", "/");
  EXPECT_THROW(strategy.PrepareUpdate(), std::exception);
  EXPECT_THROW(strategy.ApplyUpdate(), std::exception) << "there is no package";
}

TEST(PublicHeaderTest, DiffStrategyIsUsableAlone) {
  DiffStrategy strategy("x", DatabaseStatus(6, 60, {}), RemoteInfo(7, 70, false, kNoUrl),
                        {{7, DiffInfo(kNoUrl, 1)}}, "/volume1", "/tmp/x", "/volume1");
  EXPECT_THROW(strategy.PrepareUpdate(), std::exception);
  EXPECT_NO_THROW(strategy.ApplyUpdate()) << "there is nothing to be done";
  EXPECT_TRUE(strategy.GetModifiedFiles().empty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
}

}  // namespace
}  // namespace tolm::dataupdate
