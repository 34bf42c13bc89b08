// The installed tool and versions that do not reach all devices at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "offer/offer.h"
#include "tests/report/page_problems.h"
#include "tests/support/noise.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/repository.h"
#include "tests/tools/signed_descriptions.h"
#include "tests/tools/signed_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

const fs::path kPrefix = kVolumePrefix / "oui";
constexpr char kSettings[] = "/usr/tolm/etc/data_update/operation.conf";
constexpr char kCached[] = "/var/cache/data_update/database_info.json";
constexpr char kDescriptionPath[] = "/database_info/1";
constexpr char kNotThatPackage[] = "it is not the package that the signed description names: ";
constexpr std::time_t kDay = 24 * 3600;

void Set(const std::string& rollout) {
  WriteFile(kSettings, R"({"rollout": ")" + rollout + "\"}");
}

CommandResult ToolAt(std::time_t time, const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {kTool};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return RunCommand(command, {EnvironmentAt(time), {}, ""});
}

/// What status says of "oui" to programs, without asking the server.
Json::Value StatusOfOui() {
  Json::Value document;
  std::istringstream(Tool({"status", "oui", "--offline", "--json"}).out) >> document;
  return document["databases"][0];
}

/// A device that was never updated.
void Forget() {
  for (const fs::path directory : {"/var/lib/data_update", "/volume1/@database"}) {
    for (const auto& entry : fs::directory_iterator(directory)) {
      fs::remove_all(entry);
    }
  }
}

/// A device, and a server with packages of two versions.
class RolloutTest : public ::testing::Test {
 protected:
  // Texts that occur nowhere else in a link, not even in a port.
  static constexpr int kStable = 70001;
  static constexpr int kNext = 70002;
  inline static const std::string kStableFull = "packages/oui_v70001";
  inline static const std::string kNextFull = "packages/oui_v70002";
  inline static const std::string kNextDelta = "packages/oui_d70002";

  RolloutTest() {
    for (const auto& [path, package] : packages_) {
      server_.Serve(path, package);
    }
  }

  static offer::RolloutPlan PlanOf(std::vector<offer::RolloutStep> steps) {
    offer::RolloutPlan plan;
    plan.start = std::time(nullptr) - 100;
    plan.steps = std::move(steps);
    return plan;
  }

  void Describe(const offer::RolloutPlan& plan) {
    offer::DatabaseOffer database{kStable, 1700000000, false, Offered(kStableFull), {}, {}};
    database.next = offer::NextOffer{
        kNext, 1700000001, Offered(kNextFull), {{kNext, Offered(kNextDelta)}}, plan};
    server_.Describe(database);
  }
  offer::PackageOffer Offered(const std::string& path) const {
    return SignedServer::Offered(path, packages_.at(path));
  }

  std::size_t RequestsFor(const std::string& path) {
    return server_.Server().RequestCount('/' + path);
  }

  static void ExpectInstalled(const Tree& files, int version) {
    EXPECT_EQ(ReadTree(kPrefix), files);
    EXPECT_EQ(InstalledVersion("oui"), std::to_string(version));
    EXPECT_EQ(Tool({"verify", "oui"}).exit_status, 0);
  }

  const Tree stable_ = {{"a.txt", "one"}, {"more", std::string(3000, 'm')}};
  const Tree next_ = {{"a.txt", "two"}, {"more", std::string(3000, 'm')}};
  SignedServer server_;
  const std::map<std::string, std::string> packages_ = {
      {kStableFull, server_.Package("full", kStable, stable_)},
      {kNextFull, server_.Package("full", kNext, next_)},
      {kNextDelta, server_.Package("delta", kNext,
                                   {{"patch_infos.json",
                                     R"({"/a.txt": {"operation": "create", "input_file": "a"}})"},
                                    {"a", "two"}})}};
};

