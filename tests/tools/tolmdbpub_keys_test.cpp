// The installed publisher's keys and certificates: how long they are valid, where they lie, what is
// signed with which.

#include <ctime>
#include <sstream>

#include "tests/support/noise.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr std::time_t kDay = 24 * 60 * 60;

// The installed program, with another idea of what time it is.
CommandResult PubAt(std::time_t now, const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {kPub};
  command.insert(command.end(), arguments.begin(), arguments.end());
  CommandOptions options;
  options.environment = EnvironmentAt(now);
  return RunCommand(command, options);
}

void MustRun(const std::string& script) {
  const CommandResult result = RunCommand({"bash", "-euc", script}, {{"LC_ALL=C"}, "/tmp", ""});
  ASSERT_EQ(result.exit_status, 0) << script << '\n' << result.out << result.err;
}

// A signer below a root, valid for so many days and an hour from now on.
void MakeSigner(const fs::path& directory, int days, const fs::path& root = "/tmp/keys") {
  const CommandResult made = PubAt(std::time(nullptr) + 3600,
                                   {"keygen", directory, "--root-key", root / "root.key", "--root",
                                    root / "root.pem", "--days", std::to_string(days)});
  ASSERT_EQ(made.exit_status, 0) << made.err;
  fs::copy_file(root / "root.pem", directory / "root.pem");
}

// Likewise what signs descriptions, in the same directory.
void MakeInfo(const fs::path& directory, const fs::path& root = "/tmp/keys") {
  const CommandResult made = Pub({"keygen", directory, "--root-key", root / "root.key", "--root",
                                  root / "root.pem", "--info"});
  ASSERT_EQ(made.exit_status, 0) << made.err;
}

// By hand: a signer of the repository's root that is for something else.
void MakeServersKey(const std::string& directory) {
  MustRun("mkdir " + directory + " && cd " + directory +
          "\nprintf 'basicConstraints=critical,CA:FALSE\\nkeyUsage=critical,digitalSignature\\n"
          "extendedKeyUsage=serverAuth\\n' >ext\n"
          "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out signing.key\n"
          "openssl req -new -key signing.key -subj '/CN=A server' -out csr\n"
          "openssl x509 -req -in csr -CA /tmp/keys/root.pem -CAkey /tmp/keys/root.key "
          "-set_serial 0x01$(openssl rand -hex 8) -days 300 -sha256 -extfile ext -out signing.pem");
}

void ReplaceKeys(const fs::path& from, const fs::path& to) {
  for (const char* name : {"signing.key", "signing.pem", "root.pem"}) {
    fs::copy_file(from / name, to / name, fs::copy_options::overwrite_existing);
  }
}

class KeysTest : public RepositoryTest {
 protected:
  const std::string blob_ = Noise(20000, 1);
  const Tree first_ = {{"blob.bin", blob_}, {"t", "1"}};
  const Tree second_ = {{"blob.bin", blob_}, {"t", "2"}};

