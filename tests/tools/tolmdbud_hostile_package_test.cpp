// The installed tool against packages and deltas that are forged, spoilt or malicious, most of them
// well signed. Whatever is in one, an update either ends with exactly the offered version, or
// changes nothing and says why.

#include "tests/package/payload_builder.h"
#include "tests/tools/hostile_server.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr int kInstalled = Scene::kInstalled;
constexpr int kOffered = Scene::kOffered;

class HostilePackageTest : public HostileServerFixture,
                           public ::testing::WithParamInterface<Row> {};

TEST_P(HostilePackageTest, UpdateEndsCleanly) {
  HostileServerFixture::UpdateEndsCleanly(GetParam());
}

std::string ExtractFailed(int code) {
  return "tolmarchive_extract /volume1/@tmp/data_update/oui_v1000002 failed, ret: " +
         std::to_string(code) + " (";
}

// ---- Packages: who made them, and whether they are whole ----

Row Served(const std::string& name, const std::function<std::string(Scene&)>& package,
           const std::string& says) {
  return {name, [package](Scene& scene) { WriteFile(scene.Package(), package(scene)); },
          Outcome::kRefused, says};
}

// A payload without scruples, signed by the publisher.
Row Signed(const std::string& name, const std::function<std::string(PayloadBuilder&)>& payload,
           Outcome outcome, const std::string& says) {
  return {name,
          [payload](Scene& scene) {
            PayloadBuilder builder;
            scene.GetPublisher().PackPayload(payload(builder), scene.Package());
          },
          outcome, says};
}

std::string SignedByOthers(Scene& scene, const fs::path& key, const fs::path& certificate) {
  MakeTree("/tmp/evil", Scene::kSecond);
  fs::remove(scene.Package());
  RunCommand({"/usr/bin/tolmdbpub", "pack", "/tmp/evil", "/tmp/oui_v1000002", "--name", "oui",
              "--kind", "full", "--version", "1000002", "--key", key, "--cert", certificate});
  return ReadFile("/tmp/oui_v1000002");
}