TEST_F(RolloutTest, DeviceTakesTheNextVersionWhenItsTurnComesWithoutAskingTheServer) {
  Describe(PlanOf({{1, 0}}));
  ASSERT_EQ(Tool({"check"}).exit_status, 10);
  ASSERT_EQ(server_.Server().Requests().back().path, kDescriptionPath);
  const std::string query = server_.Server().Requests().back().query;
  const std::string identifier = query.substr(query.find("dlid=") + 5, 16);
  const int position = StatusOfOui()["rollout"]["position"].asInt();
  EXPECT_EQ(position, identifier.find_first_of("&=") != std::string::npos  // There is none.
                          ? offer::kWholeShare - 1
                          : offer::PositionOf(identifier, "oui", kNext));

  const std::time_t now = std::time(nullptr);
  offer::RolloutPlan plan = PlanOf({{position + 1, 0}});
  const std::time_t turn = plan.start = now + 600;
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70001\n");
  ExpectInstalled(stable_, kStable);
  const std::size_t questions = server_.Server().RequestCount(kDescriptionPath);

  const CommandResult before = ToolAt(turn - 1, {"check"});
  EXPECT_EQ(before.exit_status, 0);
  EXPECT_THAT(
      before.out,
      AllOf(StartsWith("oui: up to date with 70001"),
            HasSubstr("; 70002 has reached 0 % of the devices, 70001 is the stable version; this "
                      "device's turn comes ")));
  EXPECT_THAT(Tool({"status", "oui", "--offline"}).out,
              AllOf(HasSubstr("\n  offered    70001\n  stable     70001\n  rollout    70002 has "
                              "reached 0 % of the devices\n"),
                    HasSubstr("\n  its turn   comes "), HasSubstr(" (rollout \"normal\")\n"),
                    HasSubstr("\n  state      up to date\n")));
  const Json::Value waits = StatusOfOui()["rollout"];
  EXPECT_EQ(waits["stable"], kStable);
  EXPECT_EQ(waits["next"], kNext);
  EXPECT_EQ(waits["state"], "running");
  EXPECT_EQ(waits["share"], 0);
  EXPECT_EQ(waits["setting"], "normal");
  EXPECT_EQ(waits["turn"], "later");
  EXPECT_TRUE(waits["turn_at"].isString());

  EXPECT_THAT(ToolAt(turn, {"check"}).out,
              StartsWith("oui: 70002 is offered, 70001 is installed\n"));
  const CommandResult update = ToolAt(turn, {"update", "oui", "--verbose"});
  EXPECT_EQ(update.exit_status, 0);
  EXPECT_THAT(update.out, StartsWith("oui: updated to 70002"));
  EXPECT_THAT(update.err, HasSubstr("oui: 70002 has reached "));
  EXPECT_THAT(update.err, HasSubstr("this device's turn has come, at position "));
  ExpectInstalled(next_, kNext);
  EXPECT_EQ(RequestsFor(kNextDelta), 1u);
  EXPECT_EQ(RequestsFor(kNextFull), 0u);

  EXPECT_THAT(ToolAt(now, {"update", "oui"}).out, StartsWith("oui: up to date"));
  EXPECT_EQ(StatusOfOui()["rollout"]["turn"], "stays");
  EXPECT_EQ(server_.Server().RequestCount(kDescriptionPath), questions);
}

TEST_F(RolloutTest, StoppedOneReachesNobodyFurtherAndWhoHasItStaysWithIt) {
  Set("early");
  offer::RolloutPlan plan = PlanOf({{offer::kWholeShare, 0}});
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70002\n");
  plan.stopped = true;
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: up to date\n");
  EXPECT_EQ(Tool({"verify", "oui", "--package"}).exit_status, 0);
  EXPECT_EQ(Tool({"check"}).exit_status, 0);
  EXPECT_EQ(StatusOfOui()["rollout"]["state"], "stopped");

  WriteFile(kPrefix / "a.txt", "damaged");
  EXPECT_THAT(Tool({"fix", "oui"}).out, StartsWith("oui: repaired"));
  ExpectInstalled(next_, kNext);
  WriteFile(kPrefix / "a.txt", "damaged");
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: repaired"));
  ExpectInstalled(next_, kNext);
  WriteFile("/var/lib/data_update/oui/recovery.mark", "");
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0) << "it was cut short: nothing is installed";
  ExpectInstalled(next_, kNext);
  fs::remove_all("/var/lib/data_update/oui");
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0) << "the floor alone tells of it";
  ExpectInstalled(next_, kNext);

  Forget();
  EXPECT_EQ(Tool({"update", "oui"}).out.substr(0, 21), "oui: updated to 70001");
  ExpectInstalled(stable_, kStable);
  EXPECT_EQ(StatusOfOui()["rollout"]["turn"], "never");
  plan.stopped = false;
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70002\n") << "it goes on";
  ExpectInstalled(next_, kNext);
}

