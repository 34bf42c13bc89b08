#ifndef TOLM_OPERATION_BELIEF_H_
#define TOLM_OPERATION_BELIEF_H_

#include <json/value.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "offer/acceptance.h"
#include "offer/error.h"
#include "offer/signed_offer.h"
#include "operation/failure.h"
#include "operation/trust_state.h"

namespace tolm::operation {

/// A description that is not believed. what() says which one and why.
class Disbelieved : public ExplainedError {
 public:
  using ExplainedError::ExplainedError;
};

/// A description as it was read, which can be judged again and again. It does not change.
struct Claim {
  explicit Claim(Json::Value description);

  std::shared_ptr<const Json::Value> document;   ///< Of an unsigned one.
  std::optional<offer::SignedText> signed_text;  ///< Of a signed one: nothing else of it counts.
  std::optional<offer::Error> problem;           ///< Why it is neither.
  std::string digests;                           ///< Of text and signature.
  /// When the certificate of who claims to have signed begins, in seconds since 1970.
  std::int64_t signer_since = 0;
};

/// What is believed of a description.
struct Belief {
  /// The server's own document, or of a signed one what DocumentOf() makes of its signed text for
  /// this device at this moment: nothing else of it counts.
  std::shared_ptr<const Json::Value> document;
  /// Of a signed one.
  std::optional<offer::Acceptance> acceptance;
  std::map<std::string, OfferedVersion> databases;  ///< Where a newer signer has signed it.
  std::string revocations;  ///< Lists that it brings, for KeepRevocations().
};

/// Whether it claims to be signed, be it in no good form.
bool IsSigned(const Json::Value& description);

/// What is believed at this moment of a description, which is called by @p called where it is not
/// believed: its signature by the keyring and the clock, its place by what was accepted before (for
/// accounts that may not see that: by its signature and its time alone), and an unsigned one where
/// none that is signed is wanted. Changes nothing. Throws Disbelieved. Any thread may call it; what
/// was verified is remembered for a while, so that asking again costs little.
Belief Believe(const Claim& claim, const std::string& called);

/// Throws Disbelieved for one that is not signed, whatever the settings are: of the description
/// from a source that is trusted by signatures alone.
void RequireSigned(const Belief& belief, const std::string& called);

/// Remembers what was accepted with it, on the disk, the lists of what was revoked first. Before
/// the description takes the place of the cached one, and under the lock on that (fresh_info).
/// Throws as RememberAccepted() does.
void Remember(const Belief& belief);

/// Where trust.json was lost, what it would say of the cached description is remembered again.
/// Under the lock on that. Throws as RememberAccepted() does.
void RememberCached(const Claim& cached);

/// Whether the settings of the service demand signed descriptions.
bool IsSignedRequired();

/// The failure of the description that was refused last, or of the last one that no source has
/// given, where the message is about that: on its way through the library an error keeps its text
/// alone.
std::optional<Failure> RefusalIn(const std::string& message);
/// Throws what that finds again.
[[noreturn]] void ThrowRefusal(const std::string& text, dataupdate::UpdateError::ErrorCode code,
                               const Failure& failure);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_BELIEF_H_
