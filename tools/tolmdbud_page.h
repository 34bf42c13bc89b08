#ifndef TOLM_TOOLS_TOLMDBUD_PAGE_H_
#define TOLM_TOOLS_TOLMDBUD_PAGE_H_

#include <string>

#include "tools/tolmdbud_look.h"

namespace tolm::tool {

/// Writes a page of what was seen, with what the history, the settings and the locks tell besides.
/// Throws base::FileError, std::runtime_error; a page that was there before then stays.
void WriteStatusPage(const std::string& path, const Sight& sight);

}  // namespace tolm::tool

#endif  // TOLM_TOOLS_TOLMDBUD_PAGE_H_
