#ifndef TOLM_OPERATION_WGET_LOG_H_
#define TOLM_OPERATION_WGET_LOG_H_

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace tolm::operation {

/// What kept wget from an answer. Where an attempt met several, the last in this order is told.
enum class WgetCause {
  kBroken,
  kTlsFailed,
  kNotReached,
  kRefused,
  kTimedOut,
  kNameNotResolved,
  kTlsNotTrusted,
  kTlsOtherName,
  kTlsNotYetValid,
  kTlsExpired,
  kNoRoom
};

/// What wget writes while it downloads, with the heads of the server's answers in it
/// (server_response): how the last answer went on, and the end of the rest. Takes little memory,
/// however much is written.
class WgetLog {
 public:
  /// The next piece; pieces may end anywhere.
  void Add(std::string_view piece);

  /// What the last answer redirects to, when it is a redirect.
  std::optional<std::string> Redirect() const;
  /// The status of the last answer; 0 when there was none.
  int Status() const { return status_; }
  /// Whether its last attempt has got so far that it has asked.
  bool HasSentRequest() const { return has_sent_request_; }
  /// What ended its last attempt, where that is no answer. wget tells it in words only (those of
  /// the locale "C", with GnuTLS or OpenSSL).
  std::optional<WgetCause> Cause() const { return cause_; }
  /// Why what its last attempt has got could not be written: "Input/output error". Empty when it
  /// could, or that is not told.
  const std::string& WriteError() const { return write_error_; }
  /// To whom it connected last, or wanted to: "example.org:443", or a name without a port that has
  /// no address. Empty when it did not get so far.
  const std::string& Peer() const { return peer_; }
  /// The last lines, without the heads and without anybody's user name and password.
  std::deque<std::string> LastLines() const { return last_lines_; }

 private:
  void AddLine(const std::string& line);
  void AddHead(const std::string& line);
  void NoteCause(const std::string& line);
  std::string OwnText(const std::string& line) const;

  std::string line_;
  bool is_too_long_ = false;
  int status_ = 0;
  std::string location_;
  std::optional<WgetCause> cause_;
  std::string write_error_;
  std::string peer_;
  bool has_sent_request_ = false;
  std::deque<std::string> last_lines_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_WGET_LOG_H_
