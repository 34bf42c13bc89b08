// Plays the device with the SQLite that it is started with: so the publisher's SQLite, which is
// that of the program that has made the script, can be another one.
//
//   tolm-sqlite-device FILE [SCRIPT]
//   tolm-sqlite-device --version
//
// Executes SCRIPT on FILE, then reads all of FILE. Prints what is wrong with it, or nothing. Exit
// status: 0 nothing is wrong, 1 the script fails, 3 FILE cannot be read or is damaged, 2 wrong
// call.

#include <cstdio>
#include <exception>
#include <string>

#include "tests/sqldelta/sqlite_files.h"

namespace {

int Say(const std::string& wrong, int status) {
  std::fputs(wrong.c_str(), stdout);
  return status;
}

int Read(const std::string& path) {
  try {
    const std::string found = tolm::testing::IntegrityOf(path);
    return found == "ok" ? 0 : Say(found, 3);
  } catch (const std::exception& error) {
    return Say(error.what(), 3);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--version") {
    return Say(std::string(sqlite3_libversion()) + "\n", 0);
  }
  if (argc != 2 && argc != 3) {
    std::fputs("usage: tolm-sqlite-device FILE [SCRIPT] | --version\n", stderr);
    return 2;
  }
  if (argc == 3) {
    const std::string error = tolm::testing::ErrorOfScript(argv[1], argv[2]);
    if (!error.empty()) {
      return Say(error, 1);
    }
  }
  return Read(argv[1]);
}
