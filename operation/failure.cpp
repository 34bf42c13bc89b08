#include "operation/failure.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>

#include "base/trusted_directory.h"
#include "operation/interrupt.h"
#include "operation/library_failure.h"
#include "operation/run.h"
#include "operation/settings_check.h"

namespace tolm::operation {
namespace {

bool IsFull(const std::exception& error) {
  const auto* of_system = dynamic_cast<const std::system_error*>(&error);
  return of_system != nullptr &&
         (of_system->code().value() == ENOSPC || of_system->code().value() == EDQUOT);
}

std::optional<Failure> FailureByType(const std::exception& error) {
  if (const auto* explained = dynamic_cast<const ExplainedError*>(&error)) {
    return explained->failure();
  }
  if (dynamic_cast<const NoVolume*>(&error) != nullptr) {
    const bool is_chosen = std::strcmp(error.what(), NoVolume().what()) != 0;
    return Failure{reasons::kNoVolume, error.what(),
                   is_chosen ? "" : "\"tolmdbud volume show\" says what there is"};
  }
  if (dynamic_cast<const DamagedSettings*>(&error) != nullptr) {
    return Failure{reasons::kConfigurationDamaged, error.what()};
  }
  if (dynamic_cast<const base::ForeignGround*>(&error) != nullptr) {
    return Failure{reasons::kUnsafeDirectory, error.what()};
  }
  if (dynamic_cast<const Interrupted*>(&error) != nullptr) {
    return Failure{reasons::kInterrupted, error.what()};
  }
  return IsFull(error)
             ? std::make_optional(Failure{reasons::kNoRoom, error.what(), "make room there"})
             : std::nullopt;
}

std::optional<Failure> FailureByText(const std::string& message) {
  try {
    return FailureIn(message);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    return std::nullopt;  // What belongs to it could not be looked at.
  }
}

}  // namespace

std::string LineOf(const std::string& context, const Failure& failure) {
  std::string line = context;
  if (!failure.item.empty()) {
    line += (line.empty() ? "" : " ") + failure.item;
  }
  line += (line.empty() ? "" : ": ") + failure.text;
  return failure.remedy.empty() ? line : line + "; " + failure.remedy;
}

Failure FailureOf(const std::exception& error) {
  if (const std::optional<Failure> failure = FailureByType(error)) {
    return *failure;
  }
  if (const std::optional<Failure> failure = FailureByText(error.what())) {
    return *failure;
  }
  return {reasons::kOther, error.what()};
}

}  // namespace tolm::operation
