// What the installed tool does with the sizes, digests and revocations of a signed description.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/shifted_clock.h"
#include "tests/tools/signed_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const fs::path kPrefix = kVolumePrefix / "oui";
constexpr char kFull[] = "packages/oui_v2";
constexpr char kDelta[] = "packages/oui_d2";
constexpr char kLearned[] = "/var/lib/data_update/revocations.pem";
constexpr char kNotThatPackage[] = "it is not the package that the signed description names: ";

const Tree kFirst = {{"a.txt", "one"}};
const Tree kSecond = {{"a.txt", "two"}};
const Tree kDeltaFiles = {
    {"patch_infos.json", R"({"/a.txt": {"operation": "create", "input_file": "a"}})"},
    {"a", "two"}};

class SignedPackagesTest : public ::testing::Test {
 protected:
  SignedPackagesTest() {
    const std::string first = server_.Package("full", 1, kFirst);
    server_.Serve("packages/oui_v1", first);
    server_.Describe(1, server_.Offered("packages/oui_v1", first));
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
  }

  /// The package with the signature made anew, of the same length.
  std::string SignedAnew(const std::string& package, const std::string& kind, const Tree& files) {
    std::string other;
    do {
      other = server_.Package(kind, 2, files);
    } while (other.size() != package.size() || other == package);
    return other;
  }

  void ExpectInstalled(const Tree& files, const std::string& version) {
    EXPECT_EQ(ReadTree(kPrefix), files);
    EXPECT_EQ(InstalledVersion("oui"), version);
    EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
  }

  SignedServer server_;
};

/// How what is served differs from what is described; both are signed for the same version.
struct Difference {
  std::string name;
  Tree more;  ///< Files that only what is served has.
  Tree less;  ///< Files that only what is described has.
  std::string says;
};

std::string NameOf(const ::testing::TestParamInfo<Difference>& info) {
  return info.param.name;
}

class DifferentPackageTest : public SignedPackagesTest,
                             public ::testing::WithParamInterface<Difference> {
 protected:
  /// Serves another package than it returns.
  std::string ServeAnother(const std::string& path, const std::string& kind, const Tree& files) {
    Tree described_files = files;
    described_files.insert(GetParam().less.begin(), GetParam().less.end());
    Tree served_files = files;
    served_files.insert(GetParam().more.begin(), GetParam().more.end());
    const std::string described = server_.Package(kind, 2, described_files);
    const bool is_same_length = described_files == served_files;
    server_.Serve(path, is_same_length ? SignedAnew(described, kind, files)
                                       : server_.Package(kind, 2, served_files));
    return described;
  }
};

TEST_P(DifferentPackageTest, IsNotInstalled) {
  const std::string described = ServeAnother(kFull, "full", kSecond);
  server_.Describe(2, server_.Offered(kFull, described));
  for (const std::string command : {"update", "force-install"}) {
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbud: oui"), HasSubstr(GetParam().says)));
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    ExpectInstalled(kFirst, "1");
  }
  server_.Serve(kFull, described);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(InstalledVersion("oui"), "2");
}

TEST_P(DifferentPackageTest, InPlaceOfADeltaLeadsToTheFullPackage) {
  const std::string full = server_.Package("full", 2, kSecond);
  server_.Serve(kFull, full);
  const std::string delta = ServeAnother(kDelta, "delta", kDeltaFiles);
  server_.Describe(2, server_.Offered(kFull, full), {{2, server_.Offered(kDelta, delta)}});
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, AllOf(StartsWith("tolmdbud: oui delta 2: "), HasSubstr(GetParam().says),
                                HasSubstr("; the full package was taken, ")));
  ExpectInstalled(kSecond, "2");
}

const Difference kDifferences[] = {
    {"Longer", {{"more", std::string(5000, 'x')}}, {}, " bytes that the signed description says"},
    {"Shorter", {}, {{"more", std::string(5000, 'x')}}, std::string(kNotThatPackage) + "it has "},
    {"OfTheSameLength", {}, {}, std::string(kNotThatPackage) + "its content has another SHA-384"},
};
INSTANTIATE_TEST_SUITE_P(Signed, DifferentPackageTest, ::testing::ValuesIn(kDifferences), NameOf);

