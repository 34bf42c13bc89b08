// With it the C library's header would define the calls inline that are defined here.
#undef _FORTIFY_SOURCE

#include "tests/support/syslog_capture.h"

#include <syslog.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace tolm::testing {
namespace {

struct Record {
  std::mutex mutex;
  std::vector<SyslogLine> lines;
};

Record& TheRecord() {
  // Never destroyed: destructors of other objects may still log.
  static Record* const record = new Record;
  return *record;
}

std::string Format(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int saved_errno = errno;  // "%m" needs it twice.
  const int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length < 0) {
    return "";
  }
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  errno = saved_errno;
  vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

void Keep(int priority, const char* format, va_list arguments) {
  const int saved_errno = errno;
  SyslogLine line{priority, format, Format(format, arguments)};
  Record& record = TheRecord();
  const std::lock_guard<std::mutex> lock(record.mutex);
  record.lines.push_back(std::move(line));
  errno = saved_errno;
}

}  // namespace

std::vector<SyslogLine> SyslogCapture::Lines() {
  Record& record = TheRecord();
  const std::lock_guard<std::mutex> lock(record.mutex);
  return record.lines;
}

void SyslogCapture::Clear() {
  Record& record = TheRecord();
  const std::lock_guard<std::mutex> lock(record.mutex);
  record.lines.clear();
}

std::vector<std::string> SyslogCapture::Texts(int severity) {
  std::vector<std::string> texts;
  for (const SyslogLine& line : Lines()) {
    if (LOG_PRI(line.priority) == severity) {
      texts.push_back(line.text);
    }
  }
  return texts;
}

std::string SyslogCapture::WithoutPlace(const std::string& text) {
  const std::size_t space = text.find(' ');
  const std::size_t colon = space == std::string::npos ? space : text.rfind(':', space);
  if (colon == std::string::npos || colon == 0 || colon + 1 == space) {
    return text;
  }
  for (std::size_t i = colon + 1; i < space; ++i) {
    if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
      return text;
    }
  }
  return text.substr(space + 1);
}

std::vector<std::string> SyslogCapture::TextsWithoutPlace(int severity) {
  std::vector<std::string> texts = Texts(severity);
  for (std::string& text : texts) {
    text = WithoutPlace(text);
  }
  return texts;
}

}  // namespace tolm::testing

// In place of the C library's calls, the checked ones of fortified programs included.
#pragma GCC visibility push(default)
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tolm::testing::Keep(priority, format, arguments);
  va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments) {
  tolm::testing::Keep(priority, format, arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tolm::testing::Keep(priority, format, arguments);
  va_end(arguments);
}

void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  tolm::testing::Keep(priority, format, arguments);
}
}
#pragma GCC visibility pop
