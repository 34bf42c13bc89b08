#include "operation/belief.h"

#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

#include "base/digest.h"
#include "base/human_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/installed_record.h"
#include "operation/rollout.h"
#include "operation/server_config.h"
#include "operation/settings_reader.h"
#include "operation/sources.h"
#include "package/error.h"
#include "package/trust.h"

namespace tolm::operation {
namespace {

using dataupdate::UpdateError;

// An offer whose signature was verified.
using VerifiedPtr = std::shared_ptr<const offer::VerifiedOffer>;

constexpr char kLogSource[] = "belief";
// So long a signature that was verified counts as that, if the keyring stays as it is.
constexpr std::int64_t kRememberedSeconds = 60;

// ---- Why one is refused ----

const char* ReasonOf(offer::Code code) {
  switch (code) {
    case offer::Code::kForm:
      return reasons::kDescriptionDamaged;
    case offer::Code::kNotSigned:
      return reasons::kDescriptionNotSigned;
    case offer::Code::kSignature:
    case offer::Code::kNotTrusted:
    case offer::Code::kWrongUsage:
      return reasons::kDescriptionNotTrusted;
    case offer::Code::kSignerNotValid:
      return reasons::kDescriptionSignerNotValid;
    case offer::Code::kKeyring:
      return reasons::kNoKeyring;
    case offer::Code::kOtherRepository:
    case offer::Code::kOtherForm:
      return reasons::kDescriptionForAnother;
    case offer::Code::kOlderSigner:
    case offer::Code::kOlder:
      return reasons::kDescriptionOlder;
    case offer::Code::kAltered:
      return reasons::kDescriptionAltered;
    case offer::Code::kExpired:
      return reasons::kDescriptionExpired;
    case offer::Code::kInternal:
      break;
  }
  return reasons::kOther;
}

// Of what does not come from the configured server.
std::string RemedyElsewhere(offer::Code code) {
  switch (code) {
    case offer::Code::kNotSigned:
      return "the publisher has to sign descriptions (\"tolmdbpub upgrade\")";
    case offer::Code::kExpired:
    case offer::Code::kOlder:
    case offer::Code::kOlderSigner:
      return "bring it up to date with the publisher's tree";
    default:
      return "";
  }
}

bool IsFromElsewhere() {
  return AskedSource() && AskedSource()->kind != Source::Kind::kServer;
}

std::string RemedyOf(offer::Code code) {
  if (const std::string remedy = IsFromElsewhere() ? RemedyElsewhere(code) : ""; !remedy.empty()) {
    return remedy;
  }
  switch (code) {
    case offer::Code::kSignerNotValid:
      return "is this machine's clock right? It says " + base::UtcMinutes(std::time(nullptr)) +
             " UTC";
    case offer::Code::kNotSigned:
      return IsSignedRequired() ? ""
                                : "if the publisher has given up signing, \"tolmdbud trust reset\" "
                                  "lets unsigned ones in again";
    case offer::Code::kOtherForm:
      return std::string("is db_ver in ") + paths::kServiceDefaults + " right?";
    case offer::Code::kOtherRepository:
      return "\"tolmdbud trust reset\" lets this device follow another one";
    case offer::Code::kExpired:
    case offer::Code::kOlder:
    case offer::Code::kOlderSigner:
      return "ask who runs the server: a mirror may be behind";
    default:
      return "";
  }
}

struct LastRefusal {
  std::mutex mutex;
  std::string text;
  Failure failure;
};
LastRefusal& Last() {
  static LastRefusal last;
  return last;
}

void KeepAsLast(const std::string& text, const Failure& failure) {
  const std::lock_guard<std::mutex> lock(Last().mutex);
  Last().text = text;
  Last().failure = failure;
}

[[noreturn]] void Refuse(const std::string& called, const offer::Error& error) {
  const std::string text = called + " is refused: " + error.what();
  const Failure failure{ReasonOf(error.code()), text, RemedyOf(error.code())};
  KeepAsLast(text, failure);
  throw Disbelieved(text, UpdateError::kGeneral, failure);
}

// ---- What is verified ----

package::Trust Keyring(const std::string& further_revocations = "") {
  try {
    return DeviceTrust(further_revocations);
  } catch (const package::Error& error) {
    throw offer::Error(offer::Code::kKeyring, error.what());
  }
}

// Another one for every change of the file.
std::string StampOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return "-";
  }
  return std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size) + ' ' +
         std::to_string(status.st_ctim.tv_sec) + ' ' + std::to_string(status.st_ctim.tv_nsec);
}