// Another staged version has taken the place of the one that it has, and was stopped in its turn.
TEST_F(RolloutTest, StoppedOneDoesNotReachWhoHasTheStagedOneBeforeIt) {
  constexpr int kMended = 70003;
  const std::string mended_full = "packages/oui_v70003";
  const std::string mended = server_.Package("full", kMended, {{"a.txt", "three"}});
  server_.Serve(mended_full, mended);
  Set("early");
  Describe(PlanOf({{offer::kWholeShare, 0}}));
  ASSERT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70002\n");
  offer::DatabaseOffer database{kStable, 1700000000, false, Offered(kStableFull), {}, {}};
  database.next = offer::NextOffer{kMended,
                                   1700000002,
                                   SignedServer::Offered(mended_full, mended),
                                   {{kNext, Offered(kNextDelta)}},
                                   PlanOf({{1, 60}, {2, 0}})};
  database.next->plan.stopped = true;
  server_.Describe(database);

  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 0) << update.err;
  EXPECT_THAT(update.out, StartsWith("oui: up to date"));
  ExpectInstalled(next_, kNext);
  EXPECT_EQ(Tool({"check"}).exit_status, 0);
  EXPECT_EQ(StatusOfOui()["rollout"]["turn"], "never");
  EXPECT_EQ(StatusOfOui()["state"], "up-to-date");

  // Nothing that is offered repairs it; a person can have what it had.
  WriteFile(kPrefix / "a.txt", "damaged");
  for (const char* command : {"fix", "update"}) {
    const CommandResult repair = Tool({command, "oui"});
    EXPECT_EQ(repair.exit_status, 1) << command << repair.out;
    EXPECT_THAT(repair.err, HasSubstr("version 70001 is offered, but version 70002 was installed"));
  }
  EXPECT_EQ(Tool({"force-install", "oui", "--version", "70002"}).exit_status, 0);
  ExpectInstalled(next_, kNext);

  EXPECT_EQ(RequestsFor(mended_full), 0u);
  database.next->plan.stopped = false;
  server_.Describe(database);
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: updated to 70003"))
      << "while it runs, it is offered the one that has taken the place of its own";
}

// Another process learns of the stop while the version is being installed.
TEST_F(RolloutTest, StopThatComesDuringAnUpdateLeavesTheVersionInOrder) {
  Set("early");
  offer::RolloutPlan plan = PlanOf({{offer::kWholeShare, 0}});
  Describe(plan);
  ASSERT_EQ(Tool({"check"}).exit_status, 10);
  const std::string cached = ReadFile(kCached);
  plan.stopped = true;
  Describe(plan);
  WriteFile(kCached, cached);
  const fs::path plugin = "/usr/tolm/lib/plugins/database_autoupdate/version_change/ask";
  WriteFile(plugin, "#!/bin/sh\nexec /usr/bin/tolmdbud check --refresh\n");
  fs::permissions(plugin, fs::perms(0755));
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: updated to 70002"));
  EXPECT_NE(ReadFile(kCached), cached);
  ExpectInstalled(next_, kNext);
  fs::remove(plugin);
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: up to date"));
  EXPECT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  EXPECT_EQ(StatusOfOui()["rollout"]["turn"], "stays");
}

