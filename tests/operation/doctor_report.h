#ifndef TOLM_TESTS_OPERATION_DOCTOR_REPORT_H_
#define TOLM_TESTS_OPERATION_DOCTOR_REPORT_H_

#include <string>
#include <vector>

#include "operation/doctor.h"

namespace tolm::testing {

/// What was found, a line each: "problem rights: /file: others can write it; chmod 644 /file".
inline std::string Report(const std::vector<operation::Finding>& findings) {
  constexpr const char* kStates[] = {"ok", "note", "problem", "skipped"};
  std::string report;
  for (const operation::Finding& finding : findings) {
    report += kStates[static_cast<int>(finding.state)];
    report += ' ' + finding.check + ": " + (finding.subject.empty() ? "" : finding.subject + ": ") +
              finding.message + (finding.remedy.empty() ? "" : "; " + finding.remedy) + '\n';
  }
  return report;
}

/// The same of one of the checks.
inline std::string Report(const std::vector<operation::Finding>& findings,
                          const std::string& check) {
  std::vector<operation::Finding> of_it;
  for (const operation::Finding& finding : findings) {
    if (finding.check == check) {
      of_it.push_back(finding);
    }
  }
  return Report(of_it);
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_OPERATION_DOCTOR_REPORT_H_
