#ifndef TOLM_PACKAGE_ERROR_H_
#define TOLM_PACKAGE_ERROR_H_

#include <stdexcept>
#include <string>

namespace tolm::package {

/// Why a package was not made, not trusted or not unpacked. One value for each reason that a caller
/// may want to tell from the others; docs/formats/package.md explains each.
enum class Code {
  kInternal,         ///< A library failed in a way that says nothing about the package.
  kArgument,         ///< The caller's own mistake: a bad name or version, a call out of order.
  kOpen,             ///< The package file cannot be opened or is not a regular file.
  kRead,             ///< Reading a file failed.
  kNotAPackage,      ///< No trailer: not a package, or cut short.
  kSignatureSize,    ///< The trailer's length is 0, above the bound, or leaves no payload.
  kChanged,          ///< The file changed while it was being verified or unpacked.
  kKeyring,          ///< The trusted certificates or the revocations cannot be used.
  kSignatureForm,    ///< Not exactly one DER SignedData over plain data with signed attributes.
  kEmbeddedContent,  ///< The signature carries content of its own.
  kNoSigner,         ///< No signer, or the signer's certificate is not inside.
  kWeakDigest,       ///< A digest weaker than SHA-256, or a key too short, somewhere in the chain.
  kWrongUsage,       ///< The signer's certificate is not for code signing.
  kUntrusted,        ///< The signer's certificate does not lead to a trusted one.
  kExpired,          ///< A certificate of the chain has expired.
  kNotYetValid,      ///< A certificate of the chain is not valid yet.
  kRevoked,          ///< A certificate of the chain was revoked.
  kBadSignature,     ///< The signature does not belong to this payload.
  kPayload,          ///< The payload is not an archive that this system reads.
  kNoSeal,           ///< The first member is not ".tolmpkg".
  kBadSeal,          ///< ".tolmpkg" does not say name, kind and version.
  kWrongName,        ///< Sealed for another database.
  kWrongKind,        ///< A delta where a full package was wanted, or the reverse.
  kWrongVersion,     ///< Sealed for another version.
  kNoMembers,        ///< Nothing in it besides the seal.
  kMemberMissing,    ///< A member that the caller asked for is not there.
  kMemberType,       ///< A device, fifo, socket or another type that is never unpacked.
  kMemberPath,       ///< An absolute or empty name, "..", or the reserved ".tolmpkg".
  kHardLink,  ///< A hard link with a body, or to something that is not a file of the destination.
  kThroughLink,  ///< Writing or linking would go through a symbolic link.
  kInTheWay,     ///< Something in the destination stands where the member belongs.
  kNoSpace,      ///< The unpacked data does not fit.
  kWrite,        ///< Writing failed for another reason.
  kOutOfScope,   ///< The signer's certificate is for other databases than the package.
};

/// The one exception of this component. what() is a sentence for people; it names the file or
/// member.
class Error : public std::runtime_error {
 public:
  Error(Code code, const std::string& message, int errno_value = 0)
      : std::runtime_error(message), code_(code), errno_value_(errno_value) {}

  Code code() const noexcept { return code_; }
  /// The errno value of the call that failed, 0 when no system call was the cause.
  int errno_value() const noexcept { return errno_value_; }

 private:
  Code code_;
  int errno_value_;
};

/// @p what followed by the text of @p errno_value.
Error SystemError(Code code, const std::string& what, int errno_value);

/// The same for a failed write: kNoSpace when the disk or a quota is full, kWrite otherwise.
Error WriteError(const std::string& what, int errno_value);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_ERROR_H_
