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
constexpr char kNotWritten[] = "Cannot write to ";  // "Cannot write to 'file' (reason)."
constexpr std::size_t kMostLineBytes = 65536;
constexpr std::size_t kShownLineBytes = 200;
constexpr std::size_t kMostLines = 20;

struct CauseText {
  const char* text;
  WgetCause cause;
};

// All that tells one from another is wget's text. Of several in one line the one that stands
// further down here counts, of several in one attempt that whose cause does.
constexpr CauseText kCauseTexts[] = {
    {"No data received", WgetCause::kBroken},
    {"Connection closed at byte", WgetCause::kBroken},
    {"Read error", WgetCause::kBroken},
    {"Write error", WgetCause::kBroken},
    {"Connection reset by peer", WgetCause::kBroken},
    {"Unable to establish SSL connection", WgetCause::kTlsFailed},
    {"GnuTLS: ", WgetCause::kTlsFailed},
    {"No route to host", WgetCause::kNotReached},
    {"etwork is unreachable", WgetCause::kNotReached},
    {"Connection refused", WgetCause::kRefused},
    {"imed out", WgetCause::kTimedOut},
    {"unable to resolve host address", WgetCause::kNameNotResolved},
    {"failed: Name or service not known", WgetCause::kNameNotResolved},
    {"failed: Temporary failure in name resolution", WgetCause::kNameNotResolved},
    {"No space left on device", WgetCause::kNoRoom},
    {"Disk quota exceeded", WgetCause::kNoRoom},
    {" is not trusted.", WgetCause::kTlsNotTrusted},
    {"cannot verify ", WgetCause::kTlsNotTrusted},
    {"doesn't have a known issuer", WgetCause::kTlsNotTrusted},
    {"has been revoked", WgetCause::kTlsNotTrusted},
    {"was signed using an insecure algorithm", WgetCause::kTlsNotTrusted},
    {"The certificate's owner does not match hostname", WgetCause::kTlsOtherName},
    {"no certificate subject alternative name matches", WgetCause::kTlsOtherName},
    {"certificate common name", WgetCause::kTlsOtherName},
    {"not yet activated", WgetCause::kTlsNotYetValid},
    {"not yet been activated", WgetCause::kTlsNotYetValid},
    {"certificate not yet valid", WgetCause::kTlsNotYetValid},
    {"certificate has expired", WgetCause::kTlsExpired},
    {" has expired", WgetCause::kTlsExpired}};

std::optional<WgetCause> CauseIn(const std::string& line) {
  const CauseText* found = nullptr;
  for (const CauseText& row : kCauseTexts) {
    if (line.find(row.text) != std::string::npos) {
      found = &row;
    }
  }
  return found == nullptr ? std::nullopt : std::make_optional(found->cause);
}

// Between the two, "Connecting to localhost (localhost)|127.0.0.1|:443... " and "Resolving name
// (name)... ": the name, with the port where one is told.
std::string PeerIn(const std::string& line, const char* begin) {
  const std::size_t start = std::strlen(begin);
  const std::string told = line.substr(start, line.find("...", start) - start);
  const std::size_t blank = told.find(' ');
  if (blank == std::string::npos) {
    return told;
  }
  const std::size_t port = told.rfind("|:");
  return told.substr(0, blank) + (port == std::string::npos ? "" : told.substr(port + 1));
}

std::string WriteErrorIn(const std::string& line) {
  const std::size_t begin = line.rfind('(');
  const std::size_t end = line.rfind(')');
  return begin == std::string::npos || end == std::string::npos || end < begin
             ? ""
             : line.substr(begin + 1, end - begin - 1);
}

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
  NoteCause(line);
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

// From an answer on, most of what is written is the server's own: its head, what it calls its
// status, a link. "2026-11-21 10:00:00 (1.2 MB/s) - Read error ..." is not, and is no other line.
std::string WgetLog::OwnText(const std::string& line) const {
  constexpr std::size_t kTimeBytes = 19;
  constexpr char kEndsRate[] = ") - ";
  if (!has_sent_request_ || StartsWith(line, kNotWritten)) {
    return line;
  }
  const std::size_t rate = line.find(kEndsRate);
  const bool is_told_at_end =
      rate != std::string::npos && line[0] == '2' && line.find(" (", kTimeBytes) == kTimeBytes;
  return is_told_at_end ? line.substr(rate) : "";
}

void WgetLog::NoteCause(const std::string& line) {
  constexpr char kAttempt[] = "--";  // "--2026-11-21 10:00:00--  http://..."
  if (StartsWith(line, kAttempt)) {
    cause_.reset();
    write_error_.clear();
    status_ = 0;
    has_sent_request_ = false;
    return;
  }
  if (StartsWith(line, kNotWritten)) {
    write_error_ = WriteErrorIn(line);
  }
  for (const char* begin : {"Resolving ", "Connecting to "}) {
    if (!has_sent_request_ && StartsWith(line, begin)) {
      peer_ = PeerIn(line, begin);
    }
  }
  const std::optional<WgetCause> cause = CauseIn(OwnText(line));
  if (cause && (!cause_ || *cause_ < *cause)) {
    cause_ = cause;
  }
  const bool asks = StartsWith(line, "HTTP request sent") || StartsWith(line, "Proxy request sent");
  has_sent_request_ = has_sent_request_ || asks;
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
