#include "base/json_scan.h"

#include <algorithm>

namespace tolm::base {

void JsonScan::Add(std::string_view piece) {
  measure_.bytes += piece.size();
  for (const char c : piece) {
    Next(c);
  }
}

void JsonScan::Next(char c) {
  switch (state_) {
    case State::kBetween:
    case State::kWord:
      AddBetween(c);
      return;
    case State::kString:
      is_after_string_ = c == '"';
      state_ = c == '"' ? State::kBetween : c == '\\' ? State::kEscape : State::kString;
      return;
    case State::kEscape:
      state_ = State::kString;
      return;
    case State::kSlash:
      state_ = c == '/' ? State::kLineComment : c == '*' ? State::kBlockComment : State::kBetween;
      return;
    case State::kLineComment:
      state_ = c == '\n' || c == '\r' ? State::kBetween : State::kLineComment;
      return;
    case State::kBlockComment:
      state_ = c == '*' ? State::kStar : State::kBlockComment;
      return;
    case State::kStar:
      state_ = c == '/' ? State::kBetween : c == '*' ? State::kStar : State::kBlockComment;
      return;
  }
}

void JsonScan::AddBetween(char c) {
  const bool is_in_word = state_ == State::kWord;
  state_ = State::kBetween;
  switch (c) {
    case ' ':
    case '\t':
    case '\r':
    case '\n':
      return;
    case '/':
      ++measure_.values;
      state_ = State::kSlash;
      return;
    case ':':
      measure_.values -= is_after_string_ ? 1 : 0;
      break;
    case ',':
      break;
    case '[':
    case '{':
      ++measure_.values;
      measure_.depth = std::max(measure_.depth, ++open_);
      break;
    case ']':
    case '}':
      open_ -= open_ > 0 ? 1 : 0;
      break;
    case '"':
      ++measure_.values;
      state_ = State::kString;
      break;
    default:
      measure_.values += is_in_word ? 0 : 1;
      state_ = State::kWord;
  }
  is_after_string_ = false;
}

}  // namespace tolm::base