TEST_F(RolloutTest, HeldOneStaysWhereItWasUntilItGoesOn) {
  Set("late");
  offer::RolloutPlan plan = PlanOf({{100, 50}, {offer::kWholeShare, 0}});
  plan.held = plan.start + 49;
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70001\n");
  EXPECT_THAT(Tool({"check"}).out,
              HasSubstr("; 70002 is held at 1 % of the devices, 70001 is the stable version; this "
                        "device's turn comes when it is no longer held, at position 99.99 % "
                        "(rollout \"late\")\n"));
  const Json::Value rollout = StatusOfOui()["rollout"];
  EXPECT_EQ(rollout["state"], "held");
  EXPECT_EQ(rollout["turn"], "later");
  EXPECT_TRUE(rollout["turn_at"].isNull());
  plan.held.reset();
  Describe(plan);
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70002\n");
}

TEST_F(RolloutTest, PageTellsOfTheStagedVersion) {
  Set("late");
  offer::RolloutPlan plan = PlanOf({{100, 40 * kDay}, {offer::kWholeShare, 0}});
  plan.start = 1800000000;  // 2027-01-15 08:00
  Describe(plan);
  ASSERT_EQ(Tool({"check"}).exit_status, 10);
  const auto page = [](const std::string& file) {
    EXPECT_EQ(Tool({"status", "--offline", "--html", file}).exit_status, 0);
    EXPECT_EQ(PageProblems(file), "");
    return ReadFile(file);
  };
  const std::string later = page("/tmp/later.html");
  EXPECT_THAT(later, AllOf(HasSubstr("not installed, 70002 comes 2027-02-24 08:00"),
                           HasSubstr("Stable version</dt><dd>70001"),
                           HasSubstr("70002 has reached 0 % of the devices"),
                           HasSubstr("turn</dt><dd>comes 2027-02-24 08:00 (in ")));
  Set("early");
  plan.start = std::time(nullptr) - 100;
  Describe(plan);
  ASSERT_EQ(Tool({"check", "--refresh"}).exit_status, 10);
  EXPECT_THAT(page("/tmp/reached.html"), AllOf(HasSubstr("turn</dt><dd>has come, at position 0 %"),
                                               Not(HasSubstr("70002 comes"))));
}

TEST_F(RolloutTest, PackagesOfBothVersionsAreHeldToTheSignedText) {
  const Tree less = {{"a.txt", "less"}};
  Set("stable");
  Describe(PlanOf({{offer::kWholeShare, 0}}));
  ASSERT_EQ(Tool({"update", "oui"}).out, "oui: updated to 70001\n");

  server_.Serve(kNextFull, server_.Package("full", kNext, less));
  const std::vector<std::string> force_next = {"force-install", "oui", "--version", "70002"};
  const CommandResult other = Tool(force_next);
  EXPECT_EQ(other.exit_status, 1);
  EXPECT_THAT(other.err, HasSubstr(kNotThatPackage)) << "it is not the offered one";
  ExpectInstalled(stable_, kStable);
  server_.Serve(kNextFull, std::string(100000, 'x'));
  EXPECT_THAT(Tool(force_next).err, HasSubstr(" bytes that the signed description says"));
  server_.Serve(kNextFull, packages_.at(kNextFull));

  Set("early");
  ASSERT_EQ(Tool({"check"}).exit_status, 10);
  const std::vector<std::string> verify = {"verify", "oui", "--package"};
  EXPECT_EQ(Tool(verify).exit_status, 0) << "of what is installed, and not offered";
  server_.Serve(kStableFull, server_.Package("full", kStable, less));
  EXPECT_THAT(Tool(verify).err, HasSubstr(kNotThatPackage));
  EXPECT_THAT(Tool({"force-install", "oui", "--version", "70001"}).err, HasSubstr(kNotThatPackage));
  server_.Serve(kStableFull, packages_.at(kStableFull));
  EXPECT_EQ(Tool(force_next).exit_status, 0);
  ExpectInstalled(next_, kNext);
  EXPECT_EQ(Tool({"force-install", "oui", "--version", "70001"}).exit_status, 0);
  ExpectInstalled(stable_, kStable);
}