std::vector<Row> PackageRows() {
  const auto signed_wrongly =
      [](const std::string& name, const std::function<std::string(PayloadBuilder&)>& payload,
         int code) { return Signed(name, payload, Outcome::kRefused, OpenFailed(code)); };
  return {
      Served(
          "OldVersion", [](Scene& scene) { return ReadFile(scene.Package(kInstalled)); },
          OpenFailed(45)),
      Served(
          "NewerVersionThanOffered",
          [](Scene& scene) {
            scene.GetPublisher().PackFull("oui", 1000003, Scene::kSecond);
            return ReadFile(scene.Package(1000003));
          },
          OpenFailed(45)),
      Served(
          "OfAnotherDatabase",
          [](Scene& scene) {
            scene.GetPublisher().PackFull("geo", kOffered, Scene::kSecond);
            return ReadFile(scene.GetPublisher().FullPackage("geo", kOffered));
          },
          OpenFailed(43)),
      Served(
          "DeltaInPlaceOfFull",
          [](Scene& scene) {
            scene.GetPublisher().PackDelta("oui", kOffered, "{}", {});
            return ReadFile(scene.Delta());
          },
          OpenFailed(44)),
      Served(
          "ForeignSigner",
          [](Scene& scene) {
            RunCommand({"/usr/bin/tolmdbpub", "keygen", "/tmp/other", "--no-passphrase"});
            return SignedByOthers(scene, "/tmp/other/signing.key", "/tmp/other/signing.pem");
          },
          OpenFailed(26)),
      Served(
          "Unsigned",
          [](Scene&) {
            return PayloadBuilder().Seal(Scene::Seal("full")).File("a.txt", "two").Finish();
          },
          OpenFailed(12)),
      Served(
          "SignatureOfLengthZero",
          [](Scene&) {
            return PayloadBuilder().Seal(Scene::Seal("full")).File("a.txt", "two").Finish() +
                   std::string(8, '\0') + "TOLMPKG1";
          },
          OpenFailed(13)),
      Served(
          "SignatureOfHugeLength",
          [](Scene& scene) {
            std::string package = scene.HonestPackage();
            return package.replace(package.size() - 16, 8, std::string(8, '\x7f'));
          },
          OpenFailed(13)),
      Served(
          "SignatureOfTheOldPackage",
          [](Scene& scene) {
            const std::string old = ReadFile(scene.Package(kInstalled));
            const std::string& good = scene.HonestPackage();
            const auto tail = [](const std::string& package) {
              return 16 + static_cast<unsigned char>(package[package.size() - 10]) * 256u +
                     static_cast<unsigned char>(package[package.size() - 9]);
            };
            return good.substr(0, good.size() - tail(good)) + old.substr(old.size() - tail(old));
          },
          OpenFailed(30)),
      Served(
          "FlippedByte",
          [](Scene& scene) {
            std::string package = scene.HonestPackage();
            package[40] = static_cast<char>(package[40] ^ 1);
            return package;
          },
          OpenFailed(30)),
      Served(
          "LastByteMissing",
          [](Scene& scene) {
            return scene.HonestPackage().substr(0, scene.HonestPackage().size() - 1);
          },
          OpenFailed(12)),
      Served(
          "FirstByteMissing", [](Scene& scene) { return scene.HonestPackage().substr(1); },
          OpenFailed(30)),
      Served(
          "OneByteMore", [](Scene& scene) { return scene.HonestPackage() + "x"; }, OpenFailed(12)),
      Served(
          "Twice", [](Scene& scene) { return scene.HonestPackage() + scene.HonestPackage(); },
          OpenFailed(30)),
      Served(
          "OnlyATrailer", [](Scene&) { return std::string(8, '\0') + "TOLMPKG1"; }, OpenFailed(13)),
      Served(
          "Zeros", [](Scene&) { return std::string(1 << 20, '\0'); }, OpenFailed(12)),
      signed_wrongly(
          "PayloadThatIsNoArchive", [](PayloadBuilder&) { return "text, no archive"; }, 40),
      signed_wrongly(
          "PayloadOfAnotherCompression",
          [](PayloadBuilder&) {
            return PayloadBuilder(PayloadBuilder::Filter::kBzip2)
                .Seal(Scene::Seal("full"))
                .File("a.txt", "two")
                .Finish();
          },
          40),
      signed_wrongly(
          "PayloadCutShort",
          [](PayloadBuilder& builder) {
            const std::string payload =
                builder.Seal(Scene::Seal("full")).File("a.txt", "two").Finish();
            return payload.substr(0, payload.size() / 2);
          },
          40),
      signed_wrongly(
          "WithoutASeal",
          [](PayloadBuilder& builder) { return builder.File("a.txt", "two").Finish(); }, 41),
      signed_wrongly(
          "SealThatIsNotFirst",
          [](PayloadBuilder& builder) {
            return builder.File("a.txt", "two").Seal(Scene::Seal("full")).Finish();
          },
          41),
      signed_wrongly(
          "SealThatIsNoJson",
          [](PayloadBuilder& builder) {
            return builder.Seal("<html>").File("a.txt", "two").Finish();
          },
          42),
      signed_wrongly(
          "DeepSeal",
          [](PayloadBuilder& builder) {
            return builder.Seal(Nested(2000)).File("a.txt", "two").Finish();
          },
          42),
      signed_wrongly(
          "HugeSeal",
          [](PayloadBuilder& builder) {
            return builder.Seal(std::string(1 << 20, ' ') + Scene::Seal("full"))
                .File("a.txt", "two")
                .Finish();
          },
          42),
      signed_wrongly(
          "SealWithAFractionalVersion",
          [](PayloadBuilder& builder) {
            return builder.Seal(R"({"name":"oui","kind":"full","version":1000002.5})")
                .File("a.txt", "two")
                .Finish();
          },
          42),
      Signed(
          "OnlyASeal",
          [](PayloadBuilder& builder) { return builder.Seal(Scene::Seal("full")).Finish(); },
          Outcome::kRefused, ExtractFailed(46)),
  };
}

INSTANTIATE_TEST_SUITE_P(PackageContent, HostilePackageTest, ::testing::ValuesIn(PackageRows()),
                         NameOf);

// ---- Members ----

// The offered files, and one oddity before or behind them.
Row Member(const std::string& name, const std::function<void(PayloadBuilder&)>& add,
           Outcome outcome, const std::string& says = "") {
  return Signed(
      name,
      [add](PayloadBuilder& builder) {
        builder.Seal(Scene::Seal("full")).File("a.txt", "two").File("sub/b.txt", "b");
        add(builder);
        return builder.Finish();
      },
      outcome, says);
}

