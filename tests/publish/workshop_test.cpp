#include "publish/workshop.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "package/packing.h"
#include "publish/files.h"
#include "publish/small_vcdiff.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Kind;
using publish::DeltaOrder;
using publish::NoDelta;
using publish::Workshop;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class WorkshopTest : public ReleaseFixture {
 protected:
  WorkshopTest() {
    InitRepository(NewRepository(), kNow);
    shop_ = std::make_unique<Workshop>(Path("repo"), "oui", publish::Purpose::kChange, 2, kNow,
                                       notes_, steps_);
    WriteFile(Path("tree/a.txt"), "a");
  }

  std::vector<std::string> told_;
  bool may_note_ = false;
  const publish::Notes notes_ = [this](const std::string& note) { EXPECT_TRUE(may_note_) << note; };
  const publish::Steps steps_ = [this](const publish::Step& step) {
    told_.push_back(step.what + (' ' + std::to_string(step.done)) + '/' +
                    std::to_string(step.total));
  };
  std::unique_ptr<Workshop> shop_;
};

TEST_F(WorkshopTest, PackageIsMadeAndUnpackedInTheWorkDirectory) {
  const publish::PackageRecord record = shop_->Pack(Path("tree"), Kind::kFull, 7);
  const std::string package = Path("repo/state/work/oui_v7");
  EXPECT_EQ(record.path, "packages/oui/oui_v7");
  EXPECT_EQ(record.size_bytes, fs::file_size(package));
  EXPECT_EQ(record.sha384, publish::MeasureFile(package).sha384);
  EXPECT_THAT(told_, ElementsAre("packing 0/0", "packing 1/0"));
  told_.clear();
  const publish::Tree tree = shop_->UnpackPacked(7, "new");
  EXPECT_THAT(told_, ElementsAre("unpacking 0/0"));
  EXPECT_EQ(TreeDigest(tree), TreeDigest(publish::ScanTree(Path("tree"))));
  EXPECT_EQ(ReadFile(Path("repo/state/work/new/a.txt")), "a");
  shop_->Pack(Path("tree"), Kind::kDelta, 7);
  WriteFile(Path("repo/state/work/more/x"), "x");
  shop_->ClearWorkBut(Kind::kFull, 7);
  EXPECT_THAT(ListTree(Path("repo/state/work")), ElementsAre("oui_v7"));
}

TEST_F(WorkshopTest, ReleasedPackageIsUnpackedWhenItIsTheReleasedOne) {
  publish::Release release;
  release.version = 7;
  release.full = shop_->Pack(Path("tree"), Kind::kFull, 7);
  const std::string path = Path("repo/public/packages/oui/oui_v7");
  fs::create_directories(Path("repo/public/packages/oui"));
  fs::copy_file(Path("repo/state/work/oui_v7"), path);
  told_.clear();
  EXPECT_EQ(shop_->UnpackReleased(release, "quiet", true).files.size(), 1u);
  EXPECT_THAT(told_, IsEmpty());
  EXPECT_EQ(shop_->UnpackReleased(release, "old").files.size(), 1u);
  EXPECT_THAT(told_, ElementsAre("unpacking 0/0"));
  ChangeByte(path, 30);
  EXPECT_THROW(shop_->UnpackReleased(release, "other"), publish::Damaged);
  ExpectError([&] { shop_->UnpackReleased(release, "other"); },
              path + ": is not the package that was released");
  fs::remove(path);
  EXPECT_THROW(shop_->UnpackReleased(release, "other"), publish::Damaged);
  ExpectError([&] { shop_->UnpackReleased(release, "other"); }, HasSubstr(path));
}

TEST_F(WorkshopTest, VersionThatItsLinkDoesNotShowIsRefused) {
  shop_->RequireGoodLink(7);
  shop_->change().settings.base_url.netloc = "example7.org";
  ExpectError([this] { shop_->RequireGoodLink(7); },
              AllOf(HasSubstr("version 7 cannot be released: "), HasSubstr("occurs 2 times")));
}

