// What the installed tool says when something fails: the cause made in earnest, the line on
// standard error as it is, and the reason that programs get. What a command prints in other
// situations is in the tests of the commands.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/human_text.h"
#include "tests/package/authority.h"
#include "tests/package/payload_builder.h"
#include "tests/support/preload.h"
#include "tests/support/wait.h"
#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kDescriptionPath[] = "/database_info/1";
constexpr char kPackagePath[] = "/packages/oui_v70001";
constexpr char kKeyring[] = "/usr/tolm/etc/keyring/6.pem";
constexpr int kVersion = GoldenDevice::kFirst;

// A device, and what a row has arranged for it.
class Machine : public GoldenDevice {
 public:
  HttpServer& Server() { return publisher.Server(); }
  fs::path Package() const { return publisher.FullPackage("oui", kVersion); }

  void Answer(const std::string& path, int status) {
    HttpAnswer answer;
    answer.status = status;
    Server().SetAnswer(path, answer);
  }
  /// Another address of the server, which is the configured one then.
  void Configure(const std::string& scheme, const std::string& netloc) {
    ReplaceInFile(kServerDefaults, "\"http\"", '"' + scheme + '"');
    ReplaceInFile(kServerDefaults, "127.0.0.1:" + std::to_string(Server().Port()), netloc);
  }
  /// wget gives up a silent server soon and does not wait between its attempts.
  void HaveNoPatience() {
    WriteFile("/tmp/wgetrc", "waitretry = 0\nread_timeout = 0.3\n");
    environment = {"SYSTEM_WGETRC=/tmp/wgetrc"};
  }
  /// A real TLS server with that certificate; wget trusts the authority, where there is one.
  void ServeTls(const package::Signer& server, const Authority* trusted) {
    WriteFile("/tmp/tls.pem", PemOf(server.certificate.get()) + PemOf(server.key.get()));
    if (trusted != nullptr) {
      WriteFile("/tmp/authority.pem", trusted->Pem());
      WriteFile("/tmp/wgetrc", "ca_certificate = /tmp/authority.pem\n");
      environment = {"SYSTEM_WGETRC=/tmp/wgetrc"};
    }
    tls_ = std::make_unique<RunningCommand>(std::vector<std::string>{
        "openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", "/tmp/tls.pem", "-www"});
    const std::string told = "ACCEPT 127.0.0.1:";
    const auto has_told = [&] {
      const std::size_t at = tls_->Out().find(told);
      return at != std::string::npos && tls_->Out().find('\n', at) != std::string::npos;
    };
    ASSERT_TRUE(WaitUntil(has_told, std::chrono::seconds(60))) << tls_->Out();
    const std::string out = tls_->Out();
    Configure("https",
              "127.0.0.1:" + std::to_string(std::stoi(out.substr(out.find(told) + told.size()))));
  }
  /// Only what the table of hosts has is known.
  void AskNoResolver() {
    WriteFile("/tmp/nsswitch.conf", "hosts: files\n");
    Mount(ScopedMount::Bind("/tmp/nsswitch.conf", "/etc/nsswitch.conf"));
  }
  /// The description leads to a package there.
  void OfferAt(const std::string& link) {
    Server().SetBody(kDescriptionPath, R"({"deprecated": false, "db_list": {"oui": {
                     "data_version": "7", "last_fetch_time": 1, "download_link": ")" +
                                           link + R"("}}})");
  }
  /// wget does this and nothing else.
  static void ReplaceWget(const std::string& script) {
    fs::remove("/usr/bin/wget");
    WriteFile("/usr/bin/wget", "#!/bin/sh\n" + script + '\n');
    fs::permissions("/usr/bin/wget", fs::perms(0755));
  }
  /// In place of the package that is offered, one that is whole and signed by this one.
  void SignPackage(const package::Signer& signer) {
    WriteFile(Package(), SignedPackage(Payload("full", kVersion), signer));
  }
  void Trust(const Authority& authority) { WriteFile(kKeyring, authority.Pem()); }

  static std::string Payload(const std::string& kind, int version,
                             const std::string& name = "oui") {
    PayloadBuilder builder;
    builder.Seal(R"({"name":")" + name + R"(","kind":")" + kind + R"(","version":)" +
                 std::to_string(version) + "}");
    builder.File("a.txt", "one");
    return builder.Finish();
  }

 private:
  std::unique_ptr<RunningCommand> tls_;
};

