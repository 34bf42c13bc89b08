// The installed tool against a download server that lies or breaks. Whatever it answers, an update
// either ends with exactly the offered version, or changes nothing and says why.

#include <fstream>

#include "tests/tools/hostile_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

class HostileServerTest : public HostileServerFixture, public ::testing::WithParamInterface<Row> {};

TEST_P(HostileServerTest, UpdateEndsCleanly) {
  HostileServerFixture::UpdateEndsCleanly(GetParam());
}

const char kInvalidOffer[] = "Invalid json object for RemoteInfo\n";
const char kInvalidDelta[] = "Invalid json object for DiffInfo\n";

// A file with a hole of this size stands for one that never ends.
constexpr std::uint64_t kEndlessBytes = std::uint64_t{1} << 40;

// ---- Answers: the same oddities for the description and for the package ----

// One of the two things that are fetched.
struct Fetched {
  std::string (*path)(Scene& scene);
  std::string (*body)(Scene& scene);
  std::string when_garbled;
};

std::vector<Row> RowsFor(const Fetched& fetched) {
  const auto answer = [&fetched](const std::string& name,
                                 const std::function<void(HttpAnswer&)>& spoil, Outcome outcome,
                                 const std::string& says = "") {
    return Row{name,
               [fetched, spoil](Scene& scene) {
                 HttpAnswer honest;
                 honest.body = fetched.body(scene);
                 spoil(honest);
                 if (honest.hang || honest.pause_at) {
                   SetReadTimeout("0.5");
                 }
                 if (!honest.body_file.empty()) {
                   std::ofstream(honest.body_file).close();
                   fs::resize_file(honest.body_file, kEndlessBytes);
                 }
                 scene.Server().SetAnswer(fetched.path(scene), honest);
               },
               outcome, says};
  };
  const auto refused = [&](const std::string& name, const std::function<void(HttpAnswer&)>& spoil) {
    return answer(name, spoil, Outcome::kRefused, kDownloadFailed);
  };
  const auto garbled = [&](const std::string& name, const std::function<void(HttpAnswer&)>& spoil) {
    return answer(name, spoil, Outcome::kRefused, fetched.when_garbled);
  };
  const auto harmless = [&](const std::string& name,
                            const std::function<void(HttpAnswer&)>& spoil) {
    return answer(name, spoil, Outcome::kUpdated);
  };
  const auto status = [](int number) {
    return [number](HttpAnswer& honest) { honest.status = number; };
  };
  const auto header = [](const std::string& name, const std::string& value) {
    return [name, value](HttpAnswer& honest) { honest.headers = {{name, value}}; };
  };
  // The head is given, then comes the whole honest body.
  const auto raw = [](const std::string& head) {
    return [head](HttpAnswer& honest) { honest.raw = head + honest.body; };
  };
  const auto half = [](HttpAnswer& honest) { honest.body.resize(honest.body.size() / 2); };
  const auto redirect = [&fetched](const std::string& name, const std::string& location,
                                   Outcome outcome = Outcome::kRefused) {
    return Row{name,
               [fetched, location](Scene& scene) {
                 scene.Server().Redirect(fetched.path(scene), location);
               },
               outcome, kDownloadFailed};
  };
  return {
      harmless("Status201Created", status(201)),
      garbled("Status204NoContent", status(204)),
      harmless("Status206Unasked", status(206)),
      harmless("Status300WithABody", status(300)),
      refused("Status302WithoutLocation", status(302)),
      refused("Status304Unasked", status(304)),
      refused("Status401", status(401)),
      refused("Status404", status(404)),
      garbled("Status416", status(416)),
      refused("Status429", status(429)),
      refused("Status500", status(500)),
      refused("Status503", status(503)),
      refused("Status999", status(999)),
      harmless("Continue100First", raw("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\n")),
      refused("ClosedWithoutAnAnswer", [](HttpAnswer& honest) { honest.raw = ""; }),
      garbled("AnswerOfAnotherProtocol",
              [](HttpAnswer& honest) { honest.raw = "SSH-2.0-OpenSSH_9.2\r\n"; }),
      refused("HeadWithoutAnEnd",
              [](HttpAnswer& honest) {
                honest.raw = "HTTP/1.1 200 OK\r\nX: " + std::string(1 << 20, 'x');
              }),
      garbled("HeadCutShort", [](HttpAnswer& honest) { honest.raw = "HTTP/1.1 200 OK\r\nCont"; }),
      refused("ShortBody",
              [half](HttpAnswer& honest) {
                honest.stated_length = honest.body.size();
                half(honest);
              }),
      garbled("ShortBodyWithoutLength",
              [half](HttpAnswer& honest) {
                half(honest);
                honest.without_length = true;
              }),
      harmless("WholeBodyWithoutLength", [](HttpAnswer& honest) { honest.without_length = true; }),
      garbled("BodyLongerThanStated",
              [](HttpAnswer& honest) { honest.stated_length = honest.body.size() / 2; }),
      harmless("MoreAfterTheBody",
               [](HttpAnswer& honest) {
                 honest.stated_length = honest.body.size();
                 honest.body += "HTTP/1.1 200 OK\r\n\r\nmore";
               }),
      garbled("EmptyBody", [](HttpAnswer& honest) { honest.body.clear(); }),
      harmless("NegativeLength", raw("HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n")),
      garbled("LengthThatIsNoNumber", raw("HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n")),
      refused("LengthBeyond63Bits",
              raw("HTTP/1.1 200 OK\r\nContent-Length: 9223372036854775806\r\n\r\n")),
      garbled("ChunksCutShort",
              [half](HttpAnswer& honest) {
                half(honest);
                honest.raw =
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nfffff\r\n" + honest.body;
              }),
      garbled("ChunkSizeThatIsNoNumber",
              raw("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nmany\r\n")),
      garbled("Html",
              [](HttpAnswer& honest) { honest.body = "<!DOCTYPE html><html>Log in</html>\n"; }),
      garbled("GzipEncoded",
              [](HttpAnswer& honest) {
                honest.headers = {{"Content-Encoding", "gzip"}};
                WriteFile("/tmp/plain", honest.body);
                RunCommand({"gzip", "/tmp/plain"});
                honest.body = ReadFile("/tmp/plain.gz");
              }),
      harmless("GzipOnlyClaimed", header("Content-Encoding", "gzip")),
      harmless("NameOfAnotherFile",
               header("Content-Disposition", "attachment; filename=\"/tmp/outside/canary\"")),
      refused("StallBeforeTheAnswer", [](HttpAnswer& honest) { honest.hang = true; }),
      refused("StallInTheHead",
              [](HttpAnswer& honest) {
                honest.raw = "HTTP/1.1 200 OK\r\nContent-";
                honest.pause_at = honest.raw->size();
              }),
      refused("StallInTheBody",
              [](HttpAnswer& honest) { honest.pause_at = honest.body.size() / 2; }),
      refused("StallInTheBodyWithoutLength",
              [](HttpAnswer& honest) {
                honest.without_length = true;
                honest.pause_at = honest.body.size() / 2;
              }),
      refused("BodyWithoutAnEnd", [](HttpAnswer& honest) { honest.body_file = "/tmp/endless"; }),
      refused("BodyWithoutAnEndAndWithoutLength",
              [](HttpAnswer& honest) {
                honest.body_file = "/tmp/endless";
                honest.without_length = true;
              }),
      Row{"RedirectToItself",
          [fetched](Scene& scene) {
            scene.Server().Redirect(fetched.path(scene), scene.Server().Url(fetched.path(scene)));
          },
          Outcome::kRefused, kDownloadFailed},
      Row{"RedirectsInALongChain",
          [fetched](Scene& scene) {
            // A new place every time: no loop is to be seen.
            scene.Server().Redirect(fetched.path(scene), "/hop0");
            for (int hop = 0; hop < 100; ++hop) {
              scene.Server().Redirect("/hop" + std::to_string(hop),
                                      "/hop" + std::to_string(hop + 1));
            }
          },
          Outcome::kRefused, kDownloadFailed},
      Row{"RedirectToTheRightPlace",
          [fetched](Scene& scene) {
            scene.Server().Redirect(fetched.path(scene), "/moved");
            scene.Server().SetBody("/moved", fetched.body(scene));
          },
          Outcome::kUpdated, ""},
      redirect("RedirectToAFile", "file:///tmp/outside/canary"),
      redirect("RedirectToFtp", "ftp://127.0.0.1:1/canary"),
      redirect("RedirectToHttps", "https://127.0.0.1:1/canary"),
      redirect("RedirectToAnUnknownScheme", "gopher://127.0.0.1:1/canary"),
      redirect("RedirectToAnOption", "-i/tmp/outside/canary"),
      redirect("RedirectToNothing", ""),
      redirect("RedirectToAClosedPort", "http://127.0.0.1:1/"),
  };
}

