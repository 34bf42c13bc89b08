// A target for libFuzzer: what the library reads of a server's documents, of its own state, and of
// a delta that bears a good signature. The first byte says what the rest is. Whatever the bytes
// are: no crash, no access beyond what is there; a delta that fails leaves the installed files as
// they were, and none changes anything outside of the directory of its database.

#include <SQLiteCpp/SQLiteCpp.h>
#include <json/value.h>
#include <sqlite3.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "base/paths.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update.h"
#include "tests/support/fuzzing.h"
#include "tolm/archive.h"
#include "tolm/exec.h"

namespace {

using namespace tolm;
using namespace tolm::dataupdate;
using tolm::testing::Expect;
using tolm::testing::Get;
using tolm::testing::Put;
namespace fs = std::filesystem;

constexpr char kRoot[] = "/tmp/fuzz-library";
constexpr char kVolume[] = "/tmp/fuzz-library/volume";
constexpr char kInstalled[] = "/tmp/fuzz-library/installed";
constexpr char kDocument[] = "/tmp/fuzz-library/document.json";

using Files = std::map<std::string, std::string>;

Files delta;  // What the package of this moment unpacks to.

Files FilesBelow(const fs::path& root) {
  Files files;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_regular_file() && !entry.is_symlink()) {
      files[entry.path().string()] = Get(entry.path());
    }
  }
  return files;
}

// ---- Records ----

void ReadVersionFile(const std::string& text) {
  Put(kDocument, text);
  const auto rewrite = [] {
    const DatabaseStatus status = DatabaseStatus::FromJson(IOUtils().ReadJson(kDocument));
    IOUtils().WriteJson(kDocument, DatabaseStatus::ToJson(status));
    return DatabaseStatus::FromJson(IOUtils().ReadJson(kDocument));
  };
  const DatabaseStatus written = rewrite();  // Names that are no UTF-8 are others from here on.
  Expect(rewrite() == written);
}

// The answer of a server.
class ReadGetter : public InfoGetter {
 public:
  ReadGetter() : InfoGetter(nullptr, nullptr) {}
  Json::Value GetDatabaseInfo() const override { return IOUtils().ReadJson(kDocument); }
};

void ReadDescription(const std::string& text) {
  Put(kDocument, text);
  const ReadGetter getter;
  const RemoteInfo offered = getter.GetRemoteInfo("oui");
  Expect(RemoteInfo::FromJson(RemoteInfo::ToJson(offered)) == offered);
  getter.GetDiffInfos("oui");
}

// ---- Deltas ----

// A database of SQLite, the same for every script.
const std::string& Database() {
  static const std::string bytes = [] {
    const fs::path file = fs::path(kRoot) / "template.db";
    fs::create_directories(kRoot);
    fs::remove(file);
    {
      SQLite::Database database(file.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
      database.exec("CREATE TABLE a(k INTEGER PRIMARY KEY, t TEXT UNIQUE, n)");
      database.exec("CREATE TABLE b(x, y, PRIMARY KEY(x, y)) WITHOUT ROWID");
      database.exec("CREATE INDEX i ON a(n)");
      database.exec("CREATE TRIGGER d AFTER DELETE ON a BEGIN INSERT INTO b VALUES(old.k, 1); END");
      database.exec("INSERT INTO a VALUES(1, 'one', NULL), (2, 'two', 2.5), (3, 'three', x'00ff')");
      database.exec("INSERT INTO b VALUES(1, 2), ('x', 'y')");
    }
    return Get(file);
  }();
  return bytes;
}

// A script may run for ever, or ask for more memory than there is: another part of the system
// bounds that on devices.
int BoundConnection(sqlite3* connection, char**, const sqlite3_api_routines*) {
  constexpr int kSteps = 200000;
  constexpr int kMostBytes = 1 << 20;
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, kMostBytes);
  sqlite3_progress_handler(
      connection, kSteps, [](void*) { return 1; }, nullptr);
  return SQLITE_OK;
}

