#ifndef TOLM_PUBLISH_PUSH_ORDER_H_
#define TOLM_PUBLISH_PUSH_ORDER_H_

#include <cstdint>
#include <string>

#include "publish/repository.h"

namespace tolm::publish {

/// What is asked before one description takes another one's place at a remote.
struct PushOrder {
  std::string remote;       ///< for messages
  std::string present;      ///< the description that is there
  std::string next;         ///< the one to be pushed
  std::string last_pushed;  ///< SHA-384 of what was pushed there last; may be empty
  bool insist = false;  ///< whether another repository's, or one that proves nothing, is replaced
};

/// Throws Error when the present description is a newer one of this repository, as its signature
/// proves (without signatures, its versions), or another repository's. What is damaged is noted,
/// and replaced.
void RequireMayFollow(const PushOrder& order, const Settings& settings, std::int64_t now,
                      const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PUSH_ORDER_H_
