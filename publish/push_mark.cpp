#include "publish/push_mark.h"

#include <json/value.h>

#include <chrono>
#include <ctime>
#include <exception>
#include <optional>

#include "base/no_signals.h"
#include "publish/error.h"
#include "publish/json_object.h"
#include "publish/list.h"

namespace tolm::publish {
namespace {

constexpr int kFormat = 1;
constexpr std::uint64_t kMostBytes = 4096;
constexpr int kRenewalsInTime = 4;

struct Mark {
  std::string id;
  std::string owner;
  std::int64_t since = 0;
  std::int64_t expires = 0;
};

// Nothing for what is no mark.
std::optional<Mark> ParseMark(const std::string& text) {
  try {
    const Json::Value value = ParseJson(text, kPushMark);
    const JsonObject object(value, kPushMark);
    return Mark{object.Text("id"), object.Text("owner"), object.Number("since"),
                object.Number("expires")};
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::optional<Mark> MarkAt(const Remote& remote) {
  const std::optional<std::string> text = remote.Read(kPushMark, kMostBytes);
  return text ? ParseMark(*text) : std::nullopt;
}

}  // namespace

PushMark::PushMark(const Remote& remote, const PushMarkHolder& holder, bool taken_over,
                   const Notes& notes)
    : remote_(remote), holder_(holder), since_(std::time(nullptr)) {
  RequireFree(taken_over, notes);
  Write(since_);
  Confirm();
  const base::NoSignals no_signals;
  renewing_ = std::thread([this] { Renew(); });
}

PushMark::~PushMark() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    has_ended_ = true;
  }
  ended_.notify_all();
  renewing_.join();
  try {
    if (IsMine()) {
      remote_.Remove({kPushMark});
    }
  } catch (const std::exception&) {
    // It counts no longer when its time is over, and not for the next push from here.
  }
}

void PushMark::RequireFree(bool taken_over, const Notes& notes) const {
  const std::optional<Mark> mark = MarkAt(remote_);
  const bool is_own = mark && mark->id == holder_.id && mark->owner == holder_.owner;
  if (!mark || is_own || mark->expires <= since_) {
    return;
  }
  const std::string sentence = remote_.Name() + ": another push to it is at work, from " +
                               mark->owner + ", since " + TimeText(mark->since) + " UTC";
  if (!taken_over) {
    throw Error(sentence + "; if it was ended, its mark counts until " + TimeText(mark->expires) +
                " UTC, or insist by --yes");
  }
  notes(sentence + "; it is not waited for");
}

void PushMark::Write(std::int64_t now) {
  Json::Value value;
  value["format"] = kFormat;
  value["id"] = holder_.id;
  value["owner"] = holder_.owner;
  value["since"] = Json::Int64(since_);
  value["expires"] = Json::Int64(now + kPushMarkSeconds);
  remote_.Replace(kPushMark, std::string(kPushMark) + "-new-" + holder_.id, FormatJson(value),
                  Served::kMark);
}

bool PushMark::IsMine() const {
  const std::optional<Mark> mark = MarkAt(remote_);
  return mark && mark->id == holder_.id && mark->owner == holder_.owner;
}

void PushMark::Confirm() {
  if (!IsMine()) {
    throw Error(remote_.Name() + ": another push to it has begun at the same time");
  }
}

void PushMark::Renew() {
  std::unique_lock<std::mutex> guard(mutex_);
  const auto pause = std::chrono::seconds(kPushMarkSeconds / kRenewalsInTime);
  while (!ended_.wait_for(guard, pause, [this] { return has_ended_; })) {
    guard.unlock();
    try {
      if (IsMine()) {
        Write(std::time(nullptr));
      }
    } catch (const std::exception&) {
      // Confirm() tells what came of it.
    }
    guard.lock();
  }
}

}  // namespace tolm::publish
