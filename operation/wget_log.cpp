#include "operation/wget_log.h"

#include <strings.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "operation/link_rules.h"

namespace tolm::operation {
namespace {

constexpr char kHeadIndent[] = "  ";
constexpr char kStatusLine[] = "HTTP/";
constexpr char kLocation[] = "Location:";
constexpr std::size_t kMostLineBytes = 65536;
constexpr std::size_t kShownLineBytes = 200;
constexpr std::size_t kMostLines = 20;

bool StartsWith(const std::string& text, const char* begin) {
  return strncasecmp(text.c_str(), begin, std::strlen(begin)) == 0;
}

// What is not printable is written as "\" and three octal digits, and "\" as two of them.
std::string Unescaped(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    unsigned byte = '\\';
    if (text.find_first_not_of("01234567", i + 1) >= i + 4 && i + 3 < text.size()) {
      byte = static_cast<unsigned>(std::strtoul(text.substr(i + 1, 3).c_str(), nullptr, 8)) & 0xff;
      i += 3;
    } else if (i + 1 < text.size()) {
      ++i;
    }
    out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return out;
}

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  return begin == std::string::npos
             ? ""
             : text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

}  // namespace

void WgetLog::Add(std::string_view piece) {
  for (const char c : piece) {
    if (c == '\n') {
      if (!is_too_long_) {
        AddLine(line_);
      }
      line_.clear();
      is_too_long_ = false;
    } else if (line_.size() < kMostLineBytes) {
      line_ += c;
    } else {
      is_too_long_ = true;
    }
  }
}

void WgetLog::AddLine(const std::string& line) {
  if (StartsWith(line, kHeadIndent)) {
    AddHead(Trimmed(line));
    return;
  }
  if (Trimmed(line).empty()) {
    return;
  }
  last_lines_.push_back(WithoutUserInfo(line).substr(0, kShownLineBytes));
  if (last_lines_.size() > kMostLines) {
    last_lines_.pop_front();
  }
}

void WgetLog::AddHead(const std::string& line) {
  if (StartsWith(line, kStatusLine)) {
    const std::size_t blank = line.find(' ');
    status_ = blank == std::string::npos ? 0 : std::atoi(line.c_str() + blank);
    location_.clear();
  } else if (location_.empty() && StartsWith(line, kLocation)) {
    location_ = Unescaped(Trimmed(line.substr(std::strlen(kLocation))));
  }
}

std::optional<std::string> WgetLog::Redirect() const {
  for (const int redirect : {300, 301, 302, 303, 307, 308}) {
    if (status_ == redirect && !location_.empty()) {
      return location_;
    }
  }
  return std::nullopt;
}

}  // namespace tolm::operation
