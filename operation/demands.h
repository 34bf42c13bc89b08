#ifndef TOLM_OPERATION_DEMANDS_H_
#define TOLM_OPERATION_DEMANDS_H_

#include <functional>
#include <set>
#include <string>

#include "operation/operation_info.h"
#include "operation/platform_calls.h"

namespace tolm::operation {

/// What one database's operation works on.
struct Installation {
  std::string name;
  std::string volume;
  std::string directory;
};

/// What an operation demands of the calls that it makes: that nothing below the floor is installed,
/// that a forced installation gets the version that was asked for, that a package is the one that
/// the signed description names, that a delta patches the files that it was made for.
class Demands : public CallDemands {
 public:
  /// `wanted_version` is what a forced installation was asked for. `say` is told in one line why a
  /// delta will not do. All are kept by reference and must outlive it.
  Demands(const Installation& installation, OperationKind kind, int wanted_version,
          const OperationInfo& info, const std::function<void(const std::string&)>& say);

  bool MayMake(const std::string& directory) override;
  std::string PathToOpen(const std::string& package) override;
  std::string DifferenceFromOffer(const std::string& package) override;
  bool Accepts(const std::string& package) override;

  /// Why the operation was ended; empty when it was not, or not by this.
  const std::string& Refusal() const { return refusal_; }

 private:
  bool IsBelowFloor();
  std::string LinkAbove(const std::string& file) const;
  std::string ProblemOfFile(const std::string& file) const;
  std::string ProblemOfDelta(const std::string& directory);

  const Installation& installation_;
  const OperationKind kind_;
  const int wanted_version_;
  const OperationInfo& info_;
  const std::function<void(const std::string&)>& say_;
  std::string refusal_;
  std::set<std::string> touched_;  ///< By deltas so far; what follows patches their results.
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DEMANDS_H_
