#ifndef TOLM_REPORT_METRICS_FILE_H_
#define TOLM_REPORT_METRICS_FILE_H_

#include <string>

namespace tolm::report {

/// Puts the text into the file, as ReplaceOutput(); it is for everybody to read (0644). The name
/// that it has before that is none that a collector takes for a file of metrics. The directory must
/// be there. Throws std::runtime_error where it is not, and as ReplaceOutput() does.
void WriteMetricsFile(const std::string& path, const std::string& text);

}  // namespace tolm::report

#endif  // TOLM_REPORT_METRICS_FILE_H_