TEST_F(SignedPackagesTest, AsDescribedAreInstalledByDeltaAndInFull) {
  const std::string full = server_.Package("full", 2, kSecond);
  const std::string delta = server_.Package("delta", 2, kDeltaFiles);
  server_.Serve(kFull, full);
  server_.Serve(kDelta, delta);
  server_.Describe(2, server_.Offered(kFull, full), {{2, server_.Offered(kDelta, delta)}});
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(server_.Server().RequestCount(std::string("/") + kFull), 0u);
  ExpectInstalled(kSecond, "2");
  EXPECT_EQ(Tool({"force-install", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"verify", "oui", "--package"}).exit_status, 0);

  server_.Serve(kFull, SignedAnew(full, "full", kSecond));
  const CommandResult verified = Tool({"verify", "oui", "--package", "--json"});
  EXPECT_EQ(verified.exit_status, 1);
  EXPECT_THAT(verified.out, AllOf(HasSubstr(kNotThatPackage), HasSubstr("\"package-differs\"")));
}

// Its own signature and seal alone speak for it.
TEST_F(SignedPackagesTest, OfAnotherVersionNothingIsKnown) {
  constexpr int kOffered = 1000002;  // Its digits stand nowhere else in the link.
  constexpr int kWanted = 1000001;
  server_.Describe(kOffered, server_.Offered("packages/oui_v1000002", "never asked for"));
  server_.Serve("packages/oui_v1000001",
                server_.Package("full", kWanted, {{"a.txt", "another one"}}));
  const CommandResult result = Tool({"force-install", "oui", "--version", "1000001"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  ExpectInstalled({{"a.txt", "another one"}}, "1000001");
}

TEST_F(SignedPackagesTest, OfASignerForOtherDatabasesAreRefused) {
  CertificateOptions options;
  options.scope = {"geo", "tor"};
  const std::string full =
      SignedServer::Package("full", 2, kSecond, server_.Root().NewSigner(options));
  server_.Serve(kFull, full);
  server_.Describe(2, server_.Offered(kFull, full));
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err,
              StartsWith("tolmdbud: oui 2: signed by \"CN=Test signing\", and the signer's "
                         "certificate is for geo, tor and not for \"oui\""));
  EXPECT_EQ(CountLines(result.err), 1);
  ExpectInstalled(kFirst, "1");
}

TEST_F(SignedPackagesTest, OfARevokedSignerAreRefusedFromTheNextDescriptionOn) {
  const std::string full = server_.Package("full", 2, kSecond);
  const offer::PackageOffer offered = server_.Offered(kFull, full);
  server_.Serve(kFull, full);
  const Authority& root = server_.Root();
  X509* const signer = server_.PackageSigner().certificate.get();
  const std::string seventh = root.RevocationPem({signer}, kLongAgo + 7, kFarFuture, 7);
  const auto refused = [&](const std::string& says) {
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, HasSubstr(says));
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    ExpectInstalled(kFirst, "1");
  };
  const std::string revoked = std::string("which ") + kLearned + " has revoked";
  server_.Describe(2, offered, {}, seventh);
  refused(revoked);
  server_.Describe(2, offered);
  refused(revoked);
  EXPECT_EQ(ReadFile(kLearned), seventh) << "a description without lists takes none away";
  server_.Describe(2, offered, {}, root.RevocationPem({}, kLongAgo + 6, kFarFuture, 6));
  refused(revoked);
  server_.Describe(2, offered, {}, Authority("Foreign").RevocationPem({}));
  refused(revoked);
  EXPECT_EQ(ReadFile(kLearned), seventh);
  server_.Describe(2, offered, {}, root.RevocationPem({}, kLongAgo + 8, kFarFuture, 8));
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0) << "a newer list revokes nobody";
  ExpectInstalled(kSecond, "2");
}

// ---- What is said of it ----