const Fetched kTheDescription = {[](Scene&) -> std::string { return Scene::kDescriptionPath; },
                                 [](Scene& scene) { return scene.HonestDescription(); },
                                 kUnreadableDescription};
const Fetched kThePackage = {[](Scene& scene) { return scene.PackagePath(); },
                             [](Scene& scene) { return scene.HonestPackage(); }, OpenFailed(12)};

INSTANTIATE_TEST_SUITE_P(Description, HostileServerTest,
                         ::testing::ValuesIn(RowsFor(kTheDescription)), NameOf);
INSTANTIATE_TEST_SUITE_P(Package, HostileServerTest, ::testing::ValuesIn(RowsFor(kThePackage)),
                         NameOf);

// ---- The description's content ----

Row Described(const std::string& name, const std::string& document, Outcome outcome,
              const std::string& says = "") {
  return {name, [document](Scene& scene) { scene.Describe(document); }, outcome, says};
}

// The honest description changed as text.
Row Edited(const std::string& name, const std::function<std::string(std::string)>& edit,
           Outcome outcome, const std::string& says = "") {
  return {name, [edit](Scene& scene) { scene.Describe(edit(scene.HonestDescription())); }, outcome,
          says};
}

// One text of the honest description replaced by another.
Row Replaced(const std::string& name, const std::string& from, const std::string& to,
             Outcome outcome, const std::string& says = "") {
  return Edited(
      name,
      [from, to](std::string document) {
        return document.replace(document.find(from), from.size(), to);
      },
      outcome, says);
}

