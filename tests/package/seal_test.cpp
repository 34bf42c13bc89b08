#include "package/seal.h"

#include <gtest/gtest.h>

#include <climits>

#include "tests/package/expect_code.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Kind;
using package::Seal;

TEST(SealTest, WhatIsFormattedIsParsedAgain) {
  for (const Seal& seal : {Seal{"oui", Kind::kFull, 0}, Seal{"a_b_v3", Kind::kDelta, INT_MAX},
                           Seal{"gr\xc3\xbcn \"\\ \xf0\x9f\x98\x80", Kind::kFull, 7}}) {
    const Seal parsed = package::ParseSeal(package::FormatSeal(seal));
    EXPECT_EQ(parsed.name, seal.name);
    EXPECT_EQ(parsed.kind, seal.kind);
    EXPECT_EQ(parsed.version, seal.version);
  }
}

TEST(SealTest, TheTextIsFixed) {
  EXPECT_EQ(package::FormatSeal({"oui", Kind::kFull, 7}),
            "{\"kind\":\"full\",\"name\":\"oui\",\"version\":7}\n");
}

TEST(SealTest, UnusableNamesAndVersionsAreNotFormatted) {
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("a\nb"), std::string("\xff"),
        std::string("a\0", 2), std::string(201, 'a')}) {
    EXPECT_EQ(CodeOf([&] { package::FormatSeal({name, Kind::kFull, 1}); }), Code::kArgument);
  }
  EXPECT_EQ(CodeOf([] { package::FormatSeal({"a", Kind::kFull, -1}); }), Code::kArgument);
  EXPECT_EQ(package::NameProblem(std::string(200, 'a')), "");
}

TEST(SealTest, UnknownKeysAreIgnored) {
  const Seal seal = package::ParseSeal(
      R"({"name":"oui","kind":"delta","version":8,"made_by":["someone"],"x":null})");
  EXPECT_EQ(seal.name, "oui");
  EXPECT_EQ(seal.kind, Kind::kDelta);
  EXPECT_EQ(seal.version, 8);
}

TEST(SealTest, HostileTextsAreRefused) {
  struct Row {
    const char* why;
    std::string text;
  };
  const Row rows[] = {
      {"empty", ""},
      {"not JSON", "hello"},
      {"a number", "7"},
      {"a string", "\"oui\""},
      {"null", "null"},
      {"an array", R"([{"name":"oui","kind":"full","version":7}])"},
      {"cut short", R"({"name":"oui","kind":"full","version":7)"},
      {"something behind", R"({"name":"oui","kind":"full","version":7} x)"},
      {"a comment", R"(/**/{"name":"oui","kind":"full","version":7})"},
      {"a key twice", R"({"name":"a","name":"oui","kind":"full","version":7})"},
      {"deep arrays", std::string(2000, '[') + std::string(2000, ']')},
      {"deep value", R"({"name":"oui","kind":"full","version":7,"x":)" + std::string(100, '[') +
                         std::string(100, ']') + "}"},
      {"no name", R"({"kind":"full","version":7})"},
      {"name a number", R"({"name":1,"kind":"full","version":7})"},
      {"name an object", R"({"name":{},"kind":"full","version":7})"},
      {"name null", R"({"name":null,"kind":"full","version":7})"},
      {"name empty", R"({"name":"","kind":"full","version":7})"},
      {"name with slash", R"({"name":"a/b","kind":"full","version":7})"},
      {"name with NUL", R"({"name":"a\u0000b","kind":"full","version":7})"},
      {"no kind", R"({"name":"oui","version":7})"},
      {"other kind", R"({"name":"oui","kind":"half","version":7})"},
      {"kind an array", R"({"name":"oui","kind":["full"],"version":7})"},
      {"no version", R"({"name":"oui","kind":"full"})"},
      {"version a string", R"({"name":"oui","kind":"full","version":"7"})"},
      {"version a real", R"({"name":"oui","kind":"full","version":7.0})"},
      {"version true", R"({"name":"oui","kind":"full","version":true})"},
      {"version negative", R"({"name":"oui","kind":"full","version":-1})"},
      {"version one too large", R"({"name":"oui","kind":"full","version":2147483648})"},
      {"version huge", R"({"name":"oui","kind":"full","version":1e999})"}};
  for (const Row& row : rows) {
    EXPECT_EQ(CodeOf([&] { package::ParseSeal(row.text); }), Code::kBadSeal) << row.why;
  }
}

TEST(SealTest, FileNameMustAgreeWhereItSaysAnything) {
  struct Row {
    const char* path;
    Seal seal;
    std::optional<Code> code;
  };
  const Seal full{"oui", Kind::kFull, 7};
  const Seal delta{"oui", Kind::kDelta, 7};
  const Seal nested{"a_b_v3", Kind::kFull, 7};
  const Row rows[] = {
      {"oui_v7", full, std::nullopt},         {"/tmp/x_v9/oui_v7", full, std::nullopt},
      {"oui_d7", delta, std::nullopt},        {"oui_debug", full, std::nullopt},
      {"oui_debug", delta, std::nullopt},     {"a_b_v3_v7", nested, std::nullopt},
      {"a_b_v3_debug", nested, std::nullopt}, {"oui.pkg", full, std::nullopt},
      {"other", full, std::nullopt},          {"other_x7", full, std::nullopt},
      {"other_v", full, std::nullopt},        {"other_v7a", full, std::nullopt},
      {"other_", full, std::nullopt},         {"other_v7", full, Code::kWrongName},
      {"ou_v7", full, Code::kWrongName},      {"ouij_v7", full, Code::kWrongName},
      {"_v7", full, Code::kWrongName},        {"other_debug", full, Code::kWrongName},
      {"_debug", full, Code::kWrongName},     {"a_b_v3", nested, Code::kWrongName},
      {"oui_d7", full, Code::kWrongKind},     {"oui_v7", delta, Code::kWrongKind},
      {"oui_v8", full, Code::kWrongVersion},  {"oui_v07", full, Code::kWrongVersion},
      {"oui_v-7", full, Code::kWrongVersion}, {"oui_v4294967303", full, Code::kWrongVersion},
      {"oui_d6", delta, Code::kWrongVersion}};
  for (const Row& row : rows) {
    EXPECT_EQ(CodeOf([&] { package::CheckFileName(row.seal, row.path); }), row.code) << row.path;
  }
  try {
    package::CheckFileName(full, "/tmp/other_v7");
    ADD_FAILURE() << "not refused";
  } catch (const package::Error& error) {
    EXPECT_STREQ(error.what(), "sealed for oui, wanted for other");
  }
}

TEST(SealTest, LevelsAreSixteenAtMost) {
  const auto code = [](std::size_t levels) {
    return CodeOf([levels] {
      package::ParseSeal(R"({"name":"oui","kind":"full","version":7,"x":)" +
                         std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}");
    });
  };
  EXPECT_EQ(code(16), std::nullopt);
  EXPECT_EQ(code(17), Code::kBadSeal);
}

}  // namespace
}  // namespace tolm::testing
