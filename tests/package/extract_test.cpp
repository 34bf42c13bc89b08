#include "package/extract.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/package/expect_code.h"
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

}  // namespace
}  // namespace tolm::testing
