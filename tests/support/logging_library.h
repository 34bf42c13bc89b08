#ifndef TOLM_SUPPORT_LOGGING_LIBRARY_H_
#define TOLM_SUPPORT_LOGGING_LIBRARY_H_

namespace tolm::testing {

/// Logs "<file>:<line> <text>" from inside a shared library.
__attribute__((visibility("default"))) void LogFromLibrary(int priority, const char* file, int line,
                                                           const char* text);

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_LOGGING_LIBRARY_H_
