#ifndef TOLM_OPERATION_WGET_LOG_H_
#define TOLM_OPERATION_WGET_LOG_H_

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace tolm::operation {

/// What wget writes while it downloads, with the heads of the server's answers in it
/// (server_response): how the last answer went on, and the end of the rest. Takes little memory,
/// however much is written.
class WgetLog {
 public:
  /// The next piece; pieces may end anywhere.
  void Add(std::string_view piece);

  /// What the last answer redirects to, when it is a redirect.
  std::optional<std::string> Redirect() const;
  /// The last lines, without the heads and without anybody's user name and password.
  std::deque<std::string> LastLines() const { return last_lines_; }

 private:
  void AddLine(const std::string& line);
  void AddHead(const std::string& line);

  std::string line_;
  bool is_too_long_ = false;
  int status_ = 0;
  std::string location_;
  std::deque<std::string> last_lines_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_WGET_LOG_H_
