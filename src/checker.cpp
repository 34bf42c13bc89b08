#include <boost/format.hpp>
#include <utility>

#include "base/paths.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/update.h"

namespace tolm::dataupdate {
namespace {

bool IsHeld(const std::string& lock_path) {
  try {
    const FileLock probe(lock_path, 0);
    return false;
  } catch (const UpdateError&) {
    return true;
  }
}

}  // namespace

Checker::Checker(std::shared_ptr<ServiceConfig> service_config)
    : service_config_(std::move(service_config)) {}

Checker::~Checker() = default;

bool Checker::IsUpdating(const std::string& name) const {
  service_config_->CheckSupported(name);
  return IsHeld((NoexceptFormat(paths::kUpdateLock) % name).str());
}

bool Checker::IsAnyUpdating() const {
  return IsHeld(paths::kUpdateAnyLock);
}

}  // namespace tolm::dataupdate
