#include "publish/replay/order.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace tolm::testing {
namespace {

using publish::FormatReplayOrder;
using publish::ParseReplayOrder;
using publish::ReplayOrder;

ReplayOrder AnOrder() {
  ReplayOrder order;
  order.publisher = 4711;
  order.directory = "/tmp/\xff \"quoted\" \\ \n\x01 \xc3\xa4";  // not all of it is UTF-8
  order.name = "oui";
  order.installed_version = 1000001;
  order.packages = {{1000002, "/tmp/oui_d1000002"}, {1000003, "/tmp/\xfe/oui_d1000003"}};
  order.trust = {"-----BEGIN CERTIFICATE-----\nAAAA\n", "-----BEGIN X509 CRL-----\nBBBB\n"};
  order.now = std::numeric_limits<std::time_t>::max();
  return order;
}

TEST(ReplayOrderTest, IsReadAsItWasWritten) {
  const ReplayOrder order = AnOrder();
  const ReplayOrder read = ParseReplayOrder(FormatReplayOrder(order));
  EXPECT_EQ(read.publisher, order.publisher);
  EXPECT_EQ(read.directory, order.directory);
  EXPECT_EQ(read.name, order.name);
  EXPECT_EQ(read.installed_version, order.installed_version);
  EXPECT_EQ(read.packages, order.packages);
  EXPECT_EQ(read.trust.certificates, order.trust.certificates);
  EXPECT_EQ(read.trust.revocations, order.trust.revocations);
  EXPECT_EQ(read.now, order.now);
}

TEST(ReplayAnswerTest, IsReadAsItWasWritten) {
  const publish::ReplayAnswer read = publish::ParseReplayAnswer(
      publish::FormatReplayAnswer({"Fail to \xff \"so\"\n", "/a/\xfe", {"/b", "/c\xff"}}));
  EXPECT_EQ(read.problem, "Fail to \xff \"so\"\n");
  EXPECT_EQ(read.key, "/a/\xfe");
  EXPECT_EQ(read.touched, (std::set<std::string>{"/b", "/c\xff"}));
  for (const std::string& other :
       {std::string(), std::string("Fail to vcdiff"), std::string(2000, '['),
        std::string(R"({"format":3,"problem":"","key":"","touched":[1]})")}) {
    EXPECT_THROW(publish::ParseReplayAnswer(other), std::runtime_error) << other;
  }
}

TEST(ReplayOrderTest, MemberThatIsNotWhatItShouldBeIsNamed) {
  const std::string text = FormatReplayOrder(AnOrder());
  struct Row {
    const char* member;
    const char* value;
  };
  for (const Row& row : {Row{"publisher", "3000000000"}, Row{"installed_version", "-3000000000"},
                         Row{"now", "\"1\""}, Row{"name", "1"}, Row{"packages", "{}"},
                         Row{"packages", R"([{"path": "p"}])"}, Row{"revocations", "null"}}) {
    SCOPED_TRACE(row.member);
    const std::string name = '"' + std::string(row.member) + "\" :";
    std::string other = text;
    other.replace(other.find(name), name.size(), name + row.value + ", \"x\" :");
    try {
      ParseReplayOrder(other);
      ADD_FAILURE() << "was read";
    } catch (const std::runtime_error& error) {
      const std::string member = row.value[0] == '[' ? "version" : row.member;
      EXPECT_EQ(error.what(), "not an order to replay: " + member);
    }
  }
}

TEST(ReplayOrderTest, AnythingElseIsRefused) {
  const std::string text = FormatReplayOrder(AnOrder());
  std::string of_another_version = text;
  of_another_version.replace(of_another_version.find("\"format\" : 3"), 12, "\"format\" : 2");
  std::string of_another_type = text;
  of_another_type.replace(of_another_type.find("\"packages\" :"), 12, "\"packages\" : 1, \"x\" :");
  for (const std::string& other :
       {std::string(), std::string("{}"), std::string("[1]"), std::string("\"format\""),
        text.substr(0, text.size() / 2), text + text, of_another_version,
        std::string(R"({"format":3})"), of_another_type, std::string(2000, '[')}) {
    EXPECT_THROW(ParseReplayOrder(other), std::runtime_error) << other;
  }
}

}  // namespace
}  // namespace tolm::testing
