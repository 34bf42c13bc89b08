#ifndef TOLM_BASE_JSON_SCAN_H_
#define TOLM_BASE_JSON_SCAN_H_

#include <cstdint>
#include <string_view>

namespace tolm::base {

/// What parsing a JSON text would cost.
struct JsonMeasure {
  std::uint64_t bytes = 0;
  std::uint64_t depth = 0;   ///< Objects and arrays that are open at once, at most.
  std::uint64_t values = 0;  ///< Without the names of members; comments, which are kept, count too.
};

/// Measures a JSON text before anybody parses it, in one pass without recursion or allocation. It
/// need not be valid: no value that a parser could make before it gives up is left out.
class JsonScan {
 public:
  /// The next piece of the text; pieces may end anywhere.
  void Add(std::string_view piece);
  /// Of what has been added.
  const JsonMeasure& measure() const noexcept { return measure_; }

 private:
  enum class State {
    kBetween,
    kWord,  ///< A number, true, false, null, or what is none of these.
    kString,
    kEscape,
    kSlash,
    kLineComment,
    kBlockComment,
    kStar  ///< In a block comment.
  };

  void AddBetween(char c);
  void Next(char c);

  JsonMeasure measure_;
  State state_ = State::kBetween;
  std::uint64_t open_ = 0;
  bool is_after_string_ = false;  ///< A ":" would make it the name of a member.
};

}  // namespace tolm::base

#endif  // TOLM_BASE_JSON_SCAN_H_
