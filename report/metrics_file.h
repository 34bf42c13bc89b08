#ifndef TOLM_REPORT_METRICS_FILE_H_
#define TOLM_REPORT_METRICS_FILE_H_

#include <string>

namespace tolm::report {

/// Puts the text into the file, whole: whoever reads it finds the former text or this one. It is
/// for everybody to read (0644). Until it is in place it stands beside, under a name that no
/// collector takes for a file of metrics. The directory must be there. Throws std::runtime_error
/// where it is not, and base::FileError.
void WriteMetricsFile(const std::string& path, const std::string& text);

}  // namespace tolm::report

#endif  // TOLM_REPORT_METRICS_FILE_H_
