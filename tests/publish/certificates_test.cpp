#include "publish/certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Signer;
using publish::CertificateRole;
using publish::CertificateWarnings;
using publish::FewestDaysLeft;
using publish::RepositoryCertificate;
using publish::RepositoryCertificates;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr std::int64_t kNow = 2100000000;  // 2036-07-18 13:20
constexpr std::int64_t kDay = 86400;

RepositoryCertificate With(CertificateRole role, std::int64_t days) {
  RepositoryCertificate certificate;
  certificate.role = role;
  certificate.details.subject = "CN=x";
  certificate.details.not_before = kNow - 90 * kDay;
  certificate.details.not_after = kNow + days * kDay;
  certificate.file = "/k.pem";
  return certificate;
}

std::vector<std::string> WarningsOf(const RepositoryCertificate& certificate, int min_days = 0) {
  return CertificateWarnings({{certificate}, {}}, publish::RepositoryPaths("/repo"), min_days,
                             kNow);
}

TEST(CertificateWarningsTest, SayWhatComesOfItAndWhatHelps) {
  const std::string three = "is valid until 2036-07-21 13:20 UTC, 3 days from now; ";
  const std::string resign = "\"tolmdbpub resign /repo --key KEY --cert FILE\"";
  for (const auto& [role, sentence] : std::map<CertificateRole, std::string>{
           {CertificateRole::kSigning,
            "the signing certificate CN=x (/k.pem) " + three +
                "from then on devices refuse what it signed. Make another with \"tolmdbpub keygen "
                "DIR --root-key KEY --root FILE\" and sign with it: " +
                resign},
           {CertificateRole::kDescriptions,
            "the certificate of descriptions CN=x (/k.pem) " + three +
                "from then on devices refuse what it signed. Make another with \"tolmdbpub keygen "
                "DIR --root-key KEY --root FILE --info\" and sign with it: \"tolmdbpub set /repo "
                "--info-key KEY --info-cert FILE\""},
           {CertificateRole::kAuthority,
            "the authority CN=x (/k.pem) " + three +
                "from then on devices refuse what was signed below it. Sign with another: " +
                resign},
           {CertificateRole::kRoot,
            "the root certificate CN=x (/k.pem) " + three +
                "from then on devices refuse what was signed below it. Make another with "
                "\"tolmdbpub keygen DIR\", bring it to all devices, then \"tolmdbpub resign /repo "
                "--key KEY --cert FILE --root FILE\""},
           {CertificateRole::kPackages,
            "the certificate CN=x, which signed 2 packages that are offered, " + three +
                "from then on devices refuse them. Sign anew: \"tolmdbpub resign /repo\""}}) {
    RepositoryCertificate certificate = With(role, 3);
    certificate.packages = 2;
    EXPECT_THAT(WarningsOf(certificate), ElementsAre(sentence));
  }
  RepositoryCertificate one = With(CertificateRole::kPackages, 3);
  one.packages = 1;
  EXPECT_THAT(WarningsOf(one),
              ElementsAre("the certificate CN=x, which signed 1 package that is offered, " + three +
                          "from then on devices refuse it. Sign anew: \"tolmdbpub resign /repo\""));
  RepositoryCertificate spare = With(CertificateRole::kRoot, 3);
  spare.is_needed = false;
  EXPECT_THAT(WarningsOf(spare),
              ElementsAre("the root certificate CN=x (/k.pem) " + three +
                          "nothing that is offered is signed below it. Take it out with "
                          "\"tolmdbpub set /repo --root FILE\" when no device needs it"));
}

TEST(CertificateWarningsTest, TellWhetherItIsTooEarlyOrTooLate) {
  RepositoryCertificate certificate = With(CertificateRole::kAuthority, 0);
  certificate.details.not_after = kNow - 1;
  EXPECT_THAT(WarningsOf(certificate),
              ElementsAre(HasSubstr("less than a day ago; devices refuse what was")));
  certificate.details.not_after = kNow;
  EXPECT_THAT(WarningsOf(certificate),
              ElementsAre(HasSubstr("from now; from then on devices refuse what was")));
  certificate.details.not_after = kNow + 999 * kDay;
  certificate.details.not_before = kNow + 1;
  EXPECT_THAT(WarningsOf(certificate),
              ElementsAre(HasSubstr("from now; until then devices refuse what was")));
  certificate.details.not_before = kNow;
  EXPECT_THAT(WarningsOf(certificate), IsEmpty());
  certificate.details.not_after = kNow + 5 * kDay;
  EXPECT_THAT(WarningsOf(certificate),
              ElementsAre(HasSubstr("5 days from now; from then on devices refuse what was")));
}