// Of "/a.b" and "/a_b" one update takes one.
TEST_F(WorkshopTest, DeltaFollowsTheLongestEndOfTheChainThatItFits) {
  const auto tree_of = [](const std::map<std::string, std::string>& content) {
    publish::Tree tree;
    for (const auto& [key, digest] : content) {
      tree.files[key] = {key, "", digest.size(), digest};
    }
    return tree;
  };
  const publish::Tree before = tree_of({{"/a.b", "1"}, {"/a_b", "1"}, {"/c", "1"}});
  const publish::Tree after = tree_of({{"/a.b", "2"}, {"/a_b", "1"}, {"/c", "1"}});
  const publish::DeltaRecord other{{}, {"/a_b"}, 0};
  const publish::DeltaRecord same{{}, {"/c"}, 0};
  DeltaOrder order;
  order.before = &before;
  order.after = &after;
  std::vector<std::size_t> unfit;
  const auto first_fit = [&](const std::vector<const publish::DeltaRecord*>& chain) {
    order.chain = chain;
    unfit.clear();
    return shop_->FirstFit(order, [&unfit](std::size_t at, const std::string& why) {
      EXPECT_THAT(why, AllOf(HasSubstr("/a.b"), HasSubstr("/a_b")));
      unfit.push_back(at);
    });
  };
  EXPECT_EQ(first_fit({}), 0u);
  EXPECT_EQ(first_fit({&same, &same}), 0u);
  EXPECT_THAT(unfit, IsEmpty());
  EXPECT_EQ(first_fit({&same, &other, &same}), 2u);
  EXPECT_THAT(unfit, ElementsAre(0, 1));
  EXPECT_EQ(first_fit({&same, &other}), 2u);
  const publish::Tree both = tree_of({{"/a.b", "2"}, {"/a_b", "2"}, {"/c", "1"}});
  order.after = &both;
  EXPECT_THROW(first_fit({}), NoDelta) << "not even by itself";
  EXPECT_THROW(first_fit({&same}), NoDelta);
  EXPECT_THAT(unfit, ElementsAre(0));
}

// Deltas between trees that are made for them, none of which is packed for long.
class WholeFilesTest : public WorkshopTest {
 protected:
  static constexpr std::size_t kMuch = std::size_t{1} << 20;

  std::vector<std::string> KindsBetween(const Tree& old_files, const Tree& new_files) {
    shop_->change().settings.packing.compression = package::CompressionChoice::kZstd;
    const publish::Tree before = Release("before", old_files);
    const publish::Tree after = Release("after", new_files);
    DeltaOrder order;
    order.version = 8;
    order.before = &before;
    order.after = &after;
    std::vector<std::string> kinds;
    for (const publish::FileDelta& file : shop_->MakeDelta(order).files) {
      kinds.push_back(file.key + ' ' + FileDeltaKindText(file.kind));
    }
    fs::remove_all(Path("before"));
    fs::remove_all(Path("after"));
    return kinds;
  }
};

TEST_F(WholeFilesTest, WhereAllAndMuchWouldGoWholeThereIsNoDelta) {
  try {
    KindsBetween({{"a", "a"}}, {{"a", "aa"}, {"b", std::string(kMuch - 2, 'm')}});
    ADD_FAILURE() << "nothing was thrown";
  } catch (const NoDelta& none) {
    EXPECT_STREQ(none.what(), "all its files would go whole, as in the full package");
  }
  EXPECT_FALSE(fs::exists(Path("repo/state/work/oui_d8"))) << "packing is what takes the time";
}

TEST_F(WholeFilesTest, WhereLittleOrNotAllWouldGoWholeThereIsADelta) {
  EXPECT_THAT(
      KindsBetween({{"a", "a"}, {"c", "c"}}, {{"a", "aa"}, {"b", std::string(kMuch - 3, 'm')}}),
      ElementsAre("/a whole", "/b created", "/c deleted"));
  EXPECT_THAT(
      KindsBetween({{"a", "a"}, {"b", Noise(kMuch)}}, {{"a", "aa"}, {"b", Noise(kMuch) + 'x'}}),
      ElementsAre("/a whole", "/b vcdiff"));
  EXPECT_THAT(
      KindsBetween({{"a", ""}, {"same", "s"}}, {{"a", std::string(kMuch, 'm')}, {"same", "s"}}),
      ElementsAre("/a whole"));
}

