#ifndef TOLM_OPERATION_DOCTOR_H_
#define TOLM_OPERATION_DOCTOR_H_

#include <string>
#include <vector>

#include "operation/export.h"
#include "operation/service.h"

namespace tolm::operation {

/// What came of one look at a device.
struct Finding {
  enum class State {
    kOk,
    kNote,     ///< Worth knowing; nothing has to be done.
    kProblem,  ///< Something has to be done, or updates fail or are not safe.
    kSkipped   ///< Could not be looked at, or was not to be.
  };

  std::string check;  ///< Stable; docs/formats/tool-json.md lists them.
  State state;
  std::string subject;  ///< The file, database or server that it is about; may be empty.
  std::string message;  ///< One line.
  std::string remedy;   ///< What to do; empty where nothing is, or nobody knows.
};

/// Looks at everything that updates need: settings, keyring, clock, volume, room, rights, the
/// server (only where @p asks_server: one bounded request for the description, for up to 30 s),
/// timers, plug-ins, and what earlier operations have left. Changes nothing: takes no lock, makes
/// no file but one for the answer in the directory for temporary files, and does not touch the
/// cached description. Works with the caller's rights and says what these do not suffice for. One
/// thread at a time, while no operation runs in this process. Throws Interrupted when a signal that
/// Interrupt has received ends the request.
TOLM_OPERATION_API std::vector<Finding> Diagnose(const Service& service, bool asks_server);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DOCTOR_H_
