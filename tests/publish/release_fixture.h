#ifndef TOLM_TESTS_PUBLISH_RELEASE_FIXTURE_H_
#define TOLM_TESTS_PUBLISH_RELEASE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <utility>

#include "package/package.h"
#include "publish/delta.h"
#include "publish/files.h"
#include "publish/key_generator.h"
#include "publish/release.h"
#include "publish/repository.h"
#include "publish/signer.h"
#include "publish/tree.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {

/// Releases, their deltas and packages below one temporary directory.
class ReleaseFixture : public ::testing::Test {
 protected:
  static constexpr std::time_t kNow = 1800000000;

  std::string Path(const std::string& name) const { return directory_.Path() / name; }

  /// An order to make "repo", with keys that are made in "keys" for it.
  publish::InitRequest NewRepository(std::time_t now = kNow) const {
    publish::GenerateKeys(Path("keys"), now);
    publish::InitRequest request;
    request.repository = Path("repo");
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = Path("keys/signing.key");
    request.settings.certificate_path = Path("keys/signing.pem");
    return request;
  }

  /// The same, and it signs its descriptions.
  publish::InitRequest NewSignedRepository(std::time_t now) const {
    publish::InitRequest request = NewRepository(now);
    request.settings.root_path = Path("keys/root.pem");
    request.settings.info_key = Path("keys/info.key");
    request.settings.info_certificate_path = Path("keys/info.pem");
    return request;
  }

  /// An order to release a tree of one file as "oui" of that repository.
  publish::ReleaseRequest NewRelease() const {
    WriteFile(Path("tree/a.txt"), "a");
    publish::ReleaseRequest request;
    request.repository = Path("repo");
    request.name = "oui";
    request.directory = Path("tree");
    return request;
  }

  /// Puts these releases into that repository; each of their packages has the same few bytes,
  /// whatever its record says of the size.
  void PutReleases(const std::string& name, publish::Database database) const {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.Begin("test");
    const auto put = [&](package::Kind kind, int version, publish::PackageRecord& record) {
      record.path = publish::PackagePath(change.catalog.part, name, kind, version);
      record.sha384 = publish::Sha384OfText("package");
      WriteFile(change.paths().Work() + "/package", "package");
      change.Publish(change.paths().Work() + "/package", record);
    };
    for (publish::Release& release : database.releases) {
      put(package::Kind::kFull, release.version, release.full);
      if (release.delta) {
        put(package::Kind::kDelta, release.version, release.delta->package);
      }
    }
    change.catalog.databases[name] = std::move(database);
    change.Commit();
  }

  publish::Tree Release(const std::string& name, const Tree& files) {
    std::filesystem::create_directories(Path(name));
    MakeTree(Path(name), files);
    return publish::ScanTree(Path(name));
  }

  /// The bytes of an SQLite file made by these statements.
  std::string Database(const std::string& sql) {
    std::filesystem::remove(Path("made.db"));
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(Path("made.db").c_str(), &database), SQLITE_OK);
    char* problem = nullptr;
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &problem), SQLITE_OK)
        << problem;
    sqlite3_free(problem);
    sqlite3_close(database);
    return ReadFile(Path("made.db"));
  }

  /// A table of 2,000 rows, in which `changed` of them say something else, then `more`.
  std::string Table(int changed, const std::string& more = "") {
    return Database(
        "CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT);"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000)"
        "INSERT INTO t SELECT i, 'value ' || (i * 7919 % 10007) || iif(i <= " +
        std::to_string(changed) + ", ' changed', '') FROM n;" + more);
  }

  TemporaryDirectory directory_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PUBLISH_RELEASE_FIXTURE_H_
