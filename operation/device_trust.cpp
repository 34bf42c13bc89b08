#include "operation/device_trust.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>
#include <vector>

#include "base/file.h"
#include "base/keyring_bounds.h"
#include "base/paths.h"
#include "base/rules.h"
#include "offer/error.h"
#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/openssl.h"
#include "package/revocations.h"

namespace tolm::operation {
namespace {

using offer::Code;
using package::Trust;
using package::X509CrlPtr;
using package::X509Ptr;

// Other accounts look at what is offered, too.
constexpr mode_t kForEverybody = 0644;

Trust OwnTrust() {
  return Trust::Load(KeyringFile(".pem"), KeyringFile(".crl.pem"), paths::kLearnedRevocations);
}

// What the device has, each text as it was read and judged.
struct Own {
  std::vector<X509Ptr> authorities;
  std::vector<X509CrlPtr> lists;
};

Own ReadOwn() {
  try {
    const package::TrustTexts texts = OwnTrust().Texts();
    Own own{package::ParseCertificates(texts.certificates, "keyring"), {}};
    if (!texts.revocations.empty()) {
      own.lists = package::ParseRevocations(texts.revocations, "revocations");
    }
    return own;
  } catch (const package::Error& error) {
    throw offer::Error(Code::kKeyring, error.what());
  }
}

std::vector<X509CrlPtr> ParseBrought(const std::string& pem) {
  try {
    return package::ParseRevocations(pem, "they");
  } catch (const package::Error&) {
    throw offer::Error(Code::kForm, "the revocation lists that it brings are damaged");
  }
}

std::string NameOf(const X509_CRL* list) {
  return "the revocation list of " + package::NameText(X509_CRL_get_issuer(list));
}

// Whether the device is to have it. What it has in its place stays: whoever replays an older list
// could as well bring none.
bool IsWanted(X509_CRL* list, const Own& own) {
  const auto has_issued = [&](const X509Ptr& authority) {
    return package::IsIssuedBy(list, authority.get());
  };
  const auto authority = std::find_if(own.authorities.begin(), own.authorities.end(), has_issued);
  if (authority == own.authorities.end()) {
    return false;
  }
  if (const std::string problem = package::PartProblem(list); !problem.empty()) {
    throw offer::Error(Code::kForm, NameOf(list) + " that it brings " + problem);
  }
  const X509_CRL* const present = package::NewestOf(own.lists, authority->get());
  return present == nullptr ||
         (!package::IsOlder(list, present) && X509_CRL_match(list, present) != 0);
}

// What was learned before, and what is new; of two lists of one authority the newer one.
std::string Merged(std::vector<X509CrlPtr> brought, const Own& own) {
  std::vector<X509CrlPtr> lists;
  if (std::filesystem::exists(paths::kLearnedRevocations)) {
    lists = package::ParseRevocations(
        package::ReadSmallFile(paths::kLearnedRevocations, rules::kRevocationBytes,
                               package::Code::kKeyring),
        paths::kLearnedRevocations);
  }
  // Where neither is older, the one that came last counts.
  std::move(lists.begin(), lists.end(), std::back_inserter(brought));
  return package::PemOf(package::WithoutOlder(
      package::IssuedByAnyOf(std::move(brought), own.authorities), own.authorities));
}

}  // namespace

std::string KeyringFile(const char* ending) {
  return paths::kKeyringDirectory + std::to_string(rules::kPackageKeyType) + ending;
}

Trust DeviceTrust(const std::string& further_revocations) {
  Trust own = OwnTrust();
  if (further_revocations.empty()) {
    return own;
  }
  package::TrustTexts texts = own.Texts();
  texts.revocations += further_revocations;
  return Trust::FromTexts(texts);
}

std::string JudgeRevocations(const std::string& pem) {
  if (pem.empty()) {
    return "";
  }
  const Own own = ReadOwn();
  std::vector<X509CrlPtr> brought = ParseBrought(pem);
  brought.erase(std::remove_if(brought.begin(), brought.end(),
                               [&](const X509CrlPtr& list) { return !IsWanted(list.get(), own); }),
                brought.end());
  std::string merged = brought.empty() ? "" : Merged(std::move(brought), own);
  if (merged.size() > rules::kRevocationBytes) {
    throw offer::Error(Code::kForm, "the revocation lists that it brings are too long");
  }
  return merged;
}

void KeepRevocations(const std::string& judged) {
  if (judged.empty()) {
    return;
  }
  std::filesystem::create_directories(
      std::filesystem::path(paths::kLearnedRevocations).parent_path());
  base::Replacement replacement(paths::kLearnedRevocations);
  replacement.Write(judged, kForEverybody);
  replacement.PutInPlace();
}

}  // namespace tolm::operation