  static Json::Value Settings() { return ReadJson(repo_ / "state/settings.json"); }
  static void ExpectWarning(const CommandResult& result,
                            const ::testing::Matcher<std::string>& text) {
    EXPECT_THAT(result.err, text);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
};

TEST_F(KeysTest, CertificateNearItsEndIsSaidByReleaseListAndCheck) {
  struct Row {
    int days;
    const char* left;  // empty: nothing is said
    int check;
  };
  int number = 0;
  for (const Row& row :
       {Row{3, "3 days from now", 3}, Row{60, "60 days from now", 0}, Row{61, "", 0}}) {
    SCOPED_TRACE(row.days);
    const std::string keys = "/tmp/signer" + std::to_string(++number);
    const std::string repo = "/tmp/repo" + std::to_string(number);
    MakeSigner(keys, row.days);
    ASSERT_EQ(Pub({"init", repo, "--base-url", kBaseUrl, "--key", keys + "/signing.key", "--cert",
                   keys + "/signing.pem"})
                  .exit_status,
              0);
    MakeTree(source_, first_);
    const CommandResult results[] = {Pub({"release", repo, "oui", source_}), Pub({"list", repo}),
                                     Pub({"check", repo})};
    EXPECT_EQ(results[0].exit_status, 0);
    EXPECT_EQ(results[1].exit_status, 0);
    EXPECT_EQ(results[2].exit_status, row.check);
    for (const CommandResult& result : results) {
      if (*row.left == '\0') {
        EXPECT_EQ(result.err, "");
      } else {
        ExpectWarning(result,
                      AllOf(HasSubstr("CN=Database package signing "),
                            HasSubstr(keys + "/signing.pem"), HasSubstr(row.left),
                            HasSubstr("is valid until "), HasSubstr("tolmdbpub resign " + repo)));
      }
    }
  }
  // The limit is a setting, and the command line's before it.
  EXPECT_EQ(Pub({"set", "/tmp/repo3", "--min-certificate-days", "62"}).exit_status, 0);
  const CommandResult below = Pub({"check", "/tmp/repo3"});
  EXPECT_EQ(below.exit_status, 3);
  ExpectWarning(below, HasSubstr("61 days from now"));
  EXPECT_EQ(Pub({"check", "/tmp/repo3", "--min-days", "61"}).exit_status, 0);
  EXPECT_EQ(Pub({"check", "/tmp/repo1", "--min-days", "3"}).exit_status, 0);
  EXPECT_EQ(Pub({"check", "/tmp/repo1", "--min-days", "x"}).exit_status, 2);
  ExpectWarning(Pub({"list", "/tmp/repo3"}), HasSubstr("61 days from now"));
  const std::time_t end = std::time(nullptr) + 61 * kDay + 3600;
  EXPECT_EQ(Pub({"list", "/tmp/repo3", "--json"}).exit_status, 0);
  std::istringstream json(Pub({"list", "/tmp/repo3", "--json"}).out);
  Json::Value list;
  json >> list;
  ASSERT_EQ(list["certificates"].size(), 2U);
  EXPECT_EQ(list["certificates"][0]["role"], "signing");
  EXPECT_THAT(list["certificates"][0]["subject"].asString(), HasSubstr("CN=Database package sig"));
  EXPECT_NEAR(list["certificates"][0]["not_after"].asDouble(), static_cast<double>(end), 600);
  EXPECT_EQ(list["certificates"][1]["role"], "root");
  // What is wrong outweighs what will be.
  fs::remove("/tmp/repo1/public/packages/oui/oui_v1000001");
  EXPECT_EQ(Pub({"check", "/tmp/repo1"}).exit_status, 1);
}

TEST_F(KeysTest, RootNearItsEndIsSaid) {
  ASSERT_EQ(PubAt(std::time(nullptr) - 20 * 365 * kDay + 30 * kDay + 3600,
                  {"keygen", "/tmp/aged", "--no-passphrase"})
                .exit_status,
            0);
  MakeSigner("/tmp/young", 300, "/tmp/aged");  // And ends with it.
  MakeInfo("/tmp/young", "/tmp/aged");
  ReplaceKeys("/tmp/young", keys_);
  for (const char* name : {"info.key", "info.pem"}) {
    fs::copy_file("/tmp/young" / fs::path(name), keys_ / name,
                  fs::copy_options::overwrite_existing);
  }
  EXPECT_EQ(Pub({"refresh", repo_}).exit_status, 0);
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0);
  EXPECT_THAT(check.err,
              ContainsRegex("the root certificate [^\n]*\\(/tmp/keys/root.pem\\)[^\n]*30 days "
                            "from now[^\n]*tolmdbpub keygen"));
  EXPECT_THAT(check.err, ContainsRegex("the signing certificate [^\n]*30 days from now"));
  EXPECT_THAT(check.err,
              ContainsRegex("the certificate of descriptions CN=[^\n]*\\(/tmp/keys/info.pem\\)"
                            "[^\n]*30 days from now[^\n]*tolmdbpub set /tmp/repo --info-key"));
  EXPECT_EQ(Pub({"check", repo_, "--min-days", "31"}).exit_status, 3);
  EXPECT_THAT(Release(first_).err, HasSubstr("the root certificate"));
}