std::vector<Row> MemberRows() {
  const auto refused = [](const std::string& name, int code,
                          const std::function<void(PayloadBuilder&)>& add) {
    return Member(name, add, Outcome::kRefused, ExtractFailed(code));
  };
  const auto ignored = [](const std::string& name,
                          const std::function<void(PayloadBuilder&)>& add) {
    return Member(name, add, Outcome::kUpdated);
  };
  return {
      refused("AbsoluteName", 51, [](auto& payload) { payload.File("/tmp/outside/x", "x"); }),
      refused("DoubleSlashName", 51, [](auto& payload) { payload.File("//tmp/outside/x", "x"); }),
      refused("DotDot", 51, [](auto& payload) { payload.File("../x", "x"); }),
      refused("DotDotInside", 51, [](auto& payload) { payload.File("sub/../../../x", "x"); }),
      refused("DotDotDirectory", 51, [](auto& payload) { payload.Directory("sub/.."); }),
      refused("SecondSeal", 51, [](auto& payload) { payload.Seal(Scene::Seal("full", 1000009)); }),
      refused("FileNamedDot", 51, [](auto& payload) { payload.File(".", "x"); }),
      refused("CharacterDevice", 50, [](auto& payload) { payload.Special("null", AE_IFCHR); }),
      refused("BlockDevice", 50, [](auto& payload) { payload.Special("disk", AE_IFBLK); }),
      refused("Fifo", 50, [](auto& payload) { payload.Special("pipe", AE_IFIFO); }),
      Member(
          "LinkToAFileOutside",
          [](auto& payload) { payload.SymbolicLink("link", "/tmp/outside/canary"); },
          Outcome::kRefused, "path not in base\n"),
      Member(
          "RelativeLinkToAFileOutside",
          [](auto& payload) { payload.SymbolicLink("link", "../../../../tmp/outside/canary"); },
          Outcome::kRefused, "path not in base\n"),
      Member(
          "LinkToAnInstalledFile",
          [](auto& payload) {
            payload.SymbolicLink("link", "/volume1/@database/autoupdate/oui/a.txt");
          },
          Outcome::kRefused, "path not in base\n"),
      Member(
          "LinksInACircle",
          [](auto& payload) { payload.SymbolicLink("x", "y").SymbolicLink("y", "x"); },
          Outcome::kRefused, "Fail to calculate modify info: "),
      ignored("LinkToADirectoryOutside",
              [](auto& payload) { payload.SymbolicLink("link", "/tmp/outside"); }),
      ignored("LinkToADevice", [](auto& payload) { payload.SymbolicLink("link", "/dev/zero"); }),
      ignored("LinkToNothing", [](auto& payload) { payload.SymbolicLink("link", "nothing"); }),
      ignored("LinkToAFileInside", [](auto& payload) { payload.SymbolicLink("link", "a.txt"); }),
      refused("WriteThroughALink", 53,
              [](auto& payload) {
                payload.SymbolicLink("door", "/tmp/outside").File("door/canary", "changed");
              }),
      refused("DirectoryThroughALink", 53,
              [](auto& payload) {
                payload.SymbolicLink("door", "/tmp/outside").Directory("door/new");
              }),
      ignored("FileOverALink",
              [](auto& payload) {
                payload.SymbolicLink("a.txt", "/tmp/outside/canary").File("a.txt", "two");
              }),
      refused("HardLinkToAnAbsoluteName", 52,
              [](auto& payload) { payload.HardLink("hard", "/tmp/outside/canary"); }),
      refused("HardLinkOut", 52,
              [](auto& payload) { payload.HardLink("hard", "../../../../tmp/outside/canary"); }),
      refused("HardLinkToNothing", 52, [](auto& payload) { payload.HardLink("hard", "nothing"); }),
      refused("HardLinkToADirectory", 52, [](auto& payload) { payload.HardLink("hard", "sub"); }),
      refused("HardLinkThroughALink", 53,
              [](auto& payload) {
                payload.SymbolicLink("door", "/tmp/outside").HardLink("hard", "door/canary");
              }),
      ignored("SameNameTwice", [](auto& payload) { payload.File("sub/b.txt", "b"); }),
      refused("FileInPlaceOfADirectory", 54, [](auto& payload) { payload.File("sub", "x"); }),
      refused("FileBelowAFile", 54, [](auto& payload) { payload.File("a.txt/b", "x"); }),
      refused("NameLongerThanNamesMayBe", 61,
              [](auto& payload) { payload.File(std::string(300, 'n'), "x"); }),
      refused("PathLongerThanPathsMayBe", 51,
              [](auto& payload) {
                std::string path;
                for (int i = 0; i < 40; ++i) {
                  path += std::string(200, 'd') + "/";
                }
                payload.File(path + "x", "x");
              }),
      refused("ThousandsOfDirectoriesDeep", 51,
              [](auto& payload) {
                std::string path;
                for (int i = 0; i < 5000; ++i) {
                  path += "d/";
                }
                payload.File(path + "x", "x");
              }),
  };
}

