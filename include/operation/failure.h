#ifndef TOLM_OPERATION_FAILURE_H_
#define TOLM_OPERATION_FAILURE_H_

#include <exception>
#include <string>
#include <utility>

#include "dataupdate/error.h"
#include "operation/export.h"

namespace tolm::operation {

/// What is written in Failure::reason. Stable: programs act on them. docs/formats/tool-json.md says
/// what each means.
namespace reasons {
inline constexpr char kNotConfigured[] = "not-configured";
inline constexpr char kConfigurationDamaged[] = "configuration-damaged";
inline constexpr char kUnknownDatabase[] = "unknown-database";
inline constexpr char kNoVolume[] = "no-volume";
inline constexpr char kNoRoom[] = "no-room";
inline constexpr char kUnsafeDirectory[] = "unsafe-directory";
inline constexpr char kBusy[] = "busy";
inline constexpr char kInterrupted[] = "interrupted";
inline constexpr char kNameNotResolved[] = "name-not-resolved";
inline constexpr char kConnectionRefused[] = "connection-refused";
inline constexpr char kNotReached[] = "not-reached";
inline constexpr char kTimedOut[] = "timed-out";
inline constexpr char kConnectionBroken[] = "connection-broken";
inline constexpr char kTooSlow[] = "too-slow";
inline constexpr char kTooLarge[] = "too-large";
inline constexpr char kTlsNotTrusted[] = "tls-not-trusted";
inline constexpr char kTlsExpired[] = "tls-expired";
inline constexpr char kTlsNotYetValid[] = "tls-not-yet-valid";
inline constexpr char kTlsOtherName[] = "tls-other-name";
inline constexpr char kTlsFailed[] = "tls-failed";
inline constexpr char kHttpStatus[] = "http-status";
inline constexpr char kLinkRefused[] = "link-refused";
inline constexpr char kDownloadFailed[] = "download-failed";
inline constexpr char kDescriptionDamaged[] = "description-damaged";
inline constexpr char kOlderVersion[] = "older-version";
inline constexpr char kNoKeyring[] = "no-keyring";
inline constexpr char kPackageNotTrusted[] = "package-not-trusted";
inline constexpr char kPackageExpired[] = "package-expired";
inline constexpr char kPackageNotYetValid[] = "package-not-yet-valid";
inline constexpr char kPackageRevoked[] = "package-revoked";
inline constexpr char kPackageWrongUsage[] = "package-wrong-usage";
inline constexpr char kPackageDamaged[] = "package-damaged";
inline constexpr char kPackageForAnother[] = "package-for-another";
inline constexpr char kPackageUnsafe[] = "package-unsafe";
inline constexpr char kDeltaUnfit[] = "delta-unfit";
inline constexpr char kDescriptionNotSigned[] = "description-not-signed";
inline constexpr char kDescriptionNotTrusted[] = "description-not-trusted";
inline constexpr char kDescriptionSignerNotValid[] = "description-signer-not-valid";
inline constexpr char kDescriptionForAnother[] = "description-for-another";
inline constexpr char kDescriptionOlder[] = "description-older";
inline constexpr char kDescriptionAltered[] = "description-altered";
inline constexpr char kDescriptionExpired[] = "description-expired";
inline constexpr char kOther[] = "other";
inline constexpr char kPackageDiffers[] = "package-differs";
}  // namespace reasons

/// Why something failed, for people and for programs.
struct Failure {
  std::string reason{};  ///< One of the above; empty for no failure.
  std::string text{};    ///< Cause and place.
  std::string remedy{};  ///< What to do about it; empty where that is not known.
  std::string item{};    ///< What it is about, of a database: "1000005", "delta 1000005", or empty.
  int http_status = 0;   ///< The server's, with kHttpStatus; otherwise 0.
};

/// "<context> <item>: <text>; <remedy>", without what is empty. One line where the failure was made
/// of such; nothing in it is a user name or a password.
TOLM_OPERATION_API std::string LineOf(const std::string& context, const Failure& failure);

/// A failure of the library with what the operations around it know of its cause. what() is the
/// library's text with a reason in parentheses behind it.
class TOLM_OPERATION_API ExplainedError : public dataupdate::UpdateError {
 public:
  ExplainedError(const std::string& message, ErrorCode code, Failure failure)
      : UpdateError(message, code), failure_(std::move(failure)) {}

  const Failure& failure() const noexcept { return failure_; }

 private:
  Failure failure_;
};

/// Why what this library or the library below it has thrown was thrown: an ExplainedError's own
/// failure, and that of any other exception as far as its type or its text tell. Reads the settings
/// where the failure is about them, and the system's list of locks where it is about a lock, so
/// call it at once. Neither waits nor throws anything but std::bad_alloc; any thread may call it.
TOLM_OPERATION_API Failure FailureOf(const std::exception& error);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_FAILURE_H_