TEST_F(KeysTest, OldRootBesideTheNewOneIsNotedOnly) {
  MustRelease(first_);
  ASSERT_EQ(PubAt(std::time(nullptr) - 20 * 365 * kDay + 10 * kDay + 3600,
                  {"keygen", "/tmp/aged", "--no-passphrase"})
                .exit_status,
            0);
  MakeSigner("/tmp/young", 300, "/tmp/aged");
  MakeInfo("/tmp/young", "/tmp/aged");
  const auto resign = [](const fs::path& keys, const fs::path& root) {
    return Pub({"resign", repo_, "--key", keys / "signing.key", "--cert", keys / "signing.pem",
                "--root", root, "--info-key", keys / "info.key", "--info-cert", keys / "info.pem"});
  };
  ASSERT_EQ(resign("/tmp/young", "/tmp/aged/root.pem").exit_status, 0);
  EXPECT_EQ(Pub({"check", repo_}).exit_status, 3);
  WriteFile("/tmp/both.pem", ReadFile("/tmp/aged/root.pem") + ReadFile(keys_ / "root.pem"));
  ASSERT_EQ(Pub({"set", repo_, "--root", "/tmp/both.pem"}).exit_status, 0);
  EXPECT_EQ(Pub({"check", repo_}).exit_status, 3) << "what is offered is still the old root's";
  ASSERT_EQ(resign(keys_, "/tmp/both.pem").exit_status, 0);
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0);
  ExpectWarning(check, AllOf(HasSubstr("the root certificate "), HasSubstr("10 days from now"),
                             HasSubstr("nothing that is offered is signed below it"),
                             HasSubstr("tolmdbpub set /tmp/repo --root FILE")));
}

TEST_F(KeysTest, SigningCertificateThatCannotBeReadIsNotInOrder) {
  MustRelease(first_);
  const std::string certificate = ReadFile(keys_ / "signing.pem");
  for (const char* content : {"", "damaged"}) {
    WriteFile(keys_ / "signing.pem", content);
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 3) << content;
    ExpectWarning(check, HasSubstr("/tmp/keys/signing.pem"));
  }
  fs::remove(keys_ / "signing.pem");
  EXPECT_EQ(Pub({"check", repo_}).exit_status, 3);
  EXPECT_EQ(Pub({"check", repo_, "--min-days", "0"}).exit_status, 3);
  WriteFile(keys_ / "signing.pem", certificate);
  ExpectInOrder();
}

TEST_F(KeysTest, SigningKeyIsMadeBelowAnAuthorityOnly) {
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  struct Row {
    const char* key;
    const char* root;
    const char* message;
  };
  for (const Row& row :
       {Row{"/tmp/others/root.key", "/tmp/keys/root.pem", "does not belong to this certificate"},
        Row{"/tmp/keys/signing.key", "/tmp/keys/signing.pem", "no certificate of an authority"},
        Row{"/tmp/none", "/tmp/keys/root.pem", "/tmp/none"},
        Row{"/tmp/keys/root.key", "/tmp/none", "/tmp/none"}}) {
    ExpectFailure(Pub({"keygen", "/tmp/new", "--root-key", row.key, "--root", row.root}),
                  HasSubstr(row.message));
    EXPECT_FALSE(fs::exists("/tmp/new"));
  }
  const std::vector<std::string> again = {"keygen",           "/tmp/new", "--root-key",
                                          keys_ / "root.key", "--root",   keys_ / "root.pem"};
  ASSERT_EQ(Pub(again).exit_status, 0);
  EXPECT_THAT(ListTree("/tmp/new"), ElementsAre("signing.key", "signing.pem"));
  ExpectFailure(Pub(again), HasSubstr("/tmp/new/signing.key"));
  const CommandResult resign =
      Pub({"resign", repo_, "--key", "/tmp/new/signing.key", "--cert", "/tmp/new/signing.pem"});
  EXPECT_EQ(resign.exit_status, 0) << resign.err;
}

TEST_F(KeysTest, CertificateThatIsNotValidNowIsRefusedInClearWords) {
  MakeFormer();  // What signs descriptions leads to that root as well.
  MustRelease(first_);
  const std::string served = ReadFile(InPublic("database_info/1"));
  const std::time_t now = std::time(nullptr);
  ASSERT_EQ(
      PubAt(now - 3 * 365 * kDay - 10 * kDay - 3600, {"keygen", "/tmp/expired", "--no-passphrase"})
          .exit_status,
      0);
  ASSERT_EQ(PubAt(now + 10 * kDay, {"keygen", "/tmp/future", "--no-passphrase"}).exit_status, 0);
  struct Row {
    const char* keys;
    const char* release;
    const char* others;
  };
  for (const Row& row : {Row{"/tmp/expired", "expired on ", "10 days ago"},
                         Row{"/tmp/future", "is not valid before ", "is not valid before "}}) {
    SCOPED_TRACE(row.keys);
    ReplaceKeys(row.keys, keys_);
    ExpectFailure(Release(second_),
                  AllOf(HasSubstr("the signing certificate"), HasSubstr("/tmp/keys/signing.pem"),
                        HasSubstr(row.release), HasSubstr("nothing is signed with it"),
                        HasSubstr("tolmdbpub resign /tmp/repo")));
    ExpectFailure(Pub({"init", "/tmp/other", "--base-url", kBaseUrl, "--key", keys_ / "signing.key",
                       "--cert", keys_ / "signing.pem"}),
                  HasSubstr(row.release));
    EXPECT_THAT(Pub({"list", repo_}).err, HasSubstr(row.others));
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 1);  // Its packages lead to no root that is there.
    EXPECT_THAT(check.err, HasSubstr(row.others));
  }
  EXPECT_EQ(ReadFile(InPublic("database_info/1")), served);
}