INSTANTIATE_TEST_SUITE_P(Member, HostilePackageTest, ::testing::ValuesIn(MemberRows()), NameOf);

// ---- Bombs: small packages that unpack to much more than the volume holds ----

constexpr la_int64_t kBombBytes = la_int64_t{2} << 30;

std::vector<Row> BombRows() {
  const auto zeros = [](const std::string& name, PayloadBuilder::Filter filter, la_int64_t size) {
    return Row{name,
               [filter, size](Scene& scene) {
                 PayloadBuilder builder(filter);
                 builder.Seal(Scene::Seal("full")).Zeros("zeros", size);
                 scene.GetPublisher().PackPayload(builder.Finish(), scene.Package());
                 ASSERT_LT(fs::file_size(scene.Package()), 1u << 20);
               },
               Outcome::kRefused, ExtractFailed(60)};
  };
  return {
      zeros("TwoGigabytesOfZeros", PayloadBuilder::Filter::kZstd, kBombBytes),
      zeros("ZerosInGzip", PayloadBuilder::Filter::kGzip, 64 << 20),
      zeros("ZerosInXz", PayloadBuilder::Filter::kXz, 64 << 20),
      Member(
          "TwoGigabytesOfHole", [](auto& payload) { payload.SparseFile("hole", kBombBytes, "x"); },
          Outcome::kRefused, ExtractFailed(60)),
      Member(
          "ManyFilesThatTogetherAreTooMuch",
          [](auto& payload) {
            for (int i = 0; i < 32; ++i) {
              payload.File("f" + std::to_string(i), std::string(1 << 20, 'x'));
            }
          },
          Outcome::kRefused, ExtractFailed(60)),
      Row{"WindowOfTwoGigabytes",
          [](Scene& scene) {
            // A zstd frame that wants 2^31 bytes of memory before it says anything.
            scene.GetPublisher().PackPayload(
                std::string("\x28\xb5\x2f\xfd\x00\xa8\x21\x00\x00text", 13), scene.Package());
          },
          Outcome::kRefused, OpenFailed(40)},
  };
}

INSTANTIATE_TEST_SUITE_P(Bomb, HostilePackageTest, ::testing::ValuesIn(BombRows()), NameOf);

// ---- Deltas: whatever is wrong with one, the full package is taken instead ----

struct DeltaRow {
  std::string name;
  std::function<void(Scene&)> make;  // Puts the delta into its place.
  bool is_asked_for = true;          // The library drops some links itself, and nobody is told.
};

std::string NameOfDelta(const ::testing::TestParamInfo<DeltaRow>& info) {
  return info.param.name;
}

void OfferDelta(Scene& scene, const std::string& link) {
  scene.DescribeDeltas(R"({"1000002": {"file_size": 1, "download_link": )" + Quoted(link) + "}}");
}

class HostileDeltaTest : public HostileServerFixture,
                         public ::testing::WithParamInterface<DeltaRow> {};

// Without the full package an update shows what the delta alone does.
TEST_P(HostileDeltaTest, FullPackageIsInstalledInstead) {
  Scene& scene = GetScene();
  OfferDelta(scene, scene.Server().Url(Publisher::PathOf(scene.Delta())));
  GetParam().make(scene);
  fs::remove(scene.Package());
  const auto before = TakeState();
  ExpectRefused(Update(), kDownloadFailed + std::to_string(scene.Server().Port()) +
                              scene.PackagePath() + " (the server answers with an error)\n");
  ExpectNothingLeftBehind();
  EXPECT_TRUE(TakeState() == before);
  WriteFile(scene.Package(), scene.HonestPackage());
  ExpectUpdated(Update(), Scene::kOffered, GetParam().is_asked_for ? FellBack() : "");
  ExpectNothingLeftBehind();
}

