#include "publish/workshop.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "publish/files.h"
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
  ASSERT_FALSE(told_.empty());
  EXPECT_EQ(told_.front(), "packing 0/0");
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

TEST_F(WorkshopTest, WhereMuchWouldGoWholeThereIsNoDelta) {
  const publish::Tree before = Release("before", {{"a", "a"}});
  const publish::Tree after = Release("after", {{"b", Noise(std::size_t{1} << 20)}});
  DeltaOrder order;
  order.version = 8;
  order.before = &before;
  order.after = &after;
  try {
    shop_->MakeDelta(order);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const NoDelta& none) {
    EXPECT_STREQ(none.what(), "all its files would go whole, as in the full package");
  }
  EXPECT_FALSE(fs::exists(Path("repo/state/work/oui_d8"))) << "packing is what takes the time";
}

TEST_F(WorkshopTest, TreeThatIsChangedMeanwhileIsNoSourceOfADelta) {
  const std::string much = Noise(std::size_t{1} << 20);
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

}  // namespace
}  // namespace tolm::testing