TEST_F(KeysTest, KeysBesideTheRepositoryMoveWithIt) {
  EXPECT_EQ(Settings()["key"], "../keys/signing.key");
  EXPECT_EQ(Settings()["certificate"], "../keys/signing.pem");
  EXPECT_EQ(Settings()["root"], "../keys/root.pem");
  MustRelease(first_);
  fs::create_directory("/tmp/handed");
  fs::rename(repo_, "/tmp/handed/repo");
  fs::rename(keys_, "/tmp/handed/keys");
  MakeTree(source_, second_);
  const CommandResult release = Pub({"release", "/tmp/handed/repo", "oui", source_});
  EXPECT_EQ(release.exit_status, 0) << release.err;
  EXPECT_EQ(Pub({"check", "/tmp/handed/repo"}).exit_status, 0);
  EXPECT_THAT(Pub({"list", "/tmp/handed/repo"}).out,
              AllOf(ContainsRegex("key +\\.\\./keys/signing\\.key\n"),
                    ContainsRegex("certificate +\\.\\./keys/signing\\.pem"),
                    ContainsRegex("root +\\.\\./keys/root\\.pem")));
  // Within the repository, too; those of the machine stay where they are.
  fs::rename("/tmp/handed/keys", "/tmp/handed/repo/keys");
  const std::string inside = "/tmp/handed/repo/keys/";
  const CommandResult set =
      Pub({"set", "/tmp/handed/repo", "--key", inside + "signing.key", "--cert",
           inside + "signing.pem", "--root", inside + "root.pem", "--info-key", inside + "info.key",
           "--info-cert", inside + "info.pem"});
  EXPECT_EQ(set.exit_status, 0) << set.err;
  EXPECT_EQ(set.err, "");
  EXPECT_EQ(ReadJson("/tmp/handed/repo/state/settings.json")["key"], "keys/signing.key");
  fs::create_directories("/var/lib/publisher");
  ReplaceKeys(inside, "/var/lib/publisher");
  EXPECT_EQ(Pub({"set", "/tmp/handed/repo", "--key", "/var/lib/publisher/signing.key"}).exit_status,
            0);
  EXPECT_EQ(ReadJson("/tmp/handed/repo/state/settings.json")["key"],
            "/var/lib/publisher/signing.key");
  EXPECT_EQ(Pub({"check", "/tmp/handed/repo"}).exit_status, 0);
}

TEST_F(KeysTest, RepositoryOfAnEarlierProgramKeepsWorking) {
  WriteFile(repo_ / "state/settings.json",
            "{\n  \"base_url\" : \"http://127.0.0.1:1/db\",\n"
            "  \"certificate\" : \"/tmp/keys/signing.pem\",\n  \"chain_share_percent\" : 70,\n"
            "  \"format\" : 1,\n  \"info_version\" : \"1\",\n"
            "  \"key\" : \"/tmp/keys/signing.key\",\n  \"oldest_sqlite\" : \"3.33.0\",\n"
            "  \"root\" : \"/tmp/keys/root.pem\"\n}\n");
  MustRelease(first_);
  ExpectInOrder();
  EXPECT_THAT(Pub({"list", repo_}).out, ContainsRegex("key +/tmp/keys/signing\\.key\n"));
  ASSERT_EQ(Pub({"set", repo_, "--chain-share", "60"}).exit_status, 0);
  EXPECT_EQ(Settings()["key"], "/tmp/keys/signing.key");
  fs::rename(repo_, "/tmp/elsewhere");
  MakeTree(source_, second_);
  EXPECT_EQ(Pub({"release", "/tmp/elsewhere", "oui", source_}).exit_status, 0);
  EXPECT_EQ(Pub({"check", "/tmp/elsewhere"}).exit_status, 0);
}