// A signed delta with these members.
DeltaRow Delta(const std::string& name, const std::function<void(PayloadBuilder&)>& add) {
  return {name, [add](Scene& scene) {
            PayloadBuilder builder;
            builder.Seal(Scene::Seal("delta"));
            add(builder);
            scene.GetPublisher().PackPayload(builder.Finish(), scene.Delta());
          }};
}

// A signed delta with this description, the input file "in" and a directory "d".
DeltaRow Patches(const std::string& name, const std::string& patch_infos) {
  return Delta(name, [patch_infos](PayloadBuilder& payload) {
    payload.File("patch_infos.json", patch_infos).File("in", "new").File("d/in", "new");
  });
}

// One entry as it should be, whose effect would show, and one for this key.
DeltaRow Key(const std::string& name, const std::string& key, const std::string& operation) {
  return Patches(name, R"({"/a.txt": {"operation": "create", "input_file": "in"}, )" + key +
                           R"(: {"operation": ")" + operation + R"(", "input_file": "in"}})");
}

std::vector<DeltaRow> PatchInfosRows() {
  const std::string entry = R"({"operation": "create", "input_file": "in"})";
  const auto patch = [](const std::string& name, const std::string& json) {
    return Patches(name, "{\"/a.txt\": " + json + "}");
  };
  const auto input = [patch](const std::string& name, const std::string& json) {
    return patch(name, R"({"operation": "create", "input_file": )" + json + "}");
  };
  return {
      Delta("Missing", [](auto& payload) { payload.File("in", "new"); }),
      Delta("IsADirectory", [](auto& payload) { payload.Directory("patch_infos.json"); }),
      Delta("LeadsOut",
            [](auto& payload) {
              payload.SymbolicLink("patch_infos.json", "/tmp/outside/canary").File("in", "new");
            }),
      Patches("Empty", ""),
      Patches("Html", "<html>"),
      Patches("Null", "null"),
      Patches("Array", "[" + entry + "]"),
      Patches("String", "\"/a.txt\""),
      Patches("Number", "1"),
      Patches("Deep", Nested(100000)),
      Patches("CutShort", "{\"/a.txt\": " + entry),
      patch("EntryNull", "null"),
      patch("EntryArray", "[" + entry + "]"),
      patch("EntryString", "\"delete\""),
      patch("EntryDeep", Nested(900)),
      patch("OperationMissing", R"({"input_file": "in"})"),
      patch("OperationNumber", R"({"operation": 1, "input_file": "in"})"),
      patch("OperationUnknown", R"({"operation": "rename", "input_file": "in"})"),
      patch("OperationInCapitals", R"({"operation": "CREATE", "input_file": "in"})"),
      patch("InputMissing", R"({"operation": "create"})"),
      patch("InputMissingForUpdate", R"({"operation": "update"})"),
      patch("InputOfUnknownKind", R"({"operation": "update", "input_file": "in"})"),
      input("InputNumber", "1"),
      input("InputEmpty", "\"\""),
      input("InputThatIsNotThere", "\"none\""),
      input("InputOut", "\"../../../../tmp/outside/canary\""),
      input("InputIsADirectory", "\"d\""),
      input("InputWithNul", "\"in\\u0000x\""),
      Delta("InputThatLeadsOut",
            [entry](auto& payload) {
              payload.File("patch_infos.json", "{\"/a.txt\": " + entry + "}")
                  .SymbolicLink("in", "/tmp/outside/canary");
            }),
      Delta("InputThroughALink",
            [](auto& payload) {
              payload
                  .File("patch_infos.json",
                        R"({"/a.txt": {"operation": "create", "input_file": "d/canary"}})")
                  .SymbolicLink("d", "/tmp/outside");
            }),
      Key("KeyEmpty", "\"\"", "create"),
      Key("KeySlash", "\"/\"", "create"),
      Key("KeyDot", "\"/.\"", "create"),
      Key("KeyDotDot", "\"/..\"", "delete"),
      Key("KeyDotDotWithoutSlash", "\"../x\"", "create"),
      Key("KeyOut", "\"/../../../../tmp/outside/canary\"", "create"),
      Key("KeyOutThroughADirectory", "\"/sub/../../x\"", "create"),
      Key("KeyOutToBeDeleted", "\"/../../../../tmp/outside/canary\"", "delete"),
      Key("KeyOutToBeUpdated", "\"/../../../../tmp/outside/canary\"", "update"),
      Key("KeyWithNul", "\"/x\\u0000y\"", "create"),
      Key("KeyTooLong", Quoted("/" + std::string(300, 'n')), "create"),
      Key("KeyOfNoInstalledFile", "\"/none\"", "update"),
      Key("SameWorkCopyForTwoKeys", "\"/a_txt\"", "create"),
      Key("SameFileByTwoKeys", "\"//a.txt\"", "create"),
      Key("SameFileByADot", "\"/./a.txt\"", "delete"),
      Key("KeyWithSlashBehind", "\"/new/\"", "create"),
      Key("KeyOfAnInstalledDirectory", "\"/sub\"", "create"),
      Key("KeyOfADirectoryToBeDeleted", "\"/sub\"", "delete"),
      Key("KeyBelowAnInstalledFile", "\"/gone.txt/x\"", "create"),
      Key("KeyBelowAnotherKey", "\"/a.txt/x\"", "create"),
  };
}