std::string DigestOf(const std::string& text) {
  base::Sha384 digest;
  digest.Add(text.data(), text.size());
  return digest.Hex();
}

std::string KeyOf(const Claim& claim, std::int64_t at) {
  return claim.digests + StampOf(KeyringFile(".pem")) + '/' + StampOf(KeyringFile(".crl.pem")) +
         '/' + StampOf(paths::kLearnedRevocations) + '/' + std::to_string(at / kRememberedSeconds);
}

// Of a signed one.
VerifiedPtr Verified(const Claim& claim, const offer::Accepted& accepted) {
  static std::mutex mutex;
  static std::string known_key;
  static VerifiedPtr known;
  const std::int64_t at = offer::TimeFor(claim.signer_since, accepted, std::time(nullptr));
  const std::string key = KeyOf(claim, at);
  const std::lock_guard<std::mutex> lock(mutex);
  if (key != known_key) {
    known =
        std::make_shared<offer::VerifiedOffer>(offer::Verify(*claim.signed_text, Keyring(), at));
    known_key = key;
  }
  return known;
}

// What it offers this device at this moment. It is made anew when a plan has reached the device,
// or an operation has installed something.
std::shared_ptr<const Json::Value> DocumentFor(const VerifiedPtr& verified,
                                               const Rollouts& rollouts) {
  static std::mutex mutex;
  static VerifiedPtr known_verified;
  static Rollouts known_rollouts;
  static std::shared_ptr<const Json::Value> known;
  const std::lock_guard<std::mutex> lock(mutex);
  if (verified != known_verified || rollouts != known_rollouts) {
    known = std::make_shared<Json::Value>(DocumentOf(verified->offer, rollouts));
    known_verified = verified;
    known_rollouts = rollouts;
  }
  return known;
}

// ---- What is accepted ----

std::string InfoVersion() {
  return ServerConfig().GetDBInfoVersion();
}

void RequireUnsignedAllowed(const SignedState& state) {
  if (state.is_wanted) {
    throw offer::Error(offer::Code::kNotSigned,
                       "it is not signed, and this device has had a signed one");
  }
  if (IsSignedRequired()) {
    throw offer::Error(offer::Code::kNotSigned,
                       "it is not signed, and require_signed_description is set");
  }
}

std::map<std::string, OfferedVersion> VersionsOf(const offer::Offer& offer,
                                                 const Rollouts& rollouts) {
  std::map<std::string, OfferedVersion> versions;
  for (const auto& [name, database] : offer.databases) {
    const auto rollout = rollouts.find(name);
    const int offered =
        rollout == rollouts.end() ? database.version : OfferedVersionOf(rollout->second);
    versions[name] = {offered, InstalledVersionOf(name)};
  }
  return versions;
}

// They count for who has signed the description, too.
std::string RevocationsOf(const Claim& claim, const offer::Offer& offer,
                          const offer::Accepted& accepted) {
  std::string judged = JudgeRevocations(offer.revocations);
  if (!judged.empty()) {
    const std::int64_t at = offer::TimeFor(claim.signer_since, accepted, std::time(nullptr));
    offer::Verify(*claim.signed_text, Keyring(judged), at);
  }
  return judged;
}