TEST_F(KeysTest, MissingKeyIsNamedAsItIsSetAndWhereItWasLookedFor) {
  MustRelease(first_);
  fs::create_directory("/tmp/handed");
  fs::rename(repo_, "/tmp/handed/repo");
  const auto release = [&] { return Pub({"release", "/tmp/handed/repo", "oui", source_}); };
  MakeTree(source_, second_);
  ExpectFailure(release(), AllOf(HasSubstr("../keys/"), HasSubstr("(/tmp/handed/keys/"),
                                 HasSubstr("No such file"),
                                 HasSubstr("tolmdbpub set /tmp/handed/repo --key")));
  ASSERT_EQ(Pub({"set", "/tmp/handed/repo", "--key", "/tmp/keys/signing.key", "--cert",
                 "/tmp/keys/signing.pem", "--root", "/tmp/keys/root.pem", "--info-key",
                 "/tmp/keys/info.key", "--info-cert", "/tmp/keys/info.pem"})
                .exit_status,
            0);
  EXPECT_EQ(release().exit_status, 0);
}

TEST_F(KeysTest, KeyThatMayNotSignIsNotSet) {
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  MakeServersKey("/tmp/server");
  const std::string before = ReadFile(repo_ / "state/settings.json");
  struct Row {
    const char* key;
    const char* cert;
    const char* message;
  };
  for (const Row& row :
       {Row{"/tmp/others/signing.key", "/tmp/keys/signing.pem", "does not belong to the certif"},
        Row{"/tmp/others/signing.key", "/tmp/others/signing.pem", "with the root /tmp/keys/root"},
        Row{"/tmp/server/signing.key", "/tmp/server/signing.pem", "is not for code signing"},
        Row{"/tmp/none.key", "/tmp/keys/signing.pem", "/tmp/none.key"},
        Row{"/tmp/keys/signing.key", "/tmp/none.pem", "/tmp/none.pem"},
        Row{"/tmp/repo/public/signing.key", "/tmp/keys/signing.pem", "is served to everybody"}}) {
    fs::copy_file(keys_ / "signing.key", InPublic("signing.key"),
                  fs::copy_options::overwrite_existing);
    ExpectFailure(Pub({"set", repo_, "--key", row.key, "--cert", row.cert}),
                  HasSubstr(row.message));
    EXPECT_EQ(ReadFile(repo_ / "state/settings.json"), before) << row.key;
  }
}

TEST_F(KeysTest, PackagesOfAnExpiredSignerAreSignedAnew) {
  MakeSigner("/tmp/short", 10);
  ASSERT_EQ(
      Pub({"set", repo_, "--key", "/tmp/short/signing.key", "--cert", "/tmp/short/signing.pem"})
          .exit_status,
      0);
  MustRelease(first_);
  MustRelease(second_);
  const std::time_t later = std::time(nullptr) + 20 * kDay;
  ExpectFailure(PubAt(later, {"resign", repo_}), HasSubstr("expired on "));
  const std::vector<std::string> late = {"keygen",           "/tmp/late", "--root-key",
                                         keys_ / "root.key", "--root",    keys_ / "root.pem"};
  ASSERT_EQ(PubAt(later, late).exit_status, 0);
  const auto resign = [](std::time_t now, const fs::path& keys) {
    return PubAt(now,
                 {"resign", repo_, "--key", keys / "signing.key", "--cert", keys / "signing.pem"});
  };
  const CommandResult first = resign(later, "/tmp/late");
  EXPECT_EQ(first.out,
            "3 packages are signed anew below packages-2, compressed as before: 3 zstd\n")
      << first.err;
  // That one was not valid yet when they were released.
  const CommandResult second = resign(later + kDay, keys_);
  EXPECT_EQ(second.out,
            "3 packages are signed anew below packages-3, compressed as before: 3 zstd\n")
      << second.err;
}

