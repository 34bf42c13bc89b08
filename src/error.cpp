#include "dataupdate/error.h"

namespace tolm::dataupdate {

static_assert(sizeof(UpdateError::ErrorCode) == 4, "the code is part of the binary interface");

UpdateError::UpdateError(const char* message) noexcept : message_(message), code_(kGeneral) {}

UpdateError::UpdateError(const std::string& message) noexcept
    : message_(message), code_(kGeneral) {}

UpdateError::UpdateError(const std::string& message, ErrorCode code) noexcept
    : message_(message), code_(code) {}

UpdateError::UpdateError(const UpdateError& other) noexcept
    : std::exception(other), message_(other.message_), code_(other.code_) {}

UpdateError::~UpdateError() = default;

const char* UpdateError::what() const noexcept {
  return message_.c_str();
}

UpdateError::ErrorCode UpdateError::code() const {
  return code_;
}

}  // namespace tolm::dataupdate