TEST(CertificateWarningsTest, BeginSixtyDaysBeforeTheEndOrEarlierWhenThatIsSet) {
  const auto is_warned = [](std::int64_t days, int min_days) {
    return !WarningsOf(With(CertificateRole::kSigning, days), min_days).empty();
  };
  EXPECT_TRUE(is_warned(60, 0));
  EXPECT_FALSE(is_warned(61, 0));
  EXPECT_FALSE(is_warned(61, 61));
  EXPECT_TRUE(is_warned(61, 62));
  EXPECT_TRUE(is_warned(60, 30)) << "a lower limit is that of `check` alone";
}

TEST(CertificateWarningsTest, FilesThatCannotBeReadComeFirst) {
  EXPECT_THAT(CertificateWarnings({{With(CertificateRole::kSigning, 3)}, {"/a: damaged"}},
                                  publish::RepositoryPaths("/repo"), 0, kNow),
              ElementsAre("/a: damaged", StartsWith("the signing certificate")));
}

TEST(CertificateWarningsTest, FewestDaysAreThoseOfWhatIsNeeded) {
  RepositoryCertificates certificates;
  EXPECT_EQ(FewestDaysLeft(certificates, kNow), std::numeric_limits<std::int64_t>::max());
  certificates.all = {With(CertificateRole::kSigning, 30), With(CertificateRole::kRoot, 20),
                      With(CertificateRole::kRoot, 10), With(CertificateRole::kAuthority, 25)};
  certificates.all[2].is_needed = false;
  EXPECT_EQ(FewestDaysLeft(certificates, kNow), 20);
}

publish::Release ReleaseOf(int version, const std::string& full) {
  publish::Release release;
  release.version = version;
  release.full.path = full;
  return release;
}

TEST(OfferedPackagesTest, AreThoseOfEveryReleaseWithoutWithdrawnDeltas) {
  publish::Catalog catalog;
  publish::Database& database = catalog.databases["b"];
  database.releases = {ReleaseOf(1, "b1"), ReleaseOf(2, "b2"), ReleaseOf(3, "b3")};
  database.releases[1].delta = publish::DeltaRecord{{"b2d", 1, "d"}, {}, 7};
  database.releases[2].delta = publish::DeltaRecord{{"b3d", 1, "d"}, {}, 0};
  database.retired = {{{"b0", 1, "d"}, 7}};
  catalog.databases["a"].releases = {ReleaseOf(1, "a1")};
  std::vector<std::string> paths;
  for (const publish::PackageRecord& record : OfferedPackages(catalog)) {
    paths.push_back(record.path);
  }
  EXPECT_THAT(paths, ElementsAre("a1", "b1", "b2", "b3", "b3d"));
}

// A repository with three roots. Packages lead to the first, by a certificate that has signed them
// and signs no more; what signs descriptions leads to the third, through an authority.
class CertificatesTest : public ::testing::Test {
 protected:
  CertificatesTest() {
    WriteFile(Path("signing.pem"), PemOf(root_.NewSigner(Named("signing")).certificate.get()) +
                                       root_.NewAuthorityBelow(Named("between")).Pem());
    const Authority above_info = third_.NewAuthorityBelow(Named("info between"));
    CertificateOptions info = Named("info");
    info.extended_usage = std::string("critical,") + package::kDescriptionSigningOid;
    WriteFile(Path("info.pem"),
              PemOf(above_info.NewSigner(info).certificate.get()) + above_info.Pem());
    WriteFile(Path("root.pem"), root_.Pem() + spare_.Pem() + third_.Pem());
    settings_.directory = directory_.Path();
    settings_.key = Path("signing.key");
    settings_.certificate_path = Path("signing.pem");
    settings_.root_path = Path("root.pem");
    settings_.info_key = Path("info.key");
    settings_.info_certificate_path = Path("info.pem");
  }

