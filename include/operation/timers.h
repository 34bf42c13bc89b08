#ifndef TOLM_OPERATION_TIMERS_H_
#define TOLM_OPERATION_TIMERS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "operation/export.h"

namespace tolm::operation {

/// One of the timers that begin runs without a person.
struct Timer {
  std::string unit;
  bool is_installed = false;
  bool is_enabled = false;           ///< It is started with the machine.
  bool is_waiting = false;           ///< It is started.
  std::optional<std::int64_t> next;  ///< When it elapses, in seconds since 1970, if it says so.
};

/// What begins runs without a person.
struct Timers {
  bool is_known = false;   ///< systemd runs this machine and has answered.
  Timer update;            ///< The runs over all scheduled databases.
  Timer verify;            ///< The weekly look at all installed files.
  std::string cron;        ///< The table for cron, where there is one; when it is due is not known.
  bool is_silent = false;  ///< systemd runs this machine and has not answered.
};

/// Asks systemd, where it runs this machine, for up to six seconds, and looks for the table for
/// cron. Changes nothing; whoever asks gets an answer, with whatever rights. Throws
/// std::system_error when no file or thread is to be had for that. Not while another thread runs
/// programs through the platform: what takes too long is ended for all of them.
TOLM_OPERATION_API Timers ExamineTimers();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TIMERS_H_
