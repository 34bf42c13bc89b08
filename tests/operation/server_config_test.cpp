#include "operation/server_config.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "operation/credentials.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

std::string HostOf(const std::string& address) {
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "https", "db_netloc": ")" + address +
                         R"(", "db_ver": "1", "cur_volume": "/volume1"}})");
  return ServerConfig().GetDBInfoDomainName();
}

std::string CredentialsOf(const std::string& address) {
  const auto credentials = CredentialsFor(*ParseUrl(address));
  return credentials ? credentials->user + '|' + credentials->password : "none";
}

TEST(ServerConfigTest, PasswordMayHoldWhateverEndsAHostElsewhere) {
  EXPECT_EQ(HostOf("me:wo/r?d#@x@host.example:8443"), "host.example:8443");
  EXPECT_EQ(CredentialsOf("https://host.example:8443/"), "me|wo/r?d#@x");
  ASSERT_TRUE(ConfiguredServer());
  EXPECT_EQ(ConfiguredServer()->host, "host.example");
}

TEST(ServerConfigTest, ServerWithoutThemIsLeftAsItIs) {
  EXPECT_EQ(HostOf("other.example"), "other.example");
  EXPECT_EQ(CredentialsOf("https://other.example/"), "none");
}

TEST(ServerConfigTest, WhatEndsAHostIsOnlyChangedWhereAPasswordIs) {
  EXPECT_EQ(HostOf("/me:/word@h.example"), "h.example");
  EXPECT_EQ(CredentialsOf("https://h.example/"), "/me|/word");
  EXPECT_EQ(HostOf("/nothing"), "/nothing");
}

TEST(ServerConfigTest, DatabasesAreThoseThatAreConfiguredAtThatMoment) {
  HostOf("h.example");
  const ServerConfig config;
  testing::WriteFile("/usr/share/data_update/databases.conf", R"({"geo": {}, "oui": {}})");
  EXPECT_EQ(config.GetDatabaseIDs(), (std::vector<std::string>{"geo", "oui"}));
  testing::WriteFile("/usr/share/data_update/databases.conf", R"({"oui": {}})");
  EXPECT_EQ(config.GetDatabaseIDs(), (std::vector<std::string>{"oui"}));
}

}  // namespace
}  // namespace tolm::operation
