// Measures SQL scripts as the publisher writes them against one statement a row, both applied by
// the library's own delta strategy.
//
//   tolm-private-root --stage build/release/stage --bind build/release --
//       build/release/bin/sql_apply [--rows N] [--runs N]
//
// Each workload changes a quarter of a table's rows (fixed content):
//   numbers  two columns of numbers of each row
//   texts    a text of about 30 characters
//   inserts  new rows at the end
//   deletes  whole rows
//
// Prints, for each, the median time of the script divided by that of the single statements, taken
// in turns, and both sizes. Times are those of the whole preparation of a delta update: unpacking
// and copying the installed file are in both.

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "dataupdate/strategy.h"
#include "sqldelta/sql_delta.h"
#include "sqldelta/sqlite_compare.h"
#include "tests/support/fake_platform.h"

namespace {

namespace fs = std::filesystem;
using tolm::testing::FakePlatform;
using tolm::testing::ReadFile;

constexpr char kInstalled[] = "/volume1/db/abc/x.db";
constexpr char kOld[] = "/work_files/old.db";
constexpr char kNew[] = "/work_files/new.db";
constexpr char kScript[] = "/work_files/script";

struct Workload {
  const char* name;
  const char* change;     // of the whole table
  const char* statement;  // SELECT of the statements that do the same row by row, in `items`
};

const Workload kWorkloads[] = {
    {"numbers", "UPDATE items SET price=price+1.25,count=count+3 WHERE id%(SELECT n FROM every)=0",
     "SELECT 'UPDATE items SET price='||(price+1.25)||',count='||(count+3)||' WHERE id='||id||';' "
     "FROM items WHERE id%(SELECT n FROM every)=0"},
    {"texts",
     "UPDATE items SET name='another name of number '||id WHERE id%(SELECT n FROM every)=0",
     "SELECT 'UPDATE items SET name='||quote('another name of number '||id)||' WHERE id='||id||';' "
     "FROM items WHERE id%(SELECT n FROM every)=0"},
    {"inserts",
     "INSERT INTO items SELECT id+1000000,name,price,count,note FROM items WHERE id%(SELECT n FROM "
     "every)=0",
     "SELECT 'INSERT INTO items VALUES('||(id+1000000)||','||quote(name)||','||price||','||count||"
     "','||quote(note)||');' FROM items WHERE id%(SELECT n FROM every)=0"},
    {"deletes", "DELETE FROM items WHERE id%(SELECT n FROM every)=0",
     "SELECT 'DELETE FROM items WHERE id='||id||';' FROM items WHERE id%(SELECT n FROM every)=0"},
};

double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void MakeTable(long rows, long every) {
  fs::remove(kOld);
  SQLite::Database database(kOld, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  database.exec("CREATE TABLE every(n); INSERT INTO every VALUES(" + std::to_string(every) + ")");
  database.exec(
      "BEGIN; CREATE TABLE items(id INTEGER PRIMARY KEY,name TEXT,price REAL,count INT,note TEXT);"
      "INSERT INTO items WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<" +
      std::to_string(rows * every) +
      ") SELECT i,'item number '||i,i*0.25,i%977,'a note: '||hex(i*7919%65521) FROM n; COMMIT;");
}

// The new file; and the statements, one a line.
std::string Change(const Workload& workload) {
  fs::copy_file(kOld, kNew, fs::copy_options::overwrite_existing);
  SQLite::Database database(kNew, SQLite::OPEN_READWRITE);
  std::string statements;
  SQLite::Statement rows(database, workload.statement);
  while (rows.executeStep()) {
    statements += rows.getColumn(0).getString() + "\n";
  }
  rows.reset();
  database.exec(workload.change);
  return statements;
}

// Seconds of applying the script to the installed file, which becomes the new one.
double Apply(FakePlatform& platform, const std::string& script) {
  using tolm::dataupdate::DatabaseStatus;
  using tolm::dataupdate::DiffInfo;
  using tolm::dataupdate::DiffStrategy;
  using tolm::dataupdate::RemoteInfo;
  fs::create_directories("/volume1/db/abc");
  fs::copy_file(kOld, kInstalled, fs::copy_options::overwrite_existing);
  platform.OfferPackage("http://host/d2",
                        {{"patch_infos.json",
                          R"({"/x.db": {"operation": "update", "input_file": "x.db.sqlitediff"}})"},
                         {"x.db.sqlitediff", script}});
  DiffStrategy strategy(
      "abc", DatabaseStatus(1, 0, {}), RemoteInfo(2, 50, false, "http://host/full"),
      {{2, DiffInfo("http://host/d2", 1)}}, "/volume1", "/volume1/db/abc", "/volume1");
  const double start = ProcessorSeconds();
  strategy.PrepareUpdate();
  const double time = ProcessorSeconds() - start;
  strategy.ApplyUpdate();
  if (const auto difference = tolm::sqldelta::CompareSqlite(kInstalled, kNew)) {
    throw std::runtime_error("the result is not right: " + *difference);
  }
  return time;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void Measure(const Workload& workload, long runs) {
  const std::string statements = Change(workload);
  if (const auto reason = tolm::sqldelta::MakeSqlDelta(kOld, kNew, kScript)) {
    throw std::runtime_error(*reason);
  }
  const std::string script = ReadFile(kScript);
  FakePlatform platform;
  std::vector<double> script_times;
  std::vector<double> statement_times;
  for (long run = 0; run < runs; ++run) {
    script_times.push_back(Apply(platform, script));
    statement_times.push_back(Apply(platform, statements));
  }
  std::printf("%-10s ratio of times %.2f   bytes %zu : %zu\n", workload.name,
              Median(script_times) / Median(statement_times), script.size(), statements.size());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  long rows = 50'000;
  long runs = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    (std::strcmp(argv[i], "--rows") == 0 ? rows : runs) = std::atol(argv[i + 1]);
  }
  try {
    fs::create_directories("/work_files");
    std::printf("%ld rows changed, median of %ld runs\n", rows, runs);
    for (const long every : {1, 4}) {
      MakeTable(rows, every);
      for (const Workload& workload : kWorkloads) {
        std::printf("of %ld rows: ", rows * every);
        Measure(workload, runs);
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sql_apply: %s\n", error.what());
    return 1;
  }
  return 0;
}
