#include "package/scope.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/package/authority.h"
#include "tests/package/expect_code.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Scope;
using Names = std::set<std::string>;

// The scope of a certificate with that extension.
Scope ScopeWith(const CertificateOptions& options) {
  return package::ScopeOf(Authority().NewSigner(options).certificate.get());
}

TEST(ScopeTest, IsWhatTheExtensionLists) {
  EXPECT_EQ(ScopeWith({}), std::nullopt);
  CertificateOptions options;
  options.scope = {"oui", "geo", "a name with spaces"};
  EXPECT_EQ(ScopeWith(options), options.scope);
}

TEST(ScopeTest, FirstExtensionCountsLikeAnyOther) {
  const package::X509Ptr certificate(X509_new());
  ASSERT_EQ(X509_add_ext(certificate.get(), package::NewScopeExtension({"oui"}).get(), -1), 1);
  EXPECT_EQ(package::ScopeOf(certificate.get()), Names{"oui"});
}

TEST(ScopeTest, ExtensionLimitsToAtLeastOneNameThatAPackageCanHave) {
  for (const Names& names : {Names{}, Names{""}, Names{"oui", "a/b"}}) {
    EXPECT_EQ(CodeOf([&] { package::NewScopeExtension(names); }), Code::kArgument);
  }
}

TEST(ScopeTest, DamagedExtensionIsRefused) {
  struct Row {
    const char* what;
    std::string der;
  };
  const Row rows[] = {
      {"no sequence", std::string("\x0c\x03oui", 5)},
      {"cut short", std::string("\x30\x05\x0c\x03ou", 6)},
      {"something behind it", std::string("\x30\x05\x0c\x03oui\x00", 8)},
      {"another type", std::string("\x30\x05\x04\x03oui", 7)},
      {"a name that no package has", std::string("\x30\x05\x0c\x03/ui", 7)},
      {"an empty name", std::string("\x30\x02\x0c\x00", 4)},
      {"an indefinite length", std::string("\x30\x80\x0c\x03oui", 7)},
  };
  for (const Row& row : rows) {
    CertificateOptions options;
    options.odd_scope = row.der;
    EXPECT_EQ(CodeOf([&] { ScopeWith(options); }), Code::kWrongUsage) << row.what;
  }
  CertificateOptions twice;
  twice.scope = {"oui"};
  twice.odd_scope = std::string("\x30\x05\x0c\x03oui", 7);
  EXPECT_EQ(CodeOf([&] { ScopeWith(twice); }), Code::kWrongUsage) << "it is there twice";
  twice.scope.clear();
  EXPECT_EQ(ScopeWith(twice), Names{"oui"}) << "the form itself is right";
}

TEST(ScopeTest, EmptyListIsForNoDatabase) {
  CertificateOptions options;
  options.odd_scope = std::string("\x30\x00", 2);
  EXPECT_EQ(ScopeWith(options), Names{});
  EXPECT_FALSE(package::IsWithin(ScopeWith(options), "oui"));
}

TEST(ScopeTest, TwoScopesLeaveWhatBothAllow) {
  const Scope all;
  EXPECT_EQ(package::Narrowed(all, all), all);
  EXPECT_EQ(package::Narrowed(all, Names{"a"}), Names{"a"});
  EXPECT_EQ(package::Narrowed(Names{"a"}, all), Names{"a"});
  EXPECT_EQ(package::Narrowed(Names{"a", "b"}, Names{"b", "c"}), Names{"b"});
  EXPECT_EQ(package::Narrowed(Names{"a"}, Names{"c"}), Names{});
  EXPECT_TRUE(package::IsWithin(all, "a"));
  EXPECT_TRUE(package::IsWithin(Names{"a"}, "a"));
  EXPECT_FALSE(package::IsWithin(Names{"a"}, "A"));
  EXPECT_EQ(package::ScopeText({"b", "a"}), "a, b");
  EXPECT_EQ(package::ScopeText({}), "no database");
}

}  // namespace
}  // namespace tolm::testing