TEST_F(KeysTest, SetSaysWhatHasToBeSignedAnew) {
  MustRelease(first_);
  MustRelease(second_);
  MakeSigner("/tmp/short", 10);
  ASSERT_EQ(
      Pub({"resign", repo_, "--key", "/tmp/short/signing.key", "--cert", "/tmp/short/signing.pem"})
          .exit_status,
      0);
  MakeSigner("/tmp/next", 300);
  const CommandResult signer =
      Pub({"set", repo_, "--key", "/tmp/next/signing.key", "--cert", "/tmp/next/signing.pem"});
  EXPECT_EQ(signer.exit_status, 0) << signer.err;
  ExpectWarning(signer, AllOf(HasSubstr("3 packages"), HasSubstr("another certificate"),
                              HasSubstr("tolmdbpub resign /tmp/repo")));
  ExpectWarning(Pub({"list", repo_}), AllOf(HasSubstr("which signed 3 packages that are offered"),
                                            HasSubstr("10 days from now")));
  EXPECT_EQ(Pub({"check", repo_}).exit_status, 3);
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  const CommandResult root =
      Pub({"set", repo_, "--key", "/tmp/others/signing.key", "--cert", "/tmp/others/signing.pem",
           "--root", "/tmp/others/root.pem", "--info-key", "/tmp/others/info.key", "--info-cert",
           "/tmp/others/info.pem"});
  EXPECT_EQ(root.exit_status, 0) << root.err;
  ExpectWarning(root, AllOf(HasSubstr("3 packages"), HasSubstr("refuse"),
                            HasSubstr("tolmdbpub resign /tmp/repo")));
  EXPECT_EQ(Pub({"check", repo_}).exit_status, 1);
  EXPECT_EQ(Pub({"resign", repo_}).exit_status, 0);
  ExpectInOrder();
}

TEST_F(KeysTest, NothingIsSignedAnewThatIsSignedAlready) {
  MustRelease(first_);
  MustRelease(second_);
  const auto packages = [] { return ReadTree(repo_ / "public/packages"); };
  const Tree before = packages();
  const Json::Value offered = Description()["db_list"];
  const CommandResult nothing = Pub({"resign", repo_});
  EXPECT_EQ(nothing.exit_status, 0) << nothing.err;
  EXPECT_THAT(nothing.out, AllOf(HasSubstr("nothing to do"), HasSubstr("3 packages")));
  EXPECT_TRUE(packages() == before);
  EXPECT_EQ(Description()["db_list"], offered);
  // A root more or less is no reason while what is signed stays below one of them.
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  WriteFile("/tmp/both.pem", ReadFile(keys_ / "root.pem") + ReadFile("/tmp/others/root.pem"));
  EXPECT_THAT(Pub({"resign", repo_, "--root", "/tmp/both.pem"}).out, HasSubstr("nothing to do"));
  EXPECT_EQ(Settings()["root"], "../both.pem");
  EXPECT_TRUE(packages() == before);
  EXPECT_EQ(Description()["db_list"], offered);
  EXPECT_EQ(Pub({"resign", repo_, "--force"}).out,
            "3 packages are signed anew below packages-2, compressed as before: 3 zstd\n");
  ExpectInOrder();
  MakeSigner("/tmp/next", 300);
  EXPECT_EQ(
      Pub({"resign", repo_, "--key", "/tmp/next/signing.key", "--cert", "/tmp/next/signing.pem"})
          .out,
      "3 packages are signed anew below packages-3, compressed as before: 3 zstd\n");
  EXPECT_THAT(Pub({"resign", repo_}).out, HasSubstr("nothing to do"));
  ExpectInOrder();
}

// The commands of a section of docs/operations.md, one text for each block of them.
std::vector<std::string> DocumentedCommands(const std::string& section) {
  std::istringstream lines(ReadFile(TOLM_TEST_SOURCE_DIR "/docs/operations.md"));
  std::vector<std::string> blocks;
  bool is_here = false;
  bool in_block = false;
  for (std::string line; std::getline(lines, line);) {
    const std::string text = line.substr(std::min(line.find_first_not_of(' '), line.size()));
    if (line.rfind("## ", 0) == 0) {
      is_here = line == "## " + section;
    } else if (is_here && text.rfind("```", 0) == 0) {
      in_block = !in_block;
      if (in_block) {
        blocks.emplace_back();
      }
    } else if (is_here && in_block) {
      blocks.back() += text + '\n';
    }
  }
  return blocks;
}

// A list of the repository's root, with other dates than the documented one.
void MakeRevocations(const std::string& options, const std::string& file) {
  MustRun("openssl ca -config ca/ca.conf -cert keys/root.pem -keyfile keys/root.key -gencrl " +
          options + " -out " + file);
}

