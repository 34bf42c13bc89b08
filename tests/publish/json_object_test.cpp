#include "publish/json_object.h"

#include "tests/publish/expect_error.h"

namespace tolm::testing {
namespace {

using publish::JsonObject;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(JsonObjectTest, MembersAreReadByTheirTypes) {
  const Json::Value value = publish::ParseJson(
      R"({"t": "x", "n": -5000000000, "s": 18446744073709551615, "i": -7, "f": true, "z": null,
          "o": {"t": "y"}, "l": [1, 2]})",
      "file");
  const JsonObject object(value, "file");
  EXPECT_EQ(object.Text("t"), "x");
  EXPECT_EQ(object.Number("n"), -5000000000);
  EXPECT_EQ(object.Size("s"), 18446744073709551615u);
  EXPECT_EQ(object.Int("i"), -7);
  EXPECT_TRUE(object.Flag("f"));
  EXPECT_TRUE(object.Has("t"));
  EXPECT_FALSE(object.Has("z"));
  EXPECT_FALSE(object.Has("missing"));
  EXPECT_EQ(object.Object("o").Text("t"), "y");
  int sum = 0;
  object.ForEachElement(
      "l", [&](const Json::Value& element, const std::string&) { sum += element.asInt(); });
  EXPECT_EQ(sum, 3);
}

TEST(JsonObjectTest, WrongTypesAreNamedWithPlaceAndMember) {
  const Json::Value value = publish::ParseJson(
      R"({"text": "x", "number": 1.5, "big": 5000000000, "minus": -1, "list": [], "object": {}})",
      "file");
  const JsonObject object(value, "file");
  ExpectError([&] { object.Text("number"); }, "file: \"number\" is not a text");
  ExpectError([&] { object.Text("missing"); }, "file: \"missing\" is not a text");
  ExpectError([&] { object.Number("number"); }, "file: \"number\" is not an integer");
  ExpectError([&] { object.Int("big"); }, "file: \"big\" is not an integer of 32 bits");
  ExpectError([&] { object.Size("minus"); }, "file: \"minus\" is not a size");
  ExpectError([&] { object.Flag("text"); }, "file: \"text\" is not true or false");
  ExpectError([&] { object.Object("list"); }, "file: \"list\": not an object");
  ExpectError([&] { object.ForEachElement("object", nullptr); }, "file: \"object\" is not a list");
  ExpectError([&] { object.ForEachMember([](const std::string&, const JsonObject&) {}); },
              "file: \"big\": not an object");
}

TEST(ParseJsonTest, OnlyWholeAndPlainDocumentsAreTaken) {
  for (const std::string text :
       {"", "{", "{} x", "{\"a\": 1,}", "{\"a\": 1, \"a\": 2}", "// no\n{}", "NaN"}) {
    ExpectError([&] { publish::ParseJson(text, "file"); }, StartsWith("file: "));
  }
  ExpectError([] { publish::ParseJson(std::string(5000, '['), "file"); }, StartsWith("file: "));
  EXPECT_EQ(publish::ParseJson(" {\"a\": \"\\u00fc\"}\n", "file")["a"], "\xc3\xbc");
}

TEST(ParseJsonTest, ReasonEndsWithoutAnEmptyLine) {
  ExpectError([] { publish::ParseJson("{\"a\"", "file"); },
              "file: * Line 1, Column 5\n  Missing ':' after object member name");
}

TEST(FormatJsonTest, TextIsReadBackAndTheSameEveryTime) {
  Json::Value value;
  value["b"] = "gr\xc3\xbcn \"\n";
  value["a"][0] = Json::Int64(5000000000);
  for (const std::string& text : {publish::FormatJson(value), publish::FormatCompactJson(value)}) {
    EXPECT_EQ(publish::ParseJson(text, "text"), value);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_THAT(text, HasSubstr("gr\xc3\xbcn"));
  }
  EXPECT_EQ(publish::FormatCompactJson(value),
            "{\"a\":[5000000000],\"b\":\"gr\xc3\xbcn \\\"\\n\"}\n");
}

}  // namespace
}  // namespace tolm::testing