// The same with a large text, which is made for the one row that is run: every process makes all
// rows.
Row Replaced(const std::string& name, const std::string& from,
             const std::function<std::string()>& to, Outcome outcome,
             const std::string& says = "") {
  return Edited(
      name,
      [from, to](std::string document) {
        return document.replace(document.find(from), from.size(), to());
      },
      outcome, says);
}

std::string Beyond(const std::string& says) {
  return "Fail to decode: /var/cache/data_update/database_info.json (it has " + says +
         " more than a description may have)\n";
}

// An array of so many values.
std::string Huge(int values) {
  std::string list = "[0";
  for (int i = 1; i < values; ++i) {
    list += ",{}";
  }
  return list + "]";
}

std::vector<Row> JsonRows() {
  const auto invalid = [](const std::string& name, const std::string& from, const std::string& to) {
    return Replaced(name, from, to, Outcome::kRefused, kInvalidOffer);
  };
  const auto unreadable = [](const std::string& name, const std::string& document) {
    return Described(name, document, Outcome::kRefused, kUnreadableDescription);
  };
  const auto wrong = [](const std::string& name, const std::string& document) {
    return Described(name, document, Outcome::kRefused, kInvalidOffer);
  };
  const auto other = [](const std::string& name, const std::string& document) {
    return Described(name, document, Outcome::kRefused, kNoDescription);
  };
  const auto deltas = [](const std::string& name, const std::string& json, Outcome outcome) {
    return Row{name, [json](Scene& scene) { scene.DescribeDeltas(json); }, outcome, kInvalidDelta};
  };
  const std::string fetch_time = R"("last_fetch_time": 1700000000)";
  const std::string wide = R"("deprecated": false)";
  return {
      other("Null", "null"),
      other("Boolean", "true"),
      other("Number", "42"),
      other("String", "\"oui\""),
      other("EmptyObject", "{}"),
      other("EmptyArray", "[]"),
      other("ListMissing", R"({"deprecated": false})"),
      other("ListNull", R"({"deprecated": false, "db_list": null})"),
      other("ListArray", R"({"deprecated": false, "db_list": [{"oui": 1}]})"),
      other("ListString", R"({"deprecated": false, "db_list": "oui"})"),
      other("DatabaseMissing", R"({"deprecated": false, "db_list": {"geo": {}}})"),
      wrong("DatabaseNull", Scene::Document("null")),
      wrong("DatabaseEmpty", Scene::Document("{}")),
      wrong("DatabaseArray", Scene::Document("[1]")),
      wrong("DatabaseString", Scene::Document("\"1000002\"")),
      wrong("DatabaseNumber", Scene::Document("1000002")),
      invalid("DeprecatedNowhere", wide + ", ", ""),
      invalid("DeprecatedString", wide, R"("deprecated": "no")"),
      invalid("DeprecatedNumber", wide, R"("deprecated": 1)"),
      invalid("DeprecatedObject", wide, R"("deprecated": {"a": 1})"),
      invalid("OwnDeprecatedString", fetch_time, fetch_time + R"(, "deprecated": "no")"),
      Replaced("DeprecatedTrue", wide, R"("deprecated": true)", Outcome::kUpdated),
      invalid("FetchTimeMissing", fetch_time + ", ", ""),
      invalid("FetchTimeString", "1700000000", "\"1700000000\""),
      invalid("FetchTimeFraction", "1700000000", "1.5"),
      invalid("FetchTimeAboveInt", "1700000000", "2147483648"),
      invalid("FetchTimeBelowInt", "1700000000", "-2147483649"),
      Replaced("FetchTimeAboveDouble", "1700000000", "1e999", Outcome::kRefused,
               kUnreadableDescription),
      invalid("VersionMissing", "\"data_version\": \"1000002\", ", ""),
      invalid("LinkMissing", "download_link", "download_lnk"),
      deltas("DeltasArray", "[1]", Outcome::kUpdated),
      deltas("DeltasString", "\"all\"", Outcome::kUpdated),
      deltas("DeltaNull", R"({"1000002": null})", Outcome::kRefused),
      deltas("DeltaString", R"({"1000002": "d"})", Outcome::kRefused),
      deltas("DeltaWithoutLink", R"({"1000002": {"file_size": 1}})", Outcome::kRefused),
      deltas("DeltaWithoutSize", R"({"1000002": {"download_link": "d"}})", Outcome::kRefused),
      deltas("DeltaOfNegativeSize", R"({"1000002": {"download_link": "d", "file_size": -1}})",
             Outcome::kUpdatedInFull),
      deltas("DeltaOfSizeAboveInt",
             R"({"1000002": {"download_link": "d", "file_size": 2147483648}})", Outcome::kRefused),
      unreadable("OnlyBlanks", " \n\t "),
      unreadable("NulBytes", std::string(4096, '\0')),
      unreadable("RandomBytes", "\x8f\x02\xff\xfe\x00\x91{[\"\\u"),
      unreadable("BadEscape", R"({"deprecated": "\q"})"),
      unreadable("WithoutQuotes", "{deprecated: false}"),
      unreadable("Utf16", std::string("\xff\xfe{\0}\0", 6)),
      Edited(
          "CutInTheMiddle", [](std::string text) { return text.substr(0, text.size() / 2); },
          Outcome::kRefused, kUnreadableDescription),
      Edited(
          "LastByteMissing", [](std::string text) { return text.substr(0, text.size() - 1); },
          Outcome::kRefused, kUnreadableDescription),
      Edited(
          "ByteOrderMarkFirst", [](std::string text) { return "\xef\xbb\xbf" + text; },
          Outcome::kRefused, kUnreadableDescription),
      Edited(
          "GarbageBehind", [](std::string text) { return text + "}]<html>"; }, Outcome::kUpdated),
      Edited(
          "Comments", [](std::string text) { return "// x\n" + text + "/* y */"; },
          Outcome::kUpdated),
      Described("Deep", Nested(100000), Outcome::kRefused, Beyond("100000 levels, 99984")),
      Described(
          "DeepObjects",
          [] {
            std::string text;
            for (int i = 0; i < 20000; ++i) {
              text += "{\"a\":";
            }
            return text;
          }(),
          Outcome::kRefused, Beyond("20000 levels, 19984")),
      Replaced("DeepInAnUnusedMember", "{", "{\"x\": " + Nested(16) + ", ", Outcome::kRefused,
               Beyond("17 levels, 1")),
      Replaced("LessDeepInAnUnusedMember", "{", "{\"x\": " + Nested(15) + ", ", Outcome::kUpdated),
      Replaced(
          "HugeUnusedMember", "{", [] { return "{\"x\": " + Huge(200000) + ", "; },
          Outcome::kRefused, Beyond("200009 values, 9")),
      Replaced(
          "LessHugeUnusedMember", "{", [] { return "{\"x\": " + Huge(199990) + ", "; },
          Outcome::kUpdated),
      Replaced(
          "HugeString", "{", [] { return "{\"x\": \"" + std::string(4 << 20, 'x') + "\", "; },
          Outcome::kRefused, kDownloadFailed),
      Replaced(
          "LessHugeString", "{", [] { return "{\"x\": \"" + std::string(4000000, 'x') + "\", "; },
          Outcome::kUpdated),
      Replaced(
          "HugeNumber", "1700000000", [] { return std::string(1 << 20, '9'); }, Outcome::kRefused,
          kUnreadableDescription),
      Replaced("SameKeyTwiceOlderLast", fetch_time, fetch_time + R"(, "data_version": "1")",
               Outcome::kUpdated),
      Replaced("SameKeyTwiceInvalidFirst", fetch_time, fetch_time + R"(, "download_link": 1)",
               Outcome::kUpdated),
      Replaced("SameDatabaseTwice", R"("db_list": {)", R"("db_list": {"oui": {}, )",
               Outcome::kUpdated),
      Replaced("SameListTwice", R"("db_list")", R"("db_list": 1, "db_list")", Outcome::kUpdated),
      Edited(
          "SameListTwiceEmptyLast",
          [](std::string text) { return text.replace(text.rfind('}'), 1, R"(, "db_list": {}})"); },
          Outcome::kRefused, kNoDescription),
  };
}

