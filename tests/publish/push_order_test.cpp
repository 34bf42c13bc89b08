#include "publish/push_order.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "publish/files.h"
#include "publish/repository.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A repository that signs its descriptions.
class SignedOrderTest : public ReleaseFixture {
 protected:
  SignedOrderTest() { InitRepository(NewSignedRepository(now_), now_); }

  publish::Settings Settings() const {
    return publish::LoadSettings(publish::RepositoryPaths(Path("repo")).SettingsFile());
  }
  std::string Description() const {
    return ReadFile(publish::RepositoryPaths(Path("repo")).Description(Settings()));
  }

  /// What is noted when the one description takes the other's place.
  std::vector<std::string> NotesOf(const publish::PushOrder& order,
                                   const publish::Settings& settings, std::time_t now) const {
    std::vector<std::string> notes;
    RequireMayFollow(order, settings, now,
                     [&notes](const std::string& note) { notes.push_back(note); });
    return notes;
  }
  void MakeReleaseAt(std::time_t now) const {
    MakeRelease(
        NewRelease(), now, [](const std::string&) {}, [](const publish::Step&) {});
  }
  static std::uint64_t CounterOf(std::time_t issued) { return static_cast<std::uint64_t>(issued); }

  const std::time_t now_ = std::time(nullptr);  // Certificates are judged by the machine's clock.
};

TEST_F(SignedOrderTest, NewerOneThatIsBelievedIsReplacedByNobodysWill) {
  publish::PushOrder order;
  order.remote = "store";
  order.next = Description();
  MakeRelease(
      NewRelease(), now_ + 1, [](const std::string&) {}, [](const publish::Step&) {});
  order.present = Description();
  order.insist = true;
  ExpectError([&] { RequireMayFollow(order, Settings(), now_ + 2, [](const std::string&) {}); },
              HasSubstr("the description there is newer: its number is "));
}

TEST_F(SignedOrderTest, NewerOneIsNotReplacedByARepositoryThatOffersNone) {
  publish::PushOrder order;
  order.remote = "store";
  order.next = "{}";
  order.present = Description();
  order.insist = true;
  ExpectError([&] { RequireMayFollow(order, Settings(), now_ + 2, [](const std::string&) {}); },
              AllOf(HasSubstr("the description there is newer: its number is "),
                    HasSubstr("and this repository's has none")));
}

TEST_F(SignedOrderTest, OlderOneAndTheSameInOtherWordsAreReplacedWithoutAWord) {
  publish::PushOrder order;
  order.remote = "store";
  order.present = Description();
  MakeReleaseAt(now_ + 1);
  order.next = Description();
  EXPECT_THAT(NotesOf(order, Settings(), now_ + 2), IsEmpty());
  order.present = order.next + '\n';
  EXPECT_THAT(NotesOf(order, Settings(), now_ + 2), IsEmpty());
  order.present = order.next;
  order.next += '\n';
  EXPECT_THAT(NotesOf(order, Settings(), now_ + 2), IsEmpty());
}

TEST_F(SignedOrderTest, SameNumberWithAnotherContentIsNotReplaced) {
  fs::copy(Path("repo"), Path("copy"), fs::copy_options::recursive);
  MakeReleaseAt(now_ + 1);
  publish::PushOrder order;
  order.remote = "store";
  order.insist = true;
  order.present = Description();
  const publish::Settings settings = Settings();
  fs::remove_all(Path("repo"));
  fs::rename(Path("copy"), Path("repo"));
  publish::ReleaseRequest release = NewRelease();
  release.name = "geo";
  MakeRelease(
      release, now_ + 1, [](const std::string&) {}, [](const publish::Step&) {});
  order.next = Description();
  ExpectError([&] { NotesOf(order, settings, now_ + 2); },
              "store: the description there has the same number, " +
                  std::to_string(CounterOf(now_ + 1)) +
                  ", and another content; is this repository an older copy? Nothing was changed");
}

TEST_F(SignedOrderTest, NewerOneThatIsNotBelievedIsReplacedWhenThatIsInsistedOn) {
  publish::PushOrder order;
  order.remote = "store";
  order.next = Description();
  MakeReleaseAt(now_ + 1);
  order.present = Description();
  const std::time_t when_it_is_over = now_ + std::time_t{100} * 366 * 24 * 60 * 60;
  const std::string why =
      "store: the description there says that it is newer than this repository's, and is not to "
      "be believed: ";
  ExpectError(
      [&] { NotesOf(order, Settings(), when_it_is_over); },
      AllOf(::testing::StartsWith(why), ::testing::EndsWith(" (--yes replaces it all the same)")));
  order.insist = true;
  EXPECT_THAT(NotesOf(order, Settings(), when_it_is_over),
              ElementsAre(AllOf(::testing::StartsWith(why),
                                ::testing::EndsWith("; it is replaced all the same"))));
}