TEST_F(KeysTest, RevokedSignerIsFoundAndReplacedByTheDocumentedCommands) {
  MustRelease(first_);
  MustRelease(second_);
  const std::vector<std::string> blocks =
      DocumentedCommands("A signing key is lost to somebody else");
  ASSERT_EQ(blocks.size(), 3U);
  const std::string old_package = "/tmp/oui_v1000002";
  fs::copy_file(InPublic("packages/oui/oui_v1000002"), old_package);
  MustRun(blocks[0]);
  const CommandResult found = Pub({"check", repo_, "--crl", "/tmp/6.crl.pem"});
  EXPECT_EQ(found.exit_status, 1);
  for (const char* path : {"oui_v1000001", "oui_v1000002", "oui_d1000002"}) {
    EXPECT_THAT(found.err, ContainsRegex("tolmdbpub: packages/oui/" + std::string(path) +
                                         ": signed with CN=Database package signing [^\n]*, which "
                                         "/tmp/6.crl.pem revokes"));
  }
  EXPECT_EQ(std::count(found.err.begin(), found.err.end(), '\n'), 3) << found.err;
  const CommandResult too_early =
      Pub({"install-config", repo_, "/tmp/early", "--crl", "/tmp/6.crl.pem"});
  EXPECT_EQ(too_early.exit_status, 0);
  ExpectWarning(too_early, HasSubstr("3 packages are offered that devices with these revocations "
                                     "refuse; \"tolmdbpub resign /tmp/repo"));
  MakeSigner("/tmp/keys-2", 300);
  ASSERT_EQ(Pub({"resign", repo_, "--key", "/tmp/keys-2/signing.key", "--cert",
                 "/tmp/keys-2/signing.pem"})
                .exit_status,
            0);
  MustRun(blocks[1]);
  MustRun(blocks[2]);
  const fs::path keyring = "/tmp/image/usr/tolm/etc/keyring";
  EXPECT_EQ(ReadFile(keyring / "6.crl.pem"), ReadFile("/tmp/6.crl.pem"));
  const CommandResult installed =
      Pub({"install-config", repo_, "/tmp/image", "--crl", "/tmp/6.crl.pem"});
  EXPECT_THAT(installed.out, ContainsRegex("the list of CN=Database package root [^\n]* revokes 1 "
                                           "certificate; the next one is due by 20"));
  EXPECT_EQ(installed.err, "");
  // As on the device.
  const auto unpack = [&](const std::string& package, const std::string& directory) {
    return Pub({"unpack", package, directory, "--root", keyring / "6.pem", "--crl",
                keyring / "6.crl.pem"});
  };
  ExpectFailure(unpack(old_package, "/tmp/out"), HasSubstr("certificate revoked"));
  EXPECT_EQ(unpack(InPublic("packages-2/oui/oui_v1000002"), "/tmp/out").exit_status, 0);
  EXPECT_EQ(ReadTree("/tmp/out"), second_);
}

TEST_F(KeysTest, UnfitListsAreRefusedAndAgedOnesNoted) {
  MustRelease(first_);
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  MustRun(DocumentedCommands("A signing key is lost to somebody else")[0]);
  MakeRevocations("-crldays 5", "near.pem");
  MakeRevocations("-crl_lastupdate 20200101000000Z -crl_nextupdate 20200201000000Z", "past.pem");
  WriteFile("/tmp/ca/ca.conf", ReadFile("/tmp/ca/ca.conf") +
                                   "[delta]\n2.5.29.27 = critical,DER:02:01:01\n[part]\n"
                                   "issuingDistributionPoint = critical,@users\n[users]\n"
                                   "onlyuser = TRUE\n");
  MakeRevocations("-crlexts delta", "delta.pem");
  MakeRevocations("-crlexts part", "part.pem");
  MakeRevocations("-crl_lastupdate 20900101000000Z -crl_nextupdate 20910101000000Z", "early.pem");
  MustRun(
      "sed -i s,keys/,others/, ca/ca.conf && cp keys/root.pem keys/kept.pem && "
      "openssl ca -config ca/ca.conf -cert others/root.pem -keyfile others/root.key -gencrl "
      "-out foreign.pem");
  struct Row {
    const char* file;
    const char* message;
  };
  for (const Row& row : {Row{"foreign.pem", "is not signed by the root /tmp/keys/root.pem"},
                         Row{"delta.pem", "is a delta list; give the whole one"},
                         Row{"part.pem", "is for some certificates only; give the whole one"},
                         Row{"early.pem", "is not valid before 2090-01-01 00:00 UTC"},
                         Row{"keys/signing.pem", "keys/signing.pem"}, Row{"none", "/tmp/none"}}) {
    const std::string file = "/tmp/" + std::string(row.file);
    ExpectFailure(Pub({"install-config", repo_, "/tmp/image", "--crl", file}),
                  HasSubstr(row.message));
    ExpectFailure(Pub({"check", repo_, "--crl", file}), HasSubstr(row.message));
  }
  ExpectFailure(
      Pub({"install-config", repo_, "/tmp/image", "--crl", "/tmp/past.pem"}),
      AllOf(HasSubstr("due by 2020-02-01 00:00 UTC"), HasSubstr("nothing was installed")));
  EXPECT_FALSE(fs::exists("/tmp/image"));
  // Devices go on with an old list, so it still says what is revoked.
  const CommandResult past = Pub({"check", repo_, "--crl", "/tmp/past.pem"});
  EXPECT_EQ(past.exit_status, 1);
  EXPECT_THAT(past.err, AllOf(HasSubstr("note: /tmp/past.pem: "), HasSubstr("days ago"),
                              HasSubstr("oui_v1000001: signed with")));
  EXPECT_THAT(Pub({"check", repo_, "--crl", "/tmp/near.pem"}).err,
              AllOf(HasSubstr("note: /tmp/near.pem: "), HasSubstr("from now: have another made")));
}