INSTANTIATE_TEST_SUITE_P(Json, HostileServerTest, ::testing::ValuesIn(JsonRows()), NameOf);

// ---- Versions ----

Row Version(const std::string& name, const std::string& json, Outcome outcome,
            const std::string& says = "") {
  return {name, [json](Scene& scene) { scene.DescribeVersion(json); }, outcome, says};
}

std::vector<Row> VersionRows() {
  const auto invalid = [](const std::string& name, const std::string& json) {
    return Version(name, json, Outcome::kRefused, kInvalidOffer);
  };
  const auto no_number = [](const std::string& name, const std::string& json) {
    return Version(name, json, Outcome::kRefused, "version");
  };
  return {
      // The package's seal says 1000002.
      Version("LargestInt", "\"2147483647\"", Outcome::kRefused, "_v2147483647 failed, ret: 45"),
      Version("SmallestInt", "\"-2147483648\"", Outcome::kUpToDate),
      Version("MinusOne", "\"-1\"", Outcome::kUpToDate),
      Version("Zero", "\"0\"", Outcome::kUpToDate),
      Version("Older", "\"1000000\"", Outcome::kUpToDate),
      Version("Same", "\"1000001\"", Outcome::kUpToDate),
      Version("Exponent", "\"1e9\"", Outcome::kUpToDate),
      Version("Hexadecimal", "\"0x7fffffff\"", Outcome::kUpToDate),
      Version("Fraction", "\"1000001.9\"", Outcome::kUpToDate),
      Version("LeadingZeros", "\"0001000002\"", Outcome::kUpdated),
      Version("LeadingBlanks", "\" \\t\\n1000002\"", Outcome::kUpdated),
      Version("LeadingPlus", "\"+1000002\"", Outcome::kUpdated),
      Version("TrailingBlank", "\"1000002 \"", Outcome::kUpdated),
      Version("TrailingText", "\"1000002/../../x\"", Outcome::kUpdated),
      Version("NulBehind", "\"1000002\\u0000x\"", Outcome::kUpdated),
      no_number("OneAboveInt", "\"2147483648\""),
      no_number("OneBelowInt", "\"-2147483649\""),
      no_number("ManyDigits", Quoted(std::string(5000, '9'))),
      no_number("Empty", "\"\""),
      no_number("Blank", "\" \""),
      no_number("Word", "\"latest\""),
      no_number("Minus", "\"-\""),
      no_number("FullWidthDigits", "\"\\uff11\\uff12\""),
      invalid("Number", "1000002"),
      invalid("Null", "null"),
      invalid("Boolean", "true"),
      invalid("Array", "[\"1000002\"]"),
      invalid("Object", "{\"1000002\": 1}"),
  };
}

