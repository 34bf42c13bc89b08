#ifndef TOLM_OPERATOR_SERVICE_H_
#define TOLM_OPERATOR_SERVICE_H_

#include <map>
#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/update.h"

namespace tolm::operation {

/// An InfoGetter that also remembers which installed states were stored through it: the operations
/// return nothing, so this is how a program learns what they did.
class RecordingInfoGetter : public dataupdate::InfoGetter {
 public:
  using InfoGetter::InfoGetter;
  void SetDatabaseStatus(const std::string& name,
                         const dataupdate::DatabaseStatus& status) const override;
  /// The version last stored for each database, in this object's life.
  const std::map<std::string, int>& stored_versions() const { return stored_versions_; }

 private:
  // The operation that it overrides is const.
  mutable std::map<std::string, int> stored_versions_;
};

/// The library's objects, put together over the real files.
struct Service {
  std::shared_ptr<dataupdate::ServiceConfig> config;
  std::shared_ptr<RecordingInfoGetter> info;
  std::shared_ptr<dataupdate::Update> update;
};

/// Touches no file yet.
Service BuildService();

}  // namespace tolm::operation

#endif  // TOLM_OPERATOR_SERVICE_H_