TEST_F(KeysTest, InstalledRevocationsAreNotTakenBack) {
  const std::string installed = "/tmp/image/usr/tolm/etc/keyring/6.crl.pem";
  const auto install = [](const std::string& file) {
    return Pub({"install-config", repo_, "/tmp/image", "--crl", "/tmp/" + file});
  };
  const auto expect_refused = [&](const std::string& file, const std::string& message) {
    const std::string before = ReadFile(installed);
    ExpectFailure(install(file),
                  AllOf(HasSubstr("/tmp/" + file + ": " + message),
                        HasSubstr("(" + installed + ")"), HasSubstr("nothing was installed")));
    EXPECT_EQ(ReadFile(installed), before);
  };
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  MustRun(DocumentedCommands("A signing key is lost to somebody else")[0]);
  MakeRevocations("", "2.pem");
  MakeRevocations("-crl_lastupdate 20200101000000Z -crl_nextupdate 20900101000000Z", "3.pem");
  MustRun(
      "openssl ca -config ca/ca.conf -cert others/root.pem -keyfile others/root.key -gencrl "
      "-out of_others.pem; cat 2.pem of_others.pem >of_both.pem");
  EXPECT_EQ(install("6.crl.pem").exit_status, 0);
  EXPECT_EQ(install("2.pem").exit_status, 0);
  EXPECT_EQ(install("2.pem").exit_status, 0);
  expect_refused("6.crl.pem", "the list of CN=Database package root");  // By its number.
  expect_refused("3.pem", "the list of CN=Database package root");      // By its date.
  // Of two authorities, until devices do not know one of them any more.
  WriteFile("/tmp/both.pem", ReadFile(keys_ / "root.pem") + ReadFile("/tmp/others/root.pem"));
  ASSERT_EQ(Pub({"set", repo_, "--root", "/tmp/both.pem"}).exit_status, 0);
  EXPECT_EQ(install("of_both.pem").exit_status, 0);
  expect_refused("2.pem", "has no list of CN=Database package root");
  ASSERT_EQ(Pub({"set", repo_, "--root", keys_ / "root.pem"}).exit_status, 0);
  EXPECT_EQ(install("2.pem").exit_status, 0);
  WriteFile(installed, "damaged");
  EXPECT_EQ(install("6.crl.pem").exit_status, 0);
}

TEST_F(KeysTest, RepositoryIsHandedOverByTheDocumentedCommands) {
  MustRelease(first_);
  MustRelease(second_);
  const std::vector<std::string> blocks = DocumentedCommands("Handing a repository over");
  ASSERT_EQ(blocks.size(), 4U);
  for (const std::string& commands : blocks) {
    MustRun(commands);
  }
  // What was given away is no part of it any more.
  fs::remove_all(repo_);
  fs::remove_all(keys_);
  MakeTree(source_, first_);
  const std::string repo = "/tmp/publisher/repo";
  const CommandResult release = Pub({"release", repo, "oui", source_});
  EXPECT_EQ(release.exit_status, 0) << release.err;
  EXPECT_EQ(release.err, "");
  EXPECT_EQ(Pub({"check", repo}).exit_status, 0);
  EXPECT_EQ(ReadJson(repo + "/state/settings.json")["key"], "../keys/signing.key");
}

}  // namespace
}  // namespace tolm::testing
