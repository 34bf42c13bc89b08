// A target for libFuzzer: what a publisher's commands read: the repository's own files, which an
// editor, a failing disk or another release may have changed, and what stores, servers and the
// programs that speak with them say. The first byte says what the rest is. Whatever the bytes are:
// no crash, no access beyond what is there, errors of the types that the headers name, and what was
// read is the same after it was written and read again.

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "package/error.h"
#include "publish/catalog.h"
#include "publish/check_memory.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/pushed.h"
#include "publish/rclone.h"
#include "publish/remote.h"
#include "publish/replay/order.h"
#include "publish/settings.h"
#include "publish/web_fetch.h"
#include "tests/support/fuzzing.h"

namespace {

using namespace tolm::publish;
using tolm::testing::Expect;
using tolm::testing::Get;
using tolm::testing::Put;
namespace fs = std::filesystem;

constexpr char kRepository[] = "/tmp/fuzz-repository";
constexpr std::int64_t kNow = 1900000000;

std::string StateFile() {
  return std::string(kRepository) + "/state/file.json";
}

// ---- Its own files ----

void ReadCatalog(const std::string& text) {
  Put(StateFile(), text);
  Catalog catalog = LoadCatalog(StateFile());
  const std::string written = FormatCatalog(catalog);
  Put(StateFile(), written);
  Expect(FormatCatalog(LoadCatalog(StateFile())) == written);
  for (const auto& [path, package] : PackagesOf(catalog)) {
    Expect(!path.empty() && path == package.path && path.find("..") != 0);
  }
  for (auto& [name, database] : catalog.databases) {
    Expect(!database.releases.empty() && DatabaseNameProblem(name).empty());
    WithdrawnFilesOf(database);
    OfferedUntil(database, 0, kNow);
    Expect(StableRelease(database).version <= database.releases.back().version);
    Expect(OfferedReleases(database).size() <= 2);
    ChainToNewest(database);
  }
  const BaseUrl base = ParseBaseUrl("https://updates.example.org/data");
  const std::string described = DescribeCatalog(catalog, base);
  Expect(ParseDescription(described, "").size() == catalog.databases.size());
  for (auto& [name, database] : catalog.databases) {
    TrimChain(database, kDefaultChainSharePercent, kNow);
    Expect(OfferedChain(database).size() <= database.releases.size());
  }
  LoadCatalog((Put(StateFile(), FormatCatalog(catalog)), StateFile()));
}

void ReadSettings(const std::string& text) {
  Put(StateFile(), text);
  const Settings settings = LoadSettings(StateFile());
  const std::string written = FormatSettings(settings);
  Put(StateFile(), written);
  Expect(FormatSettings(LoadSettings(StateFile())) == written);
  settings.KeyLocation();
  settings.RevocationsFile();
  Expect(MaxShrinkOf(settings, "oui") >= 0 && TestOf(settings, "oui").size() <= text.size());
}

void ReadPushed(const std::string& text) {
  const PushPaths paths(RepositoryPaths(kRepository), "0123");
  Put(paths.File(), text);
  SavePushed(paths, LoadPushed(paths));
  const std::string written = Get(paths.File());
  SavePushed(paths, LoadPushed(paths));
  Expect(Get(paths.File()) == written);
}

void ReadProved(const std::string& text) {
  Put(StateFile(), text);
  const std::string written = FormatProvedChain(LoadProvedChain(StateFile(), "p"), "p");
  Put(StateFile(), written);
  Expect(FormatProvedChain(LoadProvedChain(StateFile(), "p"), "p") == written);
}

// ---- Between the publisher and its replay ----

void ReadOrder(const std::string& text) {
  const std::string written = FormatReplayOrder(ParseReplayOrder(text));
  Expect(FormatReplayOrder(ParseReplayOrder(written)) == written);
}

void ReadAnswer(const std::string& text) {
  const std::string written = FormatReplayAnswer(ParseReplayAnswer(text));
  Expect(FormatReplayAnswer(ParseReplayAnswer(written)) == written);
}

// ---- What others say ----

void ReadTexts(const std::string& text) {
  try {
    const BaseUrl url = ParseBaseUrl(text);
    Expect(ParseBaseUrl(url.Text()).Text() == url.Text());
    PackageLink(url, text);
    LinkProblem(url.Text(), 7);
  } catch (const Error&) {
    // As the header says.
  }
  const RemoteText remote = TakeApart(text);
  WithoutSecrets(text, remote);
  RemotePath(text, "packages/oui");
  InfoVersionProblem(text);
  IsPackagePathOf("oui", text);
  try {
    ParsePercent(text);
  } catch (const Error&) {
  }
  ParseSqliteVersion(text);
}

void ReadDescription(const std::string& text) {
  for (const auto& [name, offer] : ParseDescription(text, "")) {
    Expect(offer.full.link.size() <= text.size());
  }
  DescriptionWarnings(text);
}

// In the place of a program, found by its name: writes what was put there, to whichever of the two
// it is read from.
void PutProgram(const std::string& name, const std::string& script) {
  const std::string file = std::string(kRepository) + "/programs/" + name;
  if (!fs::exists(file)) {
    Put(file, "#!/bin/sh\n" + script);
    ::chmod(file.c_str(), 0755);
  }
}

// Of a store: what rclone says of it, of its files, and meanwhile.
void ReadStore(const std::string& text) {
  constexpr char kFeatures[] =
      R"({"Features":{"IsLocal":false,"BucketBased":true,"Move":true},"Hashes":["md5"]})";
  const std::size_t first = std::min(text.find('\n'), text.size());
  const std::string said = text.substr(0, first);
  const std::string answer = text.substr(std::min(first + 1, text.size()));
  Put(std::string(kRepository) + "/features", said.empty() ? kFeatures : said);
  Put(std::string(kRepository) + "/answer", answer);
  Remote remote("store:bucket");
  remote.UseWork(kRepository);
  for (const auto& [path, bytes] : remote.List()) {
    Expect(path.size() + (bytes == 0 ? 0 : 1) <= answer.size());
  }
}

void ReadStoresLog(const std::string& text) {
  Put(std::string(kRepository) + "/features", text);
  Put(std::string(kRepository) + "/answer", "");
  RcloneRun run;
  run.arguments = {"log"};
  std::uint64_t transferred = 0;
  run.transferred = [&](std::uint64_t bytes) { transferred = bytes; };
  const RcloneEnd end = RunRclone(run);
  for (const std::string& error : end.errors) {
    Expect(error.size() <= 1000);
  }
}

void ReadComparison(const std::string& text) {
  Put(std::string(kRepository) + "/features",
      R"({"Features":{"IsLocal":false,"BucketBased":true,"Move":true},"Hashes":["md5"]})");
  Put(std::string(kRepository) + "/answer", text);
  Remote remote("store:bucket");
  remote.UseWork(kRepository);
  const auto differing = remote.Differing(kRepository, {"packages/oui/oui_v7", "x"}, {});
  Expect(differing.size() <= 2);
}

void ReadWeb(const std::string& text) {
  Put(std::string(kRepository) + "/features", text);
  Put(std::string(kRepository) + "/answer", "body");
  const WebAnswer answer = LookAtWeb("http://updates.example.org/x");
  for (const auto& [name, value] : answer.headers) {
    Expect(name.size() + value.size() <= text.size());
  }
}

void PutPrograms() {
  const std::string here = std::string("cd ") + kRepository + "\n";
  PutProgram("rclone", here +
                           "case \"$*\" in\n*features*) cat features ;;\n*log*) cat features >&2 "
                           ";;\n*) cat answer ;;\nesac\n");
  PutProgram("wget", here + "cat features >&2\ncat answer\n");
  const std::string path = std::string(kRepository) + "/programs:/usr/bin:/bin";
  ::setenv("PATH", path.c_str(), 1);
}

void Read(char kind, const std::string& rest) {
  switch (kind) {
    case 'c':
      return ReadCatalog(rest);
    case 's':
      return ReadSettings(rest);
    case 'p':
      return ReadPushed(rest);
    case 'm':
      return ReadProved(rest);
    case 'o':
      return ReadOrder(rest);
    case 'a':
      return ReadAnswer(rest);
    case 't':
      return ReadTexts(rest);
    case 'd':
      return ReadDescription(rest);
    case 'l':
      return ReadStore(rest);
    case 'L':
      return ReadStoresLog(rest);
    case 'C':
      return ReadComparison(rest);
    case 'w':
      return ReadWeb(rest);
    default:
      return;
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  PutPrograms();
  try {
    Read(kind, rest);
  } catch (const Error&) {
    // What is wrong is told like this, or by one of these.
  } catch (const tolm::package::Error&) {
  } catch (const std::runtime_error&) {
    Expect(kind == 'o' || kind == 'a');
  }
  return 0;
}
