#include "dataupdate/io_utils.h"

#include <dirent.h>
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <ostream>
#include <sstream>

#include "base/digest.h"
#include "base/log.h"
#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "file_system.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/info.h"
#include "walk.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

constexpr char kLogSource[] = "utils";

// The JSON reader and writer are deprecated by their library but are what this system's files are
// defined by. They are used here only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool ParseJson(const std::string& text, Json::Value& value) {
  try {
    // A string would be copied by the reader.
    return Json::Reader().parse(text.data(), text.data() + text.size(), value, true);
  } catch (const Json::Exception&) {  // nested too deeply
    return false;
  }
}

void StreamJson(std::ostream& out, const Json::Value& value) {
  Json::StyledStreamWriter("\t").write(out, value);
}

#pragma GCC diagnostic pop

std::string TextOfFile(const std::string& path) {
  std::ifstream in(path);
  boost::system::error_code error;
  if (fs::status(path, error).type() == fs::file_not_found) {
    throw UpdateError("File not exist: " + path, UpdateError::kFileNotExist);
  }
  std::ostringstream text;
  // Copying no characters at all counts as a failure of the copy, so an empty file is asked for
  // first.
  if (!in || (in.peek() != std::ifstream::traits_type::eof() && !(text << in.rdbuf())) ||
      in.bad()) {
    throw UpdateError("Fail to read: " + path);
  }
  return text.str();
}

}  // namespace

std::string GetSha384(std::istream& in) {
  base::Sha384 digest;
  // Many small reads are gathered into one larger piece for the digest, which is up to half as
  // fast again.
  constexpr std::streamsize kChunk = 64;
  std::array<char, 1024 * kChunk> gathered;
  std::size_t size = 0;
  while (in.good()) {
    const std::streamsize count = in.readsome(gathered.data() + size, kChunk);
    if (in.fail()) {
      throw UpdateError(messages::kNotReadForDigest);
    }
    if (count == 0) {
      break;
    }
    size += static_cast<std::size_t>(count);
    if (gathered.size() - size < kChunk) {
      digest.Add(gathered.data(), size);
      size = 0;
    }
  }
  digest.Add(gathered.data(), size);
  return digest.Hex();
}

std::string FlatFileName(const std::string& name) {
  std::string flat = name;
  std::replace(flat.begin(), flat.end(), '/', '_');
  std::replace(flat.begin(), flat.end(), '.', '_');
  return flat;
}

std::string TolmGetUserAgent(const std::string& product) {
  std::array<char, 1024> buffer{};
  if (TLIBTminfoUserAgentGet(product.c_str(), buffer.data(), buffer.size()) < 0) {
    throw UpdateError("Fail to generate user agent string");
  }
  return buffer.data();
}

boost::format NoexceptFormat(const std::string& format) noexcept {
  boost::format formatter;
  formatter.exceptions(boost::io::no_error_bits);
  formatter.parse(format);
  return formatter;
}

IOUtils::~IOUtils() = default;

std::uint64_t IOUtils::GetSize(const std::string& path) const {
  try {
    const fs::file_status status = fs::status(path);
    if (fs::is_regular_file(status)) {
      return fs::file_size(path);
    }
    std::uint64_t sum = 0;
    if (fs::is_directory(status)) {
      const auto add_file = [&sum](const std::string& entry) {
        struct stat info;
        if (stat(entry.c_str(), &info) == 0) {
          sum += S_ISREG(info.st_mode) ? static_cast<std::uint64_t>(info.st_size) : 0;
        } else {
          fs::status(entry);  // Whether that is a failure, and in which words.
        }
      };
      IterateDirectory(path, add_file, true);
    }
    return sum;
  } catch (const fs::filesystem_error& error) {
    throw UpdateError("Fail to get size on " + path + ": " + error.what());
  }
}

std::pair<std::int64_t, std::uint64_t> IOUtils::GetFsSize(const std::string& path) const {
  boost::system::error_code error;
  if (!fs::is_directory(path, error)) {
    throw UpdateError(messages::kNoFileSystem);
  }
  const fs::space_info space = fs::space(path, error);
  if (error) {
    throw UpdateError(messages::kNoSpaceSeen);
  }
  return {static_cast<std::int64_t>(space.available), space.capacity};
}

Json::Value IOUtils::ReadJson(const std::string& path) const {
  Json::Value value;
  if (!ParseJson(TextOfFile(path), value)) {
    throw UpdateError("Fail to decode: " + path);
  }
  return value;
}

void IOUtils::WriteJson(const std::string& path, const Json::Value& value) const {
  try {
    const fs::path parent = fs::path(path).parent_path();
    if (!fs::exists(parent)) {
      fs::create_directories(parent);
    }
  } catch (const fs::filesystem_error&) {
    throw UpdateError("Fail to create parent folder: " + path);
  }
  // In place and without a temporary file: other programs may hold the file's inode.
  std::ofstream out(path);
  if (out) {
    StreamJson(out, value);
    out.close();
  }
  if (!out) {
    throw UpdateError("Fail to write: " + path);
  }
}

bool IOUtils::FileCreateOver(const std::string& path, int seconds) const {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    const int reason = errno;
    throw UpdateError(
        (NoexceptFormat("Failed to get attribute of %s, errno=%d") % path % reason).str());
  }
  return static_cast<int>(time(nullptr) - info.st_mtime) > seconds;
}

void IOUtils::RmRf(const std::string& path) const {
  try {
    RemoveAll(path);
  } catch (const fs::filesystem_error&) {
    throw UpdateError((NoexceptFormat("Fail to remove all: %s") % path).str());
  }
}

void IOUtils::CopyFile(const std::string& from, const std::string& to) const {
  try {
    fs::create_directories(fs::path(to).parent_path());
    fs::remove(to);
    CopyEntry(from, to);
  } catch (const fs::filesystem_error& error) {
    throw UpdateError(
        (NoexceptFormat("Fail to copy from %s to %s: %s") % from % to % error.what()).str());
  }
}

void IOUtils::Download(const std::string& output, const std::string& url) const {
  const std::string user_agent = TolmGetUserAgent("database");
  syslog(LOG_DEBUG, "%s:%d Use %s as user agent string", TOLM_LOG_HERE, user_agent.c_str());
  // wget would take such a "URL" for an option, and some options read or write files.
  const bool is_option = !url.empty() && url.front() == '-';
  if (!is_option &&
      TLIBCExecl(paths::kWget, rules::kExecOptions, "-N", url.c_str(), "-O", output.c_str(), "-U",
                 user_agent.c_str(), "--dns-timeout=8", "--connect-timeout=15", "--tries=3",
                 static_cast<const char*>(nullptr)) == 0) {
    return;
  }
  boost::system::error_code ignored;
  fs::remove(output, ignored);
  throw UpdateError("Fail to wget url: " + url);
}

void IOUtils::TolmMkdir(const std::string& path) const {
  if (TOLMFSMkdirP(path.c_str(), 0, 0, -1, -1, -1) != 0) {
    throw UpdateError((NoexceptFormat("Fail to create dir %s") % path).str());
  }
}

void IOUtils::IterateDirectory(const std::string& directory,
                               std::function<void(const std::string&)> callback,
                               bool recursive) const {
  Walk(directory, [&](const WalkEntry& entry) {
    const std::string path = entry.Path();
    if (recursive && entry.type == DT_DIR) {
      IterateDirectory(path, callback, true);
    }
    callback(path);
  });
}

}  // namespace tolm::dataupdate