struct Row {
  std::string name;
  std::function<void(Machine&)> arrange;
  std::string says;    ///< On standard error, behind "tolmdbud: oui"; $URL and $PORT as elsewhere.
  std::string reason;  ///< In JSON.
  std::string text;    ///< The library's, in the result's "message": a part of it; "": no result.
  int http_status = 0;
  int exit_status = 1;
  bool is_of_oui = true;  ///< Otherwise of the machine: the line has no "oui".
};

std::string NameOf(const ::testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

class MessagesTest : public ::testing::TestWithParam<Row> {
 protected:
  // Addresses, processes and what is free are others each time; dates are not.
  std::string Normalised(std::string text) {
    const std::vector<std::pair<std::string, std::string>> replacements = {
        {"http://127\\.0\\.0\\.1:" + std::to_string(machine_.Server().Port()), "$$URL"},
        {R"re(127\.0\.0\.1:\d{2,5})re", "127.0.0.1:$$PORT"},
        {R"re(process \d+)re", "process $$N"},
        {R"re(free are \d+)re", "free are $$N"},
        {R"re(package signing \d{4}-\d\d-\d\d)re", "package signing $$DATE"}};
    for (const auto& [pattern, replacement] : replacements) {
      text = std::regex_replace(text, std::regex(pattern), replacement);
    }
    return text;
  }

  static Json::Value Parse(const std::string& text) {
    Json::Value document;
    std::istringstream(text) >> document;
    return document;
  }

  static void ExpectReason(const Json::Value& told, const Row& row) {
    EXPECT_EQ(told["reason"].asString(), row.reason);
    EXPECT_EQ(told["http_status"].asInt(), row.http_status);
  }

  // A failure before an operation begins has no result.
  static void ExpectResult(const Json::Value& results, const Row& row) {
    ASSERT_EQ(results.size(), row.text.empty() ? 0U : 1U);
    if (!row.text.empty()) {
      ExpectReason(results[0], row);
      EXPECT_THAT(results[0]["message"].asString(), HasSubstr(row.text));
    }
  }

  Machine machine_;
};

TEST_P(MessagesTest, CausePlaceAndRemedyAreToldWithTheReason) {
  const Row& row = GetParam();
  row.arrange(machine_);
  ASSERT_FALSE(HasFatalFailure());
  const CommandResult result =
      RunCommand({kTool, "update", "oui", "--json"}, {machine_.environment, {}, ""});
  EXPECT_EQ(result.exit_status, row.exit_status);
  EXPECT_EQ(Normalised(result.err),
            (row.is_of_oui ? "tolmdbud: oui" : "tolmdbud") + row.says + "\n");
  const Json::Value document = Parse(result.out);
  ASSERT_EQ(document["failures"].size(), 1U);
  EXPECT_EQ("tolmdbud: " + document["failures"][0].asString() + '\n', result.err);
  ASSERT_EQ(document["reasons"].size(), 1U);
  ExpectReason(document["reasons"][0], row);
  ExpectResult(document["results"], row);
}

const char kWget[] = "Fail to wget url: ";
const char kOpen[] = "tolmarchive_open /volume1/@tmp/data_update/oui_v70001 failed, ret: ";
const char kLater[] = " does not answer in time; try later";

// ---- The server ----

const std::string kWrongServer =
    "; is that the right server (db_netloc in /usr/share/data_update/data_update.conf)? The "
    "publisher's \"tolmdbpub check\" tells what it has";

const Row kServerRows[] = {
    {"NameIsNotKnown",
     [](Machine& machine) {
       machine.AskNoResolver();
       machine.Configure("http", "updates.invalid");
     },
     ": no address is known for the name updates.invalid; \"getent hosts updates.invalid\" asks "
     "the resolver; the name stands as db_netloc in /usr/share/data_update/data_update.conf",
     "name-not-resolved", kWget},
    {"NameInTheDescriptionIsNotKnown",
     [](Machine& machine) {
       machine.AskNoResolver();
       machine.OfferAt("http://packages.invalid/x");
     },
     " 7: no address is known for the name packages.invalid; \"getent hosts packages.invalid\" "
     "asks "
     "the resolver; the server's description, or a redirect, leads there",
     "name-not-resolved", kWget},
    {"NameOfTheProxyIsNotKnown",
     [](Machine& machine) {
       machine.AskNoResolver();
       machine.environment = {"http_proxy=http://proxy.invalid:2"};
     },
     ": no address is known for the name proxy.invalid; \"getent hosts proxy.invalid\" asks the "
     "resolver; the name stands in the settings of the proxy",
     "name-not-resolved", kWget},
    {"WgetIsKilled", [](Machine&) { Machine::ReplaceWget("kill -9 $$"); },
     ": wget was ended by signal 9 before it had $URL/database_info/1; try again",
     "download-failed", kWget},
    {"WgetEndsAsItNeverDoes", [](Machine&) { Machine::ReplaceWget("exit 77"); },
     ": wget ended with status 77 for $URL/database_info/1; the system log has what it said "
     "(journalctl -t tolmdbud)",
     "download-failed", kWget},
    {"PortIsClosed", [](Machine& machine) { machine.ServerIsGone(); },
     ": 127.0.0.1:1 refuses the connection; no server runs there, or not at that port",
     "connection-refused", kWget},
    {"ServerIsSilent",
     [](Machine& machine) {
       machine.HaveNoPatience();
       machine.Server().Hang(kDescriptionPath);
     },
     std::string(": 127.0.0.1:$PORT") + kLater, "timed-out", kWget},
    {"ServerFallsSilentInTheMiddle",
     [](Machine& machine) {
       machine.HaveNoPatience();
       HttpAnswer answer;
       answer.body = std::string(100, 'x');
       answer.pause_at = 50;
       machine.Server().SetAnswer(kPackagePath, answer);
     },
     std::string(" 70001: 127.0.0.1:$PORT") + kLater, "timed-out", kWget},
    {"ConnectionBreaksInTheMiddle",
     [](Machine& machine) {
       machine.HaveNoPatience();
       HttpAnswer answer;
       answer.body = "half";
       answer.stated_length = 100;
       machine.Server().SetAnswer(kPackagePath, answer);
     },
     " 70001: 127.0.0.1:$PORT has broken the connection off; try later", "connection-broken",
     kWget},
    {"ConnectionBreaksBeforeTheAnswer",
     [](Machine& machine) {
       machine.HaveNoPatience();
       HttpAnswer answer;
       answer.raw = "";
       machine.Server().SetAnswer(kDescriptionPath, answer);
     },
     ": 127.0.0.1:$PORT has broken the connection off; try later", "connection-broken", kWget},
    {"ServerIsTooSlow",
     [](Machine& machine) {
       machine.environment = Preload(TOLM_FAST_CLOCK_LIBRARY);
       HttpAnswer answer;
       answer.body = std::string(100, 'x');
       answer.pause_at = 10;
       machine.Server().SetAnswer(kPackagePath, answer);
     },
     " 70001: $URL sends less than 1024 bytes a second; try later", "too-slow", kWget},
    {"RedirectsLeadInACircle",
     [](Machine& machine) { machine.Server().Redirect(kDescriptionPath, kDescriptionPath); },
     ": more than 20 redirects, the last to $URL/database_info/1; ask who runs the server",
     "link-refused", kWget},
    {"RedirectLeadsElsewhere",
     [](Machine& machine) { machine.Server().Redirect(kPackagePath, "ftp://127.0.0.1/x"); },
     " 70001: $URL/packages/oui_v70001: a redirect is no address of http or https; ask who runs "
     "the server",
     "link-refused", kWget},
    {"LinkLeadsElsewhere", [](Machine& machine) { machine.OfferAt("http://127.0.0.1:1/x"); },
     " 7: http://127.0.0.1:1/x: its link leads to the loopback address 127.0.0.1; ask who runs the "
     "server",
     "link-refused", kWget},
    {"DescriptionIsNoJson",
     [](Machine& machine) { machine.Server().SetBody(kDescriptionPath, "<html>"); },
     ": the answer from $URL/database_info/1 is no description of databases (it is a web page: a "
     "portal or proxy may be in the way)" +
         kWrongServer,
     "description-damaged", "the answer from http://127.0.0.1:"},
    {"ServerKnowsNoSuchDatabase",
     [](Machine& machine) {
       machine.Server().SetBody(kDescriptionPath, R"({"deprecated": false, "db_list": {}})");
     },
     ": the answer from $URL/database_info/1 is no description of databases (it lists none of the "
     "configured databases)" +
         kWrongServer,
     "description-damaged", "the answer from http://127.0.0.1:"},
    {"ServerKnowsNothingOfIt",
     [](Machine& machine) {
       machine.Server().SetBody(kDescriptionPath,
                                R"({"deprecated": false, "db_list": {"oui": null}})");
     },
     ": the description from $URL has no usable record of it" + kWrongServer, "description-damaged",
     "Invalid json object for RemoteInfo"},
};
INSTANTIATE_TEST_SUITE_P(Server, MessagesTest, ::testing::ValuesIn(kServerRows), NameOf);

std::vector<Row> StatusRows() {
  const std::string refresh = "; tolmdbud check --refresh asks what is offered now";
  const std::string later = "; the server is overloaded or broken: try later";
  const std::map<int, std::string> said = {
      {401,
       "401 Unauthorized from $URL/packages/oui_v70001; user and password stand before the host in "
       "db_netloc in /usr/share/data_update/data_update.conf (user:password@host)"},
      {403,
       "403 Forbidden from $URL/packages/oui_v70001; ask who runs the server why it refuses this "
       "machine"},
      {404, "404 Not Found from $URL/packages/oui_v70001" + refresh},
      {410, "410 Gone from $URL/packages/oui_v70001" + refresh},
      {500, "500 Internal Server Error from $URL/packages/oui_v70001" + later},
      {503, "503 Service Unavailable from $URL/packages/oui_v70001" + later},
      {999, "HTTP status 999 from $URL/packages/oui_v70001" + later}};
  std::vector<Row> rows;
  for (const auto& entry : said) {
    const int status = entry.first;
    rows.push_back({"Status" + std::to_string(status),
                    [status](Machine& machine) { machine.Answer(kPackagePath, status); },
                    " 70001: " + entry.second, "http-status", kWget, status});
  }
  rows.push_back({"StatusOfTheDescription",
                  [](Machine& machine) { machine.Answer(kDescriptionPath, 404); },
                  ": 404 Not Found from $URL/database_info/1; is db_netloc in "
                  "/usr/share/data_update/data_update.conf right?",
                  "http-status", kWget, 404});
  rows.push_back({"PasswordThatIsNotAcceptedIsNotTold",
                  [](Machine& machine) {
                    machine.Answer(kPackagePath, 401);
                    machine.Configure(
                        "http", "me:s3cret@127.0.0.1:" + std::to_string(machine.Server().Port()));
                  },
                  " 70001: 401 Unauthorized from $URL/packages/oui_v70001; it does not accept the "
                  "user and password that are set for it",
                  "http-status", kWget, 401});
  rows.push_back({"WhatAServerCallsItsAnswerIsNotTold",
                  [](Machine& machine) {
                    HttpAnswer answer;
                    answer.raw = "HTTP/1.1 500 Connection refused\r\nX: has expired\r\n\r\n";
                    machine.Server().SetAnswer(kPackagePath, answer);
                  },
                  " 70001: 500 Internal Server Error from $URL/packages/oui_v70001" + later,
                  "http-status", kWget, 500});
  return rows;
}
INSTANTIATE_TEST_SUITE_P(Status, MessagesTest, ::testing::ValuesIn(StatusRows()), NameOf);

// ---- Its certificate ----

Row TlsRow(const std::string& name, const std::function<void(CertificateOptions&)>& spoil,
           bool is_trusted, const std::string& says, const std::string& reason) {
  return {name,
          [spoil, is_trusted](Machine& machine) {
            const Authority authority;
            CertificateOptions options;
            options.extended_usage = "serverAuth";
            options.other_names = "IP:127.0.0.1";
            spoil(options);
            machine.ServeTls(authority.NewSigner(options), is_trusted ? &authority : nullptr);
          },
          ": " + says, reason, kWget};
}

const char kRenew[] =
    "; is the date of this machine right? Otherwise who runs the server has to "
    "renew it";

const Row kTlsRows[] = {
    TlsRow(
        "Untrusted", [](CertificateOptions&) {}, false,
        "the certificate of 127.0.0.1:$PORT comes from no authority that this machine trusts; "
        "trust it by ca_certificate in the settings of wget, or ask who runs the server",
        "tls-not-trusted"),
    TlsRow(
        "Expired", [](CertificateOptions& options) { options.not_after = kLongAgo + 1; }, true,
        std::string("the certificate of 127.0.0.1:$PORT has expired") + kRenew, "tls-expired"),
    TlsRow(
        "NotYetValid", [](CertificateOptions& options) { options.not_before = kFarFuture - 1; },
        true, std::string("the certificate of 127.0.0.1:$PORT is not valid yet") + kRenew,
        "tls-not-yet-valid"),
    TlsRow(
        "ForAnotherName",
        [](CertificateOptions& options) { options.other_names = "DNS:example.org"; }, true,
        "the certificate of 127.0.0.1:$PORT is for another name; is db_netloc in "
        "/usr/share/data_update/data_update.conf right?",
        "tls-other-name"),
    {"NoTlsAtThatPort",
     [](Machine& machine) {
       machine.HaveNoPatience();
       machine.Configure("https", "127.0.0.1:" + std::to_string(machine.Server().Port()));
     },
     ": no TLS connection to 127.0.0.1:$PORT comes about; is download_scheme right, does the "
     "server speak https at that port?",
     "tls-failed", kWget},
};
INSTANTIATE_TEST_SUITE_P(Tls, MessagesTest, ::testing::ValuesIn(kTlsRows), NameOf);

// ---- The package ----

Row SignedRow(const std::string& name, const std::function<void(CertificateOptions&)>& spoil,
              const std::string& says, const std::string& reason, int code) {
  return {name,
          [spoil](Machine& machine) {
            const Authority authority;
            CertificateOptions options;
            spoil(options);
            machine.SignPackage(authority.NewSigner(options));
            machine.Trust(authority);
          },
          " 70001: signed by \"CN=Test signing\", " + says, reason, kOpen + std::to_string(code)};
}

Row PayloadRow(const std::string& name, const std::string& kind, int version,
               const std::string& database, const std::string& says, int code) {
  return {name,
          [kind, version, database](Machine& machine) {
            machine.publisher.PackPayload(Machine::Payload(kind, version, database),
                                          machine.Package());
          },
          " 70001: " + says + "; the publisher's \"tolmdbpub check\" tells what the server has",
          "package-for-another", kOpen + std::to_string(code)};
}

const char kCheck[] = "; the publisher's \"tolmdbpub check\" tells what the server has";
const char kAnew[] = "; the publisher signs anew by \"tolmdbpub resign\"";

const Row kPackageRows[] = {
    {"SignedByNobodyTrusted",
     [](Machine& machine) { machine.SignPackage(Authority("Another root").NewSigner()); },
     " 70001: signed by \"CN=Test signing\", which /usr/tolm/etc/keyring/6.pem does not trust; is "
     "it the right server, or has the publisher a new root?",
     "package-not-trusted", kOpen + std::string("26")},
    SignedRow(
        "Expired", [](CertificateOptions& options) { options.not_after = kLongAgo + 1; },
        std::string("valid until 2001-09-09T01:46:41Z: it, or an authority above it, has "
                    "expired") +
            kAnew,
        "package-expired", 27),
    SignedRow(
        "NotYetValid", [](CertificateOptions& options) { options.not_before = kFarFuture - 1; },
        "valid from 2099-12-31T23:59:59Z: it, or an authority above it, is not valid yet; is "
        "the date of this machine right?",
        "package-not-yet-valid", 28),
    SignedRow(
        "ForTlsServers", [](CertificateOptions& options) { options.extended_usage = "serverAuth"; },
        std::string("whose certificate is not for signing packages") + kAnew, "package-wrong-usage",
        25),
    {"Revoked",
     [](Machine& machine) {
       const Authority authority;
       const package::Signer signer = authority.NewSigner();
       machine.SignPackage(signer);
       machine.Trust(authority);
       WriteFile("/usr/tolm/etc/keyring/6.crl.pem",
                 authority.RevocationPem({signer.certificate.get()}));
     },
     std::string(" 70001: signed by \"CN=Test signing\", which /usr/tolm/etc/keyring/6.crl.pem has "
                 "revoked, or an authority above it") +
         kAnew,
     "package-revoked", kOpen + std::string("29")},
    {"Altered", [](Machine& machine) { ChangeByte(machine.Package(), 10); },
     std::string(" 70001: signed by \"CN=Database package signing $DATE\", who has signed another "
                 "content than this one") +
         kCheck,
     "package-damaged", kOpen + std::string("30")},
    {"CutShort",
     [](Machine& machine) {
       fs::resize_file(machine.Package(), fs::file_size(machine.Package()) - 1);
     },
     std::string(" 70001: not a package, or cut short: no package trailer at its end") + kCheck,
     "package-damaged", kOpen + std::string("12")},
    {"Empty", [](Machine& machine) { WriteFile(machine.Package(), ""); },
     std::string(" 70001: not a package, or cut short: too short for a package") + kCheck,
     "package-damaged", kOpen + std::string("12")},
    PayloadRow("OfAnotherDatabase", "full", kVersion, "geo",
               "it is another database's: sealed for geo, wanted for oui", 43),
    PayloadRow("OfAnotherVersion", "full", 5, "oui",
               "it is of another version: sealed as version 5, wanted as version 70001", 45),
    PayloadRow("DeltaInPlaceOfAFullOne", "delta", kVersion, "oui",
               "a delta in place of a full package, or the reverse: sealed as a delta package, "
               "wanted as a full one",
               44),
    {"NoKeyring", [](Machine&) { fs::remove(kKeyring); },
     " 70001: this machine has no usable keyring: /usr/tolm/etc/keyring/6.pem: No such file or "
     "directory; \"tolmdbpub install-config\" makes it",
     "no-keyring", kOpen + std::string("20")},
};
INSTANTIATE_TEST_SUITE_P(Package, MessagesTest, ::testing::ValuesIn(kPackageRows), NameOf);

// ---- This machine ----

void FillVolume(Machine& machine) {
  machine.Mount(ScopedMount::Tmpfs("/volume1", 1 << 20));
  WriteFile("/volume1/full", std::string((1 << 20) - (32 << 10), 'x'));
}

const Row kMachineRows[] = {
    {"VolumeIsFullAndThePackagesSizeIsKnown",
     [](Machine& machine) {
       FillVolume(machine);
       machine.publisher.Server().SetBody(
           kDescriptionPath, R"({"deprecated": false, "db_list": {"oui": {"data_version": "70001",
           "last_fetch_time": 1, "file_size": 3000000, "download_link": ")" +
                                 machine.Server().Url(kPackagePath) + R"("}}})");
     },
     " 70001: no room on /volume1: 3.0 MB needed, 0 B free beyond the 5 % reserve; make room there",
     "no-room", kWget},
    {"VolumeIsFull", FillVolume,
     " 70001: no room on /volume1: more is needed than the 0 B free beyond the 5 % "
     "reserve; make room there",
     "no-room", kWget},
    {"UnpackedFilesDoNotFit",
     [](Machine& machine) {
       machine.publisher.PackFull("oui", kVersion, {{"zeros", std::string(4 << 20, '\0')}});
       machine.Mount(ScopedMount::Tmpfs("/volume1/@tmp", 1 << 20));
     },
     " 70001: no room on /volume1/@tmp: unpacked it takes 4194304 bytes, free are $N; make "
     "room there",
     "no-room", "tolmarchive_extract "},
    {"ReserveWouldBeTouched",
     [](Machine& machine) {
       machine.publisher.PackFull("oui", kVersion, {{"zeros", std::string(1 << 20, '\0')}});
       machine.Mount(ScopedMount::Tmpfs("/volume1", (2 << 20) + (64 << 10)));
     },
     ": no room on /volume1: more is needed than the 2.1 MB free beyond the 5 % reserve; "
     "make room there",
     "no-room", "Disk space is too low"},
    {"NotConfigured", [](Machine&) { fs::remove(kDatabaseDefaults); },
     ": not configured: /usr/share/data_update/databases.conf is missing; see tolmdbpub "
     "install-config",
     "not-configured", ""},
    {"SettingsAreNoJson", [](Machine&) { WriteFile(kDatabaseDefaults, "{\n  \"oui\": {,}\n}\n"); },
     ": /usr/share/data_update/databases.conf: line 2, column 11: Missing '}' or object member "
     "name; "
     "nothing was done",
     "configuration-damaged", "", 0, 1, false},
    {"SettingIsMissing", [](Machine&) { ReplaceInFile(kServerDefaults, "db_netloc", "db_net"); },
     ": /usr/share/data_update/data_update.conf is damaged: config.db_netloc is missing; "
     "\"tolmdbpub install-config\" makes it anew",
     "configuration-damaged", "section-key: 'config'-'db_netloc' not found"},
    {"NoSuchDatabase",
     [](Machine& machine) {
       ConfigureDevice(machine.publisher, {{"geo", kOnVolume}, {"tz", kOnRootFs}});
     },
     ": there is no such database; configured: geo, tz", "unknown-database", ""},
    {"NoVolumeIsChosen", [](Machine& machine) { machine.WithoutAVolume(); },
     ": no volume is chosen, nothing was done; \"tolmdbud volume show\" says what there is",
     "no-volume", "", 0, 12},
    {"AnotherOperationDoesNotEnd",
     [](Machine& machine) {
       machine.environment = Preload(TOLM_SKIPPED_WAITS_LIBRARY);
       machine.Hold("/run/data_update/operator.lock");
     },
     ": another operation does not end: /run/data_update/operator.lock is held by process $N, "
     "tools_tolmdbud_; try again when that has ended",
     "busy", "Fail to lock "},
    {"ReadersDoNotLetGo",
     [](Machine& machine) {
       machine.environment = Preload(TOLM_SKIPPED_WAITS_LIBRARY);
       machine.Hold("/run/data_update/using_oui.lock");
     },
     ": readers do not let go of the database: /run/data_update/using_oui.lock is held by process "
     "$N, tools_tolmdbud_; end that process, or wait for it",
     "busy", "Fail to lock "},
    {"OlderVersionIsOffered",
     [](Machine& machine) {
       machine.OfferSecond();
       machine.Install();
       machine.publisher.Offer("oui", kVersion);
       fs::remove(kVersionFile);
     },
     ": version 70001 is offered, but version 70002 was installed before; an older one is "
     "installed "
     "by force-install, or after \"tolmdbud trust lower oui 70001\"",
     "older-version", "version 70001 is offered"},
    {"SomebodyElsesDirectory",
     [](Machine&) {
       fs::create_directories("/volume1/@tmp");
       fs::permissions("/volume1/@tmp", fs::perms::all);
     },
     ": /volume1/@tmp can be written by everybody; nothing was done (chmod go-w /volume1/@tmp)",
     "unsafe-directory", "/volume1/@tmp"},
};
INSTANTIATE_TEST_SUITE_P(Machine, MessagesTest, ::testing::ValuesIn(kMachineRows), NameOf);