INSTANTIATE_TEST_SUITE_P(Version, HostileServerTest, ::testing::ValuesIn(VersionRows()), NameOf);

// The versions that deltas are offered for are numbers in the form of texts as well.
std::vector<Row> DeltaVersionRows() {
  const auto key = [](const std::string& name, const std::string& text, Outcome outcome) {
    return Row{name,
               [text](Scene& scene) {
                 scene.DescribeDeltas("{" + text + R"(: {"download_link": "d", "file_size": 1}})");
               },
               outcome, "version"};
  };
  return {
      key("Empty", "\"\"", Outcome::kRefused),
      key("Word", "\"all\"", Outcome::kRefused),
      key("OneAboveInt", "\"2147483648\"", Outcome::kRefused),
      key("LargestInt", "\"2147483647\"", Outcome::kUpdated),
      key("Negative", "\"-1000002\"", Outcome::kUpdated),
      key("LeadingZeros", "\"001000002\"", Outcome::kUpdatedInFull),
  };
}

INSTANTIATE_TEST_SUITE_P(DeltaVersion, HostileServerTest, ::testing::ValuesIn(DeltaVersionRows()),
                         NameOf);

// ---- Links ----

// "$" stands for the server's host and port, "@" for the honest path.
Row Link(const std::string& name, const std::string& pattern, Outcome outcome,
         const std::string& says = "Fail to wget url: ") {
  return {name,
          [pattern](Scene& scene) {
            std::string link;
            for (const char c : pattern) {
              link += c == '$'   ? scene.Server().Url("").substr(7)
                      : c == '@' ? scene.PackagePath()
                                 : std::string(1, c);
            }
            scene.DescribeLink(Quoted(link));
          },
          outcome, says};
}

