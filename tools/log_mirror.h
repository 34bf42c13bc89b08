#ifndef TOLM_TOOLS_LOG_MIRROR_H_
#define TOLM_TOOLS_LOG_MIRROR_H_

#include <functional>
#include <string>

namespace tolm::tool {

/// While one exists, every line that this process writes to the system log, the libraries' lines
/// included, is told to its listener as well: in the thread that writes it, one at a time. The
/// listener must not log. One at a time, made and destroyed while there is no other thread.
///
/// A program that has one in it puts syslog() of its own before the C library's, which writes to
/// standard error whatever a server has put into a line.
class LogMirror {
 public:
  using Listener = std::function<void(int priority, const std::string& line)>;

  explicit LogMirror(Listener listener);
  ~LogMirror();
  LogMirror(const LogMirror&) = delete;
  LogMirror& operator=(const LogMirror&) = delete;
};

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_LOG_MIRROR_H_
