#include "operation/settings_file.h"

#include <json/reader.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <system_error>
#include <utility>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {
namespace {

constexpr char kNotRegular[] = "is no regular file";
constexpr int kIsNotRegular = -1;

// For the kernel a path ends at a zero byte: it would look at what stands before that.
bool IsThere(const std::string& path) {
  std::error_code ignored;
  return path.find('\0') == std::string::npos &&
         std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

std::string CannotBeRead(int error) {
  return "cannot be read: " + std::generic_category().message(error);
}

// 0 for a text that was read, also an unsound one; otherwise why not.
int TryToRead(const std::string& path, std::string& text) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return kIsNotRegular;
  }
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  try {
    text.assign(std::istreambuf_iterator<char>(in), {});
  } catch (const std::ios_base::failure&) {
    return errno == 0 ? EIO : errno;
  }
  return in.is_open() ? 0 : errno == 0 ? EIO : errno;
}

// The same in words. Nothing to say, and no text, of a file that is not there; what a bad disk does
// not let be looked at may be.
std::string Read(const std::string& path, std::optional<std::string>& text) {
  std::error_code unseen;
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, unseen))) {
    return unseen == std::errc::io_error ? CannotBeRead(EIO) : "";
  }
  const int error = TryToRead(path, text.emplace());
  return error == 0 ? "" : error == kIsNotRegular ? kNotRegular : CannotBeRead(error);
}

// The library tells by its words alone what it could not do.
bool WasRead(const dataupdate::UpdateError& error) {
  return std::string(error.what()).rfind("Fail to decode: ", 0) == 0;
}

// Of the parser's words, which take several lines for each error, those of the first error.
std::string FirstError(const std::string& errors) {
  std::istringstream lines(errors);
  std::string place;
  std::string what;
  std::getline(lines, place);
  std::getline(lines >> std::ws, what);
  std::string line = place.substr(place.find_first_not_of("* ")) + ": " + what;
  for (const char* word : {"Line", "Column"}) {
    if (const std::size_t at = line.find(word); at != std::string::npos) {
      line[at] = static_cast<char>(line[at] - 'A' + 'a');
    }
  }
  return line;
}

// What the library's reader refuses, and not all that is no JSON: it takes comments.
std::unique_ptr<Json::CharReader> NewReader() {
  Json::CharReaderBuilder builder;
  builder["allowTrailingCommas"] = false;
  builder["skipBom"] = false;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

std::string ProblemOfText(const std::string& text) {
  constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
  if (text.rfind(kByteOrderMark, 0) == 0) {
    return "line 1, column 1: a byte order mark stands there";
  }
  const std::unique_ptr<Json::CharReader> reader = NewReader();
  Json::Value document;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
      return document.isObject() ? "is no JSON that can be used" : "holds no JSON object";
    }
  } catch (const Json::Exception& error) {
    return error.what();
  }
  return FirstError(errors);
}

}  // namespace

SettingsFile LoadSettings(const std::string& path) {
  std::optional<std::string> text;
  const std::string problem = Read(path, text);
  if (!problem.empty()) {
    return {std::nullopt, problem, problem != kNotRegular};
  }
  if (!text) {
    return {};
  }
  if (text->empty()) {
    return {std::nullopt, "is empty"};
  }
  try {
    Json::Value document = dataupdate::IOUtils().ReadJson(path);
    if (document.isObject()) {
      return {std::move(document), ""};
    }
  } catch (const dataupdate::UpdateError& error) {
    if (!WasRead(error)) {  // The text was, a moment ago.
      return {std::nullopt, CannotBeRead(EIO), true};
    }
  }
  return {std::nullopt, ProblemOfText(*text)};
}

std::optional<Json::Value> ReadSettings(const std::string& path) {
  return LoadSettings(path).document;
}

bool IsDamagedSettings(const std::string& path) {
  return !ProblemOfSettings(path).empty();
}

std::string ProblemOfSettings(const std::string& path) {
  return LoadSettings(path).problem;
}

std::string ProblemOfFile(const std::string& path) {
  std::optional<std::string> text;
  return Read(path, text);
}

std::string DiskProblem(const std::string& path, const dataupdate::UpdateError& error) {
  if (error.code() == dataupdate::UpdateError::kFileNotExist || WasRead(error)) {
    return "";
  }
  std::string text;
  switch (const int reason = TryToRead(path, text)) {
    case 0:
      return CannotBeRead(EIO);  // It gives the file again.
    case kIsNotRegular:
    case ENOENT:
    case EACCES:
    case EPERM:
      return "";
    default:
      return CannotBeRead(reason);
  }
}

std::vector<std::string> SetAsideOf(const std::string& path) {
  std::vector<std::string> names;
  for (std::string name = path + ".aside"; IsThere(name);
       name = path + ".aside." + std::to_string(names.size() + 1)) {
    names.push_back(name);
  }
  return names;
}

std::string NextAside(const std::string& path) {
  const std::size_t count = SetAsideOf(path).size();
  return path + ".aside" + (count == 0 ? "" : "." + std::to_string(count + 1));
}

}  // namespace tolm::operation
