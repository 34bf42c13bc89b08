#include "operation/history.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <exception>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string_view>

#include "base/file.h"
#include "base/human_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/utc_time.h"
#include "operation/notes_lock.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "history";
constexpr int kFormat = 1;
constexpr std::uint32_t kLockSeconds = 10;
constexpr std::size_t kMaxFileBytes = 1 << 20;
// What is kept of a file that has become larger. Both are bounds: one for the reader, the other
// because lines are not equally long.
constexpr std::size_t kKeptLines = 1000;
constexpr std::size_t kKeptBytes = kMaxFileBytes / 2;
// A message may hold whatever a server sent.
constexpr std::size_t kMaxMessageBytes = 1000;

void ToJson(const Failure& failure, Json::Value& value) {
  if (failure.reason.empty()) {
    return;
  }
  value["reason"] = failure.reason;
  value["explanation"] = LineOf("", failure).substr(0, kMaxMessageBytes);
  if (failure.http_status != 0) {
    value["http_status"] = failure.http_status;
  }
}

Json::Value ToJson(const HistoryEntry& entry) {
  Json::Value value;
  value["format"] = kFormat;
  value["time"] = entry.time;
  value["operation"] = entry.operation;
  value["database"] = entry.database;
  value["scheduled"] = entry.scheduled;
  value["from"] = entry.from;
  value["to"] = entry.to;
  value["outcome"] = entry.outcome;
  value["message"] = entry.message.substr(0, kMaxMessageBytes);
  value["seconds"] = entry.seconds;
  value["bytes"] = Json::UInt64(entry.bytes);
  ToJson(entry.failure, value);
  if (entry.fell_back) {
    Json::Value& fell_back = value["fell_back"];
    ToJson(entry.fell_back->failure, fell_back);
    fell_back["bytes"] = Json::UInt64(entry.fell_back->bytes);
  }
  if (!entry.server.empty()) {
    value["server"] = entry.server.substr(0, kMaxMessageBytes);
  }
  return value;
}

// What read it back is one text.
void FromJson(const Json::Value& value, Failure& failure) {
  failure.reason = value["reason"].asString();
  failure.text = value["explanation"].asString();
  failure.http_status = value["http_status"].asInt();
}

// One line of ASCII, whatever the texts hold.
std::string ToLine(const HistoryEntry& entry) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["precision"] = 6;
  return Json::writeString(builder, ToJson(entry)) + '\n';
}

// Throws Json::Exception when a member has another type.
HistoryEntry FromJson(const Json::Value& value) {
  HistoryEntry entry;
  entry.time = value["time"].asString();
  entry.operation = value["operation"].asString();
  entry.database = value["database"].asString();
  entry.scheduled = value["scheduled"].asBool();
  entry.from = value["from"].asInt();
  entry.to = value["to"].asInt();
  entry.outcome = value["outcome"].asString();
  entry.message = value["message"].asString();
  entry.seconds = value["seconds"].asDouble();
  entry.bytes = value["bytes"].asUInt64();
  FromJson(value, entry.failure);
  if (value["fell_back"].isObject()) {
    HistoryEntry::FellBack fell_back;
    FromJson(value["fell_back"], fell_back.failure);
    fell_back.bytes = value["fell_back"]["bytes"].asUInt64();
    entry.fell_back = fell_back;
  }
  entry.server = value["server"].asString();
  return entry;
}

class LineReader {
 public:
  // Nothing when the line is damaged.
  std::optional<HistoryEntry> Read(std::string_view line) const {
    Json::Value value;
    try {
      if (reader_->parse(line.data(), line.data() + line.size(), &value, nullptr) &&
          value.isObject() && value["format"] == kFormat) {
        return FromJson(value);
      }
    } catch (const std::exception&) {
      // Damaged, like a line that is no JSON.
    }
    return std::nullopt;
  }

