#ifndef TOLM_SUPPORT_SYSLOG_CAPTURE_H_
#define TOLM_SUPPORT_SYSLOG_CAPTURE_H_

#include <string>
#include <vector>

namespace tolm::testing {

struct SyslogLine {
  int priority;        ///< As it was given, with the facility when there was one.
  std::string format;  ///< Before its placeholders were filled in.
  std::string text;    ///< Afterwards.
};

/// What this process has sent to the system log. A test program that uses one of these functions
/// has its own syslog(3) in place of the C library's, for the shared libraries it calls as well:
/// nothing reaches the system. All functions may be called from any thread.
class SyslogCapture {
 public:
  /// Everything since the start or the last Clear(), in the order of the calls.
  static std::vector<SyslogLine> Lines();
  static void Clear();

  /// The texts of one severity (LOG_ERR, ...), whatever their facility.
  static std::vector<std::string> Texts(int severity);

  /// The text without the "<source name>:<line> " that it begins with; unchanged when it begins
  /// otherwise.
  static std::string WithoutPlace(const std::string& text);

  /// Texts(), each of them without its place.
  static std::vector<std::string> TextsWithoutPlace(int severity);
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_SYSLOG_CAPTURE_H_
