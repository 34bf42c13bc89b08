// With it the C library's header would define the calls inline that are defined here.
#undef _FORTIFY_SOURCE

#include "tools/log_mirror.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace tolm::tool {
namespace {

LogMirror::Listener the_listener;
std::mutex listening;

std::string Format(const char* format, va_list arguments) {
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  if (length < 0) {
    return format;
  }
  std::string line(text, static_cast<std::size_t>(length));
  free(text);
  return line;
}

// "%m" needs errno twice, and who logs may need it afterwards.
void Log(int priority, const char* format, va_list arguments) {
  const int saved_errno = errno;
  va_list copy;
  va_copy(copy, arguments);
  vsyslog(priority, format, arguments);
  const std::lock_guard<std::mutex> lock(listening);
  if (the_listener) {
    errno = saved_errno;
    the_listener(LOG_PRI(priority), Format(format, copy));
  }
  va_end(copy);
  errno = saved_errno;
}

void Listen(LogMirror::Listener listener) {
  const std::lock_guard<std::mutex> lock(listening);
  the_listener = std::move(listener);
}

}  // namespace

LogMirror::LogMirror(Listener listener) {
  Listen(std::move(listener));
}

LogMirror::~LogMirror() {
  Listen(nullptr);
}

}  // namespace tolm::tool

// Before the C library's calls, the checked one of fortified libraries included.
#pragma GCC visibility push(default)
extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tolm::tool::Log(priority, format, arguments);
  va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  tolm::tool::Log(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
#pragma GCC visibility pop
