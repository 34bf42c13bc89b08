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

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {
namespace {

bool IsThere(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

// Empty for a text that was read, also an unsound one.
std::string Read(const std::string& path, std::string& text) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return "cannot be read: " + std::generic_category().message(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return "is no regular file";
  }
  errno = 0;
  std::ifstream in(path, std::ios::binary);
  text.assign(std::istreambuf_iterator<char>(in), {});
  if (!in.is_open() || in.bad()) {
    return "cannot be read: " + std::generic_category().message(errno == 0 ? EIO : errno);
  }
  return "";
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

std::optional<Json::Value> ReadSettings(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) {
    return std::nullopt;  // Whoever opens a pipe waits for its other end.
  }
  try {
    Json::Value document = dataupdate::IOUtils().ReadJson(path);
    if (document.isObject()) {
      return document;
    }
  } catch (const dataupdate::UpdateError&) {
    // As good as none.
  }
  return std::nullopt;
}

bool IsDamagedSettings(const std::string& path) {
  return !ProblemOfSettings(path).empty();
}

std::string ProblemOfSettings(const std::string& path) {
  if (!IsThere(path)) {
    return "";
  }
  std::string text;
  const std::string problem = Read(path, text);
  if (!problem.empty() || text.empty()) {
    return problem.empty() ? "is empty" : problem;
  }
  return ReadSettings(path).has_value() ? "" : ProblemOfText(text);
}

std::string ProblemOfFile(const std::string& path) {
  std::string text;
  return IsThere(path) ? Read(path, text) : "";
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