Belief BeliefIn(const Claim& claim, const SignedState& state) {
  if (claim.problem) {
    throw offer::Error(*claim.problem);
  }
  if (!claim.signed_text) {
    RequireUnsignedAllowed(state);
    return {claim.document, std::nullopt, {}, ""};
  }
  const VerifiedPtr verified = Verified(claim, state.accepted);
  const offer::Offer& offer = verified->offer;
  const std::int64_t now = std::time(nullptr);
  Belief belief;
  belief.revocations = RevocationsOf(claim, offer, state.accepted);
  belief.acceptance = offer::Judge(*verified, state.accepted, InfoVersion(), now);
  const Rollouts rollouts = RolloutsOf(offer, offer::TimeOf(belief.acceptance->accepted, now));
  if (belief.acceptance->is_newer_epoch) {
    belief.databases = VersionsOf(offer, rollouts);
  }
  belief.document = DocumentFor(verified, rollouts);
  return belief;
}

}  // namespace

bool IsSigned(const Json::Value& description) {
  return description.isObject() && (description.isMember(offer::kSignedMember) ||
                                    description.isMember(offer::kSignatureMember));
}

Claim::Claim(Json::Value description) {
  try {
    signed_text = offer::SignedTextIn(description);
    signer_since = signed_text ? offer::SignerOf(*signed_text).not_before : 0;
  } catch (const offer::Error& error) {
    problem = error;
    return;
  }
  if (signed_text) {
    digests = DigestOf(signed_text->text) + DigestOf(signed_text->signature);
  } else {
    document = std::make_shared<Json::Value>(std::move(description));
  }
}

Belief Believe(const Claim& claim, const std::string& called) {
  try {
    return BeliefIn(claim, SignedStateToJudgeBy());
  } catch (const offer::Error& error) {
    Refuse(called, error);
  }
}

void RequireSigned(const Belief& belief, const std::string& called) {
  if (!belief.acceptance) {
    Refuse(called, {offer::Code::kNotSigned,
                    "it is not signed, and what comes from there is trusted by signatures alone"});
  }
}

void Remember(const Belief& belief) {
  KeepRevocations(belief.revocations);
  if (!belief.acceptance || !belief.acceptance->is_new) {
    return;
  }
  const offer::Accepted& accepted = belief.acceptance->accepted;
  RememberAccepted(*belief.acceptance, belief.databases);
  syslog(LOG_NOTICE, "%s:%d accepted the description of %s UTC, number %llu of repository %s",
         TOLM_LOG_HERE, base::UtcMinutes(accepted.issued).c_str(),
         static_cast<unsigned long long>(accepted.counter), accepted.repository.c_str());
}

void RememberCached(const Claim& cached) {
  if (!cached.signed_text || !ReadSignedState().accepted.repository.empty()) {
    return;
  }
  try {
    const VerifiedPtr verified = Verified(cached, {});
    const offer::Offer& offer = verified->offer;
    // However long its time has been over.
    offer::Acceptance acceptance;
    acceptance.accepted = {offer.repository, verified->signer.not_before,
                           offer.counter,    verified->digest,
                           offer.issued,     offer.expires};
    acceptance.is_new = true;
    Remember({nullptr, acceptance, {}, ""});
  } catch (const offer::Error&) {
    // It was never accepted here.
  }
}

bool IsSignedRequired() {
  const std::shared_ptr<dataupdate::Config> settings = NewSettings();
  settings->Init(paths::kServiceDefaults, paths::kServiceOverrides);
  try {
    return settings->GetAsBool("config", "require_signed_description");
  } catch (const UpdateError& error) {
    // It is not set. What cannot be read as true or false is no permission.
    return error.code() != UpdateError::kFileNotExist &&
           std::string(error.what()).find(" not found") == std::string::npos;
  }
}

void ThrowRefusal(const std::string& text, UpdateError::ErrorCode code, const Failure& failure) {
  KeepAsLast(text, failure);
  throw ExplainedError(text, code, failure);
}

std::optional<Failure> RefusalIn(const std::string& message) {
  const std::lock_guard<std::mutex> lock(Last().mutex);
  const bool is_about_it = !Last().text.empty() && message.find(Last().text) != std::string::npos;
  return is_about_it ? std::make_optional(Last().failure) : std::nullopt;
}

}  // namespace tolm::operation
