#include "operation/offered_package.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "offer/offer.h"
#include "operation/file_digest.h"
#include "operation/offered_size.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

offer::PackageOffer Package(const std::string& link, std::uint64_t bytes, char digit) {
  return {link, bytes, std::string(96, digit)};
}

Json::Value SignedDescription() {
  offer::Offer offer;
  offer.base = "http://h";
  offer.databases["oui"] = {3,
                            1700000000,
                            false,
                            Package("oui_v3", 5000000000, 'a'),
                            {{2, Package("oui_d2", 20, 'b')}, {3, Package("oui_d3", 30, 'c')}}};
  return offer::DocumentOf(offer);
}

TEST(OfferedPackageTest, SignedDescriptionTellsSizeAndDigestOfEveryPackage) {
  const OfferedPackages packages = SignedPackagesIn(SignedDescription(), "oui");
  ASSERT_EQ(packages.size(), 3u);
  EXPECT_EQ(packages.at("v3").bytes, 5000000000u);
  EXPECT_EQ(packages.at("v3").sha384, std::string(96, 'a'));
  EXPECT_EQ(packages.at("d2").bytes, 20u);
  EXPECT_EQ(packages.at("d3").sha384, std::string(96, 'c'));
  EXPECT_TRUE(SignedPackagesIn(SignedDescription(), "geo").empty());
  EXPECT_EQ(OfferedBytesIn(SignedDescription(), "http://h/oui_v3"), 5000000000u);
  EXPECT_EQ(OfferedBytesIn(SignedDescription(), "http://h/oui_d2"), 20u);
}

TEST(OfferedPackageTest, OfAnyOtherDescriptionNothingIsTaken) {
  Json::Value description = SignedDescription();
  for (const Json::Value& signature : {Json::Value("text"), Json::Value(1), Json::Value()}) {
    description["signed"] = signature;
    EXPECT_TRUE(SignedPackagesIn(description, "oui").empty());
  }
  for (const Json::Value& other : {Json::Value(), Json::Value(7), Json::Value(Json::arrayValue)}) {
    EXPECT_TRUE(SignedPackagesIn(other, "oui").empty());
  }
}

TEST(OfferedPackageTest, DifferenceIsToldBySizeOrDigest) {
  const std::string file = "/tmp/package";
  const std::string content(300000, 'x');
  testing::WriteFile(file, content);
  const OfferedPackage offered{content.size(), FileDigest(file, [] {})};
  int steps = 0;
  const auto difference = [&] { return DifferenceOf(file, offered, [&] { ++steps; }); };
  EXPECT_EQ(difference(), "");
  EXPECT_GT(steps, 1) << "it is read in pieces";
  testing::WriteFile(file, content.substr(1) + 'y');
  EXPECT_EQ(difference(), "its content has another SHA-384");
  steps = 0;
  testing::WriteFile(file, content + 'x');
  EXPECT_EQ(difference(), "it has 300001 bytes and not 300000");
  testing::WriteFile(file, content.substr(1));
  EXPECT_EQ(difference(), "it has 299999 bytes and not 300000");
  EXPECT_EQ(steps, 0) << "what has another size is not read";
}

TEST(OfferedPackageTest, WhatCannotBeReadIsAnother) {
  EXPECT_NE(DifferenceOf("/tmp/missing", {7, ""}, [] {}), "");
  EXPECT_NE(DifferenceOf("/tmp", {7, ""}, [] {}), "");
}

TEST(OfferedPackageTest, WhoeverComparesCanEndIt) {
  testing::WriteFile("/tmp/package", "content");
  EXPECT_THROW(DifferenceOf("/tmp/package", {7, ""}, [] { throw std::runtime_error("ended"); }),
               std::runtime_error);
}

}  // namespace
}  // namespace tolm::operation
