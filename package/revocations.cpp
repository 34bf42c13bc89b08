#include "package/revocations.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>

namespace tolm::package {
namespace {

using NumberPtr = std::unique_ptr<ASN1_INTEGER, OpenSslDelete<ASN1_INTEGER_free>>;

NumberPtr NumberOf(const X509_CRL* list) {
  return NumberPtr(
      static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list, NID_crl_number, nullptr, nullptr)));
}

// Without the extension, for everything.
bool MayIssueLists(X509* authority) {
  return (X509_get_key_usage(authority) & KU_CRL_SIGN) != 0;
}

}  // namespace

bool IsIssuedBy(X509_CRL* list, X509* authority) {
  const OpenSslErrorScope errors;
  return X509_NAME_cmp(X509_CRL_get_issuer(list), X509_get_subject_name(authority)) == 0 &&
         MayIssueLists(authority) && X509_CRL_verify(list, X509_get0_pubkey(authority)) == 1;
}

bool IsOlder(const X509_CRL* list, const X509_CRL* other) {
  const OpenSslErrorScope errors;
  const NumberPtr number = NumberOf(list);
  const NumberPtr others_number = NumberOf(other);
  return (number && others_number && ASN1_INTEGER_cmp(number.get(), others_number.get()) < 0) ||
         ASN1_TIME_compare(X509_CRL_get0_lastUpdate(list), X509_CRL_get0_lastUpdate(other)) < 0;
}

X509_CRL* NewestOf(const std::vector<X509CrlPtr>& lists, X509* authority) {
  X509_CRL* newest = nullptr;
  for (const X509CrlPtr& list : lists) {
    if (IsIssuedBy(list.get(), authority) && (newest == nullptr || IsOlder(newest, list.get()))) {
      newest = list.get();
    }
  }
  return newest;
}

std::string PartProblem(const X509_CRL* list) {
  const OpenSslErrorScope errors;
  if (X509_CRL_get_ext_by_NID(list, NID_delta_crl, -1) >= 0) {
    return "is a delta list";
  }
  const int scope = X509_CRL_get_ext_by_NID(list, NID_issuing_distribution_point, -1);
  const bool is_limited =
      scope >= 0 && X509_EXTENSION_get_critical(X509_CRL_get_ext(list, scope)) != 0;
  return is_limited ? "is for some certificates only" : "";
}

std::vector<X509CrlPtr> WithoutOlder(std::vector<X509CrlPtr> lists,
                                     const std::vector<X509Ptr>& authorities) {
  for (const X509Ptr& authority : authorities) {
    const X509_CRL* const newest = NewestOf(lists, authority.get());
    const auto is_outdated = [&](const X509CrlPtr& list) {
      return list.get() != newest && IsIssuedBy(list.get(), authority.get());
    };
    lists.erase(std::remove_if(lists.begin(), lists.end(), is_outdated), lists.end());
  }
  return lists;
}

std::vector<X509CrlPtr> IssuedByAnyOf(std::vector<X509CrlPtr> lists,
                                      const std::vector<X509Ptr>& authorities) {
  const auto is_foreign = [&](const X509CrlPtr& list) {
    return std::none_of(authorities.begin(), authorities.end(), [&](const X509Ptr& authority) {
      return IsIssuedBy(list.get(), authority.get());
    });
  };
  lists.erase(std::remove_if(lists.begin(), lists.end(), is_foreign), lists.end());
  return lists;
}

std::string PemOf(const std::vector<X509CrlPtr>& lists) {
  const BioPtr text = Checked(BioPtr(BIO_new(BIO_s_mem())));
  for (const X509CrlPtr& list : lists) {
    CheckResult(PEM_write_bio_X509_CRL(text.get(), list.get()));
  }
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace tolm::package