void Install() {
  fs::remove_all(kInstalled);
  Put(std::string(kInstalled) + "/plain", "plain text");
  Put(std::string(kInstalled) + "/directory/below", "below");
  Put(std::string(kInstalled) + "/db.sqlite", Database());
  fs::create_symlink("../outside", std::string(kInstalled) + "/link");
}

// Both phases of an update by the present delta.
void ApplyDelta() {
  const std::string outside = std::string(kRoot) + "/outside";
  Put(outside, "outside");
  Install();
  const Files before = FilesBelow(kInstalled);
  const DatabaseStatus installed(1, 1, {});
  const RemoteInfo remote(2, 2, false, "http://server/oui_v2");
  const std::map<int, DiffInfo> offered = {{2, DiffInfo("http://server/oui_d2", 1)}};
  bool prepared = false;
  try {
    DiffStrategy strategy("oui", installed, remote, offered, kVolume, kInstalled, kRoot);
    strategy.PrepareUpdate();
    prepared = true;
    strategy.GetModifiedFiles();
    strategy.ApplyUpdate();
  } catch (const UpdateError&) {
    Expect(prepared || FilesBelow(kInstalled) == before);
  }
  Expect(Get(outside) == "outside");
  Expect(!fs::exists(std::string(kVolume) + "/@tmp/data_update"));
  std::size_t names = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(kRoot)) {
    ++names;
  }
  Expect(names <= 5);  // The volume, what is installed, outside, the template, the document.
}

void ReadPatchInfos(const std::string& text) {
  delta = {{"patch_infos.json", text},
           {"new", "brought"},
           {"directory/new", "brought, too"},
           {"plain.vcdiff", "a patch"},
           {"s.sqlitediff", "UPDATE a SET n = 1;\n"}};
  ApplyDelta();
}

void RunScript(const std::string& text) {
  delta = {
      {"patch_infos.json", R"({"/db.sqlite":{"operation":"update","input_file":"s.sqlitediff"}})"},
      {"s.sqlitediff", text}};
  ApplyDelta();
}

}  // namespace

// In place of the platform's, for the library as well. A handle is its destination.
struct tolmarchive {
  std::uint32_t words[4] = {};
  fs::path destination;
};

extern "C" {

tolmarchive* tolmarchive_init(const char* destination) {
  return new tolmarchive{{}, destination};
}
int tolmarchive_open_with_keytype(tolmarchive*, const char*, int) {
  return 1;
}
int tolmarchive_extract_multiple(tolmarchive* archive, const char* const*, int) {
  for (const auto& [name, bytes] : delta) {
    Put(archive->destination / name, bytes);
  }
  return 1;
}
void tolmarchive_free(tolmarchive* archive) {
  delete archive;
}

// wget has its file, and the decoder decodes: the arguments are "decode", old, new, patch.
int TLIBCExecl(const char* path, int options, ...) {
  if (std::string(path) != paths::kVcdiffDecoder) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, options);
  va_arg(arguments, const char*);
  const std::string source = va_arg(arguments, const char*);
  const std::string target = va_arg(arguments, const char*);
  va_end(arguments);
  Put(target, Get(source) + ", patched");
  return 0;
}
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int bounded = sqlite3_auto_extension(reinterpret_cast<void (*)()>(BoundConnection));
  Expect(bounded == SQLITE_OK);
  fs::create_directories(kVolume);
  fs::create_directories("/run/data_update");
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  try {
    switch (kind) {
      case 'v':
        ReadVersionFile(rest);
        break;
      case 'd':
        ReadDescription(rest);
        break;
      case 'p':
        ReadPatchInfos(rest);
        break;
      case 'q':
        RunScript(rest);
        break;
      default:
        break;
    }
  } catch (const UpdateError&) {
    // What is wrong is told like this, but for a version that is no number.
  } catch (const std::logic_error&) {
  }
  return 0;
}
