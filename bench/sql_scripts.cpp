// Measures two SQL scripts for the same file against each other, such as those of two versions of
// the publisher.
//
//   build/release/bin/sql_scripts make OLD.db NEW.db SCRIPT
//   build/release/bin/sql_scripts compare OLD.db SCRIPT OTHER-SCRIPT [RUNS]
//
// "make" writes a script as the publisher does. "compare" executes both on copies of the file, line
// by line in one transaction as devices do, in turns, and prints the median of the ratios of the
// processor's time, pair by pair, with the lowest and the highest. So other work on the machine,
// which meets both of a pair, counts little. It also prints what each kind of statement takes of
// both, as far as the first has it. Copies lie in the directory for temporary files, best one in
// memory.

#include <SQLiteCpp/SQLiteCpp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "sqldelta/sql_delta.h"
#include "sqldelta/sqlite_compare.h"

namespace {

namespace fs = std::filesystem;

double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

std::vector<std::string> LinesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  if (lines.empty()) {
    throw std::runtime_error(path + ": no script");
  }
  return lines;
}

std::string KindOf(const std::string& line) {
  const auto begins = [&](const char* text) { return line.rfind(text, 0) == 0; };
  const auto holds = [&](const char* text) { return line.find(text) != std::string::npos; };
  if (begins("SELECT abs(")) {
    return holds("main.sqlite_master") ? "guards: schema"
           : holds("(VALUES(")         ? "guards: first rows"
           : holds("WITH RECURSIVE")   ? "guards: whole tables"
           : holds(" WHERE NOT(")      ? "guards: CHECKs"
           : holds("sum(")             ? "guards: sums"
                                       : "guards: others";
  }
  const std::size_t end = line.find(' ');
  return line.substr(0, end == std::string::npos ? line.size() : line.find(' ', end + 1));
}

class Applied {
 public:
  explicit Applied(const fs::path& copy) : copy_(copy) {}
  ~Applied() {
    std::error_code ignored;
    fs::remove(copy_, ignored);
  }
  Applied(const Applied&) = delete;
  Applied& operator=(const Applied&) = delete;

  const fs::path& path() const { return copy_; }

  // Seconds; adds those of each kind of statement to `kinds`.
  double Run(const std::string& file, const std::vector<std::string>& lines,
             std::map<std::string, double>& kinds) const {
    fs::copy_file(file, copy_, fs::copy_options::overwrite_existing);
    const double start = ProcessorSeconds();
    {
      SQLite::Database database(copy_.string(), SQLite::OPEN_READWRITE);
      SQLite::Transaction transaction(database);
      for (const std::string& line : lines) {
        const double before = ProcessorSeconds();
        database.exec(line);
        kinds[KindOf(line)] += ProcessorSeconds() - before;
      }
      transaction.commit();
    }
    return ProcessorSeconds() - start;
  }

 private:
  const fs::path copy_;
};

void Print(const std::map<std::string, double>& kinds,
           const std::map<std::string, double>& other_kinds, long runs) {
  std::vector<std::pair<double, std::string>> sorted;
  double sum = 0;
  for (const auto& [kind, seconds] : kinds) {
    sorted.emplace_back(seconds / static_cast<double>(runs), kind);
    sum += seconds / static_cast<double>(runs);
  }
  std::sort(sorted.rbegin(), sorted.rend());
  for (const auto& [seconds, kind] : sorted) {
    if (seconds * 200 > sum) {
      const auto other = other_kinds.find(kind);
      std::printf("  %5.1f %%  %8.2f ms : %8.2f ms  %s\n", 100 * seconds / sum, seconds * 1000,
                  other == other_kinds.end() ? 0 : other->second * 1000 / static_cast<double>(runs),
                  kind.c_str());
    }
  }
}

int Compare(const std::string& file, const std::string& script, const std::string& other,
            long runs) {
  const std::vector<std::string> lines = LinesOf(script);
  const std::vector<std::string> other_lines = LinesOf(other);
  const Applied one(fs::temp_directory_path() / ("sql_scripts.one." + std::to_string(getpid())));
  const Applied two(fs::temp_directory_path() / ("sql_scripts.two." + std::to_string(getpid())));
  std::map<std::string, double> kinds;
  std::map<std::string, double> other_kinds;
  std::vector<double> ratios;
  for (long run = 0; run < runs; ++run) {
    const double seconds = one.Run(file, lines, kinds);
    ratios.push_back(seconds / two.Run(file, other_lines, other_kinds));
  }
  if (const auto difference =
          tolm::sqldelta::CompareSqlite(one.path().string(), two.path().string())) {
    throw std::runtime_error("the results differ: " + *difference);
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf(
      "time  %.3f (%.3f to %.3f, %ld pairs)\nbytes %.4f (%ju : %ju)\n%s:\n",
      ratios[ratios.size() / 2], ratios.front(), ratios.back(), runs,
      static_cast<double>(fs::file_size(script)) / static_cast<double>(fs::file_size(other)),
      static_cast<std::uintmax_t>(fs::file_size(script)),
      static_cast<std::uintmax_t>(fs::file_size(other)), script.c_str());
  Print(kinds, other_kinds, runs);
  return 0;
}

int Make(const std::string& old_path, const std::string& new_path, const std::string& script) {
  if (const auto reason = tolm::sqldelta::MakeSqlDelta(old_path, new_path, script)) {
    throw std::runtime_error(*reason);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr long kRuns = 11;
  try {
    if (argc == 5 && std::strcmp(argv[1], "make") == 0) {
      return Make(argv[2], argv[3], argv[4]);
    }
    if ((argc == 5 || argc == 6) && std::strcmp(argv[1], "compare") == 0) {
      return Compare(argv[2], argv[3], argv[4], argc == 6 ? std::atol(argv[5]) : kRuns);
    }
    std::fprintf(stderr,
                 "usage: sql_scripts make OLD.db NEW.db SCRIPT\n"
                 "       sql_scripts compare OLD.db SCRIPT OTHER-SCRIPT [RUNS]\n");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sql_scripts: %s\n", error.what());
  }
  return 1;
}