// The honest link changed as it stands in the description's JSON text.
Row Spoilt(const std::string& name, const std::function<std::string(const std::string&)>& spoil,
           Outcome outcome, const std::string& says = "") {
  return {name,
          [spoil](Scene& scene) {
            scene.DescribeLink('"' + spoil(scene.Server().Url(scene.PackagePath())) + '"');
          },
          outcome, says};
}

std::vector<Row> LinkRows() {
  const auto refused = [](const std::string& name, const std::string& pattern) {
    return Link(name, pattern, Outcome::kRefused);
  };
  const auto updated = [](const std::string& name, const std::string& pattern) {
    return Link(name, pattern, Outcome::kUpdated);
  };
  return {
      refused("Empty", ""),
      refused("Blank", " "),
      refused("Dash", "-"),
      refused("ShortOption", "-i/tmp/outside/canary"),
      refused("OptionThatWritesAFile", "--output-file=/tmp/outside/log"),
      refused("OptionThatRunsAProgram", "--use-askpass=/usr/bin/touch"),
      refused("OptionThatSucceeds", "--version"),
      refused("FileScheme", "file:///tmp/outside/canary"),
      refused("AbsolutePath", "/tmp/outside/canary"),
      refused("FtpScheme", "ftp://127.0.0.1:1/x"),
      refused("HttpsScheme", "https://127.0.0.1:1@"),
      refused("UnknownScheme", "gopher://$@"),
      refused("DataScheme", "data:text/plain,x"),
      refused("OnlyAScheme", "http://"),
      refused("WithoutHost", "http:///packages/oui_v1000002"),
      refused("OnlyAPort", "http://:80/"),
      refused("HostWithoutPort", "http://127.0.0.1@"),
      refused("PortZero", "http://127.0.0.1:0@"),
      refused("PortTooLarge", "http://127.0.0.1:99999@"),
      refused("PortThatIsNoNumber", "http://127.0.0.1:http@"),
      refused("UnclosedBracket", "http://[::1@"),
      refused("OtherAddressFamily", "http://[::1]:1@"),
      refused("Directory", "http://$/packages/"),
      refused("Root", "http://$"),
      refused("OutOfTheTree", "http://$/../../../../tmp/outside/canary"),
      refused("EncodedOutOfTheTree", "http://$/%2e%2e/%2e%2e/tmp/outside/canary"),
      refused("PercentZero", "http://$@%00"),
      refused("BadPercent", "http://$@%zz"),
      refused("OnlyPercent", "http://$/%"),
      refused("Quotes", "http://$@'\"`"),
      refused("CommandSubstitution", "http://$/(touch /tmp/outside/x)`touch /tmp/outside/x`"),
      refused("Semicolon", "http://$@; touch /tmp/outside/x"),
      refused("Backslash", "http://$\\packages\\oui_v1000002"),
      refused("NewlineInside", "http://$/packages/\noui_v1000002"),
      refused("NewlineBehind", "http://$@\n"),
      refused("TwoLinks", "http://$@ http://127.0.0.1:1/"),
      refused("TerminalEscapes", "http://$/\x1b[2J\x1b]0;owned\x07@"),
      refused("Unicode", "http://$/packages/\u00fcber/\u6f22"),
      refused("UnicodeHost", "http://\u00fc.invalid:1/"),
      refused("Formats", "http://$/%s%s%s%n%1$s"),
      refused("LongerThanAnArgumentMayBe", "http://$@?" + std::string(200 * 1024, 'x')),
      updated("LongQuery", "http://$@?" + std::string(10 * 1024, 'x')),
      updated("CapitalScheme", "HTTP://$@"),
      refused("WithoutScheme", "$@"),

      updated("WithFragment", "http://$@#part"),
      updated("WithQuery", "http://$@?a=b&c=[d] e"),
      refused("BlankBefore", " http://$@"),
      refused("BlankBehind", "http://$@ "),
      updated("DoubleSlash", "http://$/@"),
      Spoilt(
          "WithUser",
          [](const std::string& link) { return "http://user:secret@" + link.substr(7); },
          Outcome::kUpdated),
      Spoilt(
          "NulInside",
          [](const std::string& link) { return link + "\\u0000; touch /tmp/outside/x"; },
          Outcome::kUpdated),
      Spoilt(
          "BytesThatAreNoText", [](const std::string& link) { return link + "?\xff\xfe\xc0\x80"; },
          Outcome::kUpdated),
      Spoilt(
          "LoneSurrogate", [](const std::string& link) { return link + "?\\ud800"; },
          Outcome::kRefused, kUnreadableDescription),
      Row{"HttpsToAServerWithoutIt",
          [](Scene& scene) {
            SetReadTimeout("0.5");  // Each of the two waits for the other to begin.
            scene.DescribeLink(Quoted("https" + scene.Server().Url(scene.PackagePath()).substr(4)));
          },
          Outcome::kRefused, "Fail to wget url: https://"},
  };
}

INSTANTIATE_TEST_SUITE_P(Link, HostileServerTest, ::testing::ValuesIn(LinkRows()), NameOf);

}  // namespace
}  // namespace tolm::testing