TEST_F(SignedOrderTest, AnotherRepositorysIsReplacedWhenThatIsInsistedOn) {
  publish::PushOrder order;
  order.remote = "store";
  order.present = Description();
  MakeReleaseAt(now_ + 1);
  order.next = Description();
  publish::Settings settings = Settings();
  const std::string identity = settings.identity;
  settings.identity = "somebody";
  const std::string why = "store: the description there is another repository's, " + identity;
  ExpectError([&] { NotesOf(order, settings, now_ + 2); },
              why + " (--yes replaces it all the same)");
  order.insist = true;
  EXPECT_THAT(NotesOf(order, settings, now_ + 2),
              ElementsAre(why + "; it is replaced all the same"));
}

TEST_F(SignedOrderTest, SignedOneIsReplacedByAnUnsignedOneWhenThatIsInsistedOn) {
  publish::PushOrder order;
  order.remote = "store";
  order.present = Description();
  order.next = "{}";
  publish::Settings settings = Settings();
  settings.info_key.clear();
  settings.info_certificate_path.clear();
  const std::string why =
      "store: the description there is signed, and this repository signs none; devices that have "
      "had it take no other";
  ExpectError([&] { NotesOf(order, settings, now_); }, why + " (--yes replaces it all the same)");
  order.insist = true;
  EXPECT_THAT(NotesOf(order, settings, now_), ElementsAre(why + "; it is replaced all the same"));
}

/// A repository that does not sign its descriptions.
class UnsignedOrderTest : public SignedOrderTest {
 protected:
  UnsignedOrderTest() {
    fs::remove_all(Path("repo"));
    fs::remove_all(Path("keys"));
    InitRepository(NewRepository(now_), now_);
    order_.remote = "store";
    MakeReleaseAt(now_ + 1);
    one_ = Description();
    WriteFile(Path("tree/b.txt"), "b");
    MakeReleaseAt(now_ + 2);
    two_ = Description();
  }

  publish::PushOrder order_;
  std::string one_;
  std::string two_;
};

TEST_F(UnsignedOrderTest, VersionsAreComparedDatabaseByDatabase) {
  order_.present = one_;
  order_.next = two_;
  EXPECT_THAT(NotesOf(order_, Settings(), now_), IsEmpty());
  order_.present = two_ + '\n';
  EXPECT_THAT(NotesOf(order_, Settings(), now_), IsEmpty()) << "the same versions";
  order_.next = one_;
  const std::string newer =
      "store: the description there is newer: it offers oui 1000002, and this repository 1000001; "
      "is this repository an older copy? Nothing was changed";
  ExpectError([&] { NotesOf(order_, Settings(), now_); }, newer);
  order_.insist = true;
  ExpectError([&] { NotesOf(order_, Settings(), now_); }, newer);
  publish::ReleaseRequest another = NewRelease();
  another.name = "geo";
  order_.present = two_;
  MakeRelease(
      another, now_ + 3, [](const std::string&) {}, [](const publish::Step&) {});
  order_.next = Description();
  EXPECT_THAT(NotesOf(order_, Settings(), now_), IsEmpty()) << "one that is not there is new";
}

TEST_F(UnsignedOrderTest, WhatLeadsElsewhereIsAnotherRepositorysUnlessItWasPushedFromHere) {
  order_.present = one_;
  order_.next = two_;
  publish::Settings settings = Settings();
  settings.base_url = {"http", "other.example"};
  const std::string why =
      "store: the description there is another repository's: it leads to "
      "http://example.org/packages/oui/oui_v1000001";
  ExpectError([&] { NotesOf(order_, settings, now_); }, why + " (--yes replaces it all the same)");
  order_.last_pushed = publish::Sha384OfText(one_);
  EXPECT_THAT(NotesOf(order_, settings, now_), IsEmpty());
  order_.last_pushed = publish::Sha384OfText(two_);
  order_.insist = true;
  EXPECT_THAT(NotesOf(order_, settings, now_), ElementsAre(why + "; it is replaced all the same"));
}

TEST_F(UnsignedOrderTest, DamagedOneIsReplacedAndThatIsSaid) {
  order_.present = one_.substr(0, one_.size() / 2);
  order_.next = two_;
  EXPECT_THAT(NotesOf(order_, Settings(), now_),
              ElementsAre("store: the description there is damaged, and is replaced"));
}

}  // namespace
}  // namespace tolm::testing
