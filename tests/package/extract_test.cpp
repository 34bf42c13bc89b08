#include "package/extract.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "tests/package/expect_code.h"
#include "tests/package/lying_index.h"
#include "tests/package/payload_builder.h"
#include "tests/package/payload_file.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;

std::optional<Code> Extract(const std::string& payload, const fs::path& destination,
                            const std::vector<std::string>* members = nullptr) {
  const PayloadFile file(payload);
  const base::Descriptor directory = OpenDirectory(destination);
  return CodeOf([&] { package::ExtractPayload(file.fd(), file.size(), directory.Get(), members); });
}

TEST(ExtractTest, EverythingButTheSealIsUnpacked) {
  const TemporaryDirectory destination;
  const std::string payload = PayloadBuilder().Seal().File("a", "1").File("d/b", "2").Finish();
  EXPECT_EQ(Extract(payload, destination.Path()), std::nullopt);
  EXPECT_EQ(ReadTree(destination.Path()), (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}}));
}

TEST(ExtractTest, OnlyNamedMembersAreUnpacked) {
  const TemporaryDirectory destination;
  const std::string payload =
      PayloadBuilder().Seal().File("a", "1").File("./d/b", "2").File("c", "3").Finish();
  const std::vector<std::string> members = {"d//b", "c"};
  EXPECT_EQ(Extract(payload, destination.Path(), &members), std::nullopt);
  EXPECT_EQ(ReadTree(destination.Path()), (Tree{{"c", "3"}, {"d/", ""}, {"d/b", "2"}}));
}

TEST(ExtractTest, MissingNamedMemberIsFoundBeforeAnythingIsWritten) {
  const TemporaryDirectory destination;
  const std::string payload = PayloadBuilder().Seal().File("a", "1").Finish();
  for (const char* name : {"b", ".tolmpkg", "a/b"}) {
    const std::vector<std::string> members = {"a", name};
    EXPECT_EQ(Extract(payload, destination.Path(), &members), Code::kMemberMissing) << name;
  }
  EXPECT_EQ(ReadTree(destination.Path()), Tree{});
}

TEST(ExtractTest, HostileLastMemberIsFoundBeforeAnythingIsWritten) {
  const TemporaryDirectory destination;
  WriteFile(destination.Path() / "a", "installed");
  const std::string payload =
      PayloadBuilder().Seal().File("a", "new").Special("f", AE_IFIFO).Finish();
  EXPECT_EQ(Extract(payload, destination.Path()), Code::kMemberType);
  EXPECT_EQ(ReadTree(destination.Path()), (Tree{{"a", "installed"}}));
}

TEST(ExtractTest, PackageWithoutMembersIsRefused) {
  const TemporaryDirectory destination;
  EXPECT_EQ(Extract(PayloadBuilder().Seal().Finish(), destination.Path()), Code::kNoMembers);
  EXPECT_EQ(Extract(PayloadBuilder().Seal().Directory(".").Finish(), destination.Path()),
            Code::kNoMembers);
  WriteFile(destination.Path() / "a", "installed");
  EXPECT_EQ(Extract(PayloadBuilder().Seal().Finish(), destination.Path()), Code::kNoMembers);
}

TEST(ExtractTest, WhatDoesNotFitIsRefusedBeforeAnythingIsWritten) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  WriteFile("/small/a", "installed");
  const std::string bomb = PayloadBuilder()
                               .Seal()
                               .File("a", std::string(600000, '\0'))
                               .File("b", std::string(600000, '\0'))
                               .Finish();
  EXPECT_LT(bomb.size(), 10000U);
  EXPECT_EQ(Extract(bomb, "/small"), Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), (Tree{{"a", "installed"}}));
  const std::vector<std::string> one = {"b"};
  EXPECT_EQ(Extract(bomb, "/small", &one), std::nullopt) << "one of them fits";
}

TEST(ExtractTest, WhatTakesAllThatIsFreeFits) {
  const std::string all(1 << 20, 'a');
  const std::string payload = PayloadBuilder().Seal().File("a", all).Finish();
  const std::string larger = PayloadBuilder().Seal().File("a", all + "a").Finish();
  const std::vector<std::string> named = {"a"};
  for (const std::vector<std::string>* members : {&named, static_cast<decltype(&named)>(nullptr)}) {
    const ScopedMount disk = ScopedMount::Tmpfs("/small", all.size());
    EXPECT_EQ(Extract(larger, "/small", members), Code::kNoSpace);
    EXPECT_EQ(Extract(payload, "/small", members), std::nullopt);
    EXPECT_TRUE(ReadTree("/small") == (Tree{{"a", all}}));
  }
}

TEST(ExtractTest, FileSystemOfOneBlockHasASizeToo) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1);
  WriteFile("/small/a", "installed");
  const std::string payload =
      PayloadBuilder().Seal().File("a", "").File("b", std::string(10000, 'b')).Finish();
  EXPECT_EQ(Extract(payload, "/small"), Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), (Tree{{"a", "installed"}}));
}

