#ifndef TOLM_BASE_UTF8_H_
#define TOLM_BASE_UTF8_H_

#include <string>

namespace tolm::base {

/// Whether @p text is well-formed UTF-8 (no overlong forms, no surrogates) without C0 controls and
/// DEL.
bool IsPrintableUtf8(const std::string& text);

/// @p text for a terminal or a log: control characters become \xNN. Everything else stays.
std::string EscapeControls(const std::string& text);

}  // namespace tolm::base

#endif  // TOLM_BASE_UTF8_H_
