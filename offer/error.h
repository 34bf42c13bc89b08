#ifndef TOLM_OFFER_ERROR_H_
#define TOLM_OFFER_ERROR_H_

#include <stdexcept>
#include <string>

namespace tolm::offer {

/// Why a description is not believed. One value for each reason that a caller may want to tell from
/// the others.
enum class Code {
  kForm,             ///< It is none: damaged, incomplete, beyond a bound, of another format.
  kNotSigned,        ///< It has no signature, and this device wants one.
  kSignature,        ///< The signature is not one over this text, or is damaged.
  kNotTrusted,       ///< The signer leads to no trusted certificate, is too weak or was revoked.
  kWrongUsage,       ///< The signer's certificate is not for descriptions, or not for these.
  kSignerNotValid,   ///< The signer's certificate has expired or is not valid yet.
  kKeyring,          ///< There are no usable trusted certificates.
  kOtherRepository,  ///< It is another repository's.
  kOtherForm,        ///< It is for devices that ask for another version of the description's form.
  kOlderSigner,      ///< Its signer was replaced.
  kOlder,            ///< An older one than was accepted before.
  kAltered,          ///< Another content under the counter that was accepted before.
  kExpired,          ///< Its time is over.
  kInternal,         ///< A library failed in a way that says nothing about the description.
};

/// The one exception of this component. what() is a sentence for people without a full stop, about
/// "it", the description.
class Error : public std::runtime_error {
 public:
  Error(Code code, const std::string& message) : std::runtime_error(message), code_(code) {}
  Code code() const noexcept { return code_; }

 private:
  Code code_;
};

}  // namespace tolm::offer

#endif  // TOLM_OFFER_ERROR_H_