// ---- Deltas that were of no use ----

const char kDelta[] = "/packages/oui_d70002";

void BreakPatch(Machine& machine) {
  machine.publisher.PackDelta("oui", 70002,
                              R"({"/a.txt": {"operation": "update", "input_file": "a.vcdiff"}})",
                              {{"a.vcdiff", "no delta"}});
}

const Row kFallBackRows[] = {
    {"DeltaIsGone", [](Machine& machine) { machine.Answer(kDelta, 404); },
     "404 Not Found from $URL/packages/oui_d70002", "http-status", "", 404},
    {"DeltaIsAltered",
     [](Machine& machine) { ChangeByte(machine.publisher.DeltaPackage("oui", 70002), 10); },
     "signed by \"CN=Database package signing $DATE\", who has signed another content than this "
     "one",
     "package-damaged", ""},
    {"PatchDoesNotFit", BreakPatch,
     "the installed files cannot be patched by it, the system log says why", "delta-unfit", ""},
};

class FallBackTest : public MessagesTest {
 protected:
  static Json::Value NewestInHistory() {
    std::istringstream lines(ReadFile("/var/lib/data_update/history.jsonl"));
    Json::Value newest;
    for (std::string line; std::getline(lines, line);) {
      newest = Parse(line);
    }
    return newest;
  }

