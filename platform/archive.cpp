#include "tolm/archive.h"

#include <fcntl.h>
#include <syslog.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "base/descriptor.h"
#include "base/paths.h"
#include "base/utf8.h"
#include "package/cancellation.h"
#include "package/error.h"
#include "package/package.h"
#include "package/trust.h"
#include "platform/error.h"

namespace {

using tolm::base::Descriptor;
using tolm::package::Code;
using tolm::package::Error;
using tolm::package::Package;
using tolm::package::Trust;

struct State {
  Descriptor destination;
  std::string path;
  std::string verdict;             // on the signer, where that is why the last call failed
  std::string detail;              // why the last call failed, for people
  bool opened = false;             // whether open was called, successfully or not
  std::optional<Package> package;  // present once verified
};

}  // namespace

struct tolmarchive {
  std::uint32_t reserved[2];
  std::uint32_t last_error;
  State* state;
};
static_assert(std::is_standard_layout_v<tolmarchive>);
static_assert(offsetof(tolmarchive, last_error) == 8, "callers read the third 32-bit word");

namespace {

tolmarchive_error NumberOf(Code code) {
  switch (code) {
    case Code::kInternal:
      return TOLMARCHIVE_E_INTERNAL;
    case Code::kArgument:
      return TOLMARCHIVE_E_ARGUMENT;
    case Code::kOpen:
      return TOLMARCHIVE_E_OPEN;
    case Code::kRead:
      return TOLMARCHIVE_E_READ;
    case Code::kNotAPackage:
      return TOLMARCHIVE_E_NOT_A_PACKAGE;
    case Code::kSignatureSize:
      return TOLMARCHIVE_E_SIGNATURE_SIZE;
    case Code::kChanged:
      return TOLMARCHIVE_E_CHANGED;
    case Code::kKeyring:
      return TOLMARCHIVE_E_KEYRING;
    case Code::kSignatureForm:
      return TOLMARCHIVE_E_SIGNATURE_FORM;
    case Code::kEmbeddedContent:
      return TOLMARCHIVE_E_EMBEDDED_CONTENT;
    case Code::kNoSigner:
      return TOLMARCHIVE_E_NO_SIGNER;
    case Code::kWeakDigest:
      return TOLMARCHIVE_E_WEAK_DIGEST;
    case Code::kWrongUsage:
      return TOLMARCHIVE_E_WRONG_USAGE;
    case Code::kUntrusted:
      return TOLMARCHIVE_E_UNTRUSTED;
    case Code::kExpired:
      return TOLMARCHIVE_E_EXPIRED;
    case Code::kNotYetValid:
      return TOLMARCHIVE_E_NOT_YET_VALID;
    case Code::kRevoked:
      return TOLMARCHIVE_E_REVOKED;
    case Code::kBadSignature:
      return TOLMARCHIVE_E_BAD_SIGNATURE;
    case Code::kPayload:
      return TOLMARCHIVE_E_PAYLOAD;
    case Code::kNoSeal:
      return TOLMARCHIVE_E_NO_SEAL;
    case Code::kBadSeal:
      return TOLMARCHIVE_E_BAD_SEAL;
    case Code::kWrongName:
      return TOLMARCHIVE_E_WRONG_NAME;
    case Code::kWrongKind:
      return TOLMARCHIVE_E_WRONG_KIND;
    case Code::kWrongVersion:
      return TOLMARCHIVE_E_WRONG_VERSION;
    case Code::kNoMembers:
      return TOLMARCHIVE_E_NO_MEMBERS;
    case Code::kMemberMissing:
      return TOLMARCHIVE_E_NO_MEMBER;
    case Code::kMemberType:
      return TOLMARCHIVE_E_MEMBER_TYPE;
    case Code::kMemberPath:
      return TOLMARCHIVE_E_MEMBER_PATH;
    case Code::kHardLink:
      return TOLMARCHIVE_E_HARD_LINK;
    case Code::kThroughLink:
      return TOLMARCHIVE_E_THROUGH_LINK;
    case Code::kInTheWay:
      return TOLMARCHIVE_E_IN_THE_WAY;
    case Code::kNoSpace:
      return TOLMARCHIVE_E_NO_SPACE;
    case Code::kWrite:
      return TOLMARCHIVE_E_WRITE;
    case Code::kOutOfScope:
      return TOLMARCHIVE_E_OUT_OF_SCOPE;
  }
  return TOLMARCHIVE_E_INTERNAL;
}

// The caller shows only the number; the words go to the system log.
int Fail(tolmarchive* handle, tolmarchive_error number, int errno_value,
         const char* reason) noexcept {
  handle->last_error = number;
  if (errno_value != 0) {
    tolm::platform::SetLastError(errno_value);
  }
  try {
    State& state = *handle->state;
    state.detail = tolm::base::EscapeControls(state.verdict.empty() ? reason : state.verdict);
    syslog(LOG_ERR, "tolmarchive: %s: %s (error %d)",
           tolm::base::EscapeControls(state.path).c_str(),
           tolm::base::EscapeControls(reason).c_str(), static_cast<int>(number));
  } catch (const std::bad_alloc&) {
    syslog(LOG_ERR, "tolmarchive: out of memory (error %d)", static_cast<int>(number));
  }
  return 0;
}

// Runs `action` so that no exception leaves the C interface.
template <typename Action>
int Guarded(tolmarchive* handle, Action action) noexcept {
  handle->state->verdict.clear();
  handle->state->detail.clear();
  try {
    action();
    handle->last_error = TOLMARCHIVE_E_NONE;
    return 1;
  } catch (const Error& error) {
    return Fail(handle, NumberOf(error.code()), error.errno_value(), error.what());
  } catch (const std::bad_alloc&) {
    return Fail(handle, TOLMARCHIVE_E_MEMORY, ENOMEM, "out of memory");
  } catch (const std::exception& error) {
    return Fail(handle, TOLMARCHIVE_E_INTERNAL, 0, error.what());
  }
}

constexpr char kOfCertificates[] = ".pem";
constexpr char kOfRevocations[] = ".crl.pem";

// Which file revokes the signer.
std::string RevokingFile(const Package& package, const std::string& keyring) {
  try {
    package.CheckSigner(Trust::Load(keyring + kOfCertificates, keyring + kOfRevocations),
                        std::time(nullptr));
    return tolm::paths::kLearnedRevocations;
  } catch (const Error&) {
    return keyring + kOfRevocations;
  }
}

// What the reason means for whoever reads it together with the signer's name; empty where the
// signer is not the reason.
std::string Verdict(Code code, const Package& package, const tolm::package::SignerDetails& signer,
                    const std::string& keyring) {
  switch (code) {
    case Code::kUntrusted:
      return "which " + keyring + kOfCertificates + " does not trust";
    case Code::kExpired:
      return "valid until " + signer.not_after + ": it, or an authority above it, has expired";
    case Code::kNotYetValid:
      return "valid from " + signer.not_before + ": it, or an authority above it, is not valid yet";
    case Code::kRevoked:
      return "which " + RevokingFile(package, keyring) + " has revoked, or an authority above it";
    case Code::kWrongUsage:
      return "whose certificate is not for signing packages";
    case Code::kWeakDigest:
      return "with a certificate or a digest that is too weak";
    case Code::kBadSignature:
      return "who has signed another content than this one";
    default:
      return "";
  }
}

std::string SignerVerdict(const Package& package, const Error& error, const std::string& keyring) {
  const Code code = error.code();
  try {
    const tolm::package::SignerDetails signer = package.ReadSigner();
    const std::string verdict = code == Code::kOutOfScope ? std::string("and ") + error.what()
                                                          : Verdict(code, package, signer, keyring);
    return verdict.empty() ? "" : "signed by \"" + signer.subject + "\", " + verdict;
  } catch (const Error&) {
    return "";  // Nobody has signed it.
  }
}

void Verify(State& state, const Package& package, const std::string& keyring) {
  const Trust trust = Trust::Load(keyring + kOfCertificates, keyring + kOfRevocations,
                                  tolm::paths::kLearnedRevocations);
  try {
    package.Verify(trust, std::time(nullptr));
  } catch (const Error& error) {
    state.verdict = SignerVerdict(package, error, keyring);
    throw;
  }
}

void Open(State& state, const char* path, int key_type) {
  if (path == nullptr || state.opened) {
    throw Error(Code::kArgument, path == nullptr ? "no package given" : "opened twice");
  }
  state.opened = true;
  state.path = path;
  Package package(path);
  const std::string keyring = tolm::paths::kKeyringDirectory + std::to_string(key_type);
  Verify(state, package, keyring);
  package.CheckName();
  state.package = std::move(package);
}

void Extract(const State& state, const char* const* members) {
  if (!state.package) {
    throw Error(Code::kArgument, "not open");
  }
  if (members == nullptr) {
    state.package->Extract(state.destination.Get(), nullptr, [&](const std::string& text) {
      syslog(LOG_WARNING, "tolmarchive: %s: %s", tolm::base::EscapeControls(state.path).c_str(),
             tolm::base::EscapeControls(text).c_str());
    });
    return;
  }
  std::vector<std::string> names;
  for (; *members != nullptr; ++members) {
    names.emplace_back(*members);
  }
  state.package->Extract(state.destination.Get(), &names);
}

}  // namespace

