#include "operation/installed_record.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <boost/format.hpp>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/digest.h"
#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/records.h"
#include "operation/description_reader.h"
#include "operation/file_digest.h"
#include "operation/service.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::NoexceptFormat;

// The file is JSON of one fixed form, a line for each file, so that a hundred thousand of them are
// read without a tree of values: what has another form is damaged.
constexpr std::string_view kFormatLine = "\"format\": 1,";
constexpr std::size_t kDigestLength = 96;
constexpr mode_t kEverybodyReads = 0644;

std::string RecordPath(const std::string& name) {
  return (NoexceptFormat(paths::kInstalledRecord) % name).str();
}

// ---- Writing ----

// As JSON has it; bytes above ASCII stay.
std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned int>(c));
      quoted += escaped;
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

std::string Octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%06o", static_cast<unsigned int>(mode));
  return text;
}

std::string Hexadecimal(std::uint64_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "%016jx", static_cast<std::uintmax_t>(number));
  return text;
}

std::string HeadText(const InstalledRecord& record) {
  return std::string("{\n").append(kFormatLine) +
         "\n\"version\": " + std::to_string(record.version) + ",\n\"version_file\": \"" +
         record.version_file + "\",\n\"tree\": \"" + Hexadecimal(record.fingerprint) +
         "\",\n\"files\": {\n";
}

std::string FileText(const RecordedFile& file) {
  return Quoted(file.seen.name) + ": {\"mode\": \"" + Octal(file.seen.mode) +
         "\", \"owner\": " + std::to_string(file.seen.owner) +
         ", \"size\": " + std::to_string(file.seen.size) +
         ", \"modified\": " + std::to_string(file.seen.modified_ns) +
         ", \"changed\": " + std::to_string(file.seen.changed_ns) + ", \"sha384\": \"" +
         file.sha384 + "\"}";
}

void WriteText(const base::File& out, const InstalledRecord& record) {
  constexpr std::size_t kPiece = 1 << 16;
  std::string text = HeadText(record);
  const char* separator = "";
  for (const auto& [name, file] : record.files) {
    text.append(separator).append(FileText(file));
    separator = ",\n";
    if (text.size() >= kPiece) {
      out.Write(text);
      text.clear();
    }
  }
  out.Write(text + "\n}\n}\n");
}

// ---- Reading ----

// One line, taken apart from its beginning. Every step says whether it was there.
class Line {
 public:
  explicit Line(std::string_view text) : rest_(text) {}

  bool Skip(std::string_view literal) {
    if (rest_.substr(0, literal.size()) != literal) {
      return false;
    }
    rest_.remove_prefix(literal.size());
    return true;
  }

  template <typename Number>
  bool Take(Number& number, int base = 10) {
    const auto [end, error] =
        std::from_chars(rest_.data(), rest_.data() + rest_.size(), number, base);
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    return error == std::errc();
  }

  bool TakeDigest(std::string& digest) {
    digest = rest_.substr(0, kDigestLength);
    rest_.remove_prefix(digest.size());
    return digest.size() == kDigestLength &&
           digest.find_first_not_of("0123456789abcdef") == std::string::npos;
  }

  // Adds the text in quotation marks; what Quoted does to it is undone.
  bool TakeQuoted(std::string& text) {
    if (!Skip("\"")) {
      return false;
    }
    while (!rest_.empty() && rest_.front() != '"') {
      if (!TakeCharacter(text)) {
        return false;
      }
    }
    return Skip("\"");
  }

  bool IsAtEnd() const { return rest_.empty(); }

 private:
  bool TakeCharacter(std::string& text) {
    if (!Skip("\\")) {
      text += rest_.front();
      rest_.remove_prefix(1);
      return true;
    }
    if (Skip("u00")) {
      unsigned char code = 0;
      const auto [end, error] = std::from_chars(
          rest_.data(), rest_.data() + std::min<std::size_t>(rest_.size(), 2), code, 16);
      const bool is_whole = error == std::errc() && end == rest_.data() + 2;
      rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
      text += static_cast<char>(code);
      return is_whole;
    }
    if (rest_.empty() || (rest_.front() != '"' && rest_.front() != '\\')) {
      return false;
    }
    text += rest_.front();
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view rest_;
};

bool ParseFile(Line line, RecordedFile& file, bool& is_last) {
  TreeFile& seen = file.seen;
  const bool is_good =
      line.TakeQuoted(seen.name) && line.Skip(": {\"mode\": \"") && line.Take(seen.mode, 8) &&
      line.Skip("\", \"owner\": ") && line.Take(seen.owner) && line.Skip(", \"size\": ") &&
      line.Take(seen.size) && line.Skip(", \"modified\": ") && line.Take(seen.modified_ns) &&
      line.Skip(", \"changed\": ") && line.Take(seen.changed_ns) && line.Skip(", \"sha384\": \"") &&
      line.TakeDigest(file.sha384) && line.Skip("\"}");
  is_last = !line.Skip(",");
  return is_good && line.IsAtEnd();
}

class Reader {
 public:
  // Throws base::FileError for a file that is there and does not open.
  explicit Reader(const std::string& path) : path_(path) {
    errno = 0;
    in_.open(path, std::ios::binary);
    if (!in_.is_open() && errno != ENOENT && errno != ENOTDIR) {
      throw base::FileError(errno, "open", path);
    }
  }