TEST_F(WorkshopTest, DeltaThatCannotFollowItsChainIsNotMade) {
  const publish::Tree before = Release("before", {{"a.b", "1"}, {"a_b", "1"}, {"c", "1"}});
  const publish::Tree after = Release("after", {{"a.b", "2"}, {"a_b", "1"}, {"c", "1"}});
  const publish::DeltaRecord other{{}, {"/a_b"}, 0};
  DeltaOrder order;
  order.version = 8;
  order.before = &before;
  order.after = &after;
  order.chain = {&other};
  try {
    shop_->MakeDelta(order);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const NoDelta& none) {
    EXPECT_THAT(none.what(), AllOf(HasSubstr("/a.b"), HasSubstr("/a_b")));
  }
  order.chain = {};
  EXPECT_THAT(shop_->MakeDelta(order).delta.keys, ElementsAre("/a.b"));
}

TEST_F(WorkshopTest, TreeThatIsChangedMeanwhileIsNoSourceOfADelta) {
  const std::string much(std::size_t{1} << 20, 'm');
  may_note_ = true;  // What a device would have made of it is not what was read.
  for (const std::string changed : {"before", "after"}) {
    const publish::Tree before = Release("before", {{"a", "a"}, {"u", "u"}});
    const publish::Tree after = Release("after", {{"b", much}, {"u", "u"}});
    DeltaOrder order;
    order.version = 8;
    order.before = &before;
    order.after = &after;
    const std::string file = Path(changed + (changed == "before" ? "/a" : "/b"));
    WriteFile(file, "another");
    ExpectError([&] { shop_->MakeDelta(order); },
                file + ": was changed while the delta was made, by another process");
    fs::remove(file);
    fs::create_symlink("u", file);
    ExpectError([&] { shop_->MakeDelta(order); }, HasSubstr(file + ": was changed while"));
    fs::remove_all(Path("before"));
    fs::remove_all(Path("after"));
  }
}

// Files of noise that each have changed by a byte, and patches that are made ahead, so that they
// can be damaged. One thing is done at a time.
class ProofTest : public ReleaseFixture {
 protected:
  void Order(unsigned files) {
    if (!shop_) {
      InitRepository(NewRepository(), kNow);
      shop_ = std::make_unique<Workshop>(Path("repo"), "oui", publish::Purpose::kChange, 1, kNow,
                                         notes_to_, steps_to_);
    }
    Tree before = {{"same", "s"}};
    Tree after = before;
    for (unsigned file = 0; file < files; ++file) {
      before[NameOf(file)] = Noise(2000, file);
      after[NameOf(file)] = Noise(2000, file) + 'x';
    }
    before_ = Release("before", before);
    after_ = Release("after", after);
    order_.version = 8;
    order_.before = &before_;
    order_.after = &after_;
  }
  static std::string NameOf(unsigned file) { return "f" + std::to_string(file); }
  // What was made ahead for this file.
  std::string PatchOf(unsigned file) const {
    return Path("repo/state/work/patches/" + std::to_string(file) + ".vcdiff");
  }
  void WorkAhead(bool may_tell = false) {
    const std::atomic<bool> may(may_tell);
    shop_->WorkAhead(before_, after_, may);
  }
  publish::MadeDelta MakeDelta() {
    told_.clear();
    return shop_->MakeDelta(order_);
  }
  // How often all has been packed, and applied.
  std::ptrdiff_t Rounds() const { return std::count(told_.begin(), told_.end(), "packing 0/0"); }
  static std::vector<std::string> KindsOf(const publish::MadeDelta& made) {
    std::vector<std::string> kinds;
    for (const publish::FileDelta& file : made.files) {
      kinds.push_back(file.key + ' ' + FileDeltaKindText(file.kind));
    }
    return kinds;
  }
  // In every round, which is one that packs.
  void DamageWhatIsPacked(int rounds) {
    at_step_ = [this, rounds](const std::string& step) {
      if (step == "replaying" && Rounds() <= rounds) {
        ChangeByte(Path("repo/state/work/oui_d8"), 30);
      }
    };
  }

  std::vector<std::string> told_;
  std::vector<std::string> noted_;
  std::function<void(const std::string&)> at_step_ = [](const std::string&) {};
  const publish::Notes notes_to_ = [this](const std::string& note) { noted_.push_back(note); };
  // But for how many bytes are packed.
  const publish::Steps steps_to_ = [this](const publish::Step& step) {
    if (step.what == std::string("packing") && step.done > 0 && step.total == 0) {
      return;
    }
    told_.push_back(step.what + (' ' + std::to_string(step.done)) + '/' +
                    std::to_string(step.total));
    at_step_(step.what);
  };
  publish::Tree before_;
  publish::Tree after_;
  DeltaOrder order_;
  std::unique_ptr<Workshop> shop_;
};

