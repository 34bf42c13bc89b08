#include "publish/outside.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "base/percent.h"
#include "publish/files.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/fake_rclone.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/interrupted_calls.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST(OutsideTest, SignalsDoNotEndTheLookAtAPackage) {
  const FakeRclone rclone(R"(case "$1" in
  backend) echo '{"Features": {"IsLocal": false, "BucketBased": true, "Move": false}}' ;;
  lsjson) echo '[{"Path":"packages/oui/oui_v1","Size":3}]' ;;
  cat) sleep 0.1; printf ab; sleep 0.1; printf c ;;
esac
)");
  publish::Settings settings;
  settings.base_url = {"http", "example.org"};
  const auto outside = publish::OutsideInStore("store:", settings);
  const InterruptedCalls interrupted;
  const publish::OutsidePackage measured =
      outside->Measure("http://example.org/packages/oui/oui_v1");
  EXPECT_EQ(measured.problem, "");
  EXPECT_EQ(measured.size_bytes, 3u);
  EXPECT_EQ(measured.sha384, publish::Sha384OfText("abc"));
}

class OutsideOnWebTest : public ::testing::Test {
 protected:
  void Answer(const std::string& path, std::vector<std::pair<std::string, std::string>> headers,
              bool without_length = false) {
    HttpAnswer answer;
    answer.headers = std::move(headers);
    answer.body = "text";
    answer.without_length = without_length;
    server_.SetAnswer(path, answer);
  }
  std::unique_ptr<publish::Outside> Open() const {
    return publish::OutsideOnWeb(server_.Url("/"), publish::Settings());
  }
  std::unique_ptr<publish::Outside> Described(
      std::vector<std::pair<std::string, std::string>> headers, bool without_length = false) {
    Answer("/database_info/1", std::move(headers), without_length);
    auto outside = Open();
    EXPECT_EQ(outside->Description(), "text");
    return outside;
  }

  HttpServer server_;
};

TEST_F(OutsideOnWebTest, DescriptionIsAskedForAsDevicesDo) {
  const auto outside = Described({});
  EXPECT_EQ(outside->Name(), server_.Url(""));
  EXPECT_THAT(outside->wrong, IsEmpty());
  EXPECT_THAT(outside->remarks, IsEmpty());
  EXPECT_EQ(base::PercentDecoded(server_.Requests().front().target),
            "/database_info/1?os=check&dlid=0&db_list[check]=1");
  server_.Reset("/database_info/1");
  ExpectError([&] { outside->Description(); },
              server_.Url("/database_info/1?os=check&dlid=0&db_list[check]=1: the server answers "
                          "with status 404"));
}

TEST_F(OutsideOnWebTest, HeadersOfTheDescriptionThatHurtAreTold) {
  EXPECT_THAT(
      Described({{"Content-Encoding", "identity"}, {"Cache-Control", "public, max-age=3600"}})
          ->remarks,
      IsEmpty());
  const auto encoded = Described({{"Content-Encoding", "br"}});
  EXPECT_THAT(encoded->wrong, ElementsAre("the description: comes with Content-Encoding: br, and "
                                          "devices keep it as it comes"));
  const auto old = Described({{"Cache-Control", "public, max-age=3601"},
                              {"Last-Modified", "Fri, 15 Jan 2027 08:00:00 GMT"}},
                             true);
  EXPECT_THAT(old->wrong, IsEmpty());
  EXPECT_THAT(
      old->remarks,
      ElementsAre("the description: comes with Last-Modified, which devices whose wget has other "
                  "settings than the shipped ones take for the age of their copy",
                  "the description: caches may keep it for 3601 s, and devices get an old one "
                  "meanwhile",
                  "the description: comes without Content-Length: one that was cut off looks "
                  "whole"));
  EXPECT_THAT(Described({{"Cache-Control", "max-age=many"}})->remarks, IsEmpty());
}