// As after packages were signed anew: what is released from then on lies elsewhere.
TEST_F(RolloutTest, ForcedInstallationFindsBothVersionsWhereverTheyLie) {
  const std::string elsewhere = "packages-2/oui_v70002";
  server_.Serve(elsewhere, packages_.at(kNextFull));
  HttpAnswer gone;
  gone.status = 404;
  server_.Server().SetAnswer('/' + kNextFull, gone);
  offer::DatabaseOffer database{kStable, 1700000000, false, Offered(kStableFull), {}, {}};
  offer::PackageOffer moved = Offered(kNextFull);
  moved.link = elsewhere;
  database.next = offer::NextOffer{kNext, 1700000001, moved, {}, PlanOf({{offer::kWholeShare, 0}})};
  server_.Describe(database);
  for (const char* setting : {"stable", "early"}) {
    SCOPED_TRACE(setting);
    Set(setting);
    EXPECT_EQ(Tool({"force-install", "oui", "--version", "70002"}).exit_status, 0);
    ExpectInstalled(next_, kNext);
    EXPECT_EQ(Tool({"force-install", "oui", "--version", "70001"}).exit_status, 0);
    ExpectInstalled(stable_, kStable);
  }
}

TEST_F(RolloutTest, WrongSettingEndsEveryOperationAndTheDoctorKnows) {
  Describe(PlanOf({{offer::kWholeShare, 0}}));
  Set("soon");
  const std::string problem = R"(rollout must be "early", "normal", "late" or "stable")";
  for (const std::string command : {"update", "fix", "force-install"}) {
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_THAT(result.err, HasSubstr(kSettings + (": " + problem)));
  }
  EXPECT_FALSE(fs::exists(kPrefix));
  EXPECT_THAT(Tool({"doctor", "--offline"}).out, AllOf(HasSubstr(kSettings), HasSubstr(problem)));
  Set("late");
  EXPECT_THAT(Tool({"doctor", "--offline"}).out, Not(HasSubstr(kSettings)));
}

TEST_F(RolloutTest, WithoutAStagedVersionNothingIsSaidOfIt) {
  server_.Describe(kStable, Offered(kStableFull));
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_TRUE(StatusOfOui()["rollout"].isNull());
  EXPECT_THAT(Tool({"status", "oui", "--offline"}).out,
              AllOf(Not(HasSubstr("rollout")), Not(HasSubstr("stable"))));
  const CommandResult check = Tool({"check", "--json"});
  EXPECT_EQ(check.exit_status, 0);
  EXPECT_THAT(check.out, Not(HasSubstr("rollout")));
}

// ---- Real packages ----