  static void ExpectFellBack(const Json::Value& told, const Row& row, std::uint64_t bytes) {
    ExpectReason(told, row);
    EXPECT_THAT(told["explanation"].asString(), ::testing::StartsWith("delta 70002: "));
    EXPECT_EQ(told["bytes"].asUInt64(), bytes);
  }
};

TEST_P(FallBackTest, FullPackageInPlaceOfDeltasIsToldWithTheReason) {
  const Row& row = GetParam();
  machine_.Install();
  machine_.OfferSecondByDelta();
  row.arrange(machine_);
  const CommandResult result = Tool({"update", "oui", "--json"});
  EXPECT_EQ(result.exit_status, 0);
  const auto bytes = fs::file_size(machine_.publisher.FullPackage("oui", 70002));
  EXPECT_EQ(Normalised(result.err), "tolmdbud: oui delta 70002: " + row.says +
                                        "; the full package was taken, " + base::HumanSize(bytes) +
                                        "\n");
  const Json::Value document = Parse(result.out);
  EXPECT_EQ(document["failures"].size(), 0U);
  EXPECT_EQ(document["results"][0]["outcome"], "updated");
  ExpectFellBack(document["results"][0]["fell_back"], row, bytes);
  ExpectFellBack(NewestInHistory()["fell_back"], row, bytes);
}
INSTANTIATE_TEST_SUITE_P(Deltas, FallBackTest, ::testing::ValuesIn(kFallBackRows), NameOf);