TEST(ExtractTest, HolesCountAsData) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  const std::string payload = PayloadBuilder().Seal().SparseFile("s", 8 << 20, "tail").Finish();
  EXPECT_EQ(Extract(payload, "/small"), Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), Tree{});
}

// Small files take a page each, which no sum of sizes foresees.
TEST(ExtractTest, DiskThatFillsUpWhileUnpackingIsAFailure) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  WriteFile("/small/big", "installed");
  PayloadBuilder builder;
  builder.Seal();
  for (int i = 0; i < 200; ++i) {
    builder.File("f" + std::to_string(i), "x");
  }
  builder.File("big", std::string(400000, 'x'));
  EXPECT_EQ(Extract(builder.Finish(), "/small"), Code::kNoSpace);
  EXPECT_EQ(ReadFile("/small/big"), "installed");
  for (const auto& entry : fs::directory_iterator("/small")) {
    EXPECT_NE(entry.path().filename().string().front(), '.') << "left over: " << entry.path();
  }
}

// One pass over an xz payload, into an empty directory.
class ExtractAtOnceTest : public ::testing::Test {
 protected:
  PayloadBuilder builder_{PayloadBuilder::Filter::kXz};
  const TemporaryDirectory destination_;
};

TEST_F(ExtractAtOnceTest, EverythingComesIntoPlace) {
  const std::string payload = builder_.Seal()
                                  .File("a", "1", 0600)
                                  .File("d/b", "2")
                                  .Directory("e", 0711)
                                  .SymbolicLink("l", "d/b")
                                  .HardLink("h", "d/b")
                                  .Finish();
  EXPECT_EQ(Extract(payload, destination_.Path()), std::nullopt);
  EXPECT_EQ(ReadTree(destination_.Path()),
            (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}, {"e/", ""}, {"h", "2"}, {"l -> d/b", ""}}));
  EXPECT_EQ(fs::status(destination_.Path() / "e").permissions(), fs::perms(0711));
  EXPECT_EQ(fs::hard_link_count(destination_.Path() / "h"), 2U);
}

TEST_F(ExtractAtOnceTest, OfNoPayloadAnythingStaysInAnEmptyDirectoryThatIsRefused) {
  const std::string payload = PayloadBuilder(PayloadBuilder::Filter::kZstd)
                                  .Seal()
                                  .File("d/a", "1")
                                  .SymbolicLink("l", "d")
                                  .File("l/b", "2")
                                  .Finish();
  EXPECT_EQ(Extract(payload, destination_.Path()), Code::kThroughLink);
  EXPECT_EQ(ReadTree(destination_.Path()), Tree{});
}

TEST_F(ExtractAtOnceTest, NothingStaysOfWhatIsRefused) {
  const std::map<Code, std::string> payloads = {
      {Code::kMemberType, PayloadBuilder(PayloadBuilder::Filter::kXz)
                              .Seal()
                              .File("d/a", "1")
                              .Special("f", AE_IFIFO)
                              .Finish()},
      {Code::kThroughLink, PayloadBuilder(PayloadBuilder::Filter::kXz)
                               .Seal()
                               .File("d/a", "1")
                               .SymbolicLink("l", "d")
                               .File("l/b", "2")
                               .Finish()},
      {Code::kNoMembers, PayloadBuilder(PayloadBuilder::Filter::kXz).Seal().Finish()}};
  for (const auto& [code, payload] : payloads) {
    EXPECT_EQ(Extract(payload, destination_.Path()), code);
    EXPECT_EQ(ReadTree(destination_.Path()), Tree{});
  }
}

TEST_F(ExtractAtOnceTest, HolesThatDoNotFitAreRefused) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  const std::string payload =
      builder_.Seal().File("a", "1").SparseFile("s", 8 << 20, "tail").Finish();
  EXPECT_EQ(Extract(payload, "/small"), Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), Tree{});
}

// Headers and padding are no files: only the sum of these has to fit.
TEST_F(ExtractAtOnceTest, PayloadThatIsLargerThanTheRoomMayFit) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 20);
  builder_.Seal();
  for (int i = 0; i < 100; ++i) {
    for (int j = 0; j < 10; ++j) {
      builder_.Directory("d" + std::to_string(i) + "/e" + std::to_string(j));
    }
  }
  EXPECT_EQ(Extract(builder_.Finish(), "/small"), std::nullopt);
}