INSTANTIATE_TEST_SUITE_P(PatchInfos, HostileDeltaTest, ::testing::ValuesIn(PatchInfosRows()),
                         NameOfDelta);

// Serves a signed delta that would delete a file, packed under this name and version, after `edit`.
DeltaRow Packed(const std::string& row, const std::string& name, int version,
                const std::function<std::string(const std::string&)>& edit) {
  return {
      row, [name, version, edit](Scene& scene) {
        scene.GetPublisher().PackDelta(name, version, R"({"/a.txt": {"operation": "delete"}})", {});
        WriteFile(scene.Delta(), edit(ReadFile(scene.GetPublisher().DeltaPackage(name, version))));
      }};
}

DeltaRow Linked(const std::string& name, const std::string& link, bool is_asked_for = true) {
  return {name, [link](Scene& scene) { OfferDelta(scene, link); }, is_asked_for};
}

std::vector<DeltaRow> DeltaPackageRows() {
  const auto as_it_is = [](const std::string& package) { return package; };
  const auto half = [](const std::string& package) {
    return package.substr(0, package.size() / 2);
  };
  return {
      {"NotThere", [](Scene&) {}},
      {"Html", [](Scene& scene) { WriteFile(scene.Delta(), "<html>"); }},
      {"FullInPlaceOfDelta", [](Scene& scene) { WriteFile(scene.Delta(), scene.HonestPackage()); }},
      {"RedirectedToAFile",
       [](Scene& scene) {
         scene.Server().Redirect(Publisher::PathOf(scene.Delta()), "file:///tmp/outside/canary");
       }},
      Packed("CutShort", "oui", kOffered, half),
      Packed("OfAnotherVersion", "oui", 1000003, as_it_is),
      Packed("OfAnotherDatabase", "geo", kOffered, as_it_is),
      Linked("LinkEmpty", ""),
      Linked("LinkIsAnOption", "-i/tmp/outside/canary", false),
      Linked("LinkToAFile", "file:///tmp/outside/canary"),
      Delta("AbsoluteMember", [](auto& payload) { payload.File("/tmp/outside/x", "x"); }),
      Delta("MemberThroughALink",
            [](auto& payload) {
              payload.SymbolicLink("door", "/tmp/outside").File("door/canary", "changed");
            }),
      Delta("TwoGigabytesOfZeros",
            [](auto& payload) {
              payload.File("patch_infos.json", R"({"/a.txt": {"operation": "delete"}})")
                  .Zeros("zeros", kBombBytes);
            }),
  };
}

INSTANTIATE_TEST_SUITE_P(DeltaPackage, HostileDeltaTest, ::testing::ValuesIn(DeltaPackageRows()),
                         NameOfDelta);

// ---- What a delta has decoded or executed ----

// RFC 3284, section 2.
std::string Varint(std::uint64_t value) {
  std::string digits(1, static_cast<char>(value & 0x7f));
  for (value >>= 7; value > 0; value >>= 7) {
    digits.insert(digits.begin(), static_cast<char>((value & 0x7f) | 0x80));
  }
  return digits;
}