// ---- Waits ----

struct WaitRow {
  std::string name;
  std::string lock;
  std::string says;
};

class WaitTest : public ::testing::TestWithParam<WaitRow> {};

// Standard error is a pipe here.
TEST_P(WaitTest, IsToldOnceWithWhoIsWaitedForAndNotToWhoWantsQuiet) {
  Machine machine;
  fs::create_directories("/run/data_update");
  std::optional<UniqueDescriptor> held(
      open(GetParam().lock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(flock(held->Get(), LOCK_SH | LOCK_NB), 0);
  RunningCommand tool({kTool, "update", "oui"});
  // The first one waits for that lock, and the second for the first.
  const std::string first = "/run/data_update/operator.lock";
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(first) && !IsFree(first); }));
  RunningCommand quiet({kTool, "update", "oui", "--quiet"});
  ASSERT_TRUE(WaitUntil([&] { return !tool.Err().empty(); }, std::chrono::seconds(60)));
  held.reset();
  const CommandResult result = tool.Wait();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, ::testing::StartsWith("tolmdbud: " + GetParam().says + ": " +
                                                GetParam().lock + " is held by process "));
  EXPECT_THAT(result.err, HasSubstr(std::to_string(getpid()) + ", tools_tolmdbud_\n"));
  EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 2);
  const CommandResult quiet_result = quiet.Wait();
  EXPECT_EQ(quiet_result.exit_status, 0);
  EXPECT_EQ(quiet_result.err, "");
}

const WaitRow kWaitRows[] = {
    {"OtherOperation", "/run/data_update/operator.lock", "waiting for another operation"},
    {"LibrarysLock", "/run/data_update/update_any.lock", "waiting for another operation"},
    {"Readers", "/run/data_update/using_oui.lock", "waiting for readers of the database"},
};
INSTANTIATE_TEST_SUITE_P(Locks, WaitTest, ::testing::ValuesIn(kWaitRows),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::testing
