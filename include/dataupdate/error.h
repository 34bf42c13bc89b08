#ifndef TOLM_DATAUPDATE_ERROR_H_
#define TOLM_DATAUPDATE_ERROR_H_

#include <cstdint>
#include <exception>
#include <string>

#include "dataupdate/export.h"

namespace tolm::dataupdate {

/// The one exception type of the library's own code. The message is finished text: it is what a log
/// line or an operator is shown, without any prefix. Operations that may also throw an error of the
/// standard or of the file-system library say so; all are std::exceptions.
class TOLM_DATAUPDATE_API UpdateError : public std::exception {
 public:
  enum ErrorCode : std::int32_t {
    kGeneral = 0,
    /// The file to be read does not exist; every other failure to read it is kGeneral.
    kFileNotExist = 1,
  };

  /// Copies the text, which must not be null. A failure while copying ends the process: an error is
  /// never replaced by a second one.
  UpdateError(const char* message) noexcept;
  UpdateError(const std::string& message) noexcept;
  UpdateError(const std::string& message, ErrorCode code) noexcept;
  UpdateError(const UpdateError& other) noexcept;
  UpdateError& operator=(const UpdateError& other) = default;
  ~UpdateError() override;

  /// The message; never null, lives as long as this object.
  const char* what() const noexcept override;
  virtual ErrorCode code() const;

 private:
  std::string message_;
  ErrorCode code_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_ERROR_H_
