#ifndef TOLM_REPORT_OUTPUT_FILE_H_
#define TOLM_REPORT_OUTPUT_FILE_H_

#include <sys/types.h>

#include <optional>
#include <string>

namespace tolm::report {

/// Makes the file, or puts it in the place of the one that is there: that, or the new one, is there
/// whole at any time. Until it is in place it stands beside, as "<path>.new". Its mode is @p mode;
/// without one 0644 less the umask. The directory may be somebody else's, and root writes into it:
/// no link that lies there is followed. Throws std::runtime_error for what is there and no regular
/// file (it stays), and where another program writes the same file at this moment; base::FileError.
void ReplaceOutput(const std::string& path, const std::string& text,
                   std::optional<mode_t> mode = std::nullopt);

}  // namespace tolm::report

#endif  // TOLM_REPORT_OUTPUT_FILE_H_