class SignedOffersTest : public SignedPackagesTest {
 protected:
  static CommandResult ToolAt(std::time_t time, const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunCommand(command, {EnvironmentAt(time), {}, ""});
  }
  /// The lines of that check.
  static std::string Looks(const CommandResult& doctor, const std::string& check) {
    std::istringstream in(doctor.out);
    std::string found;
    for (std::string line; std::getline(in, line);) {
      found += line.compare(5, check.size() + 1, check + ' ') == 0 ? line + '\n' : "";
    }
    return found;
  }
  static constexpr std::time_t kMinute = 60;
  static constexpr std::time_t kLater = 3 * SignedServer::kLifeSeconds;
};

TEST_F(SignedOffersTest, AreToldWithTheirEnd) {
  const std::string repository(32, '7');
  const CommandResult status = Tool({"status", "--offline"});
  EXPECT_EQ(status.exit_status, 0);
  EXPECT_THAT(status.out,
              ContainsRegex("\nsigned       by repository " + repository +
                            ", issued [-0-9]+ [0-9:]+ UTC, valid until [-0-9]+ [0-9:]+ UTC\n"));
  EXPECT_THAT(
      Tool({"status", "--offline", "--json"}).out,
      AllOf(HasSubstr("\"repository\" : \"" + repository + '"'), HasSubstr("\"ended\" : false")));
  EXPECT_EQ(Tool({"check"}).exit_status, 0);

  const std::time_t later = std::time(nullptr) + kLater;
  const CommandResult after = ToolAt(later, {"status", "--offline"});
  EXPECT_THAT(after.out, AllOf(HasSubstr("\noffers from  none\n"),
                               ContainsRegex("\nsigned       by repository .*, of no use since "
                                             "[-0-9]+ [0-9:]+ UTC, [^\n]+\n")));
  const CommandResult check = ToolAt(later, {"check"});
  EXPECT_EQ(check.exit_status, 1);
  EXPECT_THAT(check.err, AllOf(StartsWith("tolmdbud: the description from "),
                               HasSubstr(" is refused: it ended on ")));
  EXPECT_EQ(CountLines(check.err), 1) << check.err;
  EXPECT_THAT(ToolAt(later, {"check", "--json"}).out,
              AllOf(HasSubstr("\"ended\" : true"), HasSubstr("\"description-expired\"")));
}

TEST_F(SignedOffersTest, AreLookedAtByTheDoctor) {
  const std::string soon = Looks(Tool({"doctor"}), "signed");
  EXPECT_THAT(soon, ContainsRegex("^!! +signed +by repository 7+, issued .*, valid until .*: no "
                                  "update comes after that; do: ask the publisher"));
  const std::string ended = Looks(ToolAt(std::time(nullptr) + kLater, {"doctor"}), "signed");
  EXPECT_THAT(ended, ContainsRegex("^!! +signed +its description is refused: it ended on "));
  const std::string offline =
      Looks(ToolAt(std::time(nullptr) + kLater, {"doctor", "--offline"}), "signed");
  EXPECT_THAT(offline, ContainsRegex("^!! +signed +the cached description is refused: it ended"));

  WriteFile(kLearned, "damaged");
  EXPECT_THAT(Looks(Tool({"doctor"}), "revocations"),
              AllOf(StartsWith("!!"), HasSubstr(std::string(kLearned) + ": it holds no"),
                    HasSubstr("; do: remove it and run \"tolmdbud check --refresh\"")));
  fs::remove(kLearned);

  server_.ServeDescription(R"({"deprecated": false, "db_list": {"oui": {"data_version": "1",
      "last_fetch_time": 1700000000, "download_link": "http://127.0.0.1/x"}}})");
  EXPECT_THAT(Looks(Tool({"doctor"}), "signed"),
              ContainsRegex("^!! +signed +its description is refused: it is not signed, and this "
                            "device has had a signed one; do: "));

  server_.issued_later_by = 60 * kMinute;
  server_.Describe(1, server_.Offered("packages/oui_v1", "never asked for"));
  ASSERT_EQ(Tool({"check"}).exit_status, 0);
  EXPECT_THAT(Looks(Tool({"doctor"}), "clock"),
              AllOf(StartsWith("!!"), HasSubstr("before the newest accepted description was")));
}

}  // namespace
}  // namespace tolm::testing
