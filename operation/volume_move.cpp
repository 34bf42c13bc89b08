#include "operation/volume_move.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <tolm/volume.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "operation/interruptible_lock.h"
#include "operation/own_ground.h"
#include "operation/running_program.h"
#include "operation/volume_choice.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::FileLock;

constexpr char kLogSource[] = "volume_move";

struct VolumeMove {
  std::string from;
  std::string to;
};

fs::path MainDirectory(const Service& service, const std::string& volume) {
  return service.volumes->GetMainDirPath(volume);
}

bool Exists(const fs::path& path) {
  return fs::exists(fs::symlink_status(path));
}

std::optional<VolumeMove> Parse(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value mark;
  if (!reader->parse(text.data(), text.data() + text.size(), &mark, nullptr) || !mark.isObject() ||
      !mark["from"].isString() || !mark["to"].isString()) {
    return std::nullopt;
  }
  return VolumeMove{mark["from"].asString(), mark["to"].asString()};
}

std::string ReadAll(const base::File& file) {
  constexpr std::size_t kMostBytes = 64 * 1024;
  return file.Read(0, kMostBytes);
}

// A damaged one names nothing that could be removed; it is kept for whoever wants to know.
std::optional<VolumeMove> ReadMark() {
  if (!Exists(paths::kMoveMark)) {
    return std::nullopt;
  }
  const std::optional<VolumeMove> move = Parse(ReadAll(base::File(paths::kMoveMark, O_RDONLY)));
  if (!move) {
    fs::rename(paths::kMoveMark, std::string(paths::kMoveMark) + ".aside");
    syslog(LOG_WARNING, "%s:%d %s is damaged; kept as move.json.aside", TOLM_LOG_HERE,
           paths::kMoveMark);
  }
  return move;
}

// The tool was killed and not what it had started.
void WaitForMv(const Service& service, const VolumeMove& move) {
  const std::vector<std::string> mv = {paths::kMove, MainDirectory(service, move.from),
                                       MainDirectory(service, move.to)};
  for (std::uint32_t seconds = 0; IsRunning(mv, {move.from, move.to}); ++seconds) {
    if (seconds == rules::kLockWaitSeconds) {
      throw dataupdate::UpdateError("\"" + mv[0] + ' ' + mv[1] + ' ' + mv[2] + "\" still runs");
    }
    PauseUnlessInterrupted(1);
  }
}

bool IsMounted(const std::string& volume) {
  TOLMMountVolInfo record;
  return TOLMMountVolInfoGet(volume.c_str(), &record) != -1;
}

// Room is no question: what needs it is there.
bool CanKeepDatabases(const std::string& volume) {
  constexpr unsigned int kReadWrite = 1;
  TOLMMountVolInfo record;
  return TOLMMountVolInfoGet(volume.c_str(), &record) != -1 && record.is_local != 0 &&
         record.is_healthy != 0 && (record.flags & kReadWrite) != 0 &&
         TOLMVolumeServicePolicy(&record) != 0;
}

// Nothing is removed before everything is copied. So as long as nothing of the copy is missing from
// where it was taken, nothing is missing there.
bool HoldsAllOf(const fs::path& source, const fs::path& copy) {
  if (!Exists(copy)) {
    return true;
  }
  std::error_code error;
  for (fs::recursive_directory_iterator entry(copy, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!Exists(source / entry->path().lexically_relative(copy))) {
      return false;
    }
  }
  if (error) {
    throw base::FileError(error.value(), "list what is below", copy);
  }
  return true;
}

std::string VolumeToKeep(const Service& service, const VolumeMove& move) {
  std::string chosen = service.config->GetCurVolume();
  if (!chosen.empty() && chosen != move.from) {
    return chosen;
  }
  const bool can_stay = CanKeepDatabases(move.from);
  const bool can_go = CanKeepDatabases(move.to);
  if (can_stay && can_go) {
    return HoldsAllOf(MainDirectory(service, move.from), MainDirectory(service, move.to))
               ? move.from
               : move.to;
  }
  return can_stay ? move.from : can_go ? move.to : chosen;
}

void Choose(const Service& service, const std::string& volume) {
  const VolumeChange change{service.config->GetCurVolume(), volume};
  if (change.before != change.after) {
    MakeOwnMainDirectory(volume);
    service.config->SetCurVolume(volume);
  }
  SyncChoice(change);
  syslog(LOG_WARNING, "%s:%d A move of the databases was cut short; they are used on %s.",
         TOLM_LOG_HERE, volume.c_str());
}

// Returns whether nothing is there any more.
bool RemoveFrom(const Service& service, const std::string& volume) {
  if (!IsMounted(volume)) {
    return false;
  }
  const fs::path main = MainDirectory(service, volume);
  try {
    if (Exists(main)) {
      RequireOwnVolume(volume);
      syslog(LOG_WARNING, "%s:%d Removing %s, which a move that was cut short has left",
             TOLM_LOG_HERE, main.c_str());
      fs::remove_all(main);
      base::File(volume, O_RDONLY | O_DIRECTORY).SyncFileSystem();
    }
    return true;
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d %s stays: %s", TOLM_LOG_HERE, main.c_str(), error.what());
    return false;
  }
}

void RemoveMark() {
  fs::remove(paths::kMoveMark);
  base::SyncDirectory(paths::kStateDirectory);
}

}  // namespace

bool NoteMove(const Service& service, const std::string& from, const std::string& to) {
  const fs::path source = MainDirectory(service, from);
  const fs::path target = MainDirectory(service, to);
  if (!Exists(source) || (Exists(target) && !fs::is_empty(target))) {
    return false;
  }
  Json::Value mark;
  mark["from"] = from;
  mark["to"] = to;
  base::ReplaceFile(paths::kMoveMark, Json::writeString(Json::StreamWriterBuilder(), mark) + '\n');
  return true;
}

void ForgetMove(const std::string& from) {
  base::File(from, O_RDONLY | O_DIRECTORY).SyncFileSystem();
  RemoveMark();
}

void SettleMove(const Service& service) {
  if (!Exists(paths::kMoveMark)) {
    return;
  }
  const FileLock operator_lock = InterruptibleLock(paths::kOperatorLock);
  const FileLock any_lock = InterruptibleLock(paths::kUpdateAnyLock);
  const std::optional<VolumeMove> move = ReadMark();
  if (!move) {
    return;
  }
  WaitForMv(service, *move);
  const std::string kept = VolumeToKeep(service, *move);
  if (kept.empty()) {
    return;
  }
  Choose(service, kept);
  bool is_settled = true;
  for (const std::string& volume : {move->from, move->to}) {
    is_settled = (volume == kept || RemoveFrom(service, volume)) && is_settled;
  }
  if (is_settled) {
    RemoveMark();
  }
}

}  // namespace tolm::operation
