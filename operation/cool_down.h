#ifndef TOLM_OPERATION_COOL_DOWN_H_
#define TOLM_OPERATION_COOL_DOWN_H_

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/rules.h"
#include "operation/survey.h"

namespace tolm::operation {

/// How long scheduled runs leave a server alone after failures in a row: the first time between
/// half of `first_seconds` and all of it, chosen by chance so that a fleet does not come back at
/// one moment; every further time twice as long, up to `longest_seconds`.
struct CoolDownTimes {
  std::int64_t first_seconds = rules::kCoolDownFirstSeconds;
  std::int64_t longest_seconds = rules::kCoolDownLongestSeconds;
};

/// "host:port", in small letters and without a password: what a server's cool-down is kept under.
std::string ServerOf(const std::string& scheme, const std::string& netloc);

/// A server's cool-down, kept in a file between the runs. An attempt is written down as a failure
/// before its first request, so that a run that is killed, or kills the machine, counts as one.
/// What the file says is never trusted beyond the times above: neither damage, which sets the file
/// aside (as cooldown.json.aside), nor a clock that was put back holds a server back for longer.
/// Several processes may use it at once.
class CoolDown {
 public:
  using Clock = std::function<std::int64_t()>;  ///< Seconds since 1970.
  using Chance = std::function<double()>;       ///< From 0 to 1, without 1.

  /// The clock and the chance of this machine.
  explicit CoolDown(std::string server);
  CoolDown(std::string server, CoolDownTimes times, Clock clock, Chance chance);

  const std::string& server() const { return server_; }

  /// Those that hold scheduled runs back at this moment, by the servers' names. Takes no lock and
  /// changes nothing; none where the file is damaged or cannot be read.
  static std::vector<ServerCoolDown> LookForAll(CoolDownTimes times, std::int64_t now) noexcept;

  struct HeldBack {
    int failures;        ///< In a row.
    std::int64_t until;  ///< Seconds since 1970.
    bool first_asked;    ///< Nobody has asked before since the last failure.
  };
  /// Nothing when a scheduled run may go on. Throws std::exception when the file cannot be read or
  /// written.
  std::optional<HeldBack> Ask();

  /// To be called before the first request of a run. Throws std::exception when it cannot be
  /// written down.
  void BeginAttempt();
  /// The run succeeded: there is no cool-down.
  void Succeed();
  /// The attempt says nothing about the server: all is as it was before BeginAttempt().
  void Withdraw();

 private:
  struct Entry {
    int failures = 0;
    std::int64_t attempted = 0;
    std::int64_t until = 0;
    bool asked = false;
  };
  class File;

  static std::optional<Entry> Parse(const Json::Value& value, const CoolDownTimes& times,
                                    std::int64_t now);
  std::int64_t Delay(int failures) const;

  const std::string server_;
  const CoolDownTimes times_;
  const Clock clock_;
  const Chance chance_;
  std::optional<Entry> before_attempt_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_COOL_DOWN_H_
