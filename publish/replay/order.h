#ifndef TOLM_PUBLISH_REPLAY_ORDER_H_
#define TOLM_PUBLISH_REPLAY_ORDER_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "package/trust.h"

namespace tolm::publish {

/// The directory of what is installed, in that of the order.
inline constexpr char kReplayInstalled[] = "installed";

/// What the publisher tells the program that replays.
struct ReplayOrder {
  pid_t publisher = 0;    ///< with which the program ends
  std::string directory;  ///< which is the device
  std::string name;       ///< of the database
  int installed_version = 0;
  std::map<int, std::string> packages;  ///< by the version that they produce; absolute paths
  package::TrustTexts trust;            ///< whom the packages must be signed by
  std::int64_t now = 0;                 ///< when the signatures are judged
};

/// As one JSON document. Paths may hold any bytes.
std::string FormatReplayOrder(const ReplayOrder& order);

/// The order again. Throws std::runtime_error for what FormatReplayOrder() has not made.
ReplayOrder ParseReplayOrder(const std::string& text);

/// What came of an attempt.
struct ReplayAnswer {
  std::string problem;  ///< in the words that a device would log; empty: it did not fail
  /// Of the file that was being patched, or empty: none was, or there are several packages, in
  /// which one file may be patched several times.
  std::string key;
  std::set<std::string> touched;  ///< the keys that the packages name, when it did not fail
};

/// The answer to an order, as one JSON document.
std::string FormatReplayAnswer(const ReplayAnswer& answer);
/// Throws std::runtime_error for what FormatReplayAnswer() has not made.
ReplayAnswer ParseReplayAnswer(const std::string& text);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_ORDER_H_