TEST_F(OutsideOnWebTest, WhatHurtsOfPackagesIsToldOfTheFirstAlone) {
  Answer("/a", {{"Content-Encoding", "gzip"}}, true);
  Answer("/b", {{"Content-Encoding", "gzip"}}, true);
  Answer("/good", {{"Accept-Ranges", "bytes"}});
  const auto outside = Open();
  const publish::OutsidePackage good = outside->Look(server_.Url("/good"));
  EXPECT_EQ(good.problem, "");
  EXPECT_EQ(good.size_bytes, 4u);
  EXPECT_EQ(good.sha384, "");
  EXPECT_THAT(outside->remarks, IsEmpty());
  const std::string a = server_.Url("/a");
  EXPECT_EQ(outside->Look(a).size_bytes, std::nullopt);
  const publish::OutsidePackage measured = outside->Measure(server_.Url("/b"));
  EXPECT_EQ(measured.problem, "");
  EXPECT_EQ(measured.size_bytes, 4u);
  EXPECT_EQ(measured.sha384, publish::Sha384OfText("text"));
  EXPECT_THAT(outside->wrong, ElementsAre(a + ": comes with Content-Encoding: gzip, and devices "
                                              "keep it as it comes"));
  EXPECT_THAT(outside->remarks,
              ElementsAre(a + ": comes without Content-Length: one that was cut off looks whole",
                          a + ": no ranges of it are served (Accept-Ranges), so that a download "
                              "that was cut off begins anew"));
}

TEST_F(OutsideOnWebTest, DescriptionIsReadUpToManyTimesWhatDevicesRead) {
  const std::string most(std::size_t{16} * 4 << 20, 'x');
  server_.SetBody("/database_info/1", most);
  EXPECT_TRUE(Open()->Description() == most);
  server_.SetBody("/database_info/1", most + 'x');
  const auto outside = Open();
  ExpectError([&] { outside->Description(); }, ::testing::EndsWith(": is far too large"));
}

TEST_F(OutsideOnWebTest, PackageThatIsNotServedIsAProblemAndNothingElse) {
  const auto outside = Open();
  for (const publish::OutsidePackage& package :
       {outside->Look(server_.Url("/a")), outside->Measure(server_.Url("/a"))}) {
    EXPECT_EQ(package.problem, "the server answers with status 404");
    EXPECT_EQ(package.size_bytes, std::nullopt);
    EXPECT_EQ(package.sha384, "");
  }
  EXPECT_THAT(outside->remarks, IsEmpty());
}

TEST(OutsideTest, StoreHasWhatLiesBelowTheAddressUnderItsDecodedPath) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "packages/o i/o_v1", "text");
  publish::Settings settings;
  settings.base_url = {"http", "example.org"};
  const auto outside = publish::OutsideInStore(directory.Path(), settings);
  EXPECT_EQ(outside->Look("http://example.org/packages/o%20i/o_v1").size_bytes, 4u);
  EXPECT_EQ(outside->Measure("http://example.org/packages/o%20i/o_v1").sha384,
            publish::Sha384OfText("text"));
  for (const char* link : {"http://example.com/packages/o%20i/o_v1", "ttp://example.org/", ""}) {
    EXPECT_EQ(outside->Look(link).problem, "is not below http://example.org/");
    EXPECT_EQ(outside->Measure(link).problem, "is not below http://example.org/");
  }
  ExpectError([&] { outside->Description(); },
              directory.Path().string() + ": database_info/1 is not there");
  WriteFile(directory.Path() / "database_info/1", "{}");
  EXPECT_EQ(outside->Description(), "{}");
  std::filesystem::remove(directory.Path() / "packages/o i/o_v1");
  EXPECT_THAT(outside->Measure("http://example.org/packages/o%20i/o_v1").problem,
              ::testing::HasSubstr("packages/o i/o_v1 cannot be read: rclone: "));
}

TEST_F(OutsideOnWebTest, WhatIsReadIsJudgedByItsHeadersToo) {
  Answer("/a", {{"Content-Encoding", "gzip"}});
  const auto outside = Open();
  EXPECT_EQ(outside->Measure(server_.Url("/a")).problem, "");
  EXPECT_EQ(outside->wrong.size(), 1u);
  EXPECT_THAT(outside->remarks, ElementsAre(::testing::HasSubstr(": no ranges of it are served")));
  HttpAnswer other;
  other.status = 203;
  server_.SetAnswer("/other", other);
  EXPECT_THAT(outside->Look(server_.Url("/other")).problem, ::testing::HasSubstr("203"));
}

}  // namespace
}  // namespace tolm::testing