// Nothing was ever in the directory: its time is the one that it had.
TEST_F(ExtractAtOnceTest, PayloadThatMayNotFitIsCheckedBeforeAnythingIsMade) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 1 << 16);
  builder_.Seal();
  for (int i = 0; i < 100; ++i) {
    builder_.Directory("d" + std::to_string(i));
  }
  const std::string xz = builder_.Special("f", AE_IFIFO).Finish();
  const std::string zstd = PayloadBuilder().Seal().File("a", "1").Special("f", AE_IFIFO).Finish();
  fs::last_write_time("/small", fs::file_time_type());
  for (const std::string* payload : {&xz, &zstd}) {
    EXPECT_EQ(Extract(*payload, "/small"), Code::kMemberType);
    EXPECT_EQ(fs::last_write_time("/small"), fs::file_time_type());
  }
}

TEST_F(ExtractAtOnceTest, DamagedPayloadLeavesNothing) {
  std::string payload = builder_.Seal().File("a", std::string(300000, 'a')).File("b", "2").Finish();
  // Within the compressed data, so that the index still tells a size.
  payload[payload.size() / 2] ^= 1;
  EXPECT_EQ(Extract(payload, destination_.Path()), Code::kPayload);
  EXPECT_EQ(ReadTree(destination_.Path()), Tree{});
}

// The rest would be unpacked before liblzma compares the index.
TEST_F(ExtractAtOnceTest, UnpackingEndsWhereTheIndexSaysThatAllWasUnpacked) {
  const std::string payload =
      builder_.Seal().File("a", std::string(300000, 'a')).Zeros("b", 64 << 20).Finish();
  const std::string lying = WithIndexThatSays(payload, 500000);
  const PayloadFile file(lying);
  const base::Descriptor directory = OpenDirectory(destination_.Path());
  try {
    package::ExtractPayload(file.fd(), file.size(), directory.Get(), nullptr);
    ADD_FAILURE() << "not refused";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kPayload);
    EXPECT_THAT(error.what(), ::testing::HasSubstr("more than the 500000 bytes"));
  }
  EXPECT_EQ(ReadTree(destination_.Path()), Tree{});
}

TEST_F(ExtractAtOnceTest, IndexThatSaysTooMuchIsRefused) {
  const std::string payload = builder_.Seal().File("a", std::string(300000, 'a')).Finish();
  const std::string lying = WithIndexThatSays(payload, 500000);
  EXPECT_EQ(Extract(lying, destination_.Path()), Code::kPayload);
  EXPECT_EQ(ReadTree(destination_.Path()), Tree{});
}

TEST_F(ExtractAtOnceTest, TrueIndexIsNotRefused) {
  const std::string payload = builder_.Seal().File("a", std::string(300000, 'a')).Finish();
  const std::string plain = PayloadBuilder(PayloadBuilder::Filter::kNone)
                                .Seal()
                                .File("a", std::string(300000, 'a'))
                                .Finish();
  EXPECT_EQ(WithIndexThatSays(payload, plain.size()), payload);
  EXPECT_EQ(Extract(payload, destination_.Path()), std::nullopt);
}

TEST_F(ExtractAtOnceTest, WhatKilledProcessesLeftGoes) {
  WriteFile(destination_.Path() / ".tolmpkg-1-staging/d/a", "left over");
  WriteFile(destination_.Path() / ".tolmpkg-1-staging/old", "left over");
  EXPECT_EQ(Extract(builder_.Seal().File("d/a", "1").Finish(), destination_.Path()), std::nullopt);
  EXPECT_EQ(ReadTree(destination_.Path()), (Tree{{"d/", ""}, {"d/a", "1"}}));
}

TEST_F(ExtractAtOnceTest, WhatKilledProcessesLeftGoesFromAnInstallationToo) {
  WriteFile(destination_.Path() / ".tolmpkg-1-staging/d/a", "left over");
  WriteFile(destination_.Path() / "d/b", "installed");
  EXPECT_EQ(Extract(builder_.Seal().File("d/a", "1").Finish(), destination_.Path()), std::nullopt);
  EXPECT_EQ(ReadTree(destination_.Path()), (Tree{{"d/", ""}, {"d/a", "1"}, {"d/b", "installed"}}));
}

TEST_F(ExtractAtOnceTest, WhatIsThereIsUnpackedOverAfterACheck) {
  WriteFile(destination_.Path() / "d/old", "installed");
  EXPECT_EQ(Extract(builder_.Seal().File("d/a", "1").Special("f", AE_IFIFO).Finish(),
                    destination_.Path()),
            Code::kMemberType);
  EXPECT_EQ(ReadTree(destination_.Path()), (Tree{{"d/", ""}, {"d/old", "installed"}}));
  const std::string payload =
      PayloadBuilder(PayloadBuilder::Filter::kXz).Seal().File("d/a", "1").Finish();
  EXPECT_EQ(Extract(payload, destination_.Path()), std::nullopt);
  EXPECT_EQ(ReadTree(destination_.Path()),
            (Tree{{"d/", ""}, {"d/a", "1"}, {"d/old", "installed"}}));
}

}  // namespace
}  // namespace tolm::testing