// Section 4: a window without a source.
std::string Window(std::uint64_t target_bytes, const std::string& data,
                   const std::string& instructions, const std::string& addresses) {
  const std::string body = Varint(target_bytes) + '\0' + Varint(data.size()) +
                           Varint(instructions.size()) + Varint(addresses.size()) + data +
                           instructions + addresses;
  return '\0' + Varint(body.size()) + body;
}

std::string ZeroWindow(std::uint64_t bytes) {
  return Window(bytes, std::string(1, '\0'), '\0' + Varint(bytes), "");
}

DeltaRow Vcdiff(const std::string& name, const std::string& windows,
                const std::string& header = std::string("\xd6\xc3\xc4\0\0", 5)) {
  return Delta(name, [header, windows](PayloadBuilder& payload) {
    payload
        .File("patch_infos.json",
              R"({"/a.txt": {"operation": "update", "input_file": "a.vcdiff"}})")
        .File("a.vcdiff", header + windows);
  });
}

std::vector<DeltaRow> VcdiffRows() {
  constexpr std::uint64_t kWindowBytes = 8 << 20;
  std::string bomb;
  for (std::uint64_t size = 0; size < std::uint64_t{kBombBytes}; size += kWindowBytes) {
    bomb += ZeroWindow(kWindowBytes);
  }
  return {
      Vcdiff("Empty", "", ""),
      Vcdiff("Garbage", "garbage that is no delta at all", ""),
      Vcdiff("AnotherVersionOfTheFormat", ZeroWindow(8), std::string("\xd6\xc3\xc4\x7f\0", 5)),
      Vcdiff("CutShort", ZeroWindow(8).substr(0, 5)),
      Vcdiff("CopyFromBeyondTheSource", Window(8, "", "\x18", Varint(1000))),
      Vcdiff("LongerThanItsWindow", Window(4, "x", '\0' + Varint(8), "")),
      Vcdiff("SectionsLongerThanTheFile", '\0' + Varint(1 << 30) + "x"),
      Vcdiff("WindowOfTwoGigabytes", ZeroWindow((std::uint64_t{1} << 31) - 1)),
      Vcdiff("WindowOfAlmostAllIntegers", ZeroWindow(UINT64_MAX - 1)),
      Vcdiff("DecodesToTwoGigabytes", bomb),
  };
}

// An empty file is an empty database.
DeltaRow Sql(const std::string& name, const std::string& script) {
  return Delta(name, [script](PayloadBuilder& payload) {
    payload
        .File("patch_infos.json",
              R"({"/gone.txt": {"operation": "update", "input_file": "g.sqlitediff"}})")
        .File("g.sqlitediff", script);
  });
}

std::vector<DeltaRow> SqlRows() {
  return {
      Sql("Garbage", "garbage\n"),
      Sql("HalfAStatement", "CREATE TABLE t (a\n"),
      Sql("Deep", "SELECT " + std::string(100000, '(') + "1" + std::string(100000, ')') + ";\n"),
      Sql("AnotherDatabaseIsChanged",
          "ATTACH '/tmp/outside/empty' AS x;\nCREATE TABLE x.t (a);\nCOMMIT;\n"),
      Sql("AnotherDatabaseIsMade",
          "ATTACH '/tmp/outside/x' AS x;\nCREATE TABLE x.t (a);\nCOMMIT;\n"),
      Sql("CopyIntoAnotherFile", "COMMIT;\nVACUUM INTO '/tmp/outside/x';\n"),
      Sql("ExtensionThatIsLoaded", "SELECT load_extension('/tmp/outside/canary');\n"),
      Sql("MoreThanTheVolumeHolds",
          "CREATE TABLE t (a);\nWITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
          "LIMIT 100) INSERT INTO t SELECT randomblob(1000000) FROM n;\n"),
  };
}

INSTANTIATE_TEST_SUITE_P(Sql, HostileDeltaTest, ::testing::ValuesIn(SqlRows()), NameOfDelta);

INSTANTIATE_TEST_SUITE_P(Vcdiff, HostileDeltaTest, ::testing::ValuesIn(VcdiffRows()), NameOfDelta);

}  // namespace
}  // namespace tolm::testing
