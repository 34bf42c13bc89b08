#ifndef TOLM_OPERATION_SOURCE_COOL_DOWNS_H_
#define TOLM_OPERATION_SOURCE_COOL_DOWNS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "operation/cool_down.h"
#include "operation/sources.h"

namespace tolm::operation {

/// The cool-downs of all sources that a run may ask, each by its name. Sources without a name have
/// none.
class SourceCoolDowns {
 public:
  explicit SourceCoolDowns(const std::vector<Source>& sources);

  struct HeldBack {
    std::string why;   ///< In words.
    bool first_asked;  ///< Nobody has asked before since the last failure.
  };
  /// Nothing when a scheduled run may go on, with those that do not cool down: the others are left
  /// out as long as this exists. Throws as CoolDown::Ask() does.
  std::optional<HeldBack> Ask();

  /// To be called before each request; only the first one to a source is written down. Throws as
  /// CoolDown::BeginAttempt() does.
  void BeginAttempt(const Source& source);
  /// What came of the newest request.
  void Answered(const Source& source, bool is_fit);

  /// The run was good: what answered at last has no cool-down any more.
  void Succeed();
  /// The run says nothing about any of them.
  void Withdraw();

 private:
  struct Entry {
    CoolDown cool_down;
    bool is_asked = false;
    bool is_fit = false;
  };

  std::map<std::string, Entry> entries_;
  std::optional<LeftOutSources> left_out_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SOURCE_COOL_DOWNS_H_