  // To be asked when it was not whole: a disk that gives no more is no end of a file.
  void RequireRead() const {
    if (in_.bad()) {
      throw base::FileError(EIO, "read", path_);
    }
  }

  // Each is called once, in this order.
  bool ReadHead(InstalledRecord& record) {
    std::uint64_t& fingerprint = record.fingerprint;
    return Next().Skip("{") && Next().Skip(kFormatLine) && Parse([&](Line& line) {
             return line.Skip("\"version\": ") && line.Take(record.version) && line.Skip(",");
           }) &&
           Parse([&](Line& line) {
             return line.Skip("\"version_file\": \"") && line.TakeDigest(record.version_file) &&
                    line.Skip("\",");
           }) &&
           Parse([&](Line& line) {
             return line.Skip("\"tree\": \"") && line.Take(fingerprint, 16) && line.Skip("\",");
           }) &&
           Next().Skip("\"files\": {");
  }

  /// Whether the file was not cut off, without a look at what stands between. In place of
  /// ReadFiles().
  bool HasEnd() {
    std::string end(5, '\0');
    in_.seekg(-static_cast<std::streamoff>(end.size()), std::ios::end);
    in_.read(end.data(), static_cast<std::streamsize>(end.size()));
    return in_.good() && (end == "\n}\n}\n" || end.substr(1) == "\n}\n}");
  }

  bool ReadFiles(InstalledRecord& record) {
    bool is_last = false;
    while (!is_last) {
      RecordedFile file;
      const Line line = Next();
      if (line.IsAtEnd() && record.files.empty()) {
        break;  // There are none.
      }
      if (!ParseFile(line, file, is_last)) {
        return false;
      }
      const auto position = record.files.end();
      record.files.emplace_hint(position, file.seen.name, std::move(file));
    }
    return Next().Skip("}") && Next().Skip("}");
  }

 private:
  Line Next() {
    std::getline(in_, text_);
    return Line(in_ ? text_ : std::string_view());
  }

  template <typename Steps>
  bool Parse(Steps steps) {
    Line line = Next();
    return steps(line) && line.IsAtEnd();
  }

  const std::string path_;
  std::ifstream in_;
  std::string text_;
};

// A version.json that a disk does not give may be the right one. Throws what FileDigest() does.
bool BelongsToVersionFile(const InstalledRecord& record, const std::string& name) {
  std::error_code error;
  const fs::path file = (NoexceptFormat(paths::kVersionFile) % name).str();
  const bool can_belong = fs::is_regular_file(file, error) || error == std::errc::io_error;
  return can_belong && record.version_file == VersionFileDigest(name);
}

// Whoever opens one waits for its other end.
bool IsPipe(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_fifo(path, ignored);
}

// Throws as Reader and BelongsToVersionFile() do.
RecordHead HeadIn(const std::string& path, const std::string& name) {
  if (!fs::exists(path)) {
    return {RecordState::kMissing};
  }
  InstalledRecord record;
  Reader reader(path);
  if (!reader.ReadHead(record)) {
    reader.RequireRead();
    return {RecordState::kDamaged};
  }
  if (!BelongsToVersionFile(record, name)) {
    return {RecordState::kOutdated};
  }
  if (!reader.HasEnd()) {
    reader.RequireRead();
    return {RecordState::kDamaged};
  }
  return {RecordState::kCurrent, record.fingerprint, record.version};
}

}  // namespace

RecordHead ReadRecordHead(const std::string& name) {
  if (IsPipe(RecordPath(name))) {
    return {RecordState::kDamaged};
  }
  try {
    return HeadIn(RecordPath(name), name);
  } catch (const std::exception&) {
    return {RecordState::kUnreadable};
  }
}

std::optional<InstalledRecord> ReadRecord(const std::string& name) {
  if (IsPipe(RecordPath(name))) {
    return std::nullopt;
  }
  InstalledRecord record;
  Reader reader(RecordPath(name));
  if (reader.ReadHead(record) && BelongsToVersionFile(record, name) && reader.ReadFiles(record)) {
    return record;
  }
  reader.RequireRead();
  return std::nullopt;
}

void WriteRecord(const std::string& name, const InstalledRecord& record) {
  base::Replacement replacement(RecordPath(name));
  base::File out(replacement.staging(), O_WRONLY | O_CREAT | O_TRUNC, kEverybodyReads);
  WriteText(out, record);
  out.SetMode(kEverybodyReads);
  out.Close();
  replacement.PutInPlace();
}

std::string DigestOf(const std::string& directory, const TreeFile& file,
                     const std::function<void()>& step) {
  const std::string path = directory + '/' + file.name;
  if (!S_ISLNK(file.mode)) {
    return FileDigest(path, step);
  }
  const std::string target = std::filesystem::read_symlink(path);
  base::Sha384 digest;
  digest.Add(target.data(), target.size());
  return digest.Hex();
}

int InstalledVersionOf(const std::string& name) noexcept {
  try {
    if (const RecordHead head = ReadRecordHead(name); head.state == RecordState::kCurrent) {
      return head.version;
    }
    const std::string file = (NoexceptFormat(paths::kVersionFile) % name).str();
    return dataupdate::DatabaseStatus::FromJson(DescriptionReader().ReadJson(file)).data_version;
  } catch (const std::exception&) {
    return kNeverInstalled;
  }
}

std::string VersionFileDigest(const std::string& name) {
  return FileDigest((NoexceptFormat(paths::kVersionFile) % name).str(), [] {});
}

}  // namespace tolm::operation
