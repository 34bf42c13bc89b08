#ifndef TOLM_OPERATION_TAKEN_FROM_H_
#define TOLM_OPERATION_TAKEN_FROM_H_

#include <string>

#include "operation/export.h"

namespace tolm::operation {

/// While it exists, descriptions and packages come from that place alone, a copy of the publisher's
/// public tree: a directory, perhaps on a stick, or another server's base address (http or https;
/// user:password@ is allowed). It is trusted by its signatures alone: an unsigned description is
/// refused there whatever the settings are. It is asked for the description first, however young
/// the cached one is. Of a directory no program is run, no link below it is followed, and nothing
/// is written to it. One at a time in a process, made before a Run and destroyed after it, by the
/// thread that runs the operations.
class TOLM_OPERATION_API TakenFrom {
 public:
  /// Throws std::runtime_error for what is neither, and for an address of http where the configured
  /// server is asked by https.
  explicit TakenFrom(const std::string& place);
  ~TakenFrom();
  TakenFrom(const TakenFrom&) = delete;
  TakenFrom& operator=(const TakenFrom&) = delete;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TAKEN_FROM_H_
