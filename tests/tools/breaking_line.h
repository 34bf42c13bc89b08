#ifndef TOLM_TESTS_TOOLS_BREAKING_LINE_H_
#define TOLM_TESTS_TOOLS_BREAKING_LINE_H_

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "tests/support/http_server.h"

namespace tolm::testing {

/// What a server makes of a request for the rest of a file.
enum class Ranges {
  kSent,       ///< 206 with the rest.
  kIgnored,    ///< 200 with all of it.
  kElsewhere,  ///< 206 with what stands a little before it, and says so.
  kUnplaced,   ///< 206 with the rest, which does not say where that stands.
  kPieces,     ///< 206 with a piece of the rest, which says so.
  kForbidden,  ///< 403.
  kTooFar      ///< 416, whatever was asked for.
};

/// How a file is sent over a line that breaks.
struct LineTraits {
  std::uint64_t break_after = UINT64_MAX;  ///< So many bytes of every answer.
  int breaks = INT32_MAX;                  ///< So many of them; the answers that follow are whole.
  Ranges ranges = Ranges::kSent;
  bool hangs = false;  ///< Nothing comes where it would break, and the connection stays.
};

/// Serves a file over such a line, and counts. Copies are of one line.
class BreakingLine {
 public:
  /// @p rest is sent of in answers to requests for the rest; empty for the same content.
  BreakingLine(HttpServer& server, const std::string& path, const std::string& content,
               LineTraits traits, const std::string& rest = "")
      : state_(std::make_shared<State>()) {
    state_->breaks_left = traits.breaks;
    server.SetHandler(path, [state = state_, content, traits, rest](const HttpRequest& request) {
      const bool has_range = !request.range.empty() && traits.ranges != Ranges::kIgnored;
      return Answer(*state, has_range && !rest.empty() ? rest : content, traits, request.range,
                    has_range);
    });
  }

  /// Of bodies, all in all.
  std::uint64_t SentBytes() const { return state_->sent_bytes; }
  int Requests() const { return state_->requests; }

 private:
  struct State {
    std::atomic<std::uint64_t> sent_bytes{0};
    std::atomic<int> requests{0};
    std::atomic<int> breaks_left{0};
  };

  static HttpAnswer Answer(State& state, const std::string& content, const LineTraits& traits,
                           const std::string& range, bool has_range) {
    constexpr std::size_t kNumberAt = sizeof("bytes=") - 1;
    ++state.requests;
    HttpAnswer answer;
    std::uint64_t begin = has_range ? std::strtoull(range.c_str() + kNumberAt, nullptr, 10) : 0;
    if (has_range && traits.ranges == Ranges::kForbidden) {
      answer.status = 403;
      return answer;
    }
    if (has_range && (traits.ranges == Ranges::kTooFar || begin >= content.size())) {
      answer.status = 416;
      return answer;
    }
    std::size_t end = content.size();
    if (has_range) {
      constexpr std::uint64_t kLittle = 1000;
      begin -= traits.ranges == Ranges::kElsewhere ? std::min(begin, kLittle) : 0;
      end = traits.ranges == Ranges::kPieces ? std::min<std::size_t>(begin + kLittle, end) : end;
      answer.status = 206;
      if (traits.ranges != Ranges::kUnplaced) {
        answer.headers.emplace_back("Content-Range", "bytes " + std::to_string(begin) + '-' +
                                                         std::to_string(end - 1) + '/' +
                                                         std::to_string(content.size()));
      }
    }
    // Years ago, as on a server that keeps what it was given.
    answer.headers.emplace_back("Last-Modified", "Thu, 01 Jan 2015 00:00:00 GMT");
    answer.body = content.substr(begin, end - begin);
    answer.stated_length = answer.body.size();
    if (answer.body.size() > traits.break_after && state.breaks_left-- > 0) {
      answer.body.resize(traits.break_after);
      if (traits.hangs) {
        answer.pause_at = traits.break_after;
      }
    }
    state.sent_bytes += answer.body.size();
    return answer;
  }

  std::shared_ptr<State> state_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_BREAKING_LINE_H_
