#ifndef TOLM_PUBLISH_PUSH_MARK_H_
#define TOLM_PUBLISH_PUSH_MARK_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "publish/remote.h"
#include "publish/repository.h"

namespace tolm::publish {

/// Where a push says to others that it is at work.
inline constexpr char kPushMark[] = ".tolmdbpub-push";
/// So long a mark counts that nobody renews.
inline constexpr std::int64_t kPushMarkSeconds = 15 * 60;

/// Who holds a mark.
struct PushMarkHolder {
  std::string id;     ///< this repository's for this remote
  std::string owner;  ///< this machine's name
};

/// A mark at a remote, by which pushes from other machines are kept apart as well as a store can:
/// written, read back, renewed until the end of this object, and then removed. Two that write at
/// the same moment, to a store that shows each its own, are not kept apart.
class PushMark {
 public:
  /// A mark with the holder's id and owner was left by a push of its own that has ended. Throws
  /// Error when somebody else's counts, unless it is to be @p taken_over.
  PushMark(const Remote& remote, const PushMarkHolder& holder, bool taken_over, const Notes& notes);
  ~PushMark();
  PushMark(const PushMark&) = delete;
  PushMark& operator=(const PushMark&) = delete;

  /// Throws Error when it is not there any more, or is another one's.
  void Confirm();

 private:
  void RequireFree(bool taken_over, const Notes& notes) const;
  void Write(std::int64_t now);
  bool IsMine() const;
  void Renew();

  const Remote& remote_;
  const PushMarkHolder holder_;
  std::int64_t since_ = 0;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool has_ended_ = false;
  std::thread renewing_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PUSH_MARK_H_
