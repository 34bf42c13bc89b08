#include "operation/patch_bounds.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>

#include "base/log.h"
#include "base/rules.h"
#include "operation/download_limit.h"
#include "operation/interrupt.h"
#include "operation/program_watch.h"

struct sqlite3_api_routines;

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

constexpr char kLogSource[] = "patch";
constexpr char kScriptEnding[] = ".sqlitediff";
// Virtual instructions of SQLite, a fraction of a millisecond.
constexpr int kInstructionsBetweenLooks = 10000;

thread_local bool bounds_scripts = false;

using Clock = std::chrono::steady_clock;

Clock::time_point Deadline() {
  return Clock::now() + std::chrono::seconds(rules::kPatchSeconds);
}

void LogDeadline(const char* what) {
  syslog(LOG_WARNING, "%s:%d %s is ended after %d s", TOLM_LOG_HERE, what, rules::kPatchSeconds);
}

std::uint64_t SizeOf(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// Lives as long as the connection.
class ConnectionBounds {
 public:
  explicit ConnectionBounds(const std::string& file) : file_(file), deadline_(Deadline()) {
    const std::optional<DownloadLimit> limit = LimitFor(file);
    if (limit) {
      // What the file has already takes no more space.
      file_size_limit_ = std::make_unique<FileSizeLimit>(limit->bytes + SizeOf(file));
    }
  }

  const std::filesystem::path& file() const { return file_; }

  bool MustEnd() {
    if (Interrupt::Received() != 0) {
      return true;
    }
    if (Clock::now() >= deadline_) {
      LogDeadline("an SQL script");
      return true;
    }
    // The limit is one of each file, and there is a journal besides.
    const std::optional<DownloadLimit> limit = LimitFor(file_);
    return limit && limit->bytes == 0;
  }

 private:
  const std::filesystem::path file_;
  const Clock::time_point deadline_;
  std::unique_ptr<FileSizeLimit> file_size_limit_;
};

int MustEnd(void* bounds) {
  return static_cast<ConnectionBounds*>(bounds)->MustEnd() ? 1 : 0;
}

void Destroy(void* bounds) {
  delete static_cast<ConnectionBounds*>(bounds);
}

// How the script is read that the library runs at this moment: the file is open, and it reads on
// from one statement to the next.
enum class Script { kNone, kRead, kNotRead };

Script LookAtOpenScript() {
  std::error_code error;
  for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code gone;
    const int file = std::stoi(entry->path().filename().string());
    struct stat status;
    if (fs::read_symlink(entry->path(), gone).extension() == kScriptEnding &&
        fstat(file, &status) == 0) {
      return lseek(file, 0, SEEK_CUR) == status.st_size ? Script::kRead : Script::kNotRead;
    }
  }
  return Script::kNone;
}

// Beside the copy of the database that it changes, in the deltas' directories.
bool IsThereAScript(const fs::path& copy) {
  std::error_code error;
  for (fs::recursive_directory_iterator entry(copy.parent_path().parent_path(), error), end;
       !error && entry != end; entry.increment(error)) {
    if (entry->path().extension() == kScriptEnding) {
      return true;
    }
  }
  return error.value() != 0;
}

// To the library, which reads it like any text, a script ends where a disk gives no more of it, and
// one that does not open is empty. Such a one is not committed.
int AllowCommitOfWholeScript(void* bounds, int action, const char* what, const char*, const char*,
                             const char*) {
  if (action != SQLITE_TRANSACTION || std::strcmp(what, "COMMIT") != 0) {
    return SQLITE_OK;
  }
  const fs::path& copy = static_cast<ConnectionBounds*>(bounds)->file();
  try {
    const Script script = LookAtOpenScript();
    if (script == Script::kRead || (script == Script::kNone && !IsThereAScript(copy))) {
      return SQLITE_OK;
    }
    syslog(LOG_WARNING, "%s:%d the script for %s was not read to its end", TOLM_LOG_HERE,
           copy.c_str());
  } catch (const std::exception& error) {
    syslog(LOG_WARNING, "%s:%d the script for %s cannot be looked at: %s", TOLM_LOG_HERE,
           copy.c_str(), error.what());
  }
  return SQLITE_DENY;
}

void DoNothing(sqlite3_context*, int, sqlite3_value**) {}

// SQLite tells of the end of a connection only by taking back what was given to it, such as the
// data of a function.
int BoundConnection(sqlite3* connection, char**, const sqlite3_api_routines*) {
  constexpr char kHolder[] = "tolm_operation_bounds";
  const char* const file = sqlite3_db_filename(connection, "main");
  if (!bounds_scripts || file == nullptr || *file == '\0') {
    return SQLITE_OK;
  }
  try {
    auto* const bounds = new ConnectionBounds(file);
    // Destroys them also when it fails.
    const int result = sqlite3_create_function_v2(connection, kHolder, 0, SQLITE_UTF8, bounds,
                                                  DoNothing, nullptr, nullptr, Destroy);
    if (result == SQLITE_OK) {
      sqlite3_progress_handler(connection, kInstructionsBetweenLooks, MustEnd, bounds);
      sqlite3_set_authorizer(connection, AllowCommitOfWholeScript, bounds);
    }
    return result;
  } catch (const std::exception&) {
    return SQLITE_NOMEM;
  }
}

}  // namespace

int RunDecoder(const std::string& output, const std::function<int()>& run) {
  const std::optional<DownloadLimit> limit = LimitFor(output);
  const auto file_size_limit =
      limit ? std::make_unique<FileSizeLimit>(limit->bytes) : std::unique_ptr<FileSizeLimit>();
  ProgramWatch watch([deadline = Deadline()] { return Clock::now() >= deadline; });
  const int exit_status = run();
  watch.Stop();
  if (watch.ended()) {
    LogDeadline("a binary delta");
  }
  return exit_status;
}

void BoundScripts(bool wanted) {
  bounds_scripts = wanted;
  if (wanted) {
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(BoundConnection));
  }
}

}  // namespace tolm::operation
