#ifndef TOLM_SRC_ERROR_TEXT_H_
#define TOLM_SRC_ERROR_TEXT_H_

#include <exception>

namespace tolm::dataupdate {

/// The error's text, empty when it has none: not every class outside the library gives one.
inline const char* TextOf(const std::exception& error) {
  const char* const text = error.what();
  return text == nullptr ? "" : text;
}

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_ERROR_TEXT_H_