 private:
  static std::unique_ptr<Json::CharReader> Strict() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }

  std::unique_ptr<Json::CharReader> reader_ = Strict();
};

std::string ReadEnd(const base::File& file, std::size_t max_bytes) {
  const std::uint64_t size = file.Size();
  const std::uint64_t skipped = size > max_bytes ? size - max_bytes : 0;
  return file.Read(skipped, max_bytes);
}

// Nothing of one that cannot be read.
std::string ReadHistory() {
  try {
    return ReadEnd(base::File(paths::kHistory, O_RDONLY | O_NONBLOCK), kMaxFileBytes);
  } catch (const std::exception&) {
    return "";
  }
}

// A line that was cut off in the middle does not spoil the one that follows it.
bool EndsWithinLine(const base::File& file) {
  const std::uint64_t size = file.Size();
  return size > 0 && file.Read(size - 1, 1) != "\n";
}

// The newest whole lines of a text that begins somewhere within a line and ends with one.
std::string NewestLines(const std::string& text) {
  std::size_t end_before = text.size() - 1;
  for (std::size_t lines = 0; lines < kKeptLines && end_before > 0; ++lines) {
    const std::size_t found = text.rfind('\n', end_before - 1);
    if (found == std::string::npos) {
      break;
    }
    end_before = found;
  }
  return text.substr(end_before + 1);
}

void Append(const std::string& line) {
  std::filesystem::create_directories(std::filesystem::path(paths::kHistory).parent_path());
  const base::File file(paths::kHistory, O_RDWR | O_APPEND | O_CREAT);
  file.Write(EndsWithinLine(file) ? '\n' + line : line);
  if (file.Size() > kMaxFileBytes) {
    base::ReplaceFile(paths::kHistory, NewestLines(ReadEnd(file, kKeptBytes)));
  }
}

}  // namespace

std::string OutcomeText(const HistoryEntry& entry) {
  const std::string version = std::to_string(entry.to);
  if (entry.outcome == kUpdated) {
    return "updated to " + version;
  }
  if (entry.outcome == kRepaired) {
    return "repaired with " + version;
  }
  if (entry.outcome == kInstalled) {
    return "force-installed " + version;
  }
  if (entry.outcome == kLowered) {
    return "accepts " + version + " and newer";
  }
  return entry.outcome == kUpToDate ? "up to date" : entry.outcome;
}

std::string FellBackText(const HistoryEntry::FellBack& fell_back) {
  Failure failure = fell_back.failure;
  failure.remedy = "the full package was taken, " + base::HumanSize(fell_back.bytes);
  return LineOf("", failure);
}

std::string TimeText(std::int64_t unix_seconds) {
  return base::FormatUtcTime(unix_seconds, "%Y-%m-%dT%H:%M:%SZ");
}

void AppendToHistory(const HistoryEntry& entry) noexcept {
  try {
    const std::string line = ToLine(entry);
    const NotesLock lock(kLockSeconds);
    Append(line);
  } catch (const std::exception& error) {
    syslog(LOG_WARNING, "%s:%d The history is not written: %s", TOLM_LOG_HERE, error.what());
  }
}

void ForEachEntry(const std::function<void(const HistoryEntry&)>& take) {
  const std::string text = ReadHistory();
  const LineReader reader;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (const std::optional<HistoryEntry> entry = reader.Read(line)) {
      take(*entry);
    }
  }
}

std::optional<HistoryEntry> LastOf(const std::string& database) {
  const std::string text = ReadHistory();
  const LineReader reader;
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::size_t begin = rest.find_last_of('\n') + 1;  // npos + 1 is 0.
    std::optional<HistoryEntry> entry = reader.Read(rest.substr(begin));
    if (entry && entry->database == database && entry->outcome != kSkipped) {
      return entry;
    }
    rest = rest.substr(0, begin == 0 ? 0 : begin - 1);
  }
  return std::nullopt;
}

}  // namespace tolm::operation