/// A repository of three releases, the newest of which is made the next version by hand.
class RealRolloutTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    AddToKeyring(authority_.Pem());
    ASSERT_EQ(Pub({"init", kRepo, "--base-url", publisher_.Server().Url(""), "--key",
                   publisher_.Keys() / "signing.key", "--cert", publisher_.Keys() / "signing.pem"})
                  .exit_status,
              0);
    for (std::size_t i = 0; i < trees_.size(); ++i) {
      fs::remove_all("/tmp/source");
      MakeTree("/tmp/source", trees_[i]);
      const CommandResult release = Pub({"release", kRepo, "oui", "/tmp/source"});
      ASSERT_EQ(release.exit_status, 0) << release.err;
    }
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(kRepo) / "public")) {
      if (entry.is_regular_file()) {
        const fs::path path = entry.path().lexically_relative(fs::path(kRepo) / "public");
        publisher_.Server().SetBody('/' + path.string(), ReadFile(entry.path()));
      }
    }
    released_ = offer::ParseOffer(
        RepositoryReading::ReadJson(fs::path(kRepo) / "public/database_info/1")["signed"]
            .asString());
  }

  struct RepositoryReading : RepositoryTest {
    using RepositoryTest::ReadJson;
  };

  static std::string PathOfFull(int version) {
    return "packages/oui/oui_v" + std::to_string(version);
  }
  offer::PackageOffer FullOf(int version) const {
    const std::string path = PathOfFull(version);
    return SignedServer::Offered(path, ReadFile(fs::path(kRepo) / "public" / path));
  }

  /// What is released, with the newest version as the next one.
  offer::Offer Staged(bool with_deltas) {
    offer::Offer offer = released_;
    offer::DatabaseOffer& database = offer.databases["oui"];
    offer::NextOffer next;
    next.version = kNext;
    next.last_fetch_time = database.last_fetch_time;
    next.full = database.full;
    next.plan.start = offer.issued;
    next.plan.steps = {{offer::kWholeShare, 0}};
    if (with_deltas) {
      next.deltas[kNext] = database.deltas.at(kNext);
    }
    database.deltas.erase(kNext);
    database.version = kStable;
    database.full = FullOf(kStable);
    database.next = next;
    return offer;
  }
  offer::Offer OnlyFirst() const {
    offer::Offer offer = released_;
    offer.databases["oui"].version = kFirst;
    offer.databases["oui"].full = FullOf(kFirst);
    offer.databases["oui"].deltas.clear();
    return offer;
  }

  void Serve(offer::Offer offer) {
    offer.counter = ++counter_;
    publisher_.Server().SetBody(kDescriptionPath, testing::Describe(offer, signer_));
    fs::remove("/var/cache/data_update/database_info.json");
  }

  std::vector<std::string> PackagesRequested() {
    std::vector<std::string> paths;
    for (const HttpRequest& request : publisher_.Server().Requests()) {
      if (request.path != kDescriptionPath) {
        paths.push_back(request.path.substr(request.path.rfind('/') + 1));
      }
    }
    return paths;
  }

  static constexpr char kRepo[] = "/tmp/repo";
  static constexpr int kFirst = 1000001;
  static constexpr int kStable = 1000002;
  static constexpr int kNext = 1000003;
  const std::string noise_ = Noise(20000);
  const std::vector<Tree> trees_ = {
      {{"a.bin", noise_}, {"t", "first"}},
      {{"a.bin", noise_.substr(0, 9000) + "inserted" + noise_.substr(9000)}, {"t", "second"}},
      {{"a.bin", noise_.substr(10)}, {"t", "third"}, {"new", "x"}}};
  Publisher publisher_;
  const Authority authority_{"Test root for descriptions"};
  const package::Signer signer_ = authority_.NewSigner(ForDescriptions());
  offer::Offer released_;
  std::uint64_t counter_ = 10;
};

TEST_F(RealRolloutTest, ChainLeadsThroughTheStableVersionToTheNextOne) {
  Set("early");
  Serve(OnlyFirst());
  ASSERT_EQ(Tool({"update", "oui"}).out, "oui: updated to 1000001\n");
  Serve(Staged(true));
  const std::size_t before = PackagesRequested().size();
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.out, "oui: updated to 1000003\n") << update.err;
  EXPECT_EQ(ReadTree(kPrefix), trees_[2]);
  std::vector<std::string> packages = PackagesRequested();
  packages.erase(packages.begin(), packages.begin() + static_cast<std::ptrdiff_t>(before));
  EXPECT_THAT(packages, ::testing::ElementsAre("oui_d1000002", "oui_d1000003"));
  EXPECT_EQ(Tool({"verify", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"verify", "oui", "--package"}).exit_status, 0);
}

TEST_F(RealRolloutTest, WithoutADeltaToTheNextVersionItsFullPackageIsTaken) {
  Set("stable");
  Serve(Staged(false));
  EXPECT_EQ(Tool({"update", "oui"}).out, "oui: updated to 1000002\n");
  EXPECT_EQ(ReadTree(kPrefix), trees_[1]);
  Set("early");
  EXPECT_THAT(Tool({"update", "oui"}).out, StartsWith("oui: updated to 1000003"));
  EXPECT_EQ(ReadTree(kPrefix), trees_[2]);
  EXPECT_EQ(PackagesRequested().back(), "oui_v1000003");
  EXPECT_EQ(Tool({"verify", "oui", "--package"}).exit_status, 0);
}

}  // namespace
}  // namespace tolm::testing