TEST_F(ProofTest, PatchesThatWereMadeAheadAreTakenAndTheirStepsToldWhenTheyMayBe) {
  Order(2);
  told_.clear();
  WorkAhead();
  EXPECT_THAT(told_, IsEmpty());
  const publish::MadeDelta made = MakeDelta();
  EXPECT_THAT(told_, ElementsAre("delta 2/2", "packing 0/0", "replaying 0/0"));
  EXPECT_THAT(KindsOf(made), ElementsAre("/f0 vcdiff", "/f1 vcdiff"));
  EXPECT_THAT(made.delta.keys, ElementsAre("/f0", "/f1"));
  EXPECT_EQ(made.delta.withdrawn, 0);
  EXPECT_EQ(made.delta.package.path, "packages/oui/oui_d8");
  EXPECT_EQ(made.delta.package.size_bytes, fs::file_size(Path("repo/state/work/oui_d8")));
  EXPECT_FALSE(fs::exists(Path("repo/state/work/patches"))) << "the room is needed";
  told_.clear();
  WorkAhead(true);
  EXPECT_THAT(told_, ElementsAre("delta 0/2", "delta 1/2", "delta 2/2"));
  EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(ProofTest, PatchMadeAheadOfAFileThatWasChangedMeanwhileIsMadeAnew) {
  Order(2);
  WriteFile(Path("after/f1"), Noise(2000, 1) + 'y');
  WorkAhead();
  WriteFile(Path("after/f1"), Noise(2000, 1) + 'x');
  EXPECT_THAT(KindsOf(MakeDelta()), ElementsAre("/f0 vcdiff", "/f1 vcdiff"));
  EXPECT_THAT(told_, ElementsAre("delta 1/2", "delta 2/2", "packing 0/0", "replaying 0/0"));
  EXPECT_THAT(noted_, IsEmpty()) << "the patch was not found wrong";
}

TEST_F(ProofTest, WorkAheadThatFailsLeavesNothing) {
  Order(2);
  fs::remove(Path("after/f1"));
  WorkAhead();
  EXPECT_FALSE(fs::exists(Path("repo/state/work/patches")));
  WriteFile(Path("after/f1"), Noise(2000, 1) + 'x');
  EXPECT_THAT(KindsOf(MakeDelta()), ElementsAre("/f0 vcdiff", "/f1 vcdiff"));
}

TEST_F(ProofTest, FilesWhosePatchesLeadElsewhereGoWhole) {
  Order(3);
  WorkAhead();
  for (const unsigned file : std::initializer_list<unsigned>{0, 2}) {
    WriteFile(PatchOf(file),
              publish::EncodeSmallVcdiff(Noise(2000, file), Noise(2000, file) + 'y'));
  }
  const publish::MadeDelta made = MakeDelta();
  EXPECT_THAT(KindsOf(made), ElementsAre("/f0 whole", "/f1 vcdiff", "/f2 whole"));
  EXPECT_THAT(made.delta.keys, ElementsAre("/f0", "/f1", "/f2"));
  const std::string end =
      " did not give the new file when it was applied as devices do; it goes whole";
  EXPECT_THAT(noted_,
              ElementsAre("the vcdiff patch for /f0" + end, "the vcdiff patch for /f2" + end));
  EXPECT_THAT(told_, ElementsAre("delta 3/3", "packing 0/0", "replaying 0/0", "delta 1/3",
                                 "delta 2/3", "delta 3/3", "packing 0/0", "replaying 0/0"));
}

TEST_F(ProofTest, PatchesThatCannotBeAppliedGoWholeOneByOneAndAtLastTogether) {
  const auto made_with_damaged = [this](unsigned damaged) {
    Order(7);
    WorkAhead();
    for (unsigned file = 0; file < damaged; ++file) {
      WriteFile(PatchOf(file), "x");
    }
    noted_.clear();
    return KindsOf(MakeDelta());
  };
  const auto blamed = [](const std::string& key) {
    return ::testing::MatchesRegex("the vcdiff patch for " + key +
                                   " could not be applied as devices do: Fail to apply vcdiff .*; "
                                   "it goes whole");
  };
  EXPECT_THAT(made_with_damaged(4), ElementsAre("/f0 whole", "/f1 whole", "/f2 whole", "/f3 whole",
                                                "/f4 vcdiff", "/f5 vcdiff", "/f6 vcdiff"));
  EXPECT_THAT(noted_, ElementsAre(blamed("/f0"), blamed("/f1"), blamed("/f2"), blamed("/f3")));
  EXPECT_EQ(Rounds(), 5);
  EXPECT_THAT(made_with_damaged(5), ElementsAre("/f0 whole", "/f1 whole", "/f2 whole", "/f3 whole",
                                                "/f4 whole", "/f5 whole", "/f6 whole"));
  EXPECT_THAT(noted_,
              ElementsAre(blamed("/f0"), blamed("/f1"), blamed("/f2"), blamed("/f3"), blamed("/f4"),
                          "after 5 attempts all patches that are left go whole"));
  EXPECT_EQ(Rounds(), 6);
}

TEST_F(ProofTest, DeltaThatCannotBeAppliedForNoPatchIsOneOfWholeFilesOrNone) {
  Order(2);
  const auto unapplied = ::testing::StartsWith("the delta could not be applied as devices do: ");
  DamageWhatIsPacked(1);
  EXPECT_THAT(KindsOf(MakeDelta()), ElementsAre("/f0 whole", "/f1 whole"));
  EXPECT_THAT(noted_,
              ElementsAre(unapplied, "which patch is the cause is not known; all go whole"));
  EXPECT_EQ(Rounds(), 2);
  noted_.clear();
  DamageWhatIsPacked(9);
  try {
    MakeDelta();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const NoDelta& none) {
    EXPECT_STREQ(none.what(), "applied as devices do, it did not give the new version");
  }
  EXPECT_THAT(noted_, ElementsAre(unapplied, "which patch is the cause is not known; all go whole",
                                  unapplied));
  EXPECT_EQ(Rounds(), 2);
  EXPECT_FALSE(fs::exists(Path("repo/state/work/patches")));
}

TEST_F(ProofTest, NewFileThatIsChangedWhileTheDeltaIsProvedIsTold) {
  Order(2);
  at_step_ = [this](const std::string& step) {
    if (step == "replaying") {
      WriteFile(Path("after/f1"), "another");
    }
  };
  ExpectError([this] { MakeDelta(); },
              Path("after/f1") + ": was changed while the delta was made, by another process");
  EXPECT_THAT(noted_, IsEmpty());
}

TEST_F(ProofTest, FileThatNoPatchMakesWrongEndsTheAttempts) {
  Order(1);
  at_step_ = [this](const std::string& step) {
    if (step == "replaying") {
      WriteFile(Path("before/same"), "t");
    } else if (step == "delta") {
      WriteFile(Path("before/same"), "s");
    }
  };
  ExpectError([this] { MakeDelta(); },
              Path("before/same") + ": was changed while the delta was made, by another process");
  const std::string note =
      "the patch for /same did not give the new file when it was applied as devices do; it goes "
      "whole";
  EXPECT_THAT(noted_, ElementsAre(note, note));
  EXPECT_EQ(Rounds(), 2);
}

TEST_F(ProofTest, WhatPackagesDoNotGiveIsToldByItsFirstKeyOrTheDevicesWords) {
  Order(2);
  const publish::MadeDelta made = MakeDelta();
  told_.clear();
  const std::vector<publish::ReplayPackage> packages = {{8, Path("repo/state/work/oui_d8")}};
  EXPECT_EQ(shop_->ReplayProblem(before_, 7, packages, after_), "");
  EXPECT_THAT(told_, ElementsAre("replaying 0/0"));
  const publish::Tree other = Release("other", {{"f0", "0"}, {"f1", "1"}, {"same", "s"}});
  EXPECT_EQ(shop_->ReplayProblem(before_, 7, packages, other), "differs at /f0");
  ChangeByte(packages[0].path, 30);
  const std::string problem = shop_->ReplayProblem(before_, 7, packages, after_);
  EXPECT_THAT(problem, ::testing::Not(::testing::AnyOf("", ::testing::StartsWith("differs"))));
}

}  // namespace
}  // namespace tolm::testing