  static CertificateOptions Named(const std::string& name) {
    CertificateOptions options;
    options.name = name;
    return options;
  }
  std::string Path(const std::string& name) const { return directory_.Path() / name; }
  void Offer(const std::string& name, const std::string& content) {
    WriteFile(Path("public/" + name), content);
    catalog_.databases["oui"].releases.push_back(ReleaseOf(1, name));
  }
  // "role name", with the number of packages where there is one.
  std::vector<std::string> Read() {
    std::vector<std::string> lines;
    certificates_ =
        ReadCertificates(publish::RepositoryPaths(directory_.Path()), settings_, catalog_);
    for (const RepositoryCertificate& certificate : certificates_.all) {
      lines.push_back(
          CertificateRoleText(certificate.role) + (' ' + certificate.details.subject) +
          (certificate.is_needed ? "" : ", not needed") +
          (certificate.packages == 0 ? "" : ' ' + std::to_string(certificate.packages)));
    }
    return lines;
  }

  TemporaryDirectory directory_;
  const Authority root_{"first"};
  const Authority spare_{"second"};
  const Authority third_{"third"};
  publish::Settings settings_;
  publish::Catalog catalog_;
  RepositoryCertificates certificates_;
};

TEST_F(CertificatesTest, EachHasItsRoleAndItsFile) {
  EXPECT_THAT(Read(), ElementsAre("signing CN=signing", "authority CN=between",
                                  "descriptions CN=info", "authority CN=info between",
                                  "root CN=first", "root CN=second", "root CN=third"))
      << "while nothing is offered each root may be needed";
  EXPECT_THAT(certificates_.unreadable, IsEmpty());
  ASSERT_EQ(certificates_.all.size(), 7u);
  EXPECT_EQ(certificates_.all[1].file, Path("signing.pem"));
  EXPECT_EQ(certificates_.all[3].file, Path("info.pem"));
  EXPECT_EQ(certificates_.all[6].file, Path("root.pem"));
  settings_.info_key.clear();
  EXPECT_THAT(Read(), ElementsAre("signing CN=signing", "authority CN=between", "root CN=first",
                                  "root CN=second", "root CN=third"));
}

TEST_F(CertificatesTest, RootIsNeededThatPackagesOrDescriptionsLeadTo) {
  const Signer former = root_.NewSigner(Named("former"));
  Offer("1", SignedPackage("a", former));
  Offer("2", SignedPackage("b", former));
  EXPECT_THAT(Read(),
              ElementsAre("signing CN=signing", "authority CN=between", "descriptions CN=info",
                          "authority CN=info between", "root CN=first",
                          "root CN=second, not needed", "root CN=third", "packages CN=former 2"));
  EXPECT_EQ(certificates_.all.back().file, "");
  settings_.info_key.clear();
  EXPECT_THAT(Read(), Contains("root CN=third, not needed"));
  Offer("3", "damaged");
  EXPECT_THAT(Read(), AllOf(Contains("root CN=second"), Contains("packages CN=former 2")))
      << "which root a damaged package leads to is not known";
}

TEST_F(CertificatesTest, WhoSignsStillIsNoFormerSigner) {
  const Signer signer = root_.NewSigner(Named("signing"));
  WriteFile(Path("signing.pem"), PemOf(signer.certificate.get()));
  Offer("1", SignedPackage("a", signer));
  Offer("2", SignedPackage("b", root_.NewSigner(Named("other"))));
  EXPECT_THAT(Read(),
              ElementsAre("signing CN=signing", "descriptions CN=info", "authority CN=info between",
                          "root CN=first", "root CN=second, not needed", "root CN=third",
                          "packages CN=other 1"));
}

TEST_F(CertificatesTest, FilesThatCannotBeReadAreNamedAndTheOthersRead) {
  WriteFile(Path("signing.pem"), "damaged");
  std::filesystem::remove(Path("info.pem"));
  EXPECT_THAT(Read(), ElementsAre("root CN=first", "root CN=second", "root CN=third"));
  EXPECT_THAT(certificates_.unreadable,
              ElementsAre(HasSubstr(Path("signing.pem")), HasSubstr(Path("info.pem"))));
}

}  // namespace
}  // namespace tolm::testing
