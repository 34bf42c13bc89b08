#include "dataupdate/io_utils.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, FunctionsOfIoUtilsAreUsableAlone) {
  std::istringstream empty;
  EXPECT_EQ(GetSha384(empty).substr(0, 8), "38b060a7");
  EXPECT_EQ(FlatFileName("a/b.c"), "a_b_c");
  EXPECT_NE(TolmGetUserAgent("product").find("product"), std::string::npos);
  EXPECT_EQ((NoexceptFormat("%s is %d") % "a" % 1 % "ignored").str(), "a is 1");
}

TEST(PublicHeaderTest, IoUtilsIsUsableAlone) {
  const IOUtils io;
  io.TolmMkdir("/tmp/d");
  Json::Value value;
  value["member"] = 1;
  io.WriteJson("/tmp/d/a", value);
  EXPECT_EQ(io.ReadJson("/tmp/d/a"), value);
  io.CopyFile("/tmp/d/a", "/tmp/d/b");
  EXPECT_EQ(io.GetSize("/tmp/d"), 2 * io.GetSize("/tmp/d/a"));
  const std::pair<std::int64_t, std::uint64_t> space = io.GetFsSize("/tmp/d");
  EXPECT_LE(static_cast<std::uint64_t>(space.first), space.second);
  EXPECT_FALSE(io.FileCreateOver("/tmp/d/a", 3600));
  EXPECT_THROW(io.Download("/tmp/d/c", "-no-url"), std::exception);
  int entries = 0;
  io.IterateDirectory(
      "/tmp/d", [&entries](const std::string&) { ++entries; }, true);
  EXPECT_EQ(entries, 2);
  io.RmRf("/tmp/d");
  EXPECT_THROW(io.ReadJson("/tmp/d/a"), std::exception);
}

}  // namespace
}  // namespace tolm::dataupdate