tolmarchive* tolmarchive_init(const char* destination) {
  if (destination == nullptr) {
    tolm::platform::SetLastError(EINVAL);
    return nullptr;
  }
  Descriptor directory(::open(destination, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen()) {
    tolm::platform::SetLastError(errno);
    return nullptr;
  }
  try {
    auto state = std::make_unique<State>();
    state->destination = std::move(directory);
    auto handle = std::make_unique<tolmarchive>();
    handle->state = state.release();
    return handle.release();
  } catch (const std::bad_alloc&) {
    tolm::platform::SetLastError(ENOMEM);
    return nullptr;
  }
}

int tolmarchive_open_with_keytype(tolmarchive* handle, const char* package, int key_type) {
  if (handle == nullptr) {
    tolm::platform::SetLastError(EINVAL);
    return 0;
  }
  return Guarded(handle, [&] { Open(*handle->state, package, key_type); });
}

int tolmarchive_extract_multiple(tolmarchive* handle, const char* const* members, int) {
  if (handle == nullptr) {
    tolm::platform::SetLastError(EINVAL);
    return 0;
  }
  return Guarded(handle, [&] { Extract(*handle->state, members); });
}

void tolmarchive_cancel(int cancelled) {
  tolm::package::CancelReading(cancelled != 0);
}

const char* tolmarchive_error_detail(const tolmarchive* handle) {
  return handle == nullptr ? "" : handle->state->detail.c_str();
}

void tolmarchive_free(tolmarchive* handle) {
  if (handle != nullptr) {
    delete handle->state;
    delete handle;
  }
}
