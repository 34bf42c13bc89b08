#include "publish/revocations.h"

#include <openssl/x509.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/openssl.h"
#include "package/revocations.h"
#include "publish/files.h"
#include "publish/list.h"
#include "publish/validity.h"

namespace tolm::publish {
namespace {

using package::Code;
using package::Error;
using package::IsIssuedBy;
using package::X509Ptr;

constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;  // what devices read

std::vector<X509Ptr> Authorities(const Settings& settings) {
  const std::string roots = settings.RootFile();
  auto all = package::ParseCertificates(ReadWholeFile(roots), roots);
  const std::string signer = settings.CertificateFile();
  auto chain = package::ParseCertificates(ReadWholeFile(signer), signer);
  all.insert(all.end(), std::make_move_iterator(chain.begin() + 1),
             std::make_move_iterator(chain.end()));
  return all;
}

// What is damaged has none.
std::vector<package::X509CrlPtr> ListsIn(const std::string& pem) {
  try {
    return package::ParseRevocations(pem, "lists");
  } catch (const Error&) {
    return {};
  }
}

std::vector<package::X509CrlPtr> InstalledLists(const std::string& file) {
  try {
    return ListsIn(package::ReadSmallFile(file, kMaxBytes, Code::kKeyring));
  } catch (const Error&) {
    return {};
  }
}

// Devices know one list of each authority and put nothing together.
void RequireWhole(const X509_CRL* list, const std::string& name) {
  const std::string problem = package::PartProblem(list);
  if (!problem.empty()) {
    throw Error(Code::kKeyring, name + ' ' + problem + "; give the whole one");
  }
}

RevocationList Describe(X509_CRL* list) {
  RevocationList described;
  described.issuer = package::NameText(X509_CRL_get_issuer(list));
  if (const ASN1_TIME* next = X509_CRL_get0_nextUpdate(list)) {
    described.next_due = package::SecondsOf(next);
  }
  const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(list);
  described.revoked =
      revoked == nullptr ? 0 : static_cast<std::size_t>(sk_X509_REVOKED_num(revoked));
  return described;
}

}  // namespace

Revocations LoadRevocations(const std::string& file, const Settings& settings, std::int64_t now) {
  const package::OpenSslErrorScope errors;
  Revocations revocations{file, package::ReadSmallFile(file, kMaxBytes, Code::kKeyring), {}};
  const std::vector<X509Ptr> authorities = Authorities(settings);
  for (const auto& list : package::ParseRevocations(revocations.pem, file)) {
    RevocationList described = Describe(list.get());
    const bool is_known = std::any_of(
        authorities.begin(), authorities.end(),
        [&](const X509Ptr& authority) { return IsIssuedBy(list.get(), authority.get()); });
    if (!is_known) {
      throw Error(Code::kKeyring, file + ": the list of " + described.issuer +
                                      " is not signed by the root " + settings.RootFile() +
                                      ", nor by an authority below it");
    }
    RequireWhole(list.get(), file + ": the list of " + described.issuer);
    const std::int64_t since = package::SecondsOf(X509_CRL_get0_lastUpdate(list.get()));
    if (since > package::VerificationTime(now)) {
      throw Error(Code::kKeyring, file + ": the list of " + described.issuer +
                                      " is not valid before " + TimeText(since) + " UTC");
    }
    revocations.lists.push_back(std::move(described));
  }
  return revocations;
}

void RequireNoneTakenBack(const Revocations& next, const std::string& installed_file,
                          const Settings& settings) {
  const package::OpenSslErrorScope errors;
  const auto lists = package::ParseRevocations(next.pem, next.file);
  const auto installed = InstalledLists(installed_file);
  for (const X509Ptr& authority : Authorities(settings)) {  // Two may have the same name.
    const X509_CRL* const newer = package::NewestOf(lists, authority.get());
    const X509_CRL* const older = package::NewestOf(installed, authority.get());
    if (older != nullptr && (newer == nullptr || package::IsOlder(newer, older))) {
      const std::string name = package::NameText(X509_CRL_get_issuer(older));
      throw Error(Code::kKeyring,
                  next.file + ": " +
                      (newer != nullptr ? "the list of " + name + " is older than the installed one"
                                        : "has no list of " + name + ", but one is installed") +
                      " (" + installed_file +
                      "), which would be taken back; nothing was installed. Remove that file to "
                      "have it so");
    }
  }
}

void RequireNoneOlder(const Revocations& next, const std::string& brought,
                      const Settings& settings) {
  const package::OpenSslErrorScope errors;
  const auto lists = package::ParseRevocations(next.pem, next.file);
  const auto former = ListsIn(brought);
  for (const X509Ptr& authority : Authorities(settings)) {
    const X509_CRL* const newer = package::NewestOf(lists, authority.get());
    const X509_CRL* const older = package::NewestOf(former, authority.get());
    if (newer != nullptr && older != nullptr && package::IsOlder(newer, older)) {
      throw Error(Code::kKeyring,
                  next.file + ": the list of " + package::NameText(X509_CRL_get_issuer(newer)) +
                      " is older than the one that the served description brings, and devices "
                      "refuse a description that brings an older one; give the newer list");
    }
  }
}

package::Trust TrustWith(const Settings& settings, const Revocations& revocations) {
  return package::Trust::FromTexts({ReadWholeFile(settings.RootFile()), revocations.pem});
}

std::string RevocationText(const RevocationList& list) {
  return "the list of " + list.issuer + " revokes " + std::to_string(list.revoked) +
         (list.revoked == 1 ? " certificate; " : " certificates; ") +
         (list.next_due ? "the next one is due by " + TimeText(*list.next_due) + " UTC"
                        : "it does not say when the next one is due");
}

std::vector<std::string> RevocationWarnings(const Revocations& revocations, std::int64_t now) {
  std::vector<std::string> warnings;
  for (const RevocationList& list : revocations.lists) {
    if (!list.next_due || DaysLeft(*list.next_due, now) >= kRevocationWarningDays) {
      continue;
    }
    const std::int64_t days = DaysLeft(*list.next_due, now);
    warnings.push_back(revocations.file + ": " + RevocationText(list) + ", " + DaysText(days) +
                       (days < 0 ? " ago: devices go on with it, but hear of nothing newer"
                                 : " from now: have another made, and install it"));
  }
  return warnings;
}

bool IsOverdue(const Revocations& revocations, std::int64_t now) {
  return std::any_of(
      revocations.lists.begin(), revocations.lists.end(),
      [now](const RevocationList& list) { return list.next_due && *list.next_due < now; });
}

}  // namespace tolm::publish
